#include "ThreadCrew.h"

#include <Trellis/TLocalTime.h>

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <climits>
#include <ctime>
#include <sys/stat.h>

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
    void cleanup()
    {
        TLocalTime::SetOffset(0);
        setTimeZone("UTC0");
    }

    void offsetClock_data()
    {
        QTest::addColumn<int>("offset");
        QTest::newRow("none") << 0;
        QTest::newRow("an hour behind") << -3600;
        QTest::newRow("largest") << INT_MAX;
        QTest::newRow("smallest") << INT_MIN;
    }

    void offsetClock()
    {
        QFETCH(int, offset);
        setTimeZone("XST-5:30"); // which must not matter
        const QDateTime before = QDateTime::currentDateTimeUtc();
        const QDateTime system = TLocalTime::systemDateTime();
        QVERIFY(system.timeSpec() == Qt::UTC && before <= system
                && system <= QDateTime::currentDateTimeUtc());
        TLocalTime::SetOffset(offset);
        QCOMPARE(TLocalTime::GetOffset(), offset);
        QCOMPARE(matchingOffset({ offset }), 0);
        // The monotonic counter has QElapsedTimer's clock and unit, whatever the offset.
        QElapsedTimer first, last;
        first.start();
        const qint64 counter = TLocalTime::getCurrentTime();
        last.start();
        QVERIFY(first.msecsSinceReference() <= counter && counter <= last.msecsSinceReference());
    }

    // Writers keep switching the offset between two values whose bit patterns
    // share nothing; every reader must see one of them, whole.
    void concurrentReadersAndWriters()
    {
        const int values[] = { 0x2AAAAAAA, -0x55555556 };
        TLocalTime::SetOffset(values[0]);
        std::atomic<int> wrongReads { 0 }, readersLeft { 2 };
        ThreadCrew crew;
        for (int phase = 0; phase < 2; ++phase) {
            crew.add(QStringLiteral("writer %1").arg(phase), 0, [&, phase](auto &writes) {
                for (; readersLeft > 0; ++writes)
                    TLocalTime::SetOffset(values[(writes + phase) % 2]);
            });
            // Reads until both values have shown up on the clock often, or a reading is wrong.
            crew.add(QStringLiteral("reader %1").arg(phase), 200, [&](auto &reads) {
                int seen[2] = { 0, 0 };
                for (; (seen[0] < 100 || seen[1] < 100) && wrongReads == 0; ++reads) {
                    const int offset = TLocalTime::GetOffset();
                    const int index = matchingOffset({ values[0], values[1] });
                    if ((offset != values[0] && offset != values[1]) || index < 0)
                        ++wrongReads;
                    else
                        ++seen[index];
                }
                --readersLeft;
            });
        }
        crew.run();
        QCOMPARE(wrongReads.load(), 0);
    }

    void setDateTime_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QList<int>>("fields"); // the wall-clock fields the clock is set to
        QTest::addColumn<QDateTime>("stamp"); // what a file gets then; none: refused
        // The clock is set half a minute past a whole minute (in UTC unless
        // a zone east of UTC by some seconds is given), so that the stamp
        // drops the seconds even on a slow machine.
        const auto set = [](const char *name, const QDateTime &minute, const char *zone = "UTC0",
                            int east = 0) {
            QTest::newRow(name) << QByteArray(zone) << fieldsOf(minute.addSecs(east + 30))
                                << minute;
        };
        QDateTime now = TLocalTime::systemDateTime();
        now.setTime(QTime(now.time().hour(), now.time().minute()));
        set("two hours ahead", now.addSecs(7200));
        const qint64 nearLimit = INT_MAX / 60 * 60 - 3600; // whole minutes
        set("near the largest offset", now.addSecs(nearLimit));
        set("near the smallest offset", now.addSecs(-nearLimit));
        set("before 1970", QDateTime(QDate(1965, 6, 15), QTime(8, 0), Qt::UTC));
        // Just past 2^31 seconds after 1970, where a 32-bit time_t ends.
        const QDateTime past32(QDate(2038, 1, 19), QTime(3, 15), Qt::UTC);
        set("first minute past 2^31 s", past32);
        set("past 2^31 s, east of UTC", past32, "XST-5:30", 19800);
        const char *cet = "CET-1CEST,M3.5.0,M10.5.0/3";
        set("2040, winter time", QDateTime(QDate(2040, 1, 15), QTime(11, 34), Qt::UTC), cet, 3600);
        set("2040, summer time", QDateTime(QDate(2040, 7, 1), QTime(10, 34), Qt::UTC), cet, 7200);
        // A target the clock cannot reach leaves the offset as it was.
        const auto refuse = [](const char *name, const QList<int> &fields) {
            QTest::newRow(name) << QByteArray("UTC0") << fields << QDateTime();
        };
        refuse("month 13", { 2024, 13, 1, 12, 0, 0 });
        refuse("29 February, no leap year", { 2023, 2, 29, 12, 0, 0 });
        refuse("hour 24", { 2024, 3, 5, 24, 0, 0 });
        refuse("negative second", { 2024, 3, 5, 12, 0, -1 });
        refuse("just past the largest offset", fieldsOf(now.addSecs(INT_MAX + 100LL)));
        refuse("just past the smallest offset", fieldsOf(now.addSecs(INT_MIN - 100LL)));
    }

    void setDateTime()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QList<int>, fields);
        QFETCH(QDateTime, stamp);
        setTimeZone(zone);
        TLocalTime::SetOffset(4321);
        const int offset = TLocalTime::SetDateTime(fields[0], fields[1], fields[2], fields[3],
                                                   fields[4], fields[5]);
        QCOMPARE(TLocalTime::GetOffset(), offset);
        if (!stamp.isValid()) {
            QCOMPARE(offset, 4321);
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
        // The same wall-clock minute is another instant in another time zone,
        // also when the zone changes within the minute, and back again.
        const qint64 minute = target.toSecsSinceEpoch() - fields[5];
        for (const QByteArray &other : { QByteArray("JST-9"), zone }) {
            setTimeZone(other);
            TLocalTime::setFileTime(path);
            QCOMPARE(::stat(path.toUtf8().constData(), &status), 0);
            QCOMPARE(qint64(status.st_mtime),
                     other == zone ? stamp.toSecsSinceEpoch() : minute - 9 * 3600);
        }
        // A missing path is left alone.
        TLocalTime::setFileTime(dir.filePath(QStringLiteral("missing/file")));
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("missing"))));
    }
};

QTEST_GUILESS_MAIN(tst_TLocalTime)
#include "tst_tlocaltime.moc"
