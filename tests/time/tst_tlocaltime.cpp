#include <Trellis/TLocalTime.h>

#include <QElapsedTimer>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <climits>
#include <ctime>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

void setTimeZone(const QByteArray &zone)
{
    qputenv("TZ", zone);
    tzset();
}

// Takes one currentDateTime() reading between two readings of the system
// time and returns the index of the entry of offsets (in seconds) that it
// lies ahead of the system time by, or -1 when none fits or it is not UTC.
int matchingOffset(std::initializer_list<qint64> offsets)
{
    const QDateTime before = TLocalTime::systemDateTime();
    const QDateTime clock = TLocalTime::currentDateTime();
    const qint64 spread = before.msecsTo(TLocalTime::systemDateTime());
    for (auto it = offsets.begin(); it != offsets.end(); ++it) {
        const qint64 shift = before.msecsTo(clock) - *it * 1000;
        if (clock.timeSpec() == Qt::UTC && shift >= 0 && shift <= spread)
            return int(it - offsets.begin());
    }
    return -1;
}

// Year, month, day, hour, minute and second, as SetDateTime() takes them.
QList<int> fieldsOf(const QDateTime &dateTime)
{
    const QDate d = dateTime.date();
    const QTime t = dateTime.time();
    return { d.year(), d.month(), d.day(), t.hour(), t.minute(), t.second() };
}

int setClock(const QList<int> &f)
{
    return TLocalTime::SetDateTime(f[0], f[1], f[2], f[3], f[4], f[5]);
}

QDateTime utc(int year, int month, int day, int hour, int minute, int second = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second), Qt::UTC);
}

} // namespace

class tst_TLocalTime : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QCOMPARE(TLocalTime::GetOffset(), 0); // as loaded
        setTimeZone("UTC0");
    }
    void cleanup() { TLocalTime::SetOffset(0); }

    void setOffset_data()
    {
        QTest::addColumn<int>("offset");
        QTest::addColumn<QByteArray>("zone"); // which must not matter
        QTest::newRow("none, east of UTC") << 0 << QByteArray("XST-5:30");
        QTest::newRow("none, west of UTC") << 0 << QByteArray("YST8");
        QTest::newRow("an hour behind") << -3600 << QByteArray("UTC0");
        QTest::newRow("largest") << INT_MAX << QByteArray("UTC0");
        QTest::newRow("smallest") << INT_MIN << QByteArray("UTC0");
    }

    void setOffset()
    {
        QFETCH(int, offset);
        QFETCH(QByteArray, zone);
        setTimeZone(zone);
        const auto restore = qScopeGuard([] { setTimeZone("UTC0"); });
        const QDateTime before = QDateTime::currentDateTimeUtc();
        const QDateTime system = TLocalTime::systemDateTime();
        QVERIFY(system.timeSpec() == Qt::UTC && before <= system
                && system <= QDateTime::currentDateTimeUtc());
        TLocalTime::SetOffset(offset);
        QCOMPARE(TLocalTime::GetOffset(), offset);
        QCOMPARE(matchingOffset({ offset }), 0);
    }

    // Writers keep switching the offset between two values whose bit patterns
    // share nothing; every reader must see one of them, whole.
    void concurrentReadersAndWriters()
    {
        const int values[] = { 0x2AAAAAAA, -0x55555556 };
        TLocalTime::SetOffset(values[0]);
        std::atomic<bool> stop { false };
        std::atomic<int> wrongReads { 0 };
        std::vector<std::thread> threads;
        for (int phase = 0; phase < 2; ++phase) {
            threads.emplace_back([&, phase] {
                for (int i = phase; !stop; ++i)
                    TLocalTime::SetOffset(values[i % 2]);
            });
        }
        for (int reader = 0; reader < 2; ++reader) {
            threads.emplace_back([&] {
                // Reads until both values have shown up on the clock often, or a reading is wrong.
                int seen[2] = { 0, 0 };
                while ((seen[0] < 100 || seen[1] < 100) && wrongReads == 0) {
                    const int offset = TLocalTime::GetOffset();
                    const int index = matchingOffset({ values[0], values[1] });
                    if ((offset != values[0] && offset != values[1]) || index < 0)
                        ++wrongReads;
                    else
                        ++seen[index];
                }
            });
        }
        threads[3].join();
        threads[2].join();
        stop = true;
        for (int writer = 0; writer < 2; ++writer)
            threads[writer].join();
        QCOMPARE(wrongReads.load(), 0);
    }

    void setDateTime_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QList<int>>("fields"); // the wall-clock fields the clock is set to
        QTest::addColumn<QDateTime>("stamp"); // what a file gets then; none: refused
        // The clock is set half a minute past a whole minute, so the stamp
        // drops the seconds even on a slow machine.
        const QByteArray utc0("UTC0");
        const QByteArray cet("CET-1CEST,M3.5.0,M10.5.0/3");
        const QDateTime now = TLocalTime::systemDateTime();
        for (qint64 distance :
             { qint64(7200), qint64(-946728000), INT_MAX - 1000LL, INT_MIN + 1000LL }) {
            QDateTime minute = now.addSecs(distance);
            minute.setTime(QTime(minute.time().hour(), minute.time().minute()));
            QTest::addRow("%lld seconds away", distance)
                    << utc0 << fieldsOf(minute.addSecs(30)) << minute;
        }
        QTest::newRow("leap day") << utc0 << fieldsOf(utc(2000, 2, 29, 23, 59, 30))
                                  << utc(2000, 2, 29, 23, 59);
        QTest::newRow("before 1970")
                << utc0 << fieldsOf(utc(1965, 6, 15, 8, 0, 30)) << utc(1965, 6, 15, 8, 0);
        // Around 2^31 seconds after 1970, where a 32-bit time_t ends.
        QTest::newRow("last minute before 2^31 s")
                << utc0 << fieldsOf(utc(2038, 1, 19, 3, 14, 30)) << utc(2038, 1, 19, 3, 14);
        QTest::newRow("first minute past 2^31 s")
                << utc0 << fieldsOf(utc(2038, 1, 19, 3, 15, 30)) << utc(2038, 1, 19, 3, 15);
        QTest::newRow("past 2^31 s, east of UTC")
                << QByteArray("XST-5:30") << fieldsOf(utc(2038, 1, 19, 8, 45, 30))
                << utc(2038, 1, 19, 3, 15);
        QTest::newRow("2040, winter time")
                << cet << fieldsOf(utc(2040, 1, 15, 12, 34, 30)) << utc(2040, 1, 15, 11, 34);
        QTest::newRow("2040, summer time")
                << cet << fieldsOf(utc(2040, 7, 1, 12, 34, 30)) << utc(2040, 7, 1, 10, 34);
        // A target the clock cannot reach leaves the offset as it was.
        const QDateTime refused;
        QTest::newRow("month 13") << utc0 << QList<int> { 2024, 13, 1, 12, 0, 0 } << refused;
        QTest::newRow("month 0") << utc0 << QList<int> { 2024, 0, 1, 12, 0, 0 } << refused;
        QTest::newRow("31 February") << utc0 << QList<int> { 2024, 2, 31, 12, 0, 0 } << refused;
        QTest::newRow("29 February, no leap year")
                << utc0 << QList<int> { 2023, 2, 29, 12, 0, 0 } << refused;
        QTest::newRow("day 0") << utc0 << QList<int> { 2024, 3, 0, 12, 0, 0 } << refused;
        QTest::newRow("year 0") << utc0 << QList<int> { 0, 1, 1, 12, 0, 0 } << refused;
        QTest::newRow("hour 24") << utc0 << QList<int> { 2024, 3, 5, 24, 0, 0 } << refused;
        QTest::newRow("minute 60") << utc0 << QList<int> { 2024, 3, 5, 12, 60, 0 } << refused;
        QTest::newRow("second 60") << utc0 << QList<int> { 2024, 3, 5, 12, 0, 60 } << refused;
        QTest::newRow("negative second") << utc0 << QList<int> { 2024, 3, 5, 12, 0, -1 } << refused;
        QTest::newRow("year 9999") << utc0 << QList<int> { 9999, 12, 31, 23, 59, 59 } << refused;
        QTest::newRow("just past the largest offset")
                << utc0 << fieldsOf(now.addSecs(INT_MAX + 100LL)) << refused;
        QTest::newRow("just past the smallest offset")
                << utc0 << fieldsOf(now.addSecs(INT_MIN - 10LL)) << refused;
    }

    void setDateTime()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QList<int>, fields);
        QFETCH(QDateTime, stamp);
        setTimeZone(zone);
        const auto restore = qScopeGuard([] { setTimeZone("UTC0"); });
        TLocalTime::SetOffset(4321);
        const int offset = setClock(fields);
        QCOMPARE(TLocalTime::GetOffset(), offset);
        if (!stamp.isValid()) {
            QCOMPARE(TLocalTime::GetOffset(), 4321);
            return;
        }
        const QDateTime target(QDate(fields[0], fields[1], fields[2]),
                               QTime(fields[3], fields[4], fields[5]), Qt::UTC);
        const qint64 late = target.secsTo(TLocalTime::currentDateTime());
        QVERIFY2(late >= 0 && late <= 5, qPrintable(QString::number(late)));
        const QDateTime before = TLocalTime::currentDateTime();
        const QDateTime combined(TLocalTime::currentDate(), TLocalTime::currentTime(), Qt::UTC);
        QVERIFY(before <= combined && combined <= TLocalTime::currentDateTime());

        QTemporaryDir dir;
        // A name outside ASCII, to check it is encoded as UTF-8.
        const QString path = dir.filePath(QStringLiteral("stämpel-時刻"));
        QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        TLocalTime::setFileTime(path);
        // Seen through the C library, with this build's time_t, and through Qt.
        struct stat status;
        QCOMPARE(::stat(path.toUtf8().constData(), &status), 0);
        QCOMPARE(qint64(status.st_mtime), stamp.toSecsSinceEpoch());
        QCOMPARE(qint64(status.st_atime), stamp.toSecsSinceEpoch());
        QCOMPARE(QFileInfo(path).lastModified().toUTC(), stamp);
        // A missing path is left alone.
        TLocalTime::setFileTime(dir.filePath(QStringLiteral("missing/file")));
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("missing"))));
    }

    void monotonicCounter()
    {
        QElapsedTimer before;
        before.start();
        if (before.clockType() != QElapsedTimer::MonotonicClock)
            QSKIP("Qt does not use the monotonic clock here");
        // Same clock and unit as QElapsedTimer, and the offset has nothing to do with it.
        TLocalTime::SetOffset(INT_MIN);
        const qint64 first = TLocalTime::getCurrentTime();
        QElapsedTimer after;
        after.start();
        QVERIFY(first > 0 && before.msecsSinceReference() <= first
                && first <= after.msecsSinceReference());
        TLocalTime::SetOffset(INT_MAX);
        QTRY_VERIFY(TLocalTime::getCurrentTime() > first);
    }
};

QTEST_GUILESS_MAIN(tst_TLocalTime)
#include "tst_tlocaltime.moc"
