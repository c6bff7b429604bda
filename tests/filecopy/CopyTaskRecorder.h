#ifndef TRELLIS_COPYTASKRECORDER_H
#define TRELLIS_COPYTASKRECORDER_H

#include <Trellis/TFileCopyTask.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStringList>
#include <QTemporaryDir>

#include <initializer_list>

// A pass ends with sync(), which can take long on a disk that other programs keep busy.
constexpr int PassTimeout = 120000;

inline QStringList Lines(std::initializer_list<const char *> lines)
{
    QStringList list;
    for (const char *line : lines)
        list << QString::fromUtf8(line);
    return list;
}

inline bool WriteFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

inline QByteArray ReadFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// True when diff -r finds the two trees equal.
inline bool SameTrees(const QString &left, const QString &right)
{
    return QProcess::execute(QStringLiteral("diff"), { QStringLiteral("-r"), left, right }) == 0;
}

// Records the signals of a task in the order they reach the recorder's thread,
// as text such as "Progress 33 0 0", "FileCopied src/c.txt" or
// "State 2 src/b.txt", with paths relative to root and "-" for an empty
// QFileInfo.
class CopyTaskRecorder : public QObject
{
public:
    CopyTaskRecorder(TFileCopyTask *task, const QString &root) : root(root)
    {
        connect(task, &TFileCopyTask::State, this, [this](int state, const QFileInfo &file) {
            events << QStringLiteral("State %1 %2").arg(state).arg(Name(file));
            ++states;
        });
        connect(task, &TFileCopyTask::Progress, this, [this](int percent, int copied, int skipped) {
            events << QStringLiteral("Progress %1 %2 %3").arg(percent).arg(copied).arg(skipped);
        });
        connect(task, &TFileCopyTask::FileCopied, this, [this](const QFileInfo &file) {
            events << QStringLiteral("FileCopied ") + Name(file);
        });
    }

    QString Name(const QFileInfo &file) const
    {
        return file.filePath().isEmpty() ? QStringLiteral("-")
                                         : QDir(root).relativeFilePath(file.absoluteFilePath());
    }

    // The events that start with prefix, such as "Progress" or "State".
    QStringList Only(const QString &prefix) const
    {
        return events.filter(QRegularExpression(QLatin1Char('^') + prefix));
    }

    const QString root;
    QStringList events;
    // Counted here rather than by a QSignalSpy, which would count in the
    // emitting thread, ahead of the queued events.
    int states = 0;
};

#endif // TRELLIS_COPYTASKRECORDER_H
