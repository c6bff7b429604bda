#ifndef TRELLIS_COPY_COMMANDLINE_H
#define TRELLIS_COPY_COMMANDLINE_H

#include <QString>
#include <QStringList>

/*!
    The arguments of trellis-copy, parsed and checked against the file system.

    After construction outcome() says what the program does: copy, print the
    help or the version, or stop with a usage error, whose text error() gives.
    Only when it is Copy do the other accessors hold the request.
*/
class CommandLine
{
public:
    enum Outcome { Copy, ShowHelp, ShowVersion, UsageError };
    //! What is done where a destination exists; Newer and Different compare the two files.
    enum ConflictRule { Ask, Overwrite, Skip, Newer, Different };
    enum Verbosity { Quiet, Normal, Verbose };

    /*!
        Parses \a arguments (the program name first) and checks them: at
        least one SOURCE and a non-empty DEST, every SOURCE an existing file
        or directory (no FIFO, socket or device), DEST not an existing
        non-directory unless it is the new name of a single file, not inside
        a SOURCE, not the directory a SOURCE lies in, and free of place
        markers (a '%' and a digit), which the copy would replace by names.
    */
    explicit CommandLine(const QStringList &arguments);

    Outcome outcome() const { return m_outcome; }
    QString error() const { return m_error; }

    //! The full help: usage, options, answers and exit codes.
    QString helpText() const { return m_helpText; }

    //! The sources as absolute, cleaned paths, without repeats, in the given order.
    QStringList sources() const { return m_sources; }
    //! DEST as an absolute, cleaned path.
    QString destination() const { return m_destination; }
    //! Whether DEST is the name of the copy of the single file SOURCE, as with cp.
    bool destinationIsFileName() const { return m_destinationIsFileName; }
    //! The split depth of --depth; -1 when not given.
    int depth() const { return m_depth; }
    ConflictRule conflictRule() const { return m_rule; }
    Verbosity verbosity() const { return m_verbosity; }
    bool dryRun() const { return m_dryRun; }
    bool keepPartial() const { return m_keepPartial; }
    //! Whether copies keep the library's permissions and time stamps.
    bool libraryMode() const { return m_libraryMode; }

private:
    bool ParseRule(const QString &value);
    bool Check();

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
