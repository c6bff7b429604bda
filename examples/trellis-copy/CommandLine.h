#ifndef TRELLIS_COPY_COMMANDLINE_H
#define TRELLIS_COPY_COMMANDLINE_H

#include <Trellis/TFileCopyTask.h>

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

    /*!
        Parses \a arguments (the program name first) and checks them: at
        least one SOURCE and a DEST, every SOURCE existing, DEST not an
        existing non-directory, not inside a SOURCE, not the directory a
        SOURCE already lies in, and free of place markers (a '%' and a
        digit), which the copy would replace by entry names.
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
    //! The split depth of --depth; -1 when not given.
    int depth() const { return m_depth; }
    //! The preset of --on-conflict: Ask, OverwriteAll or SkipAll.
    TFileCopyTask::EFileExistsAction conflictAction() const { return m_action; }

private:
    bool Check();

    Outcome m_outcome = UsageError;
    QString m_error;
    QString m_helpText;
    QStringList m_sources;
    QString m_destination;
    int m_depth = -1;
    TFileCopyTask::EFileExistsAction m_action = TFileCopyTask::Ask;
};

#endif // TRELLIS_COPY_COMMANDLINE_H
