#ifndef TRELLIS_COPY_COMMANDLINE_H
#define TRELLIS_COPY_COMMANDLINE_H

#include <QStringList>

//! The arguments, parsed and checked against the file system; paths are absolute and clean.
class CommandLine
{
public:
    enum Outcome { Copy, ShowText, UsageError };
    //! What is done where a destination exists.
    enum ConflictRule { Ask, Overwrite, Skip, Newer, Different };
    enum Verbosity { Quiet, Normal, Verbose };

    //! Parses \a arguments, the program name first.
    explicit CommandLine(const QStringList &arguments);

    Outcome outcome = UsageError;
    QString text; // the help or version to show, or what is wrong
    QStringList sources;
    QString destination;
    //! Whether DEST is the name of the copy of the single file SOURCE, as with cp.
    bool destinationIsFileName = false;
    int depth = -1;
    ConflictRule conflictRule = Ask;
    Verbosity verbosity = Normal;
    bool dryRun = false;
    bool keepPartial = false;
    //! Whether copies keep the library's permissions and time stamps.
    bool libraryMode = false;

private:
    QString WhyNotCopied() const;
};

#endif // TRELLIS_COPY_COMMANDLINE_H
