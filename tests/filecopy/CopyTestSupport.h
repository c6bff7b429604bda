#ifndef TRELLIS_COPYTESTSUPPORT_H
#define TRELLIS_COPYTESTSUPPORT_H

#include <Trellis/TFileCopyTask.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <QtTest>

#include <atomic>

// A pass ends with sync(), which can take long on a disk that other programs
// keep busy, and sanitizer builds on a loaded machine are slow. Only a failing
// test waits this long.
constexpr int PassTimeout = 120000;

// Creates the entries of spec, separated by spaces, under root: "path=text" a
// file holding text, "path#size" a file of size bytes, "path/" a directory and
// "path->target" a symbolic link.
inline void MakeTree(const QString &root, const QString &spec)
{
    for (const QString &entry : spec.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString path = root + QLatin1Char('/')
                + entry.section(QRegularExpression(QStringLiteral("=|#|->")), 0, 0);
        QVERIFY(QDir().mkpath(entry.endsWith(QLatin1Char('/')) ? path : QFileInfo(path).path()));
        if (entry.contains(QLatin1String("->"))) {
            QVERIFY(QFile::link(entry.section(QLatin1String("->"), 1), path));
        } else if (!entry.endsWith(QLatin1Char('/'))) {
            const QByteArray content = entry.contains(QLatin1Char('='))
                    ? entry.section(QLatin1Char('='), 1).toUtf8()
                    : QByteArray(entry.section(QLatin1Char('#'), 1).toInt(), 'x');
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
        }
    }
}

// Checks the entries of spec, separated by spaces, under root: "path=text" a
// file holding text, "path=-" nothing, "path=/a,b" a directory holding
// exactly a and b (hidden or not), and "left==right" two trees that diff -r
// finds equal.
inline void CheckFiles(const QString &root, const QString &spec)
{
    for (const QString &check : spec.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString path = root + QLatin1Char('/') + check.section(QLatin1Char('='), 0, 0);
        if (check.contains(QLatin1String("=="))) {
            const QString other = root + QLatin1Char('/') + check.section(QLatin1String("=="), 1);
            QCOMPARE(QProcess::execute(QStringLiteral("diff"),
                                       { QStringLiteral("-r"), path, other }),
                     0);
        } else if (QFileInfo(path).isDir()) {
            const auto all = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;
            QCOMPARE(QLatin1Char('/') + QDir(path).entryList(all).join(QLatin1Char(',')),
                     check.section(QLatin1Char('='), 1));
        } else {
            QFile file(path);
            QCOMPARE(file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll())
                                                    : QStringLiteral("-"),
                     check.section(QLatin1Char('='), 1));
        }
    }
}

// Records the signals of a task in the order they reach the recorder's thread,
// as text: "P percent copied skipped" for Progress(), "F path" for
// FileCopied() and "S state path" for State(), with paths relative to root and
// "-" for an empty QFileInfo.
class CopyTaskRecorder : public QObject
{
public:
    CopyTaskRecorder(TFileCopyTask *task, const QString &root) : root(root)
    {
        connect(task, &TFileCopyTask::State, this, [this](int state, const QFileInfo &file) {
            events << QStringLiteral("S %1 %2").arg(state).arg(Name(file));
            ++states;
        });
        connect(task, &TFileCopyTask::Progress, this, [this](int percent, int copied, int skipped) {
            events << QStringLiteral("P %1 %2 %3").arg(percent).arg(copied).arg(skipped);
        });
        connect(task, &TFileCopyTask::FileCopied, this,
                [this](const QFileInfo &file) { events << QStringLiteral("F ") + Name(file); });
        const auto noteThread
                = [this, task] { emittedElsewhere += QThread::currentThread() != task->thread(); };
        connect(task, &TFileCopyTask::State, this, noteThread, Qt::DirectConnection);
        connect(task, &TFileCopyTask::Progress, this, noteThread, Qt::DirectConnection);
        connect(task, &TFileCopyTask::FileCopied, this, noteThread, Qt::DirectConnection);
    }

    QString Name(const QFileInfo &file) const
    {
        return file.filePath().isEmpty() ? QStringLiteral("-")
                                         : QDir(root).relativeFilePath(file.absoluteFilePath());
    }

    const QString root;
    QStringList events;
    // Counted here rather than by a QSignalSpy, which would count in the
    // emitting thread, ahead of the queued events.
    int states = 0;
    // The signals emitted outside the task's own thread.
    std::atomic<int> emittedElsewhere { 0 };
};

#endif // TRELLIS_COPYTESTSUPPORT_H
