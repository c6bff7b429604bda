#ifndef TRELLIS_FSTESTSUPPORT_H
#define TRELLIS_FSTESTSUPPORT_H

// Small helpers shared by the file system test programs.

#include <Trellis/TLocalTime.h>

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QString>

#include <cstdlib>
#include <ctime>
#include <sys/stat.h>

namespace FsTest {

inline QByteArray randomBytes(qint64 size, quint32 seed = 1)
{
    QRandomGenerator random(seed);
    QByteArray bytes(int(size), Qt::Uninitialized);
    for (char &byte : bytes)
        byte = char(random.generate());
    return bytes;
}

// Writes contents to path, creating missing parent directories.
inline bool writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
            && file.write(contents) == contents.size();
}

// Splits a list written as one text: names("a b c") or names("a|b c", '|').
inline QStringList names(const char *list, char separator = ' ')
{
    return QString::fromLatin1(list).split(QLatin1Char(separator), Qt::SkipEmptyParts);
}

// Makes, under root, "name" a file holding its own name, "name/" a directory
// and "name->target" a symbolic link, with missing parent directories.
inline bool makeEntries(const QString &root, const QStringList &entries)
{
    const QDir dir(root);
    for (const QString &entry : entries) {
        const int arrow = entry.indexOf(QLatin1String("->"));
        bool made;
        if (arrow > 0) {
            const QString link = dir.filePath(entry.left(arrow));
            made = QDir().mkpath(QFileInfo(link).absolutePath())
                    && QFile::link(entry.mid(arrow + 2), link);
        } else if (entry.endsWith(QLatin1Char('/'))) {
            made = dir.mkpath(entry);
        } else {
            made = writeFile(dir.filePath(entry), entry.toUtf8());
        }
        if (!made)
            return false;
    }
    return true;
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

inline bool exists(const QString &path) // the link itself counts
{
    struct stat status;
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

inline mode_t mode(const QString &path)
{
    struct stat status;
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777 : 0;
}

inline qint64 modificationTime(const QString &path)
{
    struct stat status;
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mtime : -1;
}

// What a tree holds, links not followed: relative path -> contents, link
// target or "<dir>", each with its mode and modification time. Equal
// snapshots mean nothing was created, removed or written.
inline QMap<QString, QString> snapshot(const QString &root)
{
    QMap<QString, QString> entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    const QDir base(root);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        QString what = info.isSymLink() ? QStringLiteral("-> ") + info.symLinkTarget()
                : info.isDir()          ? QStringLiteral("<dir>")
                                        : QString::fromLatin1(readFile(path).toHex());
        entries.insert(base.relativeFilePath(path),
                       QStringLiteral("%1 %2 %3")
                               .arg(mode(path), 0, 8)
                               .arg(modificationTime(path))
                               .arg(what));
    }
    return entries;
}

// Runs a program and returns its exit code, or -1 when it could not run.
inline int run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    if (output)
        *output = process.readAll();
    return process.exitCode();
}

inline bool haveTool(const QString &name)
{
    return !QStandardPaths::findExecutable(name).isEmpty();
}

// Pins the process's time zone to UTC and moves the offset clock 400 days
// back, so that a stamp stands apart from the time a file was written.
inline void setUpStampClock()
{
    qputenv("TZ", "UTC");
    tzset();
    TLocalTime::SetOffset(-400 * 24 * 3600);
}

// The stamp TLocalTime::setFileTime() gives now, in seconds since the epoch
// (with the time zone pinned to UTC).
inline qint64 stampNow()
{
    const QDateTime now = TLocalTime::currentDateTime();
    return now.toSecsSinceEpoch() - now.time().second();
}

} // namespace FsTest

#endif // TRELLIS_FSTESTSUPPORT_H
