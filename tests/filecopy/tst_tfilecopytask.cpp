#include "AsNobody.h"
#include "CopyTestSupport.h"
#include "HangWatch.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TThreadedObject.h>

#include <QScopeGuard>
#include <QThread>

#include <atomic>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Action = TFileCopyTask::EFileExistsAction;

namespace {

// A worker thread that only runs its event loop, finished when destroyed.
// Its wait() is one that ThreadSanitizer sees, as QThread's is not: the
// task's last writes in it come before the test thread destroys the task.
struct Worker : TThreadedObject
{
    Worker() : TThreadedObject(QStringLiteral("copier")) { }
    ~Worker() override
    {
        Stop();
        const HangWatch watch(QStringLiteral("the copier thread to finish its pass and stop"));
        wait();
    }
    void Initialize() override { }
    void Finalize() override { }
};

// Adds a row of batches() twice: with the task in the test thread, and with
// the task in a worker thread, where the test thread queues its slot calls.
void AddRow(const QByteArray &name, const char *tree, const QByteArray &steps,
            const QByteArray &events, const char *files)
{
    for (const bool worker : { false, true })
        QTest::newRow((name + (worker ? " (worker)" : "")).constData())
                << worker << QString::fromUtf8(tree) << QString::fromUtf8(steps)
                << QString::fromUtf8(events) << QString::fromUtf8(files);
}

} // namespace

class tst_TFileCopyTask : public QObject
{
    Q_OBJECT

private slots:
    void batches_data();
    void batches();
};

// A row creates a tree (see makeTree()) in a temporary directory, runs its
// steps on one task, then matches the task's signals against events and
// checks the files (see CheckFiles()).
//
// steps: separated by ", "; each step waits until every pass queued so far
// has emitted State(). A step holds one or more actions separated by "+":
//   Copy:depth:sources[:srcPrefix[:destPrefix]]  CopyFiles() of the sources
//       (names in src/, separated by spaces); the source prefix is src/ and
//       the destination prefix dst/ unless given.
//   Slot[:action[:prefix]]  calls the slot of that name, e.g. ContinueSkip,
//       Continue:4 (SkipAll) or ContinueRename:0:@/alt.
//   StopAtReport:n  the receiver of the n-th Progress() from now calls Stop().
//   RemoveAtCopied:path[:tree]  the receiver of the next FileCopied() deletes
//       the file, or the directory with its contents, at path, then makes
//       tree (see makeTree()) when one is given.
//   Chmod:path:mode  sets the octal mode; the row then runs as user nobody
//       when run as root, whom permissions do not hold back.
//   Undecodable:path  makes a file named by path's bytes and a byte 0xff,
//       which UTF-8 file names cannot represent.
// "@" stands for the temporary directory.
//
// events: every signal, in order, separated by ", ":
//   "P percent copied skipped"  Progress()
//   "F path"                    FileCopied(), path relative to src/
//   "S state path"              State(), "-" for an empty QFileInfo
//   "X path ERROR"              EntryFailed(), with the errno name
//   "L path Reason"             EntryLeftOut()
// "*" matches any text within one event, "..." any run of events.
// Each row runs twice: with the task in the test thread, then in a worker
// thread, where the slots are called through queued connections.
void tst_TFileCopyTask::batches_data()
{
    QTest::addColumn<bool>("worker");
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("events");
    QTest::addColumn<QString>("files");

    // A batch of a, b and c ("Copy" in steps), answered: c is copied first,
    // then b asks; its copy, written as b.txt, conflicts with the existing
    // b.txt. A preset one-shot action (SetFileExistAction:1 or :3) is spent
    // by c, which does not conflict.
    const QByteArray overwriteRest = "P 67 1 0, F b.TXT, P 99 2 0, F a.txt, P 100 3 0, S 4 -";
    const auto answered = [](const char *name, QByteArray steps, const QByteArray &laterEvents,
                             const char *files) {
        AddRow(name,
               "src/a.txt=new src/b.TXT=new src/c.txt=new dst/a.txt=old dst/b.txt=old "
               "alt/b.txt=old",
               steps.replace("Copy", "Copy:0:a.txt b.TXT c.txt"),
               "P 0 0 0, P 33 0 0, F c.txt, S 2 b.TXT, " + laterEvents, files);
    };
    answered("preset Overwrite spent, ContinueOverwrite spent by its item",
             "SetFileExistAction:1+Copy, ContinueOverwrite, ContinueSkip",
             "P 67 1 0, F b.TXT, S 2 a.txt, P 100 2 1, S 4 -",
             "dst/a.txt=old dst=/a.txt,b.txt,c.txt dst/b.txt=new dst/c.txt=new");
    answered("ContinueOverwriteAll, kept for the next batch", "Copy, ContinueOverwriteAll, Copy",
             overwriteRest + ", P 0 0 0, P 33 0 0, F c.txt, " + overwriteRest,
             "dst/a.txt=new dst/b.txt=new");
    answered("preset Skip spent, ContinueSkip spent by its item",
             "SetFileExistAction:3+Copy, ContinueSkip, ContinueOverwrite",
             "S 2 a.txt, P 99 1 1, F a.txt, P 100 2 1, S 4 -", "dst/a.txt=new dst/b.txt=old");
    answered("Stop at a question, ContinueSkipAll, kept for the next batch",
             "Copy, Stop+ContinueSkipAll, Copy", "P 100 1 2, S 4 -, P 0 0 0, P 100 0 3, S 4 -",
             "dst/a.txt=old dst/b.txt=old dst/c.txt=new");
    // Any value but the five actions overwrites, and is kept.
    answered("Continue(Ask) asks again, Continue(7) overwrites", "Copy, Continue:0, Continue:7",
             "S 2 b.TXT, " + overwriteRest, "dst/a.txt=new dst/b.txt=new");
    answered("ContinueRename asks again for the alternative, for its item only",
             "Copy, ContinueRename:0:@/alt, ContinueOverwrite, ContinueSkip",
             "S 2 b.TXT, P 67 1 0, F b.TXT, S 2 a.txt, P 100 2 1, S 4 -",
             "alt/b.txt=new dst/b.txt=old alt/a.txt=- dst/a.txt=old");
    answered("a vanished item raises no question", "RemoveAtCopied:@/src/a.txt+Copy, ContinueSkip",
             "P 100 1 1, S 4 -", "dst/a.txt=old");

    AddRow("an answer before a new batch is expanded keeps the batch",
           "src/a.txt=new src/c.txt=new dst/a.txt=old",
           "Copy:0:a.txt, Copy:0:c.txt+ContinueOverwrite",
           "P 0 0 0, S 2 a.txt, P 0 0 0, P 99 0 0, F c.txt, P 100 1 0, S 4 -, "
           "P 100 0 0, P 100 1 0, S 4 -",
           "dst/a.txt=old dst/c.txt=new");

    // Split one level, d gives the item d/sub. dst/d is a file, so nothing
    // can be written below it, as root neither. The rest of the failed item
    // (y.txt) is dropped.
    AddRow("a failure pauses with items left, and ends the batch of the last item",
           "src/a.txt=a src/b.txt=b src/d/sub/x.txt=x src/d/sub/y.txt=y dst/d=file",
           "Copy:1:a.txt d b.txt, ContinueSkip, Copy:1:d",
           "P 0 0 0, P 25 0 0, F b.txt, X d/sub/x.txt ENOTDIR, S 3 a.txt, P 50 1 0, F a.txt, "
           "P 100 2 0, S 4 -, P 0 0 0, X d/sub/x.txt ENOTDIR, P 100 0 0, S 4 -",
           "dst/d=file");
    // Sorted by their bytes, the name that cannot be represented comes last.
    AddRow("a name the locale cannot represent fails, a name beyond ASCII copies",
           "src/d/\u00e9.txt=e", "Undecodable:@/src/d/+Copy:0:d",
           "P 0 0 0, P *, F d/\u00e9.txt, X d/\ufffd EILSEQ, P 100 1 0, S 4 -",
           "dst/d=/\u00e9.txt dst/d/\u00e9.txt=e");
    AddRow("stop inside a large file, resume", "src/a.txt=a src/b.txt=b src/big.bin#8388608",
           "StopAtReport:2+Copy:0:a.txt b.txt big.bin, Continue:0",
           "P 0 0 0, P * 0 0, X big.bin ECANCELED, S 4 b.txt, P *, F b.txt, P *, F a.txt, "
           "P 100 2 0, S 4 -",
           "dst/a.txt=a dst/b.txt=b");
    // What is left out is told as each item is copied; a skipped item (z)
    // tells nothing.
    AddRow("left out: hidden names, special files, links to nothing and into the tree",
           "src/x/a.txt=a src/x/.h=h src/x/.hd/f=f src/x/dead->nowhere src/x/loop->. "
           "src/y/b.txt=b src/y/.h=h src/z/c.txt=c src/z/.h=h dst/z/ src/x/p|",
           "SetFileExistAction:3+Copy:0:x y z",
           "P 0 0 0, L y/.h HiddenName, P 67 0 1, F y/b.txt, L x/.h HiddenName, "
           "L x/.hd HiddenName, L x/dead DanglingLink, L x/p Fifo, L x/loop LinkIntoTree, "
           "P 99 1 1, F x/a.txt, P 100 2 1, S 4 -",
           "dst=/x,y,z dst/x=/a.txt dst/z=/");
    AddRow("left out when a batch is split", "src/x/a.txt=a src/x/.h=h", "Copy:1:x",
           "P 0 0 0, L x/.h HiddenName, P 99 0 0, F x/a.txt, P 100 1 0, S 4 -", "dst/x=/a.txt");

    // The next file of the directory finds it by its path again.
    AddRow("a destination directory removed between its files is made again",
           "src/d/a.txt=a src/d/b.txt=b", "RemoveAtCopied:@/dst/d+Copy:1:d",
           "..., F d/b.txt, P 99 1 0, F d/a.txt, P 100 2 0, S 4 -", "dst/d=/a.txt dst/d/a.txt=a");

    // The next file is looked for by its path again, in the new directory;
    // each file has a destination directory of its own.
    AddRow("a source directory replaced between its files is read anew",
           "src/d/a.txt=a src/d/b.txt=b",
           "RemoveAtCopied:@/src/d:src/d/a.txt=new+Copy:1:d::@/dst/%1",
           "..., F d/b.txt, P 99 1 0, F d/a.txt, P 100 2 0, S 4 -",
           "dst=/a,b dst/a/d/a.txt=new dst/b/d/b.txt=b");

    // A source gone before its copy is passed over without a count or a
    // signal, and its old copy stays. A file item that only has to be copied
    // goes the same way as this entry of a directory item.
    AddRow("an entry gone before its turn", "src/d/a.txt=a src/d/b.txt=b dst/d/b.txt=old",
           "SetFileExistAction:2+RemoveAtCopied:@/src/d/b.txt+Copy:0:d",
           "P 0 0 0, P 50 0 0, F d/a.txt, P 100 1 0, S 4 -", "dst/d=/a.txt,b.txt dst/d/b.txt=old");

    // Permissions: a directory that can be read but not searched is a work
    // item all the same, and fails where it is met rather than being passed
    // over unseen.
    AddRow("an unsearchable directory, an item or in one", "src/d/a.txt=a src/d/sub/f.txt=f",
           "Chmod:@/src/d/sub:444+Copy:100:d, Copy:0:d",
           "P 0 0 0, X d/sub EACCES, S 3 d/a.txt, "
           "P 0 0 0, P *, F d/a.txt, X d/sub EACCES, P 100 1 0, S 4 -",
           "dst/d=/a.txt");
    // A file that cannot be read is not a vanished one: its old copies go,
    // under both names, as the copy of a file always removes them first.
    AddRow("an unreadable file", "src/a.TXT=new dst/a.TXT=old dst/a.txt=old",
           "SetFileExistAction:2+Chmod:@/src/a.TXT:200+Copy:0:a.TXT",
           "P 0 0 0, X a.TXT EACCES, P 100 0 0, S 4 -", "dst=/");

    const QByteArray nothing = "P 100 0 0, P 100 0 0, S 4 -";
    AddRow("Continue on a new task", "src/a.txt=a", "ContinueOverwrite", nothing, "dst=-");
    for (const char *copy : { "Copy:0:", "Copy:0:missing.txt", "Copy:0:a.txt:@/elsewhere" })
        AddRow(copy, "src/a.txt=a", copy, "P 0 0 0, " + nothing, "dst=-");
    // A stop asked for at the first report of a pass with nothing to do
    // holds back the report of a completed batch.
    AddRow("a stop at the report of nothing to do", "src/a.txt=a",
           "StopAtReport:2+Copy:0:missing.txt", "P 0 0 0, P 100 0 0, S 4 -", "dst=-");

    for (const int depth : { 0, 1, -1, 100 }) {
        const QByteArray copy = "Copy:" + QByteArray::number(depth);
        // Hidden entries are copied only when named as sources.
        AddRow(copy + ":.direct . copies the tree",
               "src/top.txt=t src/d1/x.txt=x src/d1/d2/y.txt=y src/d1/zero.txt= "
               "src/d1/empty/ src/Empty2/ src/d1/.hidden.txt=h src/d1/.hiddendir/x.txt=x "
               "src/onlyhidden/.secret=s src/.direct=d",
               copy + ":.direct .", "..., P 100 8 0, S 4 -",
               "dst=/.direct,d1,Empty2,onlyhidden,top.txt dst/d1=/d2,empty,x.txt,zero.txt "
               "dst/d1/d2=/y.txt dst/d1/empty=/ dst/Empty2=/ dst/onlyhidden=/ dst/top.txt=t "
               "dst/d1/x.txt=x dst/d1/d2/y.txt=y dst/d1/zero.txt= dst/.direct=d");
        // Links to their own directory, to the source, above the source, a
        // cycle of two, and one out of the source that is no cycle.
        AddRow(copy + ":tree ends link cycles",
               "src/tree/f.txt=f src/tree/sub/g.txt=g src/tree/a/fa.txt=a src/tree/b/fb.txt=b "
               "src/other/o.txt=o src/tree/sub/self->. src/tree/sub/up->.. src/tree/sub/top->../.. "
               "src/tree/a/x->../b src/tree/b/y->../a src/tree/ext->../other",
               copy + ":tree", "..., P 100 7 0, S 4 -",
               "dst/tree/f.txt=f dst/tree/sub/g.txt=g dst/tree/a/fa.txt=a dst/tree/a/x/fb.txt=b "
               "dst/tree/b/fb.txt=b dst/tree/b/y/fa.txt=a dst/tree/ext/o.txt=o");
    }
    AddRow("%1 in the destination prefix, a Stop before the pass",
           "src/a/report.txt=r src/a/notes.tar.gz=n", "Copy:0:a::@/backup/%1+Stop",
           "..., P 100 2 0, S 4 -",
           "backup/report/a/report.txt=r backup/notes.tar/a/notes.tar.gz=n");
    // A source prefix can end inside a name: what it does not match is dropped.
    AddRow("a source prefix ending inside names", "src/d/ab.txt=a src/d/b.txt=b src/d/abc/x.txt=x",
           "Copy:-1:d:@/src/d/a:@/dst", "..., P 100 2 0, S 4 -",
           "dstb.txt=a dstbc/x.txt=x dst=- src/d/b.txt=b");
    AddRow("a destination prefix that joins the names", "src/d/a.txt=a src/d/e/b.txt=b",
           "ContinueOverwriteAll, Copy:-1:d:@/src/d/:@/dst-", "..., P 100 2 0, S 4 -",
           "dst-a.txt=a dst-e/b.txt=b");
    AddRow("a source prefix longer than the item's path", "src/d/ab.txt=a",
           "Copy:0:d:@/src/d/a:@/dst", "P 0 0 0, " + nothing, "dst=- dstb.txt=-");
    AddRow("a prefix without %1 is taken literally", "src/a.txt=a", "Copy:0:a.txt::@/back\\1%off",
           "..., P 100 1 0, S 4 -", "back\\1%off/a.txt=a");
    // A source prefix is a regular expression, replaced as QString::replace()
    // replaces one: with its captures, and wherever an alternative matches.
    AddRow("a source prefix that captures", "src/d/a.txt=a", "Copy:0:d:@/src/(d):@/dst/\\1\\1",
           "..., P 100 1 0, S 4 -", "dst/dd/a.txt=a");
    AddRow("a source prefix with an alternative not at the start", "src/d/a.txt=a",
           "Copy:-1:d:@/none|/d/:/e/", "..., P 100 1 0, S 4 -", "src/e/a.txt=a src/d/a.txt=a");
    // Never onto the source itself, whatever the answer.
    AddRow("an entry the prefix does not match fails", "src/d/x.txt=x",
           "ContinueOverwriteAll, Copy:0:d:@/src/d$:@/elsewhere",
           "..., P 0 0 0, X d/x.txt EINVAL, P 100 0 0, S 4 -", "src/d/x.txt=x elsewhere=-");
    AddRow("the destination is the source, also but for the extension's case",
           "src/d/x.txt=x src/Photo.JPG=p",
           "ContinueOverwriteAll, Copy:0:d Photo.JPG::@/src, ContinueOverwriteAll",
           "..., P 0 0 0, X Photo.JPG EINVAL, S 3 d, X d/x.txt EINVAL, P 100 0 0, S 4 -",
           "src/d/x.txt=x src/Photo.JPG=p src/Photo.jpg=-");
}

void tst_TFileCopyTask::batches()
{
    QFETCH(bool, worker);
    QFETCH(QString, tree);
    QFETCH(QString, steps);
    QFETCH(QString, events);
    QFETCH(QString, files);
    if (steps.contains(QLatin1String("Chmod:")))
        RUN_AS_NOBODY_WHEN_ROOT();
    QTemporaryDir tmp;
    const QString src = tmp.path() + QStringLiteral("/src");
    QVERIFY(makeTree(tmp.path(), tree));
    TFileCopyTask task;
    // Each signal is noted as text (see batches_data()) in the emitting
    // thread, in the order emitted.
    std::mutex receivedMutex;
    QStringList received; // guarded by receivedMutex
    std::atomic<int> states { 0 }, emittedElsewhere { 0 }; // elsewhere: not in the task's thread
    const auto record = [&](const QString &event) {
        const bool elsewhere = QThread::currentThread() != task.thread();
        const std::lock_guard<std::mutex> locker(receivedMutex);
        received << event;
        states += event.startsWith(QLatin1Char('S'));
        emittedElsewhere += elsewhere;
    };
    const auto relative = [&src](const QFileInfo &file) {
        return file.filePath().isEmpty() ? QStringLiteral("-")
                                         : QDir(src).relativeFilePath(file.absoluteFilePath());
    };
    QObject::connect(&task, &TFileCopyTask::State, [&](int state, const QFileInfo &file) {
        record(QStringLiteral("S %1 %2").arg(state).arg(relative(file)));
    });
    QString removeAtCopied, makeAtCopied; // guarded by receivedMutex
    QObject::connect(&task, &TFileCopyTask::FileCopied, [&](const QFileInfo &file) {
        record(QStringLiteral("F ") + relative(file));
        const std::lock_guard<std::mutex> locker(receivedMutex);
        if (removeAtCopied.isEmpty())
            return;
        const QString path = std::exchange(removeAtCopied, QString());
        QVERIFY(QFileInfo(path).isDir() ? QDir(path).removeRecursively() : QFile::remove(path));
        QVERIFY(makeTree(tmp.path(), std::exchange(makeAtCopied, QString())));
    });
    QObject::connect(task.Notifier(), &TFileCopyNotifier::EntryFailed,
                     [&](const QFileInfo &file, int error) {
                         record(QStringLiteral("X %1 %2").arg(
                                 relative(file), QLatin1String(::strerrorname_np(error))));
                     });
    QObject::connect(
            task.Notifier(), &TFileCopyNotifier::EntryLeftOut,
            [&](const QFileInfo &file, TFileCopyNotifier::LeftOutReason reason) {
                record(QStringLiteral("L %1 %2").arg(
                        relative(file),
                        QLatin1String(QMetaEnum::fromType<decltype(reason)>().valueToKey(reason))));
            });
    // Stop() is the one call a receiver inside the pass may make.
    std::atomic<int> reportsToStop { 0 };
    QObject::connect(&task, &TFileCopyTask::Progress, [&](int percent, int copied, int skipped) {
        record(QStringLiteral("P %1 %2 %3").arg(percent).arg(copied).arg(skipped));
        if (reportsToStop > 0 && --reportsToStop == 0)
            task.Stop();
    });
    qRegisterMetaType<Action>("EFileExistsAction");
    // Slots are invoked with the automatic connection type: queued into the
    // worker's thread, or called directly in the test thread.
    Worker thread; // destroyed, and so finished, before all that a pass uses
    if (worker) {
        thread.start();
        thread.MoveToThisThread(&task);
    }

    // Undone before the temporary directory goes: files whose names QDir
    // cannot name, and modes that keep it from being removed.
    QByteArrayList undecodable, chmodded;
    const auto undo = qScopeGuard([&] {
        for (const QByteArray &path : std::as_const(undecodable))
            ::unlink(path.constData());
        for (const QByteArray &path : std::as_const(chmodded))
            ::chmod(path.constData(), 0700);
    });
    int passes = 0;
    for (const QString &step :
         steps.replace(QLatin1Char('@'), tmp.path()).split(QStringLiteral(", "))) {
        for (const QString &action : step.split(QLatin1Char('+'))) {
            const QStringList word = action.split(QLatin1Char(':'));
            const QByteArray name = word[0].toLatin1();
            if (name == "Copy") {
                QList<QFileInfo> sources;
                for (const QString &source : word[2].split(QLatin1Char(' '), Qt::SkipEmptyParts))
                    sources << QFileInfo(QDir::cleanPath(src + QLatin1Char('/') + source));
                task.CopyFiles(sources, word.value(3).isEmpty() ? QRegExp::escape(src) : word[3],
                               word.value(4).isEmpty() ? tmp.path() + QStringLiteral("/dst")
                                                       : word[4],
                               word[1].toInt());
                ++passes;
            } else if (name == "StopAtReport") {
                reportsToStop = word[1].toInt();
            } else if (name == "RemoveAtCopied") {
                const std::lock_guard<std::mutex> locker(receivedMutex);
                removeAtCopied = word[1];
                makeAtCopied = word.value(2);
            } else if (name == "Chmod") {
                chmodded << QFile::encodeName(word[1]);
                QCOMPARE(::chmod(chmodded.constLast().constData(), word[2].toUInt(nullptr, 8)), 0);
            } else if (name == "Undecodable") {
                if (QFile::encodeName(QStringLiteral("\u00e9")) != "\xc3\xa9")
                    QSKIP("file names are not encoded in UTF-8 here");
                const QByteArray path = QFile::encodeName(word[1]) + '\xff';
                const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
                QVERIFY(fd >= 0 && ::close(fd) == 0);
                undecodable << path;
            } else {
                QVERIFY(QMetaObject::invokeMethod(
                        &task, name,
                        word.size() > 1
                                ? Q_ARG(TFileCopyTask::EFileExistsAction, Action(word[1].toInt()))
                                : QGenericArgument(),
                        word.size() > 2 ? Q_ARG(QString, word[2]) : QGenericArgument()));
                passes += name.startsWith("Continue"); // those queue a pass
            }
        }
        QTRY_COMPARE_WITH_TIMEOUT(states.load(), passes, HangBoundMsecs);
    }

    const QString actual = [&] {
        const std::lock_guard<std::mutex> locker(receivedMutex);
        return received.join(QStringLiteral(", "));
    }();
    // "*" and "..." (see batches_data()) as regular expressions.
    const QRegExp pattern(QRegExp::escape(events)
                                  .replace(QLatin1String("\\*"), QLatin1String("[^,]*"))
                                  .replace(QLatin1String("\\.\\.\\."), QLatin1String(".*")));
    QVERIFY2(pattern.exactMatch(actual), qPrintable(actual));
    // 100% is reported only at the end of a completed batch.
    QVERIFY2(!actual.contains(QRegularExpression(QStringLiteral("P 100 [^,]*, (F|P \\d\\d?) "))),
             qPrintable(actual));
    // In a worker, only the Progress(0, 0, 0) of CopyFiles() comes from the calling thread.
    QCOMPARE(emittedElsewhere.load(), worker ? int(steps.count(QLatin1String("Copy:"))) : 0);
    CheckFiles(tmp.path(), files);
}

QTEST_GUILESS_MAIN(tst_TFileCopyTask)
#include "tst_tfilecopytask.moc"
