#include "Archive_p.h"

#include "Directory_p.h"
#include "UnpackCheck_p.h"

#include <QFile>

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

// Runs tar and waits for it; true when it ended in time. With listing, tar
// runs in the C locale and its output is kept there.
bool runTar(const QStringList &arguments, QByteArray *listing = nullptr)
{
    QProcess tar;
    if (listing) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
        tar.setProcessEnvironment(environment);
    }
    tar.start(QStringLiteral("tar"), arguments, QIODevice::ReadWrite);
    if (tar.waitForFinished(TarTimeout)) {
        if (listing)
            *listing = tar.readAllStandardOutput();
        return true;
    }
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
    // Every member is checked before anything is written. Without a
    // destination tar fails at once; that stays its own result.
    const Directory destination = Directory::open(QFile::encodeName(destDir));
    if (destination.isOpen()) {
        QByteArray listing;
        if (!runTar({ QStringLiteral("-tvzf"), tarArchive(archiveFile),
                      QStringLiteral("--quoting-style=c"), QStringLiteral("--numeric-owner") },
                    &listing)
            || !UnpackCheck::staysInside(listing, destination))
            return false;
    }
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
