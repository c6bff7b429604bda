#include "CopyTestSupport.h"

#include <Trellis/TFileCopyTask.h>

#include <algorithm>
#include <numeric>

// What a batch is made of and copied as: its work items and entries, their
// order, and the sizes its progress is measured by.
class tst_CopyTaskEntries : public QObject
{
    Q_OBJECT

private slots:
    void plan();
    void listingOrder_data();
    void listingOrder();
    void manyFiles();
};

// The plan of a batch, as the task shows it without copying: the work items
// of src/t split one level deep, the entries of each item, what both leave
// out ("path Reason"), and the destinations for the prefixes src/ and
// dst/%1.
void tst_CopyTaskEntries::plan()
{
    QTemporaryDir tmp;
    QVERIFY(makeTree(tmp.path(),
                     QStringLiteral("src/t/b.txt=b src/t/A/x.txt=x src/t/.h=h src/t/e/ "
                                    "src/t/A/up->.. src/Y.TXT=new dst/Y/Y.txt=old")));
    const QDir src(tmp.path() + QStringLiteral("/src"));
    QStringList leftOut;
    const auto noteLeftOut = [&](const QFileInfo &entry, TFileCopyNotifier::LeftOutReason reason) {
        leftOut << src.relativeFilePath(entry.absoluteFilePath()) + QLatin1Char(' ')
                        + QLatin1String(QMetaEnum::fromType<decltype(reason)>().valueToKey(reason));
    };
    const auto names = [&src](const QList<QFileInfo> &list) {
        QStringList relative;
        for (const QFileInfo &info : list)
            relative << src.relativeFilePath(info.absoluteFilePath());
        return relative.join(QLatin1Char(' '));
    };

    const QFileInfo t(src.filePath(QStringLiteral("t")));
    const QList<QFileInfo> workItems = TFileCopyTask::WorkItems(t, 1, noteLeftOut);
    QCOMPARE(names(workItems), QStringLiteral("t/A t/b.txt t/e"));
    QList<QFileInfo> entries;
    for (const QFileInfo &item : workItems)
        entries += TFileCopyTask::Entries(item, noteLeftOut);
    QCOMPARE(names(entries), QStringLiteral("t/A/x.txt t/b.txt t/e"));
    QCOMPARE(leftOut.join(QStringLiteral(", ")),
             QStringLiteral("t/.h HiddenName, t/A/up LinkIntoTree"));
    // A negative depth splits all the way down.
    QCOMPARE(names(TFileCopyTask::WorkItems(t, -1)), names(entries));

    const QString srcPrefix = QRegExp::escape(src.path());
    const QString destPrefix = tmp.path() + QStringLiteral("/dst/%1");
    // Every spelling of a path leads where its absolute, clean form leads,
    // and a file's work item is the file as it was spelled.
    for (const QString &spelling :
         { src.path() + QStringLiteral("/./t/b.txt"), src.path() + QStringLiteral("//t//b.txt"),
           src.path() + QStringLiteral("/t/A/../b.txt"),
           QDir::current().relativeFilePath(src.filePath(QStringLiteral("t/b.txt"))) }) {
        QCOMPARE(TFileCopyTask::DestinationPath(QFileInfo(spelling), srcPrefix, destPrefix),
                 tmp.path() + QStringLiteral("/dst/b/t/b.txt"));
        QCOMPARE(TFileCopyTask::WorkItems(QFileInfo(spelling), 1).value(0).filePath(), spelling);
    }
    // A conflict, as a pass tests it: a file also under its written name.
    QCOMPARE(TFileCopyTask::ExistingDestination(QFileInfo(src.filePath(QStringLiteral("Y.TXT"))),
                                                srcPrefix, destPrefix),
             tmp.path() + QStringLiteral("/dst/Y/Y.txt"));
    QVERIFY(TFileCopyTask::DestinationPath(QFileInfo(QStringLiteral("/elsewhere/t/b.txt")),
                                           srcPrefix, destPrefix)
                    .isNull());
}

// Work items come in the order of a Qt listing sorted by name ignoring
// case, and names equal but for case in the order of their bytes.
void tst_CopyTaskEntries::listingOrder_data()
{
    QTest::addColumn<QString>("names");
    QTest::addColumn<QString>("expected"); // QDir's order when empty
    QTest::newRow("ASCII") << QStringLiteral("b a Z _x [c] ~t z1 Ab a-b a.B a~ a_ 10 9 A1 @ ` {")
                           << QString();
    QTest::newRow("not all ASCII")
            << QStringLiteral("b \u00e9 \u00c4 e f a \u00df Z \u00e0 Ab") << QString();
    // QDir leaves the order of names equal but for case to its listing;
    // the task puts them in byte order, whichever order they were made in.
    QTest::newRow("equal but for case, ASCII")
            << QStringLiteral("ab b aB B Ab a AB A") << QStringLiteral("A a AB Ab aB ab B b");
    QTest::newRow("equal but for case, not all ASCII")
            << QStringLiteral("\u00e9 b \u00c9 B") << QStringLiteral("B b \u00c9 \u00e9");
}

void tst_CopyTaskEntries::listingOrder()
{
    QFETCH(QString, names);
    QFETCH(QString, expected);
    QTemporaryDir tmp;
    const QDir dir(tmp.path());
    for (const QString &name : names.split(QLatin1Char(' '))) {
        QFile file(dir.filePath(name));
        QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(name));
    }
    QStringList order = expected.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (order.isEmpty())
        order = dir.entryList(QDir::Files, QDir::Name | QDir::IgnoreCase);
    QStringList items;
    for (const QFileInfo &info : TFileCopyTask::WorkItems(QFileInfo(tmp.path()), 1))
        items << info.fileName();
    QCOMPARE(items, order);
}

// Directories large enough to be measured while they are listed: every file
// counts at its size, a link at its target's, and the running percentages
// follow the bytes copied in listing order.
void tst_CopyTaskEntries::manyFiles()
{
    QTemporaryDir tmp;
    // In each directory a run of files, a link, a subdirectory and another
    // run of files, in that listing order, each file of a size of its own.
    QList<qint64> sizes;
    QString tree;
    for (const QString &dir : { QStringLiteral("src/t/d0"), QStringLiteral("src/t/d1") }) {
        const auto addFiles = [&](const QString &name, int count) {
            for (int i = 0; i < count; ++i) {
                sizes << 100 + 7 * sizes.size();
                tree += QStringLiteral(" %1/%2#%3")
                                .arg(dir, name.arg(i, 2, 10, QLatin1Char('0')))
                                .arg(sizes.constLast());
            }
        };
        addFiles(QStringLiteral("a%1"), 35);
        tree += QLatin1Char(' ') + dir + QStringLiteral("/lnk->a07");
        sizes << sizes.at(sizes.size() - 35 + 7);
        addFiles(QStringLiteral("m/b%1"), 40);
        addFiles(QStringLiteral("z%1"), 35);
    }
    QVERIFY(makeTree(tmp.path(), tree));
    const qint64 total = std::accumulate(sizes.cbegin(), sizes.cend(), qint64(0));
    // Each file's one report comes before it counts as copied.
    QStringList expected { QStringLiteral("P 0 0 0") };
    qint64 done = 0;
    for (int copied = 0; copied < sizes.size(); ++copied) {
        done += sizes.at(copied);
        const int percent = std::min(99, qRound(double(done) / double(total) * 100.0));
        expected << QStringLiteral("P %1 %2 0").arg(percent).arg(copied);
    }
    expected << QStringLiteral("P 100 %1 0").arg(sizes.size());

    TFileCopyTask task;
    QStringList received;
    QObject::connect(&task, &TFileCopyTask::Progress, [&](int percent, int copied, int skipped) {
        received << QStringLiteral("P %1 %2 %3").arg(percent).arg(copied).arg(skipped);
    });
    QSignalSpy finished(&task, &TFileCopyTask::State);
    const QString src = tmp.path() + QStringLiteral("/src");
    task.CopyFiles({ QFileInfo(src + QStringLiteral("/t")) }, QRegExp::escape(src),
                   tmp.path() + QStringLiteral("/dst"), 0);
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, HangBoundMsecs);
    QCOMPARE(received, expected);
}

QTEST_GUILESS_MAIN(tst_CopyTaskEntries)
#include "tst_copytaskentries.moc"
