#include "CommandLine.h"

#include <QCommandLineParser>
#include <QDir>
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
  Each SOURCE lands in DEST (created as needed) under its own name: a/b.txt as
  DEST/b.txt, a/src/ as DEST/src. A single file SOURCE and a DEST that is not a
  directory (nor ends in /) copies the file to the name DEST, as cp does. DEST
  must not lie inside a SOURCE, be the directory a SOURCE is in, or hold a %
  followed by a digit; a FIFO, socket or device as SOURCE is refused. A final
  three-letter extension is written in lower case (Photo.JPG as Photo.jpg,
  where an existing Photo.jpg counts as its destination); two sources landing
  on one name are found before anything is copied, and the second is asked
  about, even after an all answer, or reported as failed. Left out, counted
  by kind in the summary and named by --verbose: hidden entries inside
  directories (a hidden SOURCE is copied), FIFOs, sockets, devices, links to
  nothing and links leading back into the tree. Other links are followed.

Answers where a destination exists (a word or its first letter, then Enter):
  o, overwrite      copy this item over its destination
  a, all            overwrite this and every later conflict
  s, skip           leave this item uncopied
  n, none           skip this and every later conflict
  w, newer          overwrite when the source is newer, otherwise skip; for
                    this and every later conflict
  d, different      overwrite when size or modification time differ,
                    otherwise skip; for this and every later conflict
  r, rename         a NAME without / and %1 is the item's new name in its
                    directory; anything else is a PREFIX replacing DEST for
                    this item, %1 standing for its name without its last
                    extension (/backup/%1-old); copied after the rest of its
                    batch, and asked about again if that place is taken too
  q, quit           stop here (exit code 1); so does end of input (Ctrl-D)

Failures, output and stopping:
  A failure is reported with its path and the system's reason, and the rest of
  its item is left; then c, continue, a, all (continue after later failures
  too) or q, quit. Without a terminal on standard input the copy goes on after
  failures, and the rule ask ends at the first conflict, with exit code 1.
  Progress goes to standard output: on a terminal a line redrawn at most ten
  times a second (bytes done and in all, percentage, rate, time left, counts,
  the current entry), otherwise a plain line at most once a second; then a
  summary. Questions and errors go to standard error. Ctrl-C, SIGTERM, SIGHUP,
  SIGPIPE and a failed write to standard output or error stop the copy within
  a moment; the incomplete copy of the file being copied is removed (kept with
  --keep-partial) and named. A second Ctrl-C ends the program at once.

Exit codes:
  0    everything was copied, or skipped by an answer or --on-conflict
  1    something was not copied: a failure, quit, a conflict nobody could be
       asked about, a signal or a write error
  2    usage error: a bad option or value, fewer than two paths, an empty,
       missing or special SOURCE, or an unusable DEST
  130  interrupted by Ctrl-C (SIGINT)
)";

// The canonical form of a path that may not exist yet: its nearest existing
// ancestor resolved, the rest appended.
QString CanonicalPathOf(const QString &absolutePath)
{
    QFileInfo existing(absolutePath);
    QString rest;
    for (; !existing.exists(); existing.setFile(existing.absolutePath()))
        rest.prepend(QLatin1Char('/') + existing.fileName());
    return QDir::cleanPath(existing.canonicalFilePath() + rest);
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
    if (::stat(name.constData(), &status) != 0)
        return ::lstat(name.constData(), &status) == 0
                ? QStringLiteral("%1: a symbolic link to nothing").arg(path)
                : QStringLiteral("%1: no such file or directory").arg(path);
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
    const QCommandLineOption help = parser.addHelpOption();
    parser.addOptions({
            { { QStringLiteral("V"), QStringLiteral("version") },
              QStringLiteral("Print the version and exit.") },
            { { QStringLiteral("v"), QStringLiteral("verbose") },
              QStringLiteral("List every entry copied, skipped or left out.") },
            { { QStringLiteral("q"), QStringLiteral("quiet") },
              QStringLiteral("Print only errors and the summary.") },
            { { QStringLiteral("n"), QStringLiteral("dry-run") },
              QStringLiteral("List what would be copied, skipped, asked about or left out, and "
                             "copy nothing.") },
            { QStringLiteral("on-conflict"),
              QStringLiteral("What to do where a destination exists: ask (the default), "
                             "overwrite, skip, newer or different (see the answers below)."),
              QStringLiteral("rule"), QStringLiteral("ask") },
            { QStringLiteral("depth"),
              QStringLiteral("Split each source directory into work items <N> levels down: "
                             "with -1 (the default) each file and empty directory is one, "
                             "with 0 each SOURCE, asked about once, whose overwrite replaces "
                             "all of its files that exist at the destination."),
              QStringLiteral("N"), QStringLiteral("-1") },
            { QStringLiteral("keep-partial"),
              QStringLiteral("Keep the incomplete copy of a file whose copy was stopped.") },
            { QStringLiteral("library-mode"),
              QStringLiteral("Keep the library's permissions and time stamps on copies.") },
    });
    parser.addPositionalArgument(QStringLiteral("SOURCE"),
                                 QStringLiteral("Files and directories to copy."),
                                 QStringLiteral("SOURCE..."));
    parser.addPositionalArgument(QStringLiteral("DEST"),
                                 QStringLiteral("The directory they are copied into."));
    m_helpText = parser.helpText() + QLatin1String(Details);
    const auto isSet = [&parser](const char *name) { return parser.isSet(QLatin1String(name)); };

    if (!parser.parse(arguments)) {
        m_error = parser.errorText();
        return;
    }
    if (parser.isSet(help) || isSet("version")) {
        m_outcome = parser.isSet(help) ? ShowHelp : ShowVersion;
        return;
    }
    bool depthIsNumber = false;
    m_depth = parser.value(QStringLiteral("depth")).toInt(&depthIsNumber);
    const QStringList rules
            = { QStringLiteral("ask"), QStringLiteral("overwrite"), QStringLiteral("skip"),
                QStringLiteral("newer"), QStringLiteral("different") };
    const int rule = rules.indexOf(parser.value(QStringLiteral("on-conflict")));
    QStringList paths = parser.positionalArguments();
    if (isSet("verbose") && isSet("quiet"))
        m_error = QStringLiteral("--verbose and --quiet exclude each other");
    else if (!depthIsNumber)
        m_error = QStringLiteral("--depth takes a whole number, not \"%1\"")
                          .arg(parser.value(QStringLiteral("depth")));
    else if (rule < 0)
        m_error = QStringLiteral("--on-conflict takes %1, not \"%2\"")
                          .arg(rules.join(QStringLiteral(", ")),
                               parser.value(QStringLiteral("on-conflict")));
    else if (paths.size() < 2)
        m_error = QStringLiteral("give at least one SOURCE and a DEST");
    else if (paths.contains(QString()))
        m_error = QStringLiteral("an empty path names no file: give DEST and every SOURCE");
    if (!m_error.isEmpty())
        return;

    m_rule = ConflictRule(rule);
    m_verbosity = isSet("verbose") ? Verbose : isSet("quiet") ? Quiet : Normal;
    m_dryRun = isSet("dry-run");
    m_keepPartial = isSet("keep-partial");
    m_libraryMode = isSet("library-mode");
    for (const QString &path : std::as_const(paths))
        m_sources.append(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
    m_destination = m_sources.takeLast();
    m_sources.removeDuplicates();
    m_destinationIsFileName = m_sources.size() == 1 && !QFileInfo(m_sources.first()).isDir()
            && !QFileInfo(m_destination).isDir() && !paths.last().endsWith(QLatin1Char('/'));
    m_error = WhyNotCopied();
    if (m_error.isEmpty())
        m_outcome = Copy;
}

QString CommandLine::WhyNotCopied() const
{
    if (m_destination.contains(QRegularExpression(QStringLiteral("%L?\\d"))))
        return QStringLiteral("DEST %1 holds a '%' followed by a digit, which the copy would "
                              "replace by entry names")
                .arg(m_destination);
    if (!m_destinationIsFileName && QFileInfo::exists(m_destination)
        && !QFileInfo(m_destination).isDir())
        return QStringLiteral("DEST %1 exists and is not a directory").arg(m_destination);
    const QString destination = CanonicalPathOf(m_destination);
    for (const QString &path : m_sources) {
        const QString why = WhyNoSource(path);
        if (!why.isEmpty())
            return why;
        const QFileInfo source(path);
        if (m_destinationIsFileName && source.canonicalFilePath() == destination)
            return QStringLiteral("SOURCE %1 and DEST are the same file").arg(path);
        if (source.isDir() && IsSameOrInside(destination, source.canonicalFilePath()))
            return QStringLiteral("DEST %1 lies inside SOURCE %2").arg(m_destination, path);
        if (!m_destinationIsFileName && CanonicalPathOf(source.absolutePath()) == destination)
            return QStringLiteral("SOURCE %1 is already in DEST %2").arg(path, m_destination);
    }
    return QString();
}
