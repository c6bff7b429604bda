#include <Trellis/TFileSystemHelper.h>

#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

class tst_FileNameRules : public QObject
{
    Q_OBJECT

private slots:
    void names_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("madeValid"); // by GetValidFileName()
        QTest::newRow("plain") << "Report (final)" << true << "Report (final)";
        QTest::newRow("non-ASCII") << "Ärger中" << true << "Ärger中";
        QTest::newRow("empty") << QString() << false << QString();
        QTest::newRow("extension") << "report.txt" << false << "report_txt";
        QTest::newRow("dots at both ends") << ".hidden." << false << "_hidden_";
        for (const QChar c : QStringLiteral("\\/:*?\"<>|"))
            QTest::addRow("contains %c", c.toLatin1()) << QString(c) + c << false << "__";
    }

    void names()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QFETCH(QString, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), valid);
        TFileSystemHelper::GetValidFileName(name);
        QCOMPARE(name, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), !name.isEmpty());
    }

    void extensions_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("matched"); // A, U, L: by the any-, upper-, lower-case pattern
        QTest::addColumn<QString>("lowerCased");
        QTest::newRow("upper") << "/card/PHOTO.JPG" << QStringLiteral("AU-") << "/card/PHOTO.jpg";
        QTest::newRow("mixed") << "Notes.TxT" << QStringLiteral("A--") << "Notes.txt";
        QTest::newRow("lower") << "a.jpg" << QStringLiteral("A-L") << "a.jpg";
        QTest::newRow("only an extension") << ".ABC" << QStringLiteral("AU-") << ".abc";
        QTest::newRow("four letters") << "movie.MPEG" << QStringLiteral("---") << "movie.MPEG";
        QTest::newRow("digit") << "data.X1Y" << QStringLiteral("---") << "data.X1Y";
        QTest::newRow("not at the end") << "/DIR.ABC/f" << QStringLiteral("---") << "/DIR.ABC/f";
    }

    void extensions()
    {
        QFETCH(QString, path);
        QFETCH(QString, matched);
        QFETCH(QString, lowerCased);
        QRegExp patterns[] = { TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp(),
                               TFileSystemHelper::UpperCaseFilenameExtensionRegExp(),
                               TFileSystemHelper::LowerCaseFilenameExtensionRegExp() };
        for (QRegExp &pattern : patterns) {
            const bool matches = matched.at(&pattern - patterns) != QLatin1Char('-');
            QCOMPARE(pattern.indexIn(path), matches ? path.size() - 4 : -1);
            QCOMPARE(pattern.cap(1), matches ? path.right(3) : QString());
        }
        QCOMPARE(TFileSystemHelper::FileCopyLowerCaseDestFilename(path), lowerCased);
    }

    void lowerCaseFromManyThreads()
    {
        // A match shared between threads would hand one thread another's extension.
        std::atomic<int> wrong { 0 };
        std::vector<std::thread> threads;
        for (const char *extension : { "AAA", "BBB", "CCC", "DDD" }) {
            threads.emplace_back([extension, &wrong] {
                const QString name = QStringLiteral("/f.") + QLatin1String(extension);
                for (int round = 0; round < 5000; ++round)
                    wrong += TFileSystemHelper::FileCopyLowerCaseDestFilename(name)
                            != name.toLower();
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(wrong.load(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_FileNameRules)
#include "tst_filenamerules.moc"
