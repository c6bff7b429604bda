#ifndef TRELLIS_COPY_COMMANDLINE_H
#define TRELLIS_COPY_COMMANDLINE_H

#include <QStringList>

/*!
    The arguments of trellis-copy, parsed and checked against the file
    system. outcome() says what the program does; only for Copy do the
    other accessors hold the request, its paths absolute and clean.
*/
class CommandLine
{
public:
    enum Outcome { Copy, ShowHelp, ShowVersion, UsageError };
    //! What is done where a destination exists.
    enum ConflictRule { Ask, Overwrite, Skip, Newer, Different };
    enum Verbosity { Quiet, Normal, Verbose };

    //! Parses \a arguments, the program name first.
    explicit CommandLine(const QStringList &arguments);

    Outcome outcome() const { return m_outcome; }
    QString error() const { return m_error; }
    QString helpText() const { return m_helpText; }
    QStringList sources() const { return m_sources; }
    QString destination() const { return m_destination; }
    //! Whether DEST is the name of the copy of the single file SOURCE, as with cp.
    bool destinationIsFileName() const { return m_destinationIsFileName; }
    int depth() const { return m_depth; }
    ConflictRule conflictRule() const { return m_rule; }
    Verbosity verbosity() const { return m_verbosity; }
    bool dryRun() const { return m_dryRun; }
    bool keepPartial() const { return m_keepPartial; }
    //! Whether copies keep the library's permissions and time stamps.
    bool libraryMode() const { return m_libraryMode; }

private:
    QString WhyNotCopied() const;

    Outcome m_outcome = UsageError;
    QString m_error;
    QString m_helpText;
    QStringList m_sources;
    QString m_destination;
    bool m_destinationIsFileName = false;
    int m_depth = -1;
    ConflictRule m_rule = Ask;
    Verbosity m_verbosity = Normal;
    bool m_dryRun = false;
    bool m_keepPartial = false;
    bool m_libraryMode = false;
};

#endif // TRELLIS_COPY_COMMANDLINE_H
