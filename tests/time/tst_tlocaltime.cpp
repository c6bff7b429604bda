#include <Trellis/TLocalTime.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <climits>
#include <ctime>
#include <initializer_list>
#include <sys/stat.h>
#include <thread>
#include <vector>

class tst_TLocalTime : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void offsetIsZeroAtLoad();
    void zeroOffsetGivesUtc_data();
    void zeroOffsetGivesUtc();
    void setOffset_data();
    void setOffset();
    void setDateTime_data();
    void setDateTime();
    void setDateTimeRefused_data();
    void setDateTimeRefused();
    void dateRollsOver_data();
    void dateRollsOver();
    void concurrentReadersAndWriters();
    void setFileTime_data();
    void setFileTime();
    void setFileTimeIgnoresBadPath_data();
    void setFileTimeIgnoresBadPath();
    void monotonicCounter();
};

static void setTimeZone(const char *zone)
{
    qputenv("TZ", zone);
    tzset();
}

// Takes one currentDateTime() reading between two readings of the system
// time and returns the index of the entry of \a offsets (in seconds) that it
// lies ahead of the system time by, or -1 when none fits or it is not UTC.
static int matchingOffset(std::initializer_list<qint64> offsets)
{
    const QDateTime before = TLocalTime::systemDateTime();
    const QDateTime clock = TLocalTime::currentDateTime();
    const QDateTime after = TLocalTime::systemDateTime();
    int index = 0;
    for (qint64 seconds : offsets) {
        const qint64 shift = before.msecsTo(clock) - seconds * 1000;
        if (clock.timeSpec() == Qt::UTC && shift >= 0 && shift <= before.msecsTo(after))
            return index;
        ++index;
    }
    return -1;
}

static bool clockIsOffsetBy(qint64 seconds)
{
    return matchingOffset({ seconds }) == 0;
}

// Year, month, day, hour, minute and second, as SetDateTime() takes them.
static QList<int> fieldsOf(const QDateTime &dateTime)
{
    const QDate date = dateTime.date();
    const QTime time = dateTime.time();
    return { date.year(), date.month(), date.day(), time.hour(), time.minute(), time.second() };
}

static int setClock(const QList<int> &fields)
{
    return TLocalTime::SetDateTime(fields[0], fields[1], fields[2], fields[3], fields[4],
                                   fields[5]);
}

void tst_TLocalTime::initTestCase()
{
    // setFileTime reads the clock's fields as local time: pin the zone to UTC
    // so that the stamps can be checked as instants.
    setTimeZone("UTC");
}

void tst_TLocalTime::cleanup()
{
    TLocalTime::SetOffset(0);
}

void tst_TLocalTime::offsetIsZeroAtLoad()
{
    QCOMPARE(TLocalTime::GetOffset(), 0);
    QVERIFY(clockIsOffsetBy(0));
}

void tst_TLocalTime::zeroOffsetGivesUtc_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::newRow("UTC") << QByteArrayLiteral("UTC0");
    QTest::newRow("east of UTC") << QByteArrayLiteral("XST-5:30");
    QTest::newRow("west of UTC") << QByteArrayLiteral("YST8");
}

void tst_TLocalTime::zeroOffsetGivesUtc()
{
    QFETCH(QByteArray, zone);
    setTimeZone(zone.constData());
    const auto restore = qScopeGuard([] { setTimeZone("UTC"); });

    const QDateTime before = QDateTime::currentDateTimeUtc();
    const QDateTime system = TLocalTime::systemDateTime();
    const QDateTime clock = TLocalTime::currentDateTime();
    const QDateTime after = QDateTime::currentDateTimeUtc();

    QCOMPARE(system.timeSpec(), Qt::UTC);
    QCOMPARE(clock.timeSpec(), Qt::UTC);
    QVERIFY(before <= system && system <= clock && clock <= after);
}

void tst_TLocalTime::setOffset_data()
{
    QTest::addColumn<int>("offset");
    QTest::newRow("an hour behind") << -3600;
    QTest::newRow("two hours ahead") << 7200;
    QTest::newRow("largest") << INT_MAX;
    QTest::newRow("smallest") << INT_MIN;
}

void tst_TLocalTime::setOffset()
{
    QFETCH(int, offset);
    TLocalTime::SetOffset(offset);
    QCOMPARE(TLocalTime::GetOffset(), offset);
    QVERIFY(clockIsOffsetBy(offset));
}

void tst_TLocalTime::setDateTime_data()
{
    QTest::addColumn<qint64>("distance");
    QTest::newRow("two hours ahead") << qint64(7200);
    QTest::newRow("a day behind") << qint64(-86400);
    QTest::newRow("thirty years behind") << qint64(-946728000);
    QTest::newRow("just inside the largest offset") << qint64(INT_MAX) - 10;
    QTest::newRow("just inside the smallest offset") << qint64(INT_MIN) + 10;
}

void tst_TLocalTime::setDateTime()
{
    QFETCH(qint64, distance);
    QDateTime target = TLocalTime::systemDateTime().addSecs(distance);
    target.setTime(QTime(target.time().hour(), target.time().minute(), target.time().second()));
    const int offset = setClock(fieldsOf(target));

    QCOMPARE(TLocalTime::GetOffset(), offset);
    // The system clock moves on between reading the target and the call.
    QVERIFY2(offset <= distance && offset >= distance - 5, qPrintable(QString::number(offset)));
    const qint64 late = target.msecsTo(TLocalTime::currentDateTime());
    QVERIFY2(late >= -1000 && late <= 5000, qPrintable(QString::number(late)));
}

void tst_TLocalTime::setDateTimeRefused_data()
{
    QTest::addColumn<QList<int>>("fields");
    QTest::newRow("month 13") << QList<int> { 2024, 13, 1, 12, 0, 0 };
    QTest::newRow("month 0") << QList<int> { 2024, 0, 1, 12, 0, 0 };
    QTest::newRow("31 February") << QList<int> { 2024, 2, 31, 12, 0, 0 };
    QTest::newRow("29 February, no leap year") << QList<int> { 2023, 2, 29, 12, 0, 0 };
    QTest::newRow("day 0") << QList<int> { 2024, 3, 0, 12, 0, 0 };
    QTest::newRow("year 0") << QList<int> { 0, 1, 1, 12, 0, 0 };
    QTest::newRow("hour 24") << QList<int> { 2024, 3, 5, 24, 0, 0 };
    QTest::newRow("minute 60") << QList<int> { 2024, 3, 5, 12, 60, 0 };
    QTest::newRow("second 60") << QList<int> { 2024, 3, 5, 12, 0, 60 };
    QTest::newRow("negative second") << QList<int> { 2024, 3, 5, 12, 0, -1 };

    const QDateTime now = TLocalTime::systemDateTime();
    QTest::newRow("just past the largest offset") << fieldsOf(now.addSecs(qint64(INT_MAX) + 10));
    QTest::newRow("just past the smallest offset") << fieldsOf(now.addSecs(qint64(INT_MIN) - 10));
    QTest::newRow("year 9999") << QList<int> { 9999, 12, 31, 23, 59, 59 };
}

// A target the clock cannot reach leaves the offset as it was.
void tst_TLocalTime::setDateTimeRefused()
{
    QFETCH(QList<int>, fields);
    TLocalTime::SetOffset(4321);
    QCOMPARE(setClock(fields), 4321);
    QCOMPARE(TLocalTime::GetOffset(), 4321);
}

void tst_TLocalTime::dateRollsOver_data()
{
    QTest::addColumn<QDateTime>("target");
    const QDate today = TLocalTime::systemDateTime().date();
    QTest::newRow("into tomorrow") << QDateTime(today.addDays(1), QTime(0, 30), Qt::UTC);
    QTest::newRow("into yesterday") << QDateTime(today.addDays(-1), QTime(23, 30), Qt::UTC);
    QTest::newRow("into next year")
            << QDateTime(QDate(today.year() + 1, 1, 1), QTime(0, 30), Qt::UTC);
    QTest::newRow("onto a leap day") << QDateTime(QDate(2028, 2, 29), QTime(0, 30), Qt::UTC);
}

// Moves the clock across a date boundary relative to the current system time;
// also checks that currentDate() and currentTime() agree with the
// currentDateTime() readings taken around them.
void tst_TLocalTime::dateRollsOver()
{
    QFETCH(QDateTime, target);
    TLocalTime::SetOffset(int(TLocalTime::systemDateTime().secsTo(target)));

    const QDateTime before = TLocalTime::currentDateTime();
    const QDate date = TLocalTime::currentDate();
    const QTime time = TLocalTime::currentTime();
    const QDateTime after = TLocalTime::currentDateTime();

    QCOMPARE(date, target.date());
    const qint64 late = target.secsTo(before);
    QVERIFY2(late >= -1 && late <= 5, qPrintable(QString::number(late)));
    const QDateTime combined(date, time, Qt::UTC);
    QVERIFY(before <= combined && combined <= after);
}

// Writers keep switching the offset between two values whose bit patterns
// share nothing; every reader must see one of them, whole.
void tst_TLocalTime::concurrentReadersAndWriters()
{
    const int values[] = { 0x2AAAAAAA, -0x55555556 };
    TLocalTime::SetOffset(values[0]);
    std::atomic<bool> stop { false };
    std::atomic<int> wrongReads { 0 };

    std::vector<std::thread> writers;
    for (int phase = 0; phase < 2; ++phase) {
        writers.emplace_back([&, phase] {
            for (int i = phase; !stop.load(); ++i)
                TLocalTime::SetOffset(values[i % 2]);
        });
    }
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 2; ++reader) {
        readers.emplace_back([&] {
            // Reads until both values have shown up on the clock often, or a
            // reading is wrong.
            int seen[2] = { 0, 0 };
            while ((seen[0] < 100 || seen[1] < 100) && wrongReads.load() == 0) {
                const int offset = TLocalTime::GetOffset();
                const int index = matchingOffset({ values[0], values[1] });
                if ((offset != values[0] && offset != values[1]) || index < 0)
                    wrongReads.fetch_add(1);
                else
                    ++seen[index];
            }
        });
    }
    for (std::thread &reader : readers)
        reader.join();
    stop.store(true);
    for (std::thread &writer : writers)
        writer.join();

    QCOMPARE(wrongReads.load(), 0);
    QVERIFY(TLocalTime::GetOffset() == values[0] || TLocalTime::GetOffset() == values[1]);
}

void tst_TLocalTime::setFileTime_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("directory");
    QTest::addColumn<QDateTime>("clock");
    QTest::addColumn<QDateTime>("stamp");

    const auto at = [](int y, int mo, int d, int h, int mi, int s) {
        return QDateTime(QDate(y, mo, d), QTime(h, mi, s), Qt::UTC);
    };
    QTest::newRow("file") << QStringLiteral("plain.txt") << false << at(2024, 3, 5, 14, 27, 30)
                          << at(2024, 3, 5, 14, 27, 0);
    QTest::newRow("directory") << QStringLiteral("folder") << true << at(2024, 3, 5, 14, 27, 30)
                               << at(2024, 3, 5, 14, 27, 0);
    QTest::newRow("leap day") << QStringLiteral("leap") << false << at(2000, 2, 29, 23, 59, 30)
                              << at(2000, 2, 29, 23, 59, 0);
    QTest::newRow("past 2038") << QStringLiteral("late") << false << at(2040, 12, 31, 23, 59, 30)
                               << at(2040, 12, 31, 23, 59, 0);
    QTest::newRow("name outside ASCII") << QStringLiteral("stämpel-時刻.txt") << false
                                        << at(2024, 3, 5, 14, 27, 30) << at(2024, 3, 5, 14, 27, 0);
}

void tst_TLocalTime::setFileTime()
{
    QFETCH(QString, name);
    QFETCH(bool, directory);
    QFETCH(QDateTime, clock);
    QFETCH(QDateTime, stamp);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(name);
    if (directory) {
        QVERIFY(QDir(dir.path()).mkdir(name));
    } else {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }

    // The clock then reads half a minute past a whole minute, so the stamp
    // drops the seconds even on a slow machine.
    setClock(fieldsOf(clock));
    TLocalTime::setFileTime(path);

    struct stat status;
    QCOMPARE(stat(path.toUtf8().constData(), &status), 0);
    QCOMPARE(qint64(status.st_mtime), stamp.toSecsSinceEpoch());
    QCOMPARE(qint64(status.st_atime), stamp.toSecsSinceEpoch());
}

void tst_TLocalTime::setFileTimeIgnoresBadPath_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("missing file") << QStringLiteral("missing.txt");
    QTest::newRow("missing folder") << QStringLiteral("missing/file.txt");
    QTest::newRow("empty path") << QString();
}

void tst_TLocalTime::setFileTimeIgnoresBadPath()
{
    QFETCH(QString, name);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = name.isEmpty() ? name : dir.filePath(name);

    TLocalTime::setFileTime(path);

    QVERIFY(QDir(dir.path())
                    .isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden
                             | QDir::System));
}

void tst_TLocalTime::monotonicCounter()
{
    QElapsedTimer before;
    before.start();
    if (before.clockType() != QElapsedTimer::MonotonicClock)
        QSKIP("Qt does not use the monotonic clock here");

    // Same clock and unit as QElapsedTimer, so the reading lies between two of its readings.
    const qint64 first = TLocalTime::getCurrentTime();
    QElapsedTimer after;
    after.start();
    QVERIFY(first > 0);
    QVERIFY(before.msecsSinceReference() <= first && first <= after.msecsSinceReference());

    // The offset has nothing to do with it.
    qint64 previous = first;
    for (int i = 0; i < 1000; ++i) {
        TLocalTime::SetOffset(i % 2 ? INT_MIN : INT_MAX);
        const qint64 reading = TLocalTime::getCurrentTime();
        QVERIFY(reading >= previous);
        previous = reading;
    }
    QTRY_VERIFY(TLocalTime::getCurrentTime() > first);
}

QTEST_GUILESS_MAIN(tst_TLocalTime)
#include "tst_tlocaltime.moc"
