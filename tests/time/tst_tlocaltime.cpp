#include "ThreadCrew.h"

#include <Trellis/TLocalTime.h>

#include <QDeadlineTimer>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <climits>
#include <ctime>
#include <sys/stat.h>

class tst_TLocalTime : public QObject
{
    Q_OBJECT

    static constexpr qint64 Refused = LLONG_MIN; // a target the clock cannot reach

    static void setTimeZone(const QByteArray &zone) { qputenv("TZ", zone), tzset(); }

    // Takes one currentDateTime() reading between two readings of the system
    // time and returns the index of the entry of offsets (in seconds) that it
    // lies ahead of the system time by, or -1 when none fits or it is not UTC.
    static int matchingOffset(std::initializer_list<qint64> offsets)
    {
        const QDateTime before = TLocalTime::systemDateTime(),
                        clock = TLocalTime::currentDateTime();
        const qint64 lead = before.msecsTo(clock),
                     spread = before.msecsTo(TLocalTime::systemDateTime());
        const auto it = std::find_if(offsets.begin(), offsets.end(), [&](qint64 offset) {
            return lead >= offset * 1000 && lead <= offset * 1000 + spread;
        });
        return clock.timeSpec() == Qt::UTC && it != offsets.end() ? int(it - offsets.begin()) : -1;
    }

    // Year, month, day, hour, minute and second, as SetDateTime() takes them.
    static QList<int> fieldsOf(const QDateTime &t)
    {
        return { t.date().year(), t.date().month(),  t.date().day(),
                 t.time().hour(), t.time().minute(), t.time().second() };
    }

private slots:
    void cleanup() { TLocalTime::SetOffset(0); }

    // The offset is 0 as loaded. The clock is the system's UTC time plus the
    // offset, whatever the time zone, for any offset; the monotonic counter
    // has QElapsedTimer's clock and unit.
    void offsetClock()
    {
        QCOMPARE(TLocalTime::GetOffset(), 0);
        setTimeZone("XST-5:30");
        const QDateTime before = QDateTime::currentDateTimeUtc(),
                        system = TLocalTime::systemDateTime();
        QVERIFY(system.timeSpec() == Qt::UTC && before <= system
                && system <= QDateTime::currentDateTimeUtc());
        for (const int offset : { 0, -3600, INT_MAX, INT_MIN }) {
            TLocalTime::SetOffset(offset);
            QVERIFY2(TLocalTime::GetOffset() == offset && matchingOffset({ offset }) == 0,
                     qPrintable(QString::number(offset)));
        }
        const qint64 low = QDeadlineTimer::current().deadline(),
                     counter = TLocalTime::getCurrentTime();
        QVERIFY(low <= counter && counter <= QDeadlineTimer::current().deadline());
    }

    // Writers keep switching the offset between two values whose bit patterns
    // share nothing; every reader must see one of them, whole, until both have
    // shown up on the clock often.
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
            crew.add(QStringLiteral("reader %1").arg(phase), 200, [&](auto &reads) {
                for (int seen[2] = { 0, 0 }; (seen[0] < 100 || seen[1] < 100) && wrongReads == 0;
                     ++reads) {
                    const int index = matchingOffset({ values[0], values[1] });
                    wrongReads += index < 0
                            || !std::count(values, values + 2, TLocalTime::GetOffset());
                    ++seen[qMax(index, 0)];
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
        QTest::addColumn<QList<int>>("f"); // the wall-clock fields the clock is set to
        QTest::addColumn<qint64>("stamp"); // what a file gets then; Refused
        // The clock is set half a minute past a whole minute (labelled UTC),
        // so that the stamp drops the seconds even on a slow machine; east is
        // how far east of UTC the zone is.
        const auto set = [](const char *name, const QDateTime &minute, const char *zone = "UTC0",
                            int east = 0) {
            QTest::newRow(name) << QByteArray(zone) << fieldsOf(minute.addSecs(30))
                                << minute.toSecsSinceEpoch() - east;
        };
        QDateTime now = TLocalTime::systemDateTime();
        now.setTime(QTime(now.time().hour(), now.time().minute()));
        const qint64 nearLimit = INT_MAX / 60 * 60 - 3600; // whole minutes
        set("near the largest offset", now.addSecs(nearLimit));
        set("near the smallest offset", now.addSecs(-nearLimit));
        set("before 1970", QDateTime(QDate(1965, 6, 15), QTime(8, 0), Qt::UTC));
        // Stamps are worked out once a minute: the rows before these set the
        // same zone's clock an hour, then a minute, before theirs.
        set("an hour later", QDateTime(QDate(1965, 6, 15), QTime(9, 0), Qt::UTC));
        set("a minute later", QDateTime(QDate(1965, 6, 15), QTime(9, 1), Qt::UTC));
        // Just past 2^31 seconds after 1970 (03:14:08 UTC), where a 32-bit time_t ends.
        set("past 2^31 s, east of UTC", QDateTime(QDate(2038, 1, 19), QTime(8, 45), Qt::UTC),
            "XST-5:30", 19800);
        const char *cet = "CET-1CEST,M3.5.0,M10.5.0/3";
        set("2040, summer time", QDateTime(QDate(2040, 7, 1), QTime(12, 34), Qt::UTC), cet, 7200);
        // A target the clock cannot reach leaves the offset as it was.
        const auto refuse = [](const char *name, const QList<int> &fields) {
            QTest::newRow(name) << QByteArray("UTC0") << fields << Refused;
        };
        refuse("hour 24", { 2024, 1, 1, 24, 0, 0 }); // not taken as midnight
        refuse("29 February, no leap year", { 2023, 2, 29, 12, 0, 0 });
        refuse("just past the largest offset", fieldsOf(now.addSecs(INT_MAX + 100LL)));
        refuse("just past the smallest offset", fieldsOf(now.addSecs(INT_MIN - 100LL)));
    }

    void setDateTime()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QList<int>, f);
        QFETCH(qint64, stamp);
        setTimeZone(zone);
        TLocalTime::SetOffset(4321);
        const int offset = TLocalTime::SetDateTime(f[0], f[1], f[2], f[3], f[4], f[5]);
        QVERIFY(TLocalTime::GetOffset() == offset && (offset == 4321) == (stamp == Refused));
        if (stamp == Refused)
            return;
        // One reading gives the target plus the time passed, as do its date and time parts.
        const QDateTime target(QDate(f[0], f[1], f[2]), QTime(f[3], f[4], f[5]), Qt::UTC),
                clock(TLocalTime::currentDate(), TLocalTime::currentTime(), Qt::UTC);
        QVERIFY2(target.secsTo(clock) >= 0 && target.secsTo(clock) <= 5,
                 qPrintable(clock.toString(Qt::ISODate)));
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("stämpel-時刻"));
        QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        for (const QByteArray &other : { zone, QByteArray("JST-9"), zone }) {
            setTimeZone(other);
            TLocalTime::setFileTime(path);
            struct stat status; // with this build's time_t
            QVERIFY(::stat(path.toUtf8().constData(), &status) == 0
                    && status.st_atime == status.st_mtime);
            QCOMPARE(qint64(status.st_mtime),
                     other == zone ? stamp : target.toSecsSinceEpoch() - 30 - 9 * 3600);
        }
        // A missing path is left alone.
        TLocalTime::setFileTime(dir.filePath(QStringLiteral("missing/file")));
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("missing"))));
    }
};

QTEST_GUILESS_MAIN(tst_TLocalTime)
#include "tst_tlocaltime.moc"
