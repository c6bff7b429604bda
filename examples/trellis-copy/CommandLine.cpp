#include "CommandLine.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <sys/stat.h>

namespace {

const char *const Description
        = "Copies files and directory trees into DEST, asking what to do where a\n"
          "destination exists, with a progress line and a summary of what was copied,\n"
          "skipped, failed or left out.\n"
          "\n"
          "Each copy gets the permission bits and modification time of its source.\n"
          "With the option --library-mode it keeps the Trellis library's own rules\n"
          "instead: write permission for others added, and the copy time, rounded down\n"
          "to the minute.";

const char *const Details = R"(
Where things land:
  Each SOURCE lands under DEST with its own name: a/b.txt goes to DEST/b.txt
  and the directory a/src (or a/src/) to DEST/src. DEST is created, with its
  parents, when it does not exist. A single file SOURCE and a DEST that is
  not a directory (nor ends in /) copies the file to the name DEST, as cp
  does. DEST must not lie inside a SOURCE, nor be the directory a SOURCE is
  in, nor hold a % followed by a digit. A FIFO, socket or device as SOURCE
  is refused. A final three-letter extension is written in lower case:
  Photo.JPG is copied as Photo.jpg, and an existing Photo.jpg counts as its
  destination. Two sources that would land on one name (A.JPG and A.jpg)
  are found before anything is copied: the second is asked about, or, when
  nobody can be asked, reported as failed.

Left out:
  Hidden entries inside directories, FIFOs, sockets, devices, links to
  nothing and links that lead back into the tree are not copied; the summary
  counts them by kind and --verbose names each. A hidden SOURCE named on the
  command line is copied. Other symbolic links are followed.

Work items and conflicts:
  The copy is split into work items: --depth N splits every source directory
  N levels down. With the default -1 every file and every empty directory is
  an item of its own; with 0 each SOURCE is one item, so a directory whose
  destination exists is asked about once, and overwrite then replaces every
  file it holds that exists at the destination.

Answers where a destination exists (a word or its first letter, then Enter):
  o, overwrite        copy this item over its destination
  a, all              overwrite all: this and every later conflict
  s, skip             leave this item uncopied
  n, none             skip all: this and every later conflict
  w, newer            overwrite when the source is newer, otherwise skip; for
                      this and every later conflict
  d, different        overwrite when size or modification time differ,
                      otherwise skip; for this and every later conflict
  r, rename           copy this item elsewhere: a NAME without / and %1 is
                      its new name in the same directory; anything else is a
                      PREFIX that replaces DEST for this item only, %1 in it
                      standing for the item's name without its last
                      extension (e.g. /backup/%1-old). The item is copied
                      there after the rest of its batch; when that
                      destination exists too, the question comes again.
  q, quit             stop here (exit code 1)
  End of input (Ctrl-D) quits as well. Two sources landing on one name are
  asked about even after an all answer.

When an entry cannot be copied:
  The failure is reported with its path and the system's reason, and the
  rest of its item is left. On a terminal the answer is c, continue (go on),
  a, all (go on after every later failure too) or q, quit. Without a
  terminal on standard input the copy goes on and ends with exit code 1.

Without a terminal on standard input, conflicts cannot be asked about: with
the rule ask (--on-conflict=ask) the first one is reported with its path and
the program ends with exit code 1, leaving the rest uncopied.

Progress goes to standard output: on a terminal a line redrawn at most ten
times a second (bytes done and in all, percentage, rate, time left, entries
copied, skipped and failed, the current entry); otherwise a plain line at
most once a second. A summary ends every run. Questions and errors go to
standard error.

Ctrl-C, SIGTERM, SIGHUP, SIGPIPE and a failed write to standard output or
error stop the copy within a moment. The incomplete copy of the file being
copied is removed and named (kept with --keep-partial), and the summary is
printed where it still can be. A second Ctrl-C ends the program at once.

Exit codes:
  0    everything was copied (or skipped by an answer or --on-conflict)
  1    something was not copied: an entry failed, the user quit, a conflict
       could not be asked about, or a signal or write error stopped the copy
  2    usage error: unknown option, bad option value, fewer than two paths,
       an empty, missing or special SOURCE, or an unusable DEST
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

bool IsSameOrInside(const QString &path, const QString &directory)
{
    return path == directory || directory == QLatin1String("/")
            || path.startsWith(directory + QLatin1Char('/'));
}

// Why path cannot be a SOURCE, or nothing. Never opens it: a FIFO would block.
QString WhyNoSource(const QString &path)
{
    struct stat status;
    const QByteArray name = QFile::encodeName(path);
    if (::stat(name.constData(), &status) != 0) {
        return ::lstat(name.constData(), &status) == 0
                ? QStringLiteral("%1: a symbolic link to nothing").arg(path)
                : QStringLiteral("%1: no such file or directory").arg(path);
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return QStringLiteral("%1: not a file or directory (a FIFO, socket or device), which "
                              "is not copied")
                .arg(path);
    return QString();
}

} // namespace

CommandLine::CommandLine(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(Description));
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption({ QStringLiteral("V"), QStringLiteral("version") },
                                           QStringLiteral("Print the version and exit."));
    const QCommandLineOption verboseOption(
            { QStringLiteral("v"), QStringLiteral("verbose") },
            QStringLiteral("List every entry copied, skipped or left out."));
    const QCommandLineOption quietOption({ QStringLiteral("q"), QStringLiteral("quiet") },
                                         QStringLiteral("Print only errors and the summary."));
    const QCommandLineOption dryRunOption(
            { QStringLiteral("n"), QStringLiteral("dry-run") },
            QStringLiteral("List what would be copied, skipped, asked about or left out, and "
                           "copy nothing."));
    const QCommandLineOption conflictOption(
            QStringLiteral("on-conflict"),
            QStringLiteral("What to do where a destination exists: ask (the default), "
                           "overwrite, skip, newer or different (see the answers below)."),
            QStringLiteral("rule"), QStringLiteral("ask"));
    const QCommandLineOption depthOption(
            QStringLiteral("depth"),
            QStringLiteral("Split each source directory into work items <N> levels down; "
                           "negative: down to single files (the default, -1)."),
            QStringLiteral("N"), QStringLiteral("-1"));
    const QCommandLineOption keepPartialOption(
            QStringLiteral("keep-partial"),
            QStringLiteral("Keep the incomplete copy of a file whose copy was stopped."));
    const QCommandLineOption libraryModeOption(
            QStringLiteral("library-mode"),
            QStringLiteral("Keep the library's permissions and time stamps on copies."));
    parser.addOptions({ versionOption, verboseOption, quietOption, dryRunOption, conflictOption,
                        depthOption, keepPartialOption, libraryModeOption });
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
    if (parser.isSet(verboseOption) && parser.isSet(quietOption)) {
        m_error = QStringLiteral("--verbose and --quiet exclude each other");
        return;
    }
    m_verbosity = parser.isSet(verboseOption) ? Verbose
            : parser.isSet(quietOption)       ? Quiet
                                              : Normal;
    m_dryRun = parser.isSet(dryRunOption);
    m_keepPartial = parser.isSet(keepPartialOption);
    m_libraryMode = parser.isSet(libraryModeOption);

    bool depthIsNumber = false;
    m_depth = parser.value(depthOption).toInt(&depthIsNumber);
    if (!depthIsNumber) {
        m_error = QStringLiteral("--depth takes a whole number, not \"%1\"")
                          .arg(parser.value(depthOption));
        return;
    }
    if (!ParseRule(parser.value(conflictOption)))
        return;

    QStringList paths = parser.positionalArguments();
    if (paths.size() < 2) {
        m_error = QStringLiteral("give at least one SOURCE and a DEST");
        return;
    }
    const QString destination = paths.takeLast();
    if (destination.isEmpty() || paths.contains(QString())) {
        m_error = QStringLiteral("an empty path names no file: give DEST and every SOURCE");
        return;
    }
    m_destination = AbsoluteCleanPath(destination);
    for (const QString &path : std::as_const(paths)) {
        const QString source = AbsoluteCleanPath(path);
        if (!m_sources.contains(source))
            m_sources.append(source);
    }
    m_destinationIsFileName = m_sources.size() == 1 && !QFileInfo(m_sources.first()).isDir()
            && !QFileInfo(m_destination).isDir() && !destination.endsWith(QLatin1Char('/'));
    if (Check())
        m_outcome = Copy;
}

bool CommandLine::ParseRule(const QString &value)
{
    const QStringList rules
            = { QStringLiteral("ask"), QStringLiteral("overwrite"), QStringLiteral("skip"),
                QStringLiteral("newer"), QStringLiteral("different") };
    const int index = rules.indexOf(value);
    if (index < 0) {
        m_error = QStringLiteral("--on-conflict takes %1, not \"%2\"")
                          .arg(rules.join(QStringLiteral(", ")), value);
        return false;
    }
    m_rule = ConflictRule(index);
    return true;
}

bool CommandLine::Check()
{
    if (m_destination.contains(QRegularExpression(QStringLiteral("%L?\\d")))) {
        m_error = QStringLiteral("DEST %1 holds a '%' followed by a digit, which the copy would "
                                 "replace by entry names")
                          .arg(m_destination);
        return false;
    }
    if (!m_destinationIsFileName && QFileInfo::exists(m_destination)
        && !QFileInfo(m_destination).isDir()) {
        m_error = QStringLiteral("DEST %1 exists and is not a directory").arg(m_destination);
        return false;
    }
    const QString canonicalDestination = CanonicalPathOf(m_destination);
    for (const QString &path : std::as_const(m_sources)) {
        m_error = WhyNoSource(path);
        if (!m_error.isEmpty())
            return false;
        const QFileInfo source(path);
        if (m_destinationIsFileName && source.canonicalFilePath() == canonicalDestination) {
            m_error = QStringLiteral("SOURCE %1 and DEST are the same file").arg(path);
            return false;
        }
        if (source.isDir() && IsSameOrInside(canonicalDestination, source.canonicalFilePath())) {
            m_error = QStringLiteral("DEST %1 lies inside SOURCE %2").arg(m_destination, path);
            return false;
        }
        if (!m_destinationIsFileName
            && CanonicalPathOf(source.absolutePath()) == canonicalDestination) {
            m_error = QStringLiteral("SOURCE %1 is already in DEST %2").arg(path, m_destination);
            return false;
        }
    }
    return true;
}
