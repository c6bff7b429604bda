#include "CopyTaskRecorder.h"

#include "QtCompat.h"

#include <QDirIterator>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QtTest>

#include <unistd.h>

using Action = TFileCopyTask::EFileExistsAction;

// A temporary tree with src/ and dst/, a task living in the test thread and a
// recorder of its signals. Queued passes run while QTRY_* spins the event loop.
class Fixture
{
public:
    QTemporaryDir tmp;
    const QString src = tmp.path() + QStringLiteral("/src");
    const QString dst = tmp.path() + QStringLiteral("/dst");
    TFileCopyTask task;
    CopyTaskRecorder recorder { &task, tmp.path() };

    QString Src(const char *name) const { return src + QLatin1Char('/') + QLatin1String(name); }
    QString Dst(const char *name) const { return dst + QLatin1Char('/') + QLatin1String(name); }

    void Copy(const QStringList &names, int depth, const QString &destPrefix = QString())
    {
        QList<QFileInfo> sources;
        for (const QString &name : names)
            sources << QFileInfo(src + QLatin1Char('/') + name);
        task.CopyFiles(sources, QRegExp::escape(src), destPrefix.isNull() ? dst : destPrefix,
                       depth);
    }

    // Answers a question: "Continue:<n>" is Continue(n), any other text names
    // a slot without arguments.
    void Answer(const QString &answer)
    {
        if (answer.startsWith(QLatin1String("Continue:")))
            task.Continue(Action(answer.mid(9).toInt()));
        else
            QVERIFY(QMetaObject::invokeMethod(&task, answer.toLatin1().constData()));
    }

    QString LastState() const { return Last(recorder.Only(QStringLiteral("State"))); }
    QString LastProgress() const { return Last(recorder.Only(QStringLiteral("Progress"))); }
    static QString Last(const QStringList &list)
    {
        return list.isEmpty() ? QString() : list.constLast();
    }
    QStringList LastEvents(int count) const
    {
        return recorder.events.mid(recorder.events.size() - count);
    }
};

#define WAIT_FOR_STATES(fixture, expected)                                                         \
    QTRY_COMPARE_WITH_TIMEOUT((fixture).recorder.states, (expected), PassTimeout)

class tst_TFileCopyTask : public QObject
{
    Q_OBJECT

private slots:
    void metaObject();
    void emptyBatch_data();
    void emptyBatch();
    void copiesFromTheEndOfTheList();
    void copiesTrees_data();
    void copiesTrees();
    void answersConflicts_data();
    void answersConflicts();
    void spendsOneShotActions_data();
    void spendsOneShotActions();
    void asksPerWorkItem_data();
    void asksPerWorkItem();
    void renamesTheCurrentItemOnly();
    void pausesOnFailure_data();
    void pausesOnFailure();
    void stopsDuringAFileAndResumes();
    void discardsAStopBeforeThePass();
    void keepsANewBatchFromAStaleAnswer();
    void namesDestinationsAfterEntries();
    void leavesHiddenEntriesInDirectories_data();
    void leavesHiddenEntriesInDirectories();
    void conflictsWithLowerCasedExtension();
    void endsLinkCycles_data();
    void endsLinkCycles();
    void neverCopiesASourceOntoItself_data();
    void neverCopiesASourceOntoItself();
};

void tst_TFileCopyTask::metaObject()
{
    const QMetaObject &meta = TFileCopyTask::staticMetaObject;
    const QList<QByteArray> signatures { "State(int,QFileInfo)",
                                         "Progress(int,int,int)",
                                         "FileCopied(QFileInfo)",
                                         "Stop()",
                                         "SetFileExistAction(EFileExistsAction)",
                                         "Continue(EFileExistsAction)",
                                         "ContinueOverwrite()",
                                         "ContinueOverwriteAll()",
                                         "ContinueSkip()",
                                         "ContinueSkipAll()",
                                         "ContinueRename(EFileExistsAction,QString)",
                                         "Run()",
                                         "OnBytesWritten(qint64)" };
    QCOMPARE(meta.methodCount() - meta.methodOffset(), signatures.size());
    for (int i = 0; i < signatures.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        QCOMPARE(meta.indexOfMethod(signatures[i]), meta.methodOffset() + i);
        // The meta-object spells qint64 by its meta-type name, qlonglong.
        QCOMPARE(method.methodSignature(),
                 QByteArray(signatures[i]).replace("qint64", QMetaType::fromType<qint64>().name()));
        QCOMPARE(method.methodType(), i < 3 ? QMetaMethod::Signal : QMetaMethod::Slot);
        QCOMPARE(method.access(), i >= 11 ? QMetaMethod::Private : QMetaMethod::Public);
    }
    const auto parameterNames = [&meta](int index) {
        return meta.method(meta.methodOffset() + index).parameterNames();
    };
    QCOMPARE(parameterNames(0), QList<QByteArray>({ "state", "currentFile" }));
    QCOMPARE(parameterNames(1),
             QList<QByteArray>({ "percentComplete", "filesCopied", "fileSkipped" }));
    QCOMPARE(parameterNames(2), QList<QByteArray>({ "file" }));
    QCOMPARE(meta.method(meta.methodOffset() + 12).typeName(), "bool");

    const QMetaEnum actions = QMetaEnum::fromType<Action>();
    const QMetaEnum states = QMetaEnum::fromType<TFileCopyTask::ECopyState>();
    const char *actionNames[] = { "Ask", "Overwrite", "OverwriteAll", "Skip", "SkipAll" };
    const char *stateNames[] = { "StatePreparing", "StateCopying", "StateFileExists",
                                 "StateCopyFailed", "StateFinished" };
    QCOMPARE(actions.keyCount(), 5);
    QCOMPARE(states.keyCount(), 5);
    for (int value = 0; value < 5; ++value) {
        QCOMPARE(actions.keyToValue(actionNames[value]), value);
        QCOMPARE(states.keyToValue(stateNames[value]), value);
    }

    TFileCopyTask task;
    QVERIFY(QtCompat::MetaTypeIdByName("QFileInfo") != QMetaType::UnknownType);
}

void tst_TFileCopyTask::emptyBatch_data()
{
    QTest::addColumn<bool>("handOver");
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("srcPrefix");
    QTest::addColumn<QStringList>("expected");
    const QStringList done = Lines({ "Progress 100 0 0", "Progress 100 0 0", "State 4 -" });
    const QStringList batch = Lines({ "Progress 0 0 0" }) + done;
    QTest::newRow("Continue on a new task") << false << QString() << QString() << done;
    QTest::newRow("no sources") << true << QString() << QString() << batch;
    QTest::newRow("missing source") << true << QStringLiteral("missing.txt") << QString() << batch;
    QTest::newRow("source prefix does not match")
            << true << QStringLiteral("a.txt") << QStringLiteral("/elsewhere") << batch;
}

void tst_TFileCopyTask::emptyBatch()
{
    QFETCH(bool, handOver);
    QFETCH(QString, source);
    QFETCH(QString, srcPrefix);
    QFETCH(QStringList, expected);
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), "a"));
    if (!handOver) {
        f.task.ContinueOverwrite();
    } else {
        QList<QFileInfo> sources;
        if (!source.isNull())
            sources << QFileInfo(f.src + QLatin1Char('/') + source);
        f.task.CopyFiles(sources, srcPrefix.isNull() ? QRegExp::escape(f.src) : srcPrefix, f.dst,
                         0);
        QCOMPARE(f.recorder.events, Lines({ "Progress 0 0 0" }));
    }
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.recorder.events, expected);
    QVERIFY(!QFileInfo::exists(f.dst));
}

void tst_TFileCopyTask::copiesFromTheEndOfTheList()
{
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), QByteArray(100, 'a')));
    QVERIFY(WriteFile(f.Src("b.txt"), QByteArray(100, 'b')));
    QSignalSpy copied(&f.task, &TFileCopyTask::FileCopied);
    QSignalSpy states(&f.task, &TFileCopyTask::State);
    f.Copy(Lines({ "a.txt", "b.txt" }), 0);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(copied.size(), 2);
    QCOMPARE(copied[0][0].value<QFileInfo>(), QFileInfo(f.Src("b.txt")));
    QCOMPARE(copied[1][0].value<QFileInfo>(), QFileInfo(f.Src("a.txt")));
    QCOMPARE(states.size(), 1);
    QCOMPARE(states[0][0].toInt(), int(TFileCopyTask::StateFinished));
    QVERIFY(states[0][1].value<QFileInfo>().filePath().isEmpty());
    // The copier reports a small file once, before the task counts it; the
    // last byte of the batch still reads 99.
    QCOMPARE(f.recorder.events,
             Lines({ "Progress 0 0 0", "Progress 50 0 0", "FileCopied src/b.txt", "Progress 99 1 0",
                     "FileCopied src/a.txt", "Progress 100 2 0", "State 4 -" }));
    QVERIFY(SameTrees(f.src, f.dst));
}

void tst_TFileCopyTask::copiesTrees_data()
{
    QTest::addColumn<int>("depth");
    QTest::newRow("whole source") << 0;
    QTest::newRow("one level") << 1;
    QTest::newRow("all levels") << -1;
    QTest::newRow("large depth") << 100;
}

void tst_TFileCopyTask::copiesTrees()
{
    QFETCH(int, depth);
    Fixture f;
    QVERIFY(WriteFile(f.Src("top.txt"), QByteArray(5000, 't')));
    QVERIFY(WriteFile(f.Src("d1/x.txt"), QByteArray(10000, 'x')));
    QVERIFY(WriteFile(f.Src("d1/d2/y.txt"), QByteArray(3, 'y')));
    QVERIFY(WriteFile(f.Src("d1/zero.txt"), QByteArray()));
    QVERIFY(QDir().mkpath(f.Src("d1/empty")));
    QVERIFY(QDir().mkpath(f.Src("Empty2")));
    // The source directory itself is copied onto dst.
    f.task.CopyFiles({ QFileInfo(f.src) }, QRegExp::escape(f.src), f.dst, depth);
    WAIT_FOR_STATES(f, 1);

    QVERIFY(SameTrees(f.src, f.dst));
    const QStringList progress = f.recorder.Only(QStringLiteral("Progress"));
    QCOMPARE(progress.constFirst(), QStringLiteral("Progress 0 0 0"));
    QCOMPARE(progress.constLast(), QStringLiteral("Progress 100 6 0"));
    for (const QString &report : progress.mid(1, progress.size() - 2))
        QVERIFY2(report.section(QLatin1Char(' '), 1, 1).toInt() <= 99, qPrintable(report));
    QCOMPARE(f.recorder.Only(QStringLiteral("FileCopied")).size(), 6);
    QCOMPARE(f.LastState(), QStringLiteral("State 4 -"));
}

void tst_TFileCopyTask::answersConflicts_data()
{
    // Sources a, b, c of 100 bytes each; a and b exist at the destination. c
    // is copied first, then b raises the first question.
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QString>("secondAnswer");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QByteArray>("a");
    QTest::addColumn<QByteArray>("b");
    QTest::addColumn<bool>("nextBatchAsks");
    const QByteArray newA(100, 'A'), newB(100, 'B'), old("old");
    const QStringList overwriteAll
            = Lines({ "Progress 67 1 0", "FileCopied src/b.txt", "Progress 99 2 0",
                      "FileCopied src/a.txt", "Progress 100 3 0", "State 4 -" });
    const QStringList skipAll = Lines({ "Progress 100 1 2", "State 4 -" });
    QTest::newRow("ContinueOverwrite")
            << QStringLiteral("ContinueOverwrite") << QStringLiteral("ContinueSkip")
            << Lines({ "Progress 67 1 0", "FileCopied src/b.txt", "State 2 src/a.txt",
                       "Progress 100 2 1", "State 4 -" })
            << old << newB << true;
    QTest::newRow("ContinueOverwriteAll") << QStringLiteral("ContinueOverwriteAll") << QString()
                                          << overwriteAll << newA << newB << false;
    QTest::newRow("ContinueSkip") << QStringLiteral("ContinueSkip")
                                  << QStringLiteral("ContinueOverwrite")
                                  << Lines({ "State 2 src/a.txt", "Progress 99 1 1",
                                             "FileCopied src/a.txt", "Progress 100 2 1",
                                             "State 4 -" })
                                  << newA << old << true;
    QTest::newRow("ContinueSkipAll")
            << QStringLiteral("ContinueSkipAll") << QString() << skipAll << old << old << false;
    QTest::newRow("Continue(Ask)")
            << QStringLiteral("Continue:0") << QStringLiteral("ContinueOverwriteAll")
            << Lines({ "State 2 src/b.txt" }) + overwriteAll << newA << newB << false;
    QTest::newRow("Continue(SkipAll)")
            << QStringLiteral("Continue:4") << QString() << skipAll << old << old << false;
    QTest::newRow("Continue(7)") << QStringLiteral("Continue:7") << QString() << overwriteAll
                                 << newA << newB << false;
}

void tst_TFileCopyTask::answersConflicts()
{
    QFETCH(QString, answer);
    QFETCH(QString, secondAnswer);
    QFETCH(QStringList, expected);
    QFETCH(QByteArray, a);
    QFETCH(QByteArray, b);
    QFETCH(bool, nextBatchAsks);
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), QByteArray(100, 'A')));
    QVERIFY(WriteFile(f.Src("b.txt"), QByteArray(100, 'B')));
    QVERIFY(WriteFile(f.Src("c.txt"), QByteArray(100, 'C')));
    QVERIFY(WriteFile(f.Dst("a.txt"), "old"));
    QVERIFY(WriteFile(f.Dst("b.txt"), "old"));
    const QStringList sources = Lines({ "a.txt", "b.txt", "c.txt" });
    f.Copy(sources, 0);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.recorder.events,
             Lines({ "Progress 0 0 0", "Progress 33 0 0", "FileCopied src/c.txt",
                     "State 2 src/b.txt" }));

    f.recorder.events.clear();
    f.Answer(answer);
    if (!secondAnswer.isEmpty()) {
        WAIT_FOR_STATES(f, 2);
        f.Answer(secondAnswer);
    }
    WAIT_FOR_STATES(f, secondAnswer.isEmpty() ? 2 : 3);
    QCOMPARE(f.recorder.events, expected);
    QCOMPARE(ReadFile(f.Dst("a.txt")), a);
    QCOMPARE(ReadFile(f.Dst("b.txt")), b);
    QCOMPARE(ReadFile(f.Dst("c.txt")), QByteArray(100, 'C'));

    // An answer for all governs the next batch too.
    const int before = f.recorder.states;
    f.Copy(sources, 0);
    WAIT_FOR_STATES(f, before + 1);
    QCOMPARE(f.LastState(),
             nextBatchAsks ? QStringLiteral("State 2 src/c.txt") : QStringLiteral("State 4 -"));
}

void tst_TFileCopyTask::spendsOneShotActions_data()
{
    QTest::addColumn<Action>("action");
    QTest::addColumn<QString>("lastState");
    QTest::addColumn<QByteArray>("a");
    const QString asks = QStringLiteral("State 2 src/a.txt");
    const QString done = QStringLiteral("State 4 -");
    QTest::newRow("Overwrite") << TFileCopyTask::Overwrite << asks << QByteArray("old");
    QTest::newRow("Skip") << TFileCopyTask::Skip << asks << QByteArray("old");
    QTest::newRow("OverwriteAll") << TFileCopyTask::OverwriteAll << done << QByteArray("new");
    QTest::newRow("SkipAll") << TFileCopyTask::SkipAll << done << QByteArray("old");
}

void tst_TFileCopyTask::spendsOneShotActions()
{
    QFETCH(Action, action);
    QFETCH(QString, lastState);
    QFETCH(QByteArray, a);
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), "new"));
    QVERIFY(WriteFile(f.Src("b.txt"), "new"));
    QVERIFY(WriteFile(f.Dst("a.txt"), "old"));
    // b has no conflict, yet it spends a one-shot action; a then asks.
    f.task.SetFileExistAction(action);
    f.Copy(Lines({ "a.txt", "b.txt" }), 0);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastState(), lastState);
    QCOMPARE(ReadFile(f.Dst("a.txt")), a);
    QCOMPARE(ReadFile(f.Dst("b.txt")), QByteArray("new"));
}

void tst_TFileCopyTask::asksPerWorkItem_data()
{
    // tree/f1.txt and tree/sub/f3.txt exist at the destination, tree/f2.txt not.
    QTest::addColumn<int>("depth");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QStringList>("states");
    QTest::addColumn<QString>("lastProgress");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("f2");
    const QStringList perDirectory = Lines({ "State 2 src/tree", "State 4 -" });
    const QStringList perFile
            = Lines({ "State 2 src/tree/sub/f3.txt", "State 2 src/tree/f1.txt", "State 4 -" });
    const QString overwrite = QStringLiteral("ContinueOverwrite");
    const QString skip = QStringLiteral("ContinueSkip");
    QTest::newRow("depth 0, overwrite")
            << 0 << overwrite << perDirectory << QStringLiteral("Progress 100 3 0")
            << QByteArray("new") << QByteArray("new");
    QTest::newRow("depth 0, skip")
            << 0 << skip << perDirectory << QStringLiteral("Progress 100 0 3") << QByteArray("old")
            << QByteArray("<missing>");
    QTest::newRow("depth 100, overwrite")
            << 100 << overwrite << perFile << QStringLiteral("Progress 100 3 0")
            << QByteArray("new") << QByteArray("new");
    QTest::newRow("depth -1, skip") << -1 << skip << perFile << QStringLiteral("Progress 100 1 2")
                                    << QByteArray("old") << QByteArray("new");
}

void tst_TFileCopyTask::asksPerWorkItem()
{
    QFETCH(int, depth);
    QFETCH(QString, answer);
    QFETCH(QStringList, states);
    QFETCH(QString, lastProgress);
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, f2);
    Fixture f;
    QVERIFY(WriteFile(f.Src("tree/f1.txt"), "new"));
    QVERIFY(WriteFile(f.Src("tree/f2.txt"), "new"));
    QVERIFY(WriteFile(f.Src("tree/sub/f3.txt"), "new"));
    QVERIFY(WriteFile(f.Dst("tree/f1.txt"), "old"));
    QVERIFY(WriteFile(f.Dst("tree/sub/f3.txt"), "old"));
    f.Copy(Lines({ "tree" }), depth);
    for (int asked = 1; asked < states.size(); ++asked) {
        WAIT_FOR_STATES(f, asked);
        f.Answer(answer);
    }
    WAIT_FOR_STATES(f, states.size());
    QCOMPARE(f.recorder.Only(QStringLiteral("State")), states);
    QCOMPARE(f.LastProgress(), lastProgress);
    QCOMPARE(ReadFile(f.Dst("tree/f1.txt")), content);
    QCOMPARE(ReadFile(f.Dst("tree/sub/f3.txt")), content);
    QCOMPARE(ReadFile(f.Dst("tree/f2.txt")), f2);
}

void tst_TFileCopyTask::renamesTheCurrentItemOnly()
{
    Fixture f;
    const QString alt = f.tmp.path() + QStringLiteral("/alt");
    QVERIFY(WriteFile(f.Src("a.txt"), "new"));
    QVERIFY(WriteFile(f.Src("b.txt"), "new"));
    QVERIFY(WriteFile(f.Dst("b.txt"), "old"));
    QVERIFY(WriteFile(alt + QStringLiteral("/b.txt"), "old alternative"));
    f.Copy(Lines({ "a.txt", "b.txt" }), 0);
    WAIT_FOR_STATES(f, 1);
    // The alternative destination exists as well: asked again.
    f.task.ContinueRename(TFileCopyTask::Ask, alt);
    WAIT_FOR_STATES(f, 2);
    f.task.ContinueOverwrite();
    WAIT_FOR_STATES(f, 3);

    QCOMPARE(f.recorder.Only(QStringLiteral("State")),
             Lines({ "State 2 src/b.txt", "State 2 src/b.txt", "State 4 -" }));
    QCOMPARE(ReadFile(alt + QStringLiteral("/b.txt")), QByteArray("new"));
    QCOMPARE(ReadFile(f.Dst("b.txt")), QByteArray("old"));
    QCOMPARE(ReadFile(f.Dst("a.txt")), QByteArray("new"));
    QVERIFY(!QFileInfo::exists(alt + QStringLiteral("/a.txt")));
}

void tst_TFileCopyTask::pausesOnFailure_data()
{
    // Split one level, d gives the work item d/sub, holding x and y. dst/d is
    // a regular file, so nothing can be written below it, as root neither;
    // d/sub itself has no destination and thus no conflict.
    QTest::addColumn<QStringList>("sources");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("items left") << Lines({ "a.txt", "d", "b.txt" })
                                << Lines({ "Progress 0 0 0", "Progress 25 0 0",
                                           "FileCopied src/b.txt", "State 3 src/a.txt",
                                           "Progress 50 1 0", "FileCopied src/a.txt",
                                           "Progress 100 2 0", "State 4 -" });
    QTest::newRow("last item") << Lines({ "d", "b.txt" })
                               << Lines({ "Progress 0 0 0", "Progress 33 0 0",
                                          "FileCopied src/b.txt", "Progress 100 1 0",
                                          "State 4 -" });
}

void tst_TFileCopyTask::pausesOnFailure()
{
    QFETCH(QStringList, sources);
    QFETCH(QStringList, expected);
    Fixture f;
    for (const char *name : { "a.txt", "b.txt", "d/sub/x.txt", "d/sub/y.txt" })
        QVERIFY(WriteFile(f.Src(name), QByteArray(100, 'n')));
    QVERIFY(WriteFile(f.Dst("d"), "in the way"));
    f.Copy(sources, 1);
    WAIT_FOR_STATES(f, 1);
    if (f.LastState().startsWith(QLatin1String("State 3"))) {
        f.task.ContinueSkip();
        WAIT_FOR_STATES(f, 2);
    }
    // The rest of the failed item (y.txt) is dropped, not counted.
    QCOMPARE(f.recorder.events, expected);
    QCOMPARE(ReadFile(f.Dst("d")), QByteArray("in the way"));
}

void tst_TFileCopyTask::stopsDuringAFileAndResumes()
{
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), "a"));
    QVERIFY(WriteFile(f.Src("b.txt"), "b"));
    QVERIFY(WriteFile(f.Src("big.bin"), QByteArray(8 * 1024 * 1024, 'g')));
    // Stop takes no lock, so a receiver inside the pass may call it: the
    // copier's first report inside big.bin stops the pass.
    bool armed = false;
    QObject::connect(
            &f.task, &TFileCopyTask::Progress, &f.task,
            [&] {
                if (armed)
                    f.task.Stop();
                armed = false;
            },
            Qt::DirectConnection);
    f.Copy(Lines({ "a.txt", "b.txt", "big.bin" }), 0);
    armed = true;
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.recorder.events.size(), 3);
    const QString report = f.recorder.events[1];
    QVERIFY2(report.startsWith(QLatin1String("Progress "))
                     && report.section(QLatin1Char(' '), 1, 1).toInt() <= 99,
             qPrintable(report));
    QCOMPARE(f.recorder.events[2], QStringLiteral("State 4 src/b.txt"));

    // The interrupted item is dropped; the items not yet begun go on.
    f.recorder.events.clear();
    f.task.Continue(TFileCopyTask::Ask);
    WAIT_FOR_STATES(f, 2);
    QCOMPARE(f.recorder.Only(QStringLiteral("FileCopied")),
             Lines({ "FileCopied src/b.txt", "FileCopied src/a.txt" }));
    QCOMPARE(f.LastEvents(2), Lines({ "Progress 100 2 0", "State 4 -" }));
}

void tst_TFileCopyTask::discardsAStopBeforeThePass()
{
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), "a"));
    f.Copy(Lines({ "a.txt" }), 0);
    f.task.Stop(); // before the queued pass starts
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastEvents(2), Lines({ "Progress 100 1 0", "State 4 -" }));
}

void tst_TFileCopyTask::keepsANewBatchFromAStaleAnswer()
{
    Fixture f;
    QVERIFY(WriteFile(f.Src("a.txt"), "new"));
    QVERIFY(WriteFile(f.Src("c.txt"), "new"));
    QVERIFY(WriteFile(f.Dst("a.txt"), "old"));
    f.Copy(Lines({ "a.txt" }), 0);
    WAIT_FOR_STATES(f, 1);
    // A new batch, then an answer meant for the abandoned one.
    f.Copy(Lines({ "c.txt" }), 0);
    f.task.ContinueOverwrite();
    WAIT_FOR_STATES(f, 3);
    QCOMPARE(f.recorder.Only(QStringLiteral("State")),
             Lines({ "State 2 src/a.txt", "State 4 -", "State 4 -" }));
    QCOMPARE(ReadFile(f.Dst("c.txt")), QByteArray("new"));
    QCOMPARE(ReadFile(f.Dst("a.txt")), QByteArray("old"));
}

void tst_TFileCopyTask::namesDestinationsAfterEntries()
{
    Fixture f;
    QVERIFY(WriteFile(f.Src("a/report.txt"), "report"));
    QVERIFY(WriteFile(f.Src("a/notes.tar.gz"), "notes"));
    const QString backup = f.tmp.path() + QStringLiteral("/backup/");
    f.Copy(Lines({ "a" }), 0, backup + QStringLiteral("%1"));
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastState(), QStringLiteral("State 4 -"));
    QCOMPARE(ReadFile(backup + QStringLiteral("report/a/report.txt")), QByteArray("report"));
    QCOMPARE(ReadFile(backup + QStringLiteral("notes.tar/a/notes.tar.gz")), QByteArray("notes"));
}

void tst_TFileCopyTask::leavesHiddenEntriesInDirectories_data()
{
    QTest::addColumn<int>("depth");
    QTest::newRow("whole sources") << 0;
    QTest::newRow("all levels") << -1;
}

void tst_TFileCopyTask::leavesHiddenEntriesInDirectories()
{
    QFETCH(int, depth);
    Fixture f;
    for (const char *name : { "dir/visible.txt", "dir/.hidden.txt", "dir/.hiddendir/x.txt",
                              "onlyhidden/.secret", ".direct" })
        QVERIFY(WriteFile(f.Src(name), "x"));
    f.Copy(Lines({ "dir", "onlyhidden", ".direct" }), depth);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastProgress(), QStringLiteral("Progress 100 3 0"));
    const auto everything = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;
    QCOMPARE(QDir(f.dst).entryList(everything), Lines({ ".direct", "dir", "onlyhidden" }));
    QCOMPARE(QDir(f.Dst("dir")).entryList(everything), Lines({ "visible.txt" }));
    QVERIFY(QDir(f.Dst("onlyhidden")).isEmpty(everything));
}

void tst_TFileCopyTask::conflictsWithLowerCasedExtension()
{
    Fixture f;
    QVERIFY(WriteFile(f.Src("Photo.JPG"), "new"));
    QVERIFY(WriteFile(f.Dst("Photo.jpg"), "old"));
    f.Copy(Lines({ "Photo.JPG" }), 0);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastState(), QStringLiteral("State 2 src/Photo.JPG"));
    f.task.ContinueOverwrite();
    WAIT_FOR_STATES(f, 2);
    QCOMPARE(QDir(f.dst).entryList(QDir::Files), Lines({ "Photo.jpg" }));
    QCOMPARE(ReadFile(f.Dst("Photo.jpg")), QByteArray("new"));
}

void tst_TFileCopyTask::endsLinkCycles_data()
{
    QTest::addColumn<int>("depth");
    QTest::newRow("whole source") << 0;
    QTest::newRow("one level") << 1;
    QTest::newRow("all levels") << -1;
    QTest::newRow("large depth") << 100;
}

void tst_TFileCopyTask::endsLinkCycles()
{
    QFETCH(int, depth);
    Fixture f;
    for (const char *name :
         { "tree/f.txt", "tree/sub/g.txt", "tree/a/fa.txt", "tree/b/fb.txt", "other/o.txt" })
        QVERIFY(WriteFile(f.Src(name), name));
    // Links to their own directory, to the source, above the source, a cycle
    // of two, and one out of the source that is no cycle.
    for (const auto &link : { std::make_pair(".", "tree/sub/self"),
                              { "..", "tree/sub/up" },
                              { "../..", "tree/sub/top" },
                              { "../b", "tree/a/x" },
                              { "../a", "tree/b/y" },
                              { "../other", "tree/ext" } })
        QCOMPARE(::symlink(link.first, QFile::encodeName(f.Src(link.second)).constData()), 0);
    f.Copy(Lines({ "tree" }), depth);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastProgress(), QStringLiteral("Progress 100 7 0"));

    // A link is followed until it would enter a directory that contains it.
    const QDir copy(f.Dst("tree"));
    QStringList copied;
    QDirIterator it(copy.path(), QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        copied << copy.relativeFilePath(it.next());
    copied.sort();
    QCOMPARE(copied,
             Lines({ "a/fa.txt", "a/x/fb.txt", "b/fb.txt", "b/y/fa.txt", "ext/o.txt", "f.txt",
                     "sub/g.txt" }));
}

void tst_TFileCopyTask::neverCopiesASourceOntoItself_data()
{
    // Prefixes are appended to the fixture's src.
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("srcPrefix");
    QTest::addColumn<QString>("destPrefix");
    QTest::newRow("destination is the source") << QStringLiteral("d") << QString() << QString();
    QTest::newRow("same name but for the extension's case")
            << QStringLiteral("Photo.JPG") << QString() << QString();
    QTest::newRow("prefix matches the item only")
            << QStringLiteral("d") << QStringLiteral("/d$") << QStringLiteral("/elsewhere");
}

void tst_TFileCopyTask::neverCopiesASourceOntoItself()
{
    QFETCH(QString, source);
    QFETCH(QString, srcPrefix);
    QFETCH(QString, destPrefix);
    Fixture f;
    QVERIFY(WriteFile(f.Src("d/x.txt"), "x"));
    QVERIFY(WriteFile(f.Src("Photo.JPG"), "photo"));
    f.task.SetFileExistAction(TFileCopyTask::OverwriteAll);
    f.task.CopyFiles({ QFileInfo(f.src + QLatin1Char('/') + source) },
                     QRegExp::escape(f.src) + srcPrefix, f.src + destPrefix, 0);
    WAIT_FOR_STATES(f, 1);
    QCOMPARE(f.LastEvents(2), Lines({ "Progress 100 0 0", "State 4 -" }));
    QCOMPARE(ReadFile(f.Src("d/x.txt")), QByteArray("x"));
    QCOMPARE(ReadFile(f.Src("Photo.JPG")), QByteArray("photo"));
}

QTEST_GUILESS_MAIN(tst_TFileCopyTask)
#include "tst_tfilecopytask.moc"
