#ifndef TRELLIS_FILETESTSUPPORT_H
#define TRELLIS_FILETESTSUPPORT_H

#include "HangWatch.h"
#include "TreeSupport.h"
#include "programcommand.h"

#include <Trellis/TLocalTime.h>

#include <QtCore>
#include <QtTest>

#include <optional>

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

// Only a regular file is read: a FIFO would block its reader.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return QFileInfo(path).isFile() && file.open(QIODevice::ReadOnly) ? file.readAll()
                                                                      : QByteArray("<unreadable>");
}

// Splits a list written as one text: names("a b c") or names("a|b c", '|').
inline QStringList names(const char *list, char separator = ' ')
{
    return QString::fromUtf8(list).split(QLatin1Char(separator), Qt::SkipEmptyParts);
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
    const bool finished = process.waitForFinished(HangBoundMsecs);
    if (!finished && process.state() != QProcess::NotRunning)
        qWarning("Still waiting after %lld s for %s %s", static_cast<long long>(HangBound.count()),
                 qPrintable(process.program()), qPrintable(command.join(u' ')));
    if (output)
        *output = process.readAll();
    return finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

// The command that starts name, a program built next to the test program.
inline QStringList programNextToTest(const QString &name)
{
    return programCommand(QCoreApplication::applicationDirPath() + u'/' + name);
}

// size bytes that look random, the same for the same seed.
inline QByteArray randomBytes(qint64 size, quint32 seed = 1)
{
    QByteArray bytes(int(size + 3) & ~3, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    return bytes.left(int(size));
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

// A test program of files: it runs with the umask 022, in UTC with the
// offset clock 400 days back, so that a stamp stands apart from the time a
// file was written, and each test works in a fresh temporary directory made
// the working directory. LeakSanitizer cannot inspect a process that is
// being traced, so child processes run under strace do without it.
class FileTestCase : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        ::umask(022);
        qputenv("TZ", "UTC");
        tzset();
        TLocalTime::SetOffset(-400 * 24 * 3600);
        qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
    }
    void init()
    {
        m_dir.emplace();
        // A process of another user (tst_hostile's attacker) must reach the tree.
        QVERIFY(m_dir->isValid() && QDir::setCurrent(m_dir->path()) && ::chmod(".", 0705) == 0);
    }
    void cleanup()
    {
        QDir::setCurrent(m_start);
        m_dir.reset();
    }

private:
    const QString m_start = QDir::currentPath();
    std::optional<QTemporaryDir> m_dir;
};

#endif // TRELLIS_FILETESTSUPPORT_H
