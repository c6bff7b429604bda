#include "Archive_p.h"

#include <QProcess>

namespace {

constexpr int TarTimeout = 30000; // milliseconds

// tar reads an operand beginning with '-' as an option; "./" keeps it a name.
QString tarOperand(const QString &name)
{
    return name.startsWith(QLatin1Char('-')) ? QLatin1String("./") + name : name;
}

// tar takes the argument of -f as it stands, except "-" (standard input or
// output) and a name with a ':' before its first '/' (host:file, a remote
// archive); "./" keeps both local files.
QString tarArchive(const QString &archiveFile)
{
    const int colon = archiveFile.indexOf(QLatin1Char(':'));
    const int slash = archiveFile.indexOf(QLatin1Char('/'));
    if (archiveFile == QLatin1String("-") || (colon > 0 && (slash < 0 || colon < slash)))
        return QLatin1String("./") + archiveFile;
    return archiveFile;
}

bool runTar(const QStringList &arguments)
{
    QProcess tar;
    tar.start(QStringLiteral("tar"), arguments, QIODevice::ReadWrite);
    if (tar.waitForFinished(TarTimeout))
        return true;
    if (tar.state() != QProcess::NotRunning) {
        // Ending it here spares the warning QProcess's destructor would print.
        tar.kill();
        tar.waitForFinished(-1);
    }
    return false;
}

QStringList tarOperands(const QStringList &files)
{
    QStringList operands;
    operands.reserve(files.size());
    for (const QString &file : files)
        operands.append(tarOperand(file));
    return operands;
}

} // namespace

bool Archive::unpack(const QString &archiveFile, const QString &destDir)
{
    return runTar(
            { QStringLiteral("-xzf"), tarArchive(archiveFile), QStringLiteral("-C"), destDir });
}

bool Archive::pack(const QString &archiveFile, const QString *baseDir, const QStringList &files)
{
    QStringList arguments { QStringLiteral("-czf"), tarArchive(archiveFile) };
    if (baseDir)
        arguments << QStringLiteral("-C") << *baseDir;
    return runTar(arguments + tarOperands(files));
}
