#ifndef TRELLIS_TLOCALTIME_H
#define TRELLIS_TLOCALTIME_H

#include <Trellis/trellis_export.h>

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QTime>

/*!
    The process-wide offset clock and a monotonic millisecond counter.

    The offset clock reads the system clock in UTC and adds one signed offset
    in seconds to it. Whatever the application wants its local time to be (a
    time zone, daylight saving, a date set by hand) is carried by that offset
    alone; the system clock is never touched and no time zone is applied. The
    offset is 0 when the library is loaded and lives in memory only.

    Every QDateTime handed out carries Qt::UTC. Those that include the offset
    hold the application's local wall-clock fields labelled as UTC; nothing
    converts them back to the system's time zone.

    All members are static and the class is never instantiated. Every function
    may be called from any thread at any time: the offset is read and written
    whole, without a lock, and the last write wins.
*/
class TRELLIS_EXPORT TLocalTime
{
public:
    TLocalTime() = delete;

    /*!
        Returns the offset in seconds; positive means the offset clock runs
        ahead of the system's UTC time.
    */
    static int GetOffset();

    /*!
        Stores \a seconds as the offset. Any value is accepted.
    */
    static void SetOffset(int seconds);

    /*!
        Sets the offset so that the offset clock reads the given date and time
        now, and returns the offset that it stored.

        \a year, \a month (1 to 12), \a day, \a hour (0 to 23), \a minute and
        \a second are taken as wall-clock fields as they stand, with no time
        zone conversion. The offset is the number of whole seconds from the
        system's UTC time to that target. Right after the call,
        currentDateTime() reads the target plus the time passed since.

        A target the clock cannot reach leaves the offset as it was and
        returns that unchanged offset:
        \list
        \li an impossible date or time (month 13, 31 February, hour 24, a
            negative field), which gives no valid date-time;
        \li a target more than about 68 years away from the system time,
            whose distance in seconds does not fit in an int.
        \endlist
        A caller that needs to know whether the clock was set can compare the
        result with currentDateTime().
    */
    static int SetDateTime(int year, int month, int day, int hour, int minute, int second);

    /*!
        Returns the system's current date and time in UTC, without the offset.
    */
    static QDateTime systemDateTime();

    /*!
        Returns the offset clock's current date and time: systemDateTime()
        moved by the offset, which is read once. The result carries Qt::UTC.
        With an offset of 0 it is the system's UTC time, not its local time.
    */
    static QDateTime currentDateTime();

    /*!
        Returns the date part of one currentDateTime() reading.
    */
    static QDate currentDate();

    /*!
        Returns the time part of one currentDateTime() reading.
    */
    static QTime currentTime();

    /*!
        Sets the access and modification times of the file or directory at
        \a path to the start of the offset clock's current minute (seconds
        and milliseconds dropped), both to the same value.

        The offset clock's wall-clock fields are read as local time in the
        process's time zone, so a listing of the file in that time zone shows
        the offset clock's date, hour and minute. The path is encoded as
        UTF-8. A missing path, a path without write permission, a time that
        the C library cannot represent (past 2038 where time_t has 32 bits)
        or any other failure leaves the file as it was and is not reported.
    */
    static void setFileTime(const QString &path);

    /*!
        Returns milliseconds on the system's monotonic clock, or 0 when that
        clock cannot be read. Only the difference between two readings means
        anything; the counter ignores the offset and any change of the
        system's wall clock.
    */
    static qint64 getCurrentTime();
};

#endif // TRELLIS_TLOCALTIME_H
