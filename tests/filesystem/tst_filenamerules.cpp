#include <Trellis/TFileSystemHelper.h>

#include <QCoreApplication>
#include <QTest>
#include <QTranslator>

#include <atomic>
#include <thread>
#include <vector>

class tst_FileNameRules : public QObject
{
    Q_OBJECT

private slots:
    void messageIsTranslatedOnce();
    void invalidCharacters();
    void isValidFileName_data();
    void isValidFileName();
    void getValidFileName_data();
    void getValidFileName();
    void patterns_data();
    void patterns();
    void gettersShareOneObject();
    void lowerCaseDestFilename_data();
    void lowerCaseDestFilename();
    void lowerCaseDestFilenameFromManyThreads();
};

namespace {
class FixedTranslator : public QTranslator
{
public:
    explicit FixedTranslator(const QString &text) : m_text(text) { }
    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *, const char *, int) const override
    {
        return qstrcmp(context, "TFileSystemHelper") == 0 ? m_text : QString();
    }

private:
    QString m_text;
};
} // namespace

// Must run first: the message is looked up once, at the first call.
void tst_FileNameRules::messageIsTranslatedOnce()
{
    FixedTranslator first(QStringLiteral("Erster Text"));
    FixedTranslator second(QStringLiteral("Zweiter Text"));
    QCoreApplication::installTranslator(&first);
    QCOMPARE(TFileSystemHelper::GetInvalidFileNameErrorMessage(), QStringLiteral("Erster Text"));
    QCoreApplication::removeTranslator(&first);
    QCoreApplication::installTranslator(&second);
    QCOMPARE(TFileSystemHelper::GetInvalidFileNameErrorMessage(), QStringLiteral("Erster Text"));
    QCoreApplication::removeTranslator(&second);
    QCOMPARE(&TFileSystemHelper::GetInvalidFileNameErrorMessage(),
             &TFileSystemHelper::GetInvalidFileNameErrorMessage());
}

void tst_FileNameRules::invalidCharacters()
{
    QCOMPARE(TFileSystemHelper::GetInvalidFileNameString(), QStringLiteral("\\/:*?\"<>|."));
}

void tst_FileNameRules::isValidFileName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("valid");
    QTest::newRow("plain") << QStringLiteral("report") << true;
    QTest::newRow("space and parentheses") << QStringLiteral("Report (final)") << true;
    QTest::newRow("non-ASCII letters") << QStringLiteral("Ärger\u00e9\u4e2d") << true;
    QTest::newRow("empty") << QString() << false;
    QTest::newRow("extension") << QStringLiteral("report.txt") << false;
    QTest::newRow("leading dot") << QStringLiteral(".profile") << false;
    QTest::newRow("trailing dot") << QStringLiteral("report.") << false;
    for (const QChar c : QStringLiteral("\\/:*?\"<>|"))
        QTest::addRow("contains %c", c.toLatin1())
                << (QStringLiteral("a") + c + QStringLiteral("b")) << false;
}

void tst_FileNameRules::isValidFileName()
{
    QFETCH(QString, name);
    QFETCH(bool, valid);
    QCOMPARE(TFileSystemHelper::IsValidFileName(name), valid);
}

void tst_FileNameRules::getValidFileName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");
    QTest::newRow("colon and asterisk") << QStringLiteral("a:b*c") << QStringLiteral("a_b_c");
    QTest::newRow("extension") << QStringLiteral("report.txt") << QStringLiteral("report_txt");
    QTest::newRow("dots at both ends") << QStringLiteral(".hidden.") << QStringLiteral("_hidden_");
    QTest::newRow("slashes") << QStringLiteral("x/y\\z") << QStringLiteral("x_y_z");
    QTest::newRow("all invalid") << QStringLiteral("\\/:*?\"<>|.") << QStringLiteral("__________");
    QTest::newRow("valid") << QStringLiteral("report") << QStringLiteral("report");
    QTest::newRow("empty") << QString() << QString();
}

void tst_FileNameRules::getValidFileName()
{
    QFETCH(QString, name);
    QFETCH(QString, expected);
    TFileSystemHelper::GetValidFileName(name);
    QCOMPARE(name, expected);
    QCOMPARE(TFileSystemHelper::IsValidFileName(name), !name.isEmpty());
}

void tst_FileNameRules::patterns_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("anyCase");
    QTest::addColumn<int>("upperCase");
    QTest::addColumn<int>("lowerCase");
    QTest::newRow("mixed") << QStringLiteral("a.JpG") << 1 << -1 << -1;
    QTest::newRow("upper") << QStringLiteral("a.JPG") << 1 << 1 << -1;
    QTest::newRow("lower") << QStringLiteral("a.jpg") << 1 << -1 << 1;
    QTest::newRow("four letters") << QStringLiteral("movie.MPEG") << -1 << -1 << -1;
    QTest::newRow("digit") << QStringLiteral("data.X1Y") << -1 << -1 << -1;
    QTest::newRow("not at the end") << QStringLiteral("DIR.ABC/file") << -1 << -1 << -1;
}

void tst_FileNameRules::patterns()
{
    QFETCH(QString, text);
    QFETCH(int, anyCase);
    QFETCH(int, upperCase);
    QFETCH(int, lowerCase);
    QRegExp any = TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp();
    QRegExp upper = TFileSystemHelper::UpperCaseFilenameExtensionRegExp();
    QRegExp lower = TFileSystemHelper::LowerCaseFilenameExtensionRegExp();
    QCOMPARE(upper.pattern(), QStringLiteral("\\.([A-Z]{3})$"));
    QCOMPARE(lower.pattern(), QStringLiteral("\\.([a-z]{3})$"));
    QCOMPARE(any.indexIn(text), anyCase);
    QCOMPARE(upper.indexIn(text), upperCase);
    QCOMPARE(lower.indexIn(text), lowerCase);
    if (anyCase >= 0) {
        QCOMPARE(any.cap(0), text.right(4));
        QCOMPARE(any.cap(1), text.right(3));
    }
}

void tst_FileNameRules::gettersShareOneObject()
{
    QCOMPARE(&TFileSystemHelper::GetInvalidFileNameString(),
             &TFileSystemHelper::GetInvalidFileNameString());
    QCOMPARE(&TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp(),
             &TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp());
    QCOMPARE(&TFileSystemHelper::UpperCaseFilenameExtensionRegExp(),
             &TFileSystemHelper::UpperCaseFilenameExtensionRegExp());
    QCOMPARE(&TFileSystemHelper::LowerCaseFilenameExtensionRegExp(),
             &TFileSystemHelper::LowerCaseFilenameExtensionRegExp());
}

void tst_FileNameRules::lowerCaseDestFilename_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");
    QTest::newRow("photo") << QStringLiteral("/media/card/PHOTO.JPG")
                           << QStringLiteral("/media/card/PHOTO.jpg");
    QTest::newRow("mixed case") << QStringLiteral("Notes.Txt") << QStringLiteral("Notes.txt");
    QTest::newRow("only an extension") << QStringLiteral(".ABC") << QStringLiteral(".abc");
    QTest::newRow("two letters") << QStringLiteral("archive.tar.GZ")
                                 << QStringLiteral("archive.tar.GZ");
    QTest::newRow("four letters") << QStringLiteral("movie.MPEG") << QStringLiteral("movie.MPEG");
    QTest::newRow("digit") << QStringLiteral("data.X1Y") << QStringLiteral("data.X1Y");
    QTest::newRow("directory part")
            << QStringLiteral("/data/DIR.ABC/file") << QStringLiteral("/data/DIR.ABC/file");
    QTest::newRow("no extension") << QStringLiteral("README") << QStringLiteral("README");
    QTest::newRow("empty") << QString() << QString();
}

void tst_FileNameRules::lowerCaseDestFilename()
{
    QFETCH(QString, path);
    QFETCH(QString, expected);
    QCOMPARE(TFileSystemHelper::FileCopyLowerCaseDestFilename(path), expected);
}

void tst_FileNameRules::lowerCaseDestFilenameFromManyThreads()
{
    // Each thread lower-cases its own names; a shared match state would hand
    // one thread another's capture.
    constexpr int ThreadCount = 8;
    constexpr int Rounds = 2000;
    std::atomic<int> wrong { 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < ThreadCount; ++t) {
        threads.emplace_back([t, &wrong] {
            const QString extension = QString(QLatin1Char(char('A' + t))).repeated(3);
            for (int round = 0; round < Rounds; ++round) {
                const QString name = QStringLiteral("/d%1/F%2.%3").arg(t).arg(round).arg(extension);
                const QString expected = name.left(name.size() - 3) + extension.toLower();
                if (TFileSystemHelper::FileCopyLowerCaseDestFilename(name) != expected)
                    ++wrong;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(wrong.load(), 0);
}

QTEST_GUILESS_MAIN(tst_FileNameRules)
#include "tst_filenamerules.moc"
