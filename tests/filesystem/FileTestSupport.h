#ifndef TRELLIS_FILETESTSUPPORT_H
#define TRELLIS_FILETESTSUPPORT_H

#include "HangWatch.h"

#include <QtCore>

#include <sys/stat.h>

// What the file-system tests share: trees made from a list of names, read
// back whole, and the tools that check them run with a bound.

// "text"_s is a QString, as QStringLiteral("text") is.
inline QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

// Writes contents to path, creating missing parent directories.
inline bool writeFile(const QString &path, const QByteArray &contents)
{
    QFile file((QDir().mkpath(QFileInfo(path).absolutePath()), path));
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
        const QStringList link = entry.split(QLatin1String("->"));
        const QString path = root + u'/' + link[0];
        if (!(link.size() == 2
                      ? QDir().mkpath(QFileInfo(path).absolutePath()) && QFile::link(link[1], path)
                      : entry.endsWith(u'/') ? QDir().mkpath(path)
                                             : writeFile(path, entry.toUtf8())))
            return false;
    }
    return true;
}

// The entry itself, a link not followed; all zero when it is missing.
inline struct stat status(const QString &path)
{
    struct stat result = {};
    ::lstat(QFile::encodeName(path).constData(), &result);
    return result;
}
inline const auto exists = [](const QString &path) { return status(path).st_nlink > 0; };
inline const auto mode = [](const QString &path) { return status(path).st_mode & 07777; };

// What a tree holds, links not followed: relative path -> mode, modification
// time and contents, or link target. Equal snapshots
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
        const QFileInfo info = it.fileInfo();
        entries[base.relativeFilePath(path)]
                = QStringLiteral("%1 %2 %3")
                          .arg(mode(path), 0, 8)
                          .arg(status(path).st_mtime)
                          .arg(info.isSymLink() ? info.symLinkTarget()
                                                : QString::fromLatin1(readFile(path).toHex()));
    }
    return entries;
}

// Runs a command (the program, then its arguments) and returns its exit
// code, or -1 when it could not run or did not end within the bound.
inline int run(QStringList command, QByteArray *output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(command.takeFirst(), command);
    const bool finished = process.waitForFinished(int(HangBound.count()) * 1000);
    if (!finished && process.state() != QProcess::NotRunning)
        qWarning("Still waiting after %lld s for %s %s", static_cast<long long>(HangBound.count()),
                 qPrintable(process.program()), qPrintable(command.join(u' ')));
    if (output)
        *output = process.readAll();
    return finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

#endif // TRELLIS_FILETESTSUPPORT_H
