// _ktTime: a point in time as whole seconds since 1970-01-01 00:00:00 UTC,
// with calendar arithmetic in local time and the host's text forms.
// _ktTime32: the same value in 32 bits, for records that store times so.
//
// Both are plain values shared with separately built hosts: one field, no
// virtual functions. A value below 1 means "no time" for the text forms and
// the distances. Nothing here throws or allocates.
#pragma once

#include <cstddef>
#include <ctime>

#include "strings/ktString16.h"
#include "strings/ktString8.h"

// "Jan" .. "Dec", indexed by month 0 to 11.
extern const char* const month_names[12];

class _ktTime {
public:
    long long value;  // seconds since 1970 UTC; below 1 means no time

    // Seconds added to a UTC count to give local wall-clock time (east of
    // UTC positive, daylight saving as it was when settled). -1 means not
    // yet settled; every operation that needs it settles it first. Shared by
    // the whole process and written without a lock.
    static int ktTime_Start_OffSet;

    _ktTime();  // no time (0)
    explicit _ktTime(bool setNow);
    // A local count (isUTC false) has the offset subtracted. These two only
    // settle the offset when it holds 99; while it holds -1 a local count
    // moves by one second. Callers rely on that, so it stays.
    _ktTime(long long seconds, bool isUTC);
    _ktTime(unsigned int seconds, bool isUTC);

    static _ktTime currentTime();
    // A file-system time taken as it stands.
    static _ktTime convertStatFileTime(const long& seconds);
    void setCurrentTime(long long addSeconds);

    // Measures how far the offset is from the local clock, in seconds within
    // -43230..43230. With apply the error is added to the offset and the
    // remaining error (0 when right) is returned.
    static int testIfOfsetIsRight(bool apply);
    static int getTime_Start_OffSet();
    // value + offset, added in 32 bits and sign-extended (wraps after 2038).
    long long toLocalTime() const;
    // The value was a local count: subtract the offset.
    void convertFromLocalTime();
    // Whether daylight saving is in force now.
    static bool isSummertime();

    // Day numbers and times of day use the settled offset, so that days begin
    // at local midnight. Divisions and remainders truncate toward zero.
    int getTotalDays(long long addSeconds) const;
    void fromTotalDays(const long long& days);
    int getDayHour() const;
    int getDayMinutes() const;
    int getDaySeconds(long long addSeconds) const;

    // Fields of the local calendar (with the daylight saving of that date).
    int dayOfMonth(long long addDays) const;
    int month() const;    // 1..12
    int year() const;     // full year
    int weekDay() const;  // Monday 0 .. Sunday 6
    // A time the calendar cannot represent gives an all-zero tm.
    void to_tm(tm& out) const;
    // The host links the conversion without const; the const one serves
    // const callers. Both are exported.
    operator tm();
    operator tm() const;
    void to_tm_Offset(tm& out, const long long& addSeconds) const;
    static int d2sec(const int& days);

    // Distances in seconds: the low 32 bits of the 64-bit difference (so a
    // distance beyond 68 years wraps). From no time: 0; to no time:
    // 2000000000. daysTo is the difference of the two 32-bit day numbers,
    // and the two differences are absolute values, all kept in 32 bits the
    // same way: they wrap, they never saturate (the absolute value of
    // INT_MIN stays INT_MIN).
    int secsTo(const _ktTime& other) const;
    int minTo(const _ktTime& other) const;
    int hoursTo(const _ktTime& other) const;
    int daysTo(const _ktTime& other) const;
    int secsDifference(const _ktTime& other) const;
    int daysDifference(const _ktTime& other) const;
    // Hosts may link these four without const; both forms are exported.
    int minTo(const _ktTime& other);
    int hoursTo(const _ktTime& other);
    int secsDifference(const _ktTime& other);
    int daysDifference(const _ktTime& other);

    // Whether value + waitSeconds lies before now (the current time when now
    // is null). The second form restarts the wait from now once it is over.
    bool waitTimeIsOver(const long long& waitSeconds, const _ktTime* now = nullptr) const;
    bool waitTimeIsOver(const long long& waitSeconds, const bool& restart, const _ktTime* now);
    // Seconds still to wait (negative once over): the low 32 bits of the
    // 64-bit difference.
    int waitTimeDifference(const long long& waitSeconds, const _ktTime* now = nullptr) const;

    // Local date and time. Out-of-range fields are clamped (month 1..12,
    // day 1..31, year up to 3000); years 0..99 mean 2000..2099, negative
    // years 2014, years below 1990 one century later, and 1900 the current
    // year. Hours, minutes and seconds carry over; so does 31 February.
    void fromDateTime(int second, int minute, int hour, int day, int month, int year);
    // Local midnight; the year rule without the century shift.
    void fromDate(int day, int month, int year);
    // The same after carrying a month outside 1..12 into the year (at most
    // two years either way).
    void fromDate(int day, int month, int year, const bool& wrapMonth);
    // From the compiler's __DATE__ ("Mar  5 2026") and __TIME__ ("14:07:09")
    // texts; anything unparseable gives a time of 0.
    static _ktTime fromStringCompileDate2(const char* date, const char* time);

    // Text forms in the local calendar. Most show a placeholder for no time.
    _ktString8_allSize<250> asKT8String() const;   // "MM.DD. hh:mm.ss"
    _ktString8_allSize<250> asString() const;      // the same
    _ktString8_allSize<250> asKT8StringMt() const;  // "Mar 05. 14:07.09", "-.-"
    _ktString8_allSize<250> asStringMt() const;    // the same
    _ktString8_allSize<250> asKT8StringDateMonth() const;      // "05.Mar. ", "-.-"
    _ktString8_allSize<250> asKT8StringDateMonthYear() const;  // "05.Mar.2026 ", "-.-"
    _ktString8_allSize<250> asKT8StringHourMinSec() const;     // "hh:mm.ss" from the offset
    _ktString<50> asStringYear3_kts() const;  // "05.Mar.26", "-.-"
    _ktString<50> asStringYear3() const;      // the same
    _ktString8_allSize<250> asStringFileName() const;            // "MMDD_hhmmss", "000000_0000"
    _ktString8_allSize<250> asStringFileName_TruncSec() const;   // "MMDD_hhmm" + tens, "000000_000"
    _ktString8_allSize<250> asStringFileNameYearMinute() const;  // "YYMMDD_hhmm", "000000_0000"
};

// The 32-bit twin: each operation behaves as its _ktTime namesake and keeps
// the result in 32 bits.
class _ktTime32 {
public:
    int value = 0;

    void setCurrentTime(long long addSeconds);
    void to_tm(tm& out) const;
    void to_tm_Offset(tm& out, const long long& addSeconds) const;
    operator tm();  // the form hosts link; the const one beside it
    operator tm() const;
    _ktString8_allSize<250> asKT8String() const;
    void fromDateTime(int second, int minute, int hour, int day, int month, int year);
};

// Hosts read these values inside their own records.
static_assert(sizeof(_ktTime) == 8 && alignof(_ktTime) == 8, "_ktTime is one 64-bit count");
static_assert(offsetof(_ktTime, value) == 0, "_ktTime::value");
static_assert(sizeof(_ktTime32) == 4 && alignof(_ktTime32) == 4, "_ktTime32 is one 32-bit count");
static_assert(offsetof(_ktTime32, value) == 0, "_ktTime32::value");
