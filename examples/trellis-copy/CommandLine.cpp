#include "CommandLine.h"

#include <QCommandLineParser>
#include <QDir>
#include <QRegularExpression>

namespace {

const char *const Description
        = "Copies files and directory trees into DEST, asking where a destination exists,\n"
          "with a progress line and a summary.\n"
          "Each copy gets the permission bits and modification time of its source;\n"
          "--library-mode keeps the Trellis library's rules instead: write permission\n"
          "for others added, the copy time rounded down to the minute.";

const char *const Details = R"(
Where things land:
  Each SOURCE lands in DEST (made as needed) under its own name; a single file
  SOURCE and a DEST that is not a directory (nor ends in /) copies the file to
  the name DEST, as cp does. DEST must not lie inside a SOURCE, be the directory
  a SOURCE is in, or hold a % and a digit; a FIFO, socket or device as SOURCE is
  refused. Photo.JPG is written as Photo.jpg (a last three-letter extension in
  lower case): two sources landing on one name are found before anything is
  copied, and the second is asked about, even after an all answer, or fails.
  Hidden entries inside directories, FIFOs, sockets, devices, links to nothing
  and links back into the tree are left out, counted in the summary and named
  by --verbose; other links are followed.

Answers where a destination exists (a word or its first letter, then Enter):
  o, overwrite      copy this item over its destination; s, skip: leave it
  a, all            overwrite this and every later conflict; n, none: skip them
  w, newer          from now on overwrite where the source is newer, else skip
  d, different      from now on overwrite where size or time differ, else skip
  r, rename         a NAME without / and %1 is the item's new name beside its
                    destination, anything else a PREFIX replacing DEST for it
                    (%1: its name without extension); it is copied after its
                    batch, and asked about again if that place is taken
  q, quit           stop here, as does the end of input (Ctrl-D)

Failures, output and stopping:
  A failure names the path and the system's reason and leaves the rest of its
  item; then c, continue, a, all (continue after later failures too) or q,
  quit. Without a terminal on standard input failures are not asked about, and
  the rule ask stops at the first conflict. Standard output has a progress line
  (bytes done and in all, percentage, rate, time left, counts, current entry),
  redrawn ten times a second on a terminal, else printed once a second, and a
  summary; questions and errors go to standard error. Ctrl-C, SIGTERM, SIGHUP,
  SIGPIPE and failed writes stop the copy at once, and remove and name the
  incomplete copy of the file being copied (--keep-partial keeps it). A second
  Ctrl-C ends the program at once.

Exit codes:
  0    everything copied, or skipped by an answer or --on-conflict
  1    something not copied: a failure, quit, a conflict nobody could be asked
       about, a signal or a write error
  2    usage error: a bad option or value, fewer than two paths, an empty,
       missing or special SOURCE, an unusable DEST
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

} // namespace

CommandLine::CommandLine(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(Description));
    const QCommandLineOption help = parser.addHelpOption();
    const auto option = [&parser](const char *names, const char *description,
                                  const char *value = "", const char *defaultValue = "") {
        parser.addOption({ QString::fromLatin1(names).split(QLatin1Char('|')),
                           QString::fromLatin1(description), QString::fromLatin1(value),
                           QString::fromLatin1(defaultValue) });
    };
    option("V|version", "Print the version and exit.");
    option("v|verbose", "List every entry copied, skipped or left out.");
    option("q|quiet", "Print only errors and the summary.");
    option("n|dry-run",
           "List what would be copied, skipped, asked about or left out, and copy nothing.");
    option("on-conflict",
           "Where a destination exists: ask (the default), overwrite, skip, newer "
           "or different.",
           "rule", "ask");
    option("depth",
           "Split each source directory into work items <N> levels down: -1 (the "
           "default) makes each file one, 0 each SOURCE, asked about as a whole.",
           "N", "-1");
    option("keep-partial", "Keep the incomplete copy of a file whose copy was stopped.");
    option("library-mode", "Keep the library's permissions and time stamps on copies.");
    parser.addPositionalArgument(QStringLiteral("SOURCE"),
                                 QStringLiteral("Files and directories to copy."),
                                 QStringLiteral("SOURCE..."));
    parser.addPositionalArgument(QStringLiteral("DEST"),
                                 QStringLiteral("The directory they are copied into."));
    const auto isSet = [&parser](const char *name) { return parser.isSet(QLatin1String(name)); };

    if (!parser.parse(arguments)) {
        text = parser.errorText();
        return;
    }
    if (parser.isSet(help) || isSet("version")) {
        text = parser.isSet(help) ? parser.helpText() + QLatin1String(Details)
                                  : QStringLiteral("trellis-copy " TRELLIS_VERSION_STRING "\n");
        outcome = ShowText;
        return;
    }
    bool depthIsNumber = false;
    depth = parser.value(QStringLiteral("depth")).toInt(&depthIsNumber);
    const QStringList rules
            = QStringLiteral("ask,overwrite,skip,newer,different").split(QLatin1Char(','));
    const int rule = rules.indexOf(parser.value(QStringLiteral("on-conflict")));
    QStringList paths = parser.positionalArguments();
    if (isSet("verbose") && isSet("quiet"))
        text = QStringLiteral("--verbose and --quiet exclude each other");
    else if (!depthIsNumber)
        text = QStringLiteral("--depth takes a whole number, not \"%1\"")
                       .arg(parser.value(QStringLiteral("depth")));
    else if (rule < 0)
        text = QStringLiteral("--on-conflict takes %1, not \"%2\"")
                       .arg(rules.join(QStringLiteral(", ")),
                            parser.value(QStringLiteral("on-conflict")));
    else if (paths.size() < 2)
        text = QStringLiteral("give at least one SOURCE and a DEST");
    else if (paths.contains(QString()))
        text = QStringLiteral("an empty path names no file: give DEST and every SOURCE");
    if (!text.isEmpty())
        return;

    conflictRule = ConflictRule(rule);
    verbosity = isSet("verbose") ? Verbose : isSet("quiet") ? Quiet : Normal;
    dryRun = isSet("dry-run");
    keepPartial = isSet("keep-partial");
    libraryMode = isSet("library-mode");
    for (const QString &path : std::as_const(paths))
        sources.append(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
    destination = sources.takeLast();
    sources.removeDuplicates();
    destinationIsFileName = sources.size() == 1 && !QFileInfo(sources.first()).isDir()
            && !QFileInfo(destination).isDir() && !paths.last().endsWith(QLatin1Char('/'));
    text = WhyNotCopied();
    if (text.isEmpty())
        outcome = Copy;
}

QString CommandLine::WhyNotCopied() const
{
    if (destination.contains(QRegularExpression(QStringLiteral("%L?\\d"))))
        return QStringLiteral("DEST %1 holds a '%' followed by a digit, which the copy would "
                              "replace by entry names")
                .arg(destination);
    if (!destinationIsFileName && QFileInfo::exists(destination) && !QFileInfo(destination).isDir())
        return QStringLiteral("DEST %1 exists and is not a directory").arg(destination);
    const QString canonical = CanonicalPathOf(destination);
    for (const QString &path : sources) {
        // QFileInfo only looks: opening a FIFO would block.
        const QFileInfo source(path);
        if (!source.exists())
            return path
                    + (source.isSymLink() ? QStringLiteral(": a symbolic link to nothing")
                                          : QStringLiteral(": no such file or directory"));
        if (!source.isFile() && !source.isDir())
            return path
                    + QStringLiteral(": not a file or directory (a FIFO, socket or device), "
                                     "which is not copied");
        const QString canonicalSource = source.canonicalFilePath();
        if (destinationIsFileName && canonicalSource == canonical)
            return QStringLiteral("SOURCE %1 and DEST are the same file").arg(path);
        if (source.isDir()
            && (canonical == canonicalSource || canonicalSource == QLatin1String("/")
                || canonical.startsWith(canonicalSource + QLatin1Char('/'))))
            return QStringLiteral("DEST %1 lies inside SOURCE %2").arg(destination, path);
        if (!destinationIsFileName && CanonicalPathOf(source.absolutePath()) == canonical)
            return QStringLiteral("SOURCE %1 is already in DEST %2").arg(path, destination);
    }
    return QString();
}
