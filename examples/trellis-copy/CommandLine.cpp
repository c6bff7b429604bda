#include "CommandLine.h"

#include "CopyBatch.h"
#include "SourceSplitter.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace {

const char *const Description = "Copies files and directory trees into DEST, asking what to do\n"
                                "where a destination exists, with a live progress line.";

const char *const Details = R"(
Where things land:
  Each SOURCE lands under DEST with its own name: a/b.txt goes to DEST/b.txt
  and the directory a/src (or a/src/) to DEST/src. DEST is created, with its
  parents, when it does not exist. DEST must not lie inside a SOURCE, nor be
  the directory a SOURCE is in, nor hold a '%' followed by a digit.
  Sources in different parent directories are copied in successive batches,
  one per parent directory, in the order their first source was given.
  Hidden entries inside directories are not copied; a hidden SOURCE named on
  the command line is. Symbolic links are followed. A final three-letter
  extension is written in lower case: Photo.JPG is copied as Photo.jpg, and
  an existing Photo.jpg counts as its destination.

Work items and conflicts:
  The copy is split into work items: --depth N splits every source directory
  N levels down. With the default -1 every file and every empty directory is
  an item of its own; with 0 each SOURCE is one item, so a directory whose
  destination exists is asked about once, and overwrite then replaces every
  file it holds that exists at the destination. A directory item conflicts
  only when its destination directory exists.

Answers where a destination exists (a word or its first letter, then Enter):
  o, overwrite        copy this item over its destination
  a, all              overwrite all: this and every later conflict, also in
                      later batches ("overwrite all" and "overwrite-all" too)
  s, skip             leave this item uncopied
  n, none             skip all: this and every later conflict, also in later
                      batches ("skip all" and "skip-all" too)
  r, rename           copy this item under another destination prefix, which
                      replaces DEST for this item only: the item goes to
                      PREFIX/<its path below the source's parent>; %1 in
                      PREFIX stands for the item's base name (its name without
                      the last extension), e.g. /backup/%1-old. When that
                      destination exists too, the question comes again.
  q, quit             stop here (exit code 1)
  End of input (Ctrl-D) quits as well.

When an entry cannot be copied:
  The item is reported with its path and the rest of it is left. On a
  terminal the answer is c, continue (go on with the next item) or q, quit.
  Without a terminal on standard input the copy goes on and ends with exit
  code 1.

Without a terminal on standard input, conflicts cannot be asked about: with
--on-conflict=ask the first one is reported with its path and the program
ends with exit code 1, leaving the rest uncopied.

Progress goes to standard output: on a terminal a line redrawn in place
(percentage of the current batch, entries copied and skipped, the current
entry); otherwise a plain line at most once a second. A summary (copied,
skipped, failed, time) ends every run. Questions and errors go to standard
error.

Ctrl-C stops the copy within a moment, leaving the file being copied
incomplete, prints the summary and exits with 130; a second Ctrl-C ends the
program at once.

Exit codes:
  0    everything was copied (or skipped by an answer or --on-conflict)
  1    something was not copied: an entry failed, the user quit, or a
       conflict could not be asked about
  2    usage error: unknown option, bad option value, fewer than two paths,
       a missing SOURCE, or an unusable DEST
  130  interrupted by Ctrl-C (SIGINT)
)";

QString AbsoluteCleanPath(const QString &path)
{
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

// The canonical form of a path that may not exist yet: its nearest existing
// ancestor resolved, the rest appended.
QString CanonicalPathOf(const QString &absolutePath)
{
    QString existing = absolutePath;
    QString rest;
    while (!QFileInfo::exists(existing)) {
        const int slash = existing.lastIndexOf(QLatin1Char('/'));
        rest.prepend(existing.mid(slash));
        existing = slash > 0 ? existing.left(slash) : QStringLiteral("/");
    }
    return QDir::cleanPath(QFileInfo(existing).canonicalFilePath() + rest);
}

} // namespace

CommandLine::CommandLine(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(Description));
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    const QCommandLineOption conflictOption(
            QStringLiteral("on-conflict"),
            QStringLiteral("What to do where a destination exists: ask (the default),"
                           " overwrite or skip."),
            QStringLiteral("ask|overwrite|skip"), QStringLiteral("ask"));
    const QCommandLineOption depthOption(
            QStringLiteral("depth"),
            QStringLiteral("Split each source directory into work items <N> levels down;"
                           " negative: down to single files (the default, -1)."),
            QStringLiteral("N"), QStringLiteral("-1"));
    parser.addOption(conflictOption);
    parser.addOption(depthOption);
    parser.addPositionalArgument(QStringLiteral("SOURCE"),
                                 QStringLiteral("Files and directories to copy."),
                                 QStringLiteral("SOURCE..."));
    parser.addPositionalArgument(QStringLiteral("DEST"),
                                 QStringLiteral("The directory they are copied into."));
    m_helpText = parser.helpText() + QLatin1String(Details);

    if (!parser.parse(arguments)) {
        m_error = parser.errorText();
        return;
    }
    if (parser.isSet(helpOption)) {
        m_outcome = ShowHelp;
        return;
    }
    if (parser.isSet(versionOption)) {
        m_outcome = ShowVersion;
        return;
    }

    bool depthIsNumber = false;
    m_depth = parser.value(depthOption).toInt(&depthIsNumber);
    if (!depthIsNumber) {
        m_error = QStringLiteral("--depth takes a whole number, not \"%1\"")
                          .arg(parser.value(depthOption));
        return;
    }
    const QString conflict = parser.value(conflictOption);
    if (conflict == QLatin1String("ask")) {
        m_action = TFileCopyTask::Ask;
    } else if (conflict == QLatin1String("overwrite")) {
        m_action = TFileCopyTask::OverwriteAll;
    } else if (conflict == QLatin1String("skip")) {
        m_action = TFileCopyTask::SkipAll;
    } else {
        m_error = QStringLiteral("--on-conflict takes ask, overwrite or skip, not \"%1\"")
                          .arg(conflict);
        return;
    }

    QStringList paths = parser.positionalArguments();
    if (paths.size() < 2) {
        m_error = QStringLiteral("give at least one SOURCE and a DEST");
        return;
    }
    m_destination = AbsoluteCleanPath(paths.takeLast());
    for (const QString &path : qAsConst(paths)) {
        const QString source = AbsoluteCleanPath(path);
        if (!m_sources.contains(source))
            m_sources.append(source);
    }
    if (Check())
        m_outcome = Copy;
}

bool CommandLine::Check()
{
    if (CopyBatch::HasPlaceMarker(m_destination)) {
        m_error = QStringLiteral("DEST %1 holds a '%' followed by a digit, which the copy would "
                                 "replace by entry names")
                          .arg(m_destination);
        return false;
    }
    const QFileInfo destination(m_destination);
    if (destination.exists() && !destination.isDir()) {
        m_error = QStringLiteral("DEST %1 exists and is not a directory").arg(m_destination);
        return false;
    }
    const QString canonicalDestination = CanonicalPathOf(m_destination);
    for (const QString &path : qAsConst(m_sources)) {
        const QFileInfo source(path);
        if (!source.exists()) {
            m_error = QStringLiteral("%1: no such file or directory").arg(path);
            return false;
        }
        if (source.isDir()
            && SourceSplitter::IsSameOrInside(canonicalDestination, source.canonicalFilePath())) {
            m_error = QStringLiteral("DEST %1 lies inside SOURCE %2").arg(m_destination, path);
            return false;
        }
        if (CanonicalPathOf(source.absolutePath()) == canonicalDestination) {
            m_error = QStringLiteral("SOURCE %1 is already in DEST %2").arg(path, m_destination);
            return false;
        }
    }
    return true;
}
