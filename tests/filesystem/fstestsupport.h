#ifndef TRELLIS_FSTESTSUPPORT_H
#define TRELLIS_FSTESTSUPPORT_H

// Small helpers shared by the file system test programs.

#include <Trellis/TLocalTime.h>

#include <QDirIterator>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>

#include <ctime>
#include <sys/stat.h>

namespace FsTest {

inline QByteArray randomBytes(qint64 size, quint32 seed = 1)
{
    QByteArray bytes(int(size + 3) & ~3, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    return bytes.left(int(size));
}

// Writes contents to path, creating missing parent directories.
inline bool writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

// Splits a list written as one text: names("a b c") or names("a|b c", '|').
inline QStringList names(const char *list, char separator = ' ')
{
    return QString::fromUtf8(list).split(QLatin1Char(separator), Qt::SkipEmptyParts);
}

// Makes, under root, "name" a file holding its own name, "name/" a directory
// and "name->target" a symbolic link, with missing parent directories.
inline bool makeEntries(const QString &root, const QStringList &entries)
{
    for (const QString &entry : entries) {
        const int arrow = entry.indexOf(QLatin1String("->"));
        const QString path = root + QLatin1Char('/') + (arrow > 0 ? entry.left(arrow) : entry);
        if (!(arrow > 0 ? QDir().mkpath(QFileInfo(path).absolutePath())
                              && QFile::link(entry.mid(arrow + 2), path)
                      : entry.endsWith(QLatin1Char('/')) ? QDir().mkpath(path)
                                                         : writeFile(path, entry.toUtf8())))
            return false;
    }
    return true;
}

// The entry itself, a link not followed; all zero when it is missing.
inline struct stat status(const QString &path)
{
    struct stat result
    {
    };
    ::lstat(QFile::encodeName(path).constData(), &result);
    return result;
}

inline bool exists(const QString &path)
{
    return status(path).st_nlink > 0;
}
inline mode_t mode(const QString &path)
{
    return status(path).st_mode & 07777;
}

// What a tree holds, links not followed: relative path -> mode, modification
// time and contents, link target or nothing for a directory. Equal snapshots
// mean nothing was created, removed or written.
inline QMap<QString, QString> snapshot(const QString &root)
{
    QMap<QString, QString> entries;
    const QDir base(QDir(root).absolutePath());
    QDirIterator it(base.path(),
                    QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString what = it.fileInfo().isSymLink() ? it.fileInfo().symLinkTarget()
                : it.fileInfo().isDir()                ? QString()
                                        : QString::fromLatin1(readFile(path).toHex());
        entries.insert(base.relativeFilePath(path),
                       QStringLiteral("%1 %2 %3")
                               .arg(mode(path), 0, 8)
                               .arg(status(path).st_mtime)
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
    const bool ended
            = process.waitForFinished(300000) && process.exitStatus() == QProcess::NormalExit;
    if (output)
        *output = process.readAll();
    return ended ? process.exitCode() : -1;
}

// Pins the process's time zone to UTC and moves the offset clock 400 days
// back, so that a stamp stands apart from the time a file was written.
inline void setUpStampClock()
{
    qputenv("TZ", "UTC");
    tzset();
    TLocalTime::SetOffset(-400 * 24 * 3600);
}

// The stamp TLocalTime::setFileTime() gives now, in seconds since the epoch.
inline qint64 stampNow()
{
    const QDateTime now = TLocalTime::currentDateTime();
    return now.toSecsSinceEpoch() - now.time().second();
}

// Whether path was stamped at a whole minute from the stamp before on.
inline bool isStamped(const QString &path, qint64 before)
{
    const qint64 time = status(path).st_mtime;
    return time >= before && time <= stampNow() && time % 60 == 0;
}

} // namespace FsTest

#endif // TRELLIS_FSTESTSUPPORT_H
