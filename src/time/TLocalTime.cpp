#include "TLocalTime.h"
#include "FileStamp_p.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>

// A 32-bit time_t would stamp dates after January 2038 as 1901-1969; 32-bit
// builds must be compiled with -D_TIME_BITS=64 (the build does so).
static_assert(sizeof(std::time_t) == 8, "Trellis needs a 64-bit time_t");

namespace {
// Relaxed ordering is enough: the offset guards no other data, and a reader
// only needs to see one whole value, old or new.
std::atomic<int> Offset { 0 };
} // namespace

int TLocalTime::GetOffset()
{
    return Offset.load(std::memory_order_relaxed);
}

void TLocalTime::SetOffset(int seconds)
{
    Offset.store(seconds, std::memory_order_relaxed);
}

int TLocalTime::SetDateTime(int year, int month, int day, int hour, int minute, int second)
{
    const QDateTime now = systemDateTime();
    const QDate date(year, month, day);
    const QTime time(hour, minute, second);
    // QDateTime would quietly turn an invalid time into midnight.
    if (!date.isValid() || !time.isValid())
        return GetOffset();
    const QDateTime target(date, time, Qt::UTC);
    const qint64 seconds = now.secsTo(target);
    if (seconds < std::numeric_limits<int>::min() || seconds > std::numeric_limits<int>::max())
        return GetOffset();
    SetOffset(int(seconds));
    return int(seconds);
}

QDateTime TLocalTime::systemDateTime()
{
    // The same instant as currentDateTime().toUTC(), without the detour
    // through the system's time zone.
    return QDateTime::currentDateTimeUtc();
}

QDateTime TLocalTime::currentDateTime()
{
    return systemDateTime().addSecs(GetOffset());
}

QDate TLocalTime::currentDate()
{
    return currentDateTime().date();
}

QTime TLocalTime::currentTime()
{
    return currentDateTime().time();
}

std::optional<struct timespec> offsetClockFileTime()
{
    const QDateTime now = TLocalTime::currentDateTime();
    const QDate date = now.date();
    const QTime time = now.time();

    std::tm fields {};
    fields.tm_year = date.year() - 1900;
    fields.tm_mon = date.month() - 1;
    fields.tm_mday = date.day();
    fields.tm_hour = time.hour();
    fields.tm_min = time.minute();
    fields.tm_sec = 0;
    fields.tm_isdst = -1; // let the C library decide whether daylight saving applies

    // mktime() looks at the time zone file again on every call, while the
    // stamp of a minute is the same for every file copied in it; a new value
    // of TZ is a new time zone, though, and is asked about at once.
    using Minute = std::array<int, 5>;
    thread_local std::optional<Minute> lastMinute;
    thread_local QByteArray lastZone;
    thread_local std::time_t lastStamp = 0;
    const Minute minute { fields.tm_year, fields.tm_mon, fields.tm_mday, fields.tm_hour,
                          fields.tm_min };
    const char *zone = std::getenv("TZ");
    if (lastMinute != minute || lastZone != (zone ? zone : "")) {
        lastStamp = std::mktime(&fields);
        lastMinute = minute;
        lastZone = zone;
    }
    if (lastStamp == std::time_t(-1))
        return std::nullopt; // a time the C library cannot represent
    return timespec { lastStamp, 0 };
}

void stampWithOffsetClock(int fd)
{
    if (const auto stamp = offsetClockFileTime()) {
        const struct timespec times[2] = { *stamp, *stamp };
        ::futimens(fd, times);
    }
}

void TLocalTime::setFileTime(const QString &path)
{
    if (const auto stamp = offsetClockFileTime()) {
        const struct timespec times[2] = { *stamp, *stamp };
        ::utimensat(AT_FDCWD, path.toUtf8().constData(), times, 0);
    }
}

qint64 TLocalTime::getCurrentTime()
{
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    return qint64(now.tv_sec) * 1000 + qint64(now.tv_nsec) / 1000000;
}
