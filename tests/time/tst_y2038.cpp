#include <Trellis/TLocalTime.h>

#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <climits>
#include <ctime>
#include <sys/stat.h>

// Dates on both sides of 2^31 seconds after 1970 (2038-01-19 03:14:08 UTC),
// where a 32-bit time_t ends: the offset clock must read and stamp them as it
// does any other date, on 32-bit builds as on 64-bit ones.
class tst_Y2038 : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void stampsPastTheEpochLimit_data();
    void stampsPastTheEpochLimit();
};

static QDateTime utc(int year, int month, int day, int hour, int minute, int second)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second), Qt::UTC);
}

static void setTimeZone(const QByteArray &zone)
{
    qputenv("TZ", zone);
    tzset();
}

void tst_Y2038::cleanup()
{
    TLocalTime::SetOffset(0);
}

void tst_Y2038::stampsPastTheEpochLimit_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::addColumn<QDateTime>("clock"); // the offset clock's wall-clock fields
    QTest::addColumn<QDateTime>("stamp"); // the instant the file must get

    // The clock reads half a minute past a whole minute, so the stamp drops
    // the seconds even on a slow machine.
    QTest::newRow("last minute before the limit")
            << QByteArray("UTC0") << utc(2038, 1, 19, 3, 14, 30) << utc(2038, 1, 19, 3, 14, 0);
    QTest::newRow("first minute past the limit")
            << QByteArray("UTC0") << utc(2038, 1, 19, 3, 15, 30) << utc(2038, 1, 19, 3, 15, 0);
    QTest::newRow("past the limit, east of UTC")
            << QByteArray("XST-5:30") << utc(2038, 1, 19, 8, 45, 30) << utc(2038, 1, 19, 3, 15, 0);
    QTest::newRow("2040, winter time")
            << QByteArray("CET-1CEST,M3.5.0,M10.5.0/3") << utc(2040, 1, 15, 12, 34, 30)
            << utc(2040, 1, 15, 11, 34, 0);
    QTest::newRow("2040, summer time") << QByteArray("CET-1CEST,M3.5.0,M10.5.0/3")
                                       << utc(2040, 7, 1, 12, 34, 30) << utc(2040, 7, 1, 10, 34, 0);
    QTest::newRow("before 1970") << QByteArray("UTC0") << utc(1965, 6, 15, 8, 0, 30)
                                 << utc(1965, 6, 15, 8, 0, 0);

    // The farthest date the int offset reaches, about 68 years ahead.
    QDateTime farthest = TLocalTime::systemDateTime().addSecs(INT_MAX - 120);
    farthest.setTime(QTime(farthest.time().hour(), farthest.time().minute(), 30));
    QDateTime farthestStamp = farthest;
    farthestStamp.setTime(QTime(farthest.time().hour(), farthest.time().minute()));
    QTest::newRow("largest offset") << QByteArray("UTC0") << farthest << farthestStamp;
}

void tst_Y2038::stampsPastTheEpochLimit()
{
    QFETCH(QByteArray, zone);
    QFETCH(QDateTime, clock);
    QFETCH(QDateTime, stamp);
    setTimeZone(zone);
    const auto restore = qScopeGuard([] { setTimeZone("UTC0"); });

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("stamped"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();

    const QDate date = clock.date();
    const QTime time = clock.time();
    const int offset = TLocalTime::SetDateTime(date.year(), date.month(), date.day(), time.hour(),
                                               time.minute(), time.second());
    QCOMPARE(TLocalTime::GetOffset(), offset);
    const qint64 late = clock.secsTo(TLocalTime::currentDateTime());
    QVERIFY2(late >= 0 && late <= 5, qPrintable(QString::number(late)));

    TLocalTime::setFileTime(path);

    // Seen through the C library, with this build's time_t ...
    struct stat status;
    QCOMPARE(::stat(QFile::encodeName(path).constData(), &status), 0);
    QCOMPARE(qint64(status.st_mtime), stamp.toSecsSinceEpoch());
    QCOMPARE(qint64(status.st_atime), stamp.toSecsSinceEpoch());
    // ... and through Qt, as applications read it.
    QCOMPARE(QFileInfo(path).lastModified().toUTC(), stamp);
}

QTEST_GUILESS_MAIN(tst_Y2038)
#include "tst_y2038.moc"
