#include "time/ktTime.h"

#include <climits>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

const char* const month_names[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

int _ktTime::ktTime_Start_OffSet = -1;

namespace {

constexpr long long kSecondsPerDay = 86400;
constexpr int kNoTimeDistance = 2000000000;

// Values come from hosts and files; sums and products of extreme ones wrap
// (as the 32-bit results do) instead of overflowing.
long long wrapAdd(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) + static_cast<unsigned long long>(b));
}

long long wrapMul(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) * static_cast<unsigned long long>(b));
}

long long wrapSub(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) - static_cast<unsigned long long>(b));
}

// A 32-bit distance is the low half of the 64-bit one: narrowed, the way a
// host storing it in 32 bits gets it, never saturated.
int low32(long long v) { return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long long>(v))); }

int clampToInt(__int128 v)
{
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

// The local broken-down time of t; all zero when the calendar cannot hold it.
tm localFields(long long t)
{
    tm out{};
    const time_t when = static_cast<time_t>(t);
    if (!localtime_r(&when, &out)) out = tm{};
    return out;
}

// The offset, settled on first use.
long long settledOffset()
{
    if (_ktTime::ktTime_Start_OffSet == -1) _ktTime::testIfOfsetIsRight(true);
    return _ktTime::ktTime_Start_OffSet;
}

long long currentSeconds() { return static_cast<long long>(std::time(nullptr)); }

long long nowOr(const _ktTime* now) { return now ? now->value : currentSeconds(); }

char const* monthName(int month) { return month >= 0 && month < 12 ? month_names[month] : ""; }

// The date fields shared by fromDateTime and fromDate: month 0..11, day 1..31.
int clampedMonth(int month) { return month <= 0 ? 0 : (month > 12 ? 12 : month) - 1; }
int clampedDay(int day) { return day <= 0 ? 1 : (day > 31 ? 31 : day); }

// Converts local wall-clock fields. The first pass guesses standard time and
// learns whether that date has daylight saving; the second pass, with the
// fields restored and that flag, gives the wall-clock time asked for.
long long fromLocalFields(const tm& fields)
{
    tm guess = fields;
    guess.tm_isdst = 0;
    std::mktime(&guess);
    tm exact = fields;
    exact.tm_isdst = guess.tm_isdst;
    const time_t result = std::mktime(&exact);
    return result == static_cast<time_t>(-1) ? 0 : static_cast<long long>(result);
}

__attribute__((format(printf, 1, 2))) _ktString8_allSize<250> formatted(const char* format, ...)
{
    char buffer[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return _ktString8_allSize<250>(buffer);
}

// One numeric piece of the compiler's date or time text: `count` characters
// from `start` (fewer at the end of the text), optionally trimmed of blanks.
// Only digits pass, with a minus sign allowed in front; empty reads as 0.
bool readPiece(const char* text, size_t start, size_t count, bool trim, int& out)
{
    const size_t available = strnlen(text, start + count);
    const char* begin = text + (start < available ? start : available);
    const char* end = text + available;
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    if (trim) {
        while (end > begin && blank(end[-1])) --end;
        while (begin < end && blank(*begin)) ++begin;
    }
    char piece[8] = {};
    const size_t length = static_cast<size_t>(end - begin);
    for (size_t i = 0; i < length; ++i) {
        const bool digit = begin[i] >= '0' && begin[i] <= '9';
        if (!digit && !(i == 0 && begin[i] == '-')) return false;
        piece[i] = begin[i];
    }
    out = static_cast<int>(std::strtol(piece, nullptr, 10));
    return true;
}

bool startsWithName(const char* text, const char* name)
{
    for (; *name; ++name, ++text)
        if (std::toupper(static_cast<unsigned char>(*text)) != std::toupper(static_cast<unsigned char>(*name))) return false;
    return true;
}

}  // namespace

// --- construction --------------------------------------------------------

_ktTime::_ktTime() : value(0) {}

_ktTime::_ktTime(bool setNow) : value(setNow ? currentSeconds() : 0) {}

_ktTime::_ktTime(long long seconds, bool isUTC) : value(seconds)
{
    if (isUTC) return;
    if (ktTime_Start_OffSet == 99) testIfOfsetIsRight(true);
    value = wrapAdd(seconds, -static_cast<long long>(ktTime_Start_OffSet));
}

_ktTime::_ktTime(unsigned int seconds, bool isUTC) : _ktTime(static_cast<long long>(seconds), isUTC) {}

_ktTime _ktTime::currentTime() { return _ktTime(true); }

_ktTime _ktTime::convertStatFileTime(const long& seconds)
{
    _ktTime t;
    t.value = seconds;
    return t;
}

void _ktTime::setCurrentTime(long long addSeconds) { value = wrapAdd(currentSeconds(), addSeconds); }

// --- offset ----------------------------------------------------------------

int _ktTime::testIfOfsetIsRight(bool apply)
{
    const long long now = currentSeconds();
    const tm local = localFields(now - ktTime_Start_OffSet);
    long long diff = local.tm_hour * 3600LL + local.tm_min * 60LL + local.tm_sec - now % kSecondsPerDay;
    if (diff >= 43231) diff -= kSecondsPerDay;
    if (diff < -43230) diff += kSecondsPerDay;
    if (!apply) return static_cast<int>(diff);
    ktTime_Start_OffSet = clampToInt(static_cast<__int128>(ktTime_Start_OffSet) + diff);
    return testIfOfsetIsRight(false);
}

int _ktTime::getTime_Start_OffSet() { return static_cast<int>(settledOffset()); }

long long _ktTime::toLocalTime() const { return static_cast<int>(wrapAdd(value, settledOffset())); }

void _ktTime::convertFromLocalTime() { value = wrapAdd(value, -settledOffset()); }

bool _ktTime::isSummertime() { return localFields(currentSeconds()).tm_isdst > 0; }

// --- calendar arithmetic -------------------------------------------------------

int _ktTime::getTotalDays(long long addSeconds) const
{
    return static_cast<int>(wrapAdd(wrapAdd(value, addSeconds), settledOffset()) / kSecondsPerDay);
}

void _ktTime::fromTotalDays(const long long& days) { value = wrapAdd(wrapMul(days, kSecondsPerDay), -settledOffset()); }

int _ktTime::getDayHour() const { return static_cast<int>(wrapAdd(value, settledOffset()) / 3600 % 24); }

int _ktTime::getDayMinutes() const { return static_cast<int>(wrapAdd(value, settledOffset()) / 60 % 1440); }

int _ktTime::getDaySeconds(long long addSeconds) const
{
    return static_cast<int>(wrapAdd(wrapAdd(value, addSeconds), settledOffset()) % kSecondsPerDay);
}

int _ktTime::dayOfMonth(long long addDays) const
{
    return localFields(wrapAdd(value, wrapMul(addDays, kSecondsPerDay))).tm_mday;
}

int _ktTime::month() const { return localFields(value).tm_mon + 1; }

int _ktTime::year() const { return localFields(value).tm_year + 1900; }

int _ktTime::weekDay() const
{
    const int day = localFields(value).tm_wday - 1;  // the calendar counts from Sunday
    return day < 0 || day > 6 ? 6 : day;
}

void _ktTime::to_tm(tm& out) const { out = localFields(value); }

_ktTime::operator tm() const { return localFields(value); }

_ktTime::operator tm() { return localFields(value); }

void _ktTime::to_tm_Offset(tm& out, const long long& addSeconds) const { out = localFields(wrapAdd(value, addSeconds)); }

int _ktTime::d2sec(const int& days) { return static_cast<int>(days * kSecondsPerDay); }

// --- distances and waiting -----------------------------------------------------

int _ktTime::secsTo(const _ktTime& other) const
{
    if (value < 1) return 0;
    if (other.value < 1) return kNoTimeDistance;
    return low32(wrapSub(other.value, value));
}

int _ktTime::minTo(const _ktTime& other) const { return secsTo(other) / 60; }

int _ktTime::hoursTo(const _ktTime& other) const { return secsTo(other) / 3600; }

int _ktTime::daysTo(const _ktTime& other) const
{
    return low32(static_cast<long long>(other.getTotalDays(0)) - getTotalDays(0));
}

int _ktTime::secsDifference(const _ktTime& other) const { return low32(std::llabs(secsTo(other))); }

int _ktTime::daysDifference(const _ktTime& other) const { return low32(std::llabs(daysTo(other))); }

int _ktTime::minTo(const _ktTime& other) { return std::as_const(*this).minTo(other); }

int _ktTime::hoursTo(const _ktTime& other) { return std::as_const(*this).hoursTo(other); }

int _ktTime::secsDifference(const _ktTime& other) { return std::as_const(*this).secsDifference(other); }

int _ktTime::daysDifference(const _ktTime& other) { return std::as_const(*this).daysDifference(other); }

bool _ktTime::waitTimeIsOver(const long long& waitSeconds, const _ktTime* now) const
{
    return static_cast<__int128>(value) + waitSeconds < nowOr(now);
}

bool _ktTime::waitTimeIsOver(const long long& waitSeconds, const bool& restart, const _ktTime* now)
{
    const long long reference = nowOr(now);
    const bool over = static_cast<__int128>(value) + waitSeconds < reference;
    if (over && restart) value = reference;
    return over;
}

int _ktTime::waitTimeDifference(const long long& waitSeconds, const _ktTime* now) const
{
    return low32(wrapSub(wrapAdd(value, waitSeconds), nowOr(now)));
}

// --- setting from a date -------------------------------------------------------

void _ktTime::fromDateTime(int second, int minute, int hour, int day, int month, int year)
{
    tm fields{};
    fields.tm_sec = second;
    fields.tm_min = minute;
    fields.tm_hour = hour;
    fields.tm_mday = clampedDay(day);
    fields.tm_mon = clampedMonth(month);
    const int fullYear = year < 0 ? 2014 : year <= 99 ? 2000 + year : year > 3000 ? 3000 : year;
    if (fullYear == 1900) {
        // The current year; a date left at 1 January means today.
        const tm today = localFields(currentSeconds());
        fields.tm_year = today.tm_year;
        if (fields.tm_mday == 1 && fields.tm_mon == 0) {
            fields.tm_mday = today.tm_mday;
            fields.tm_mon = today.tm_mon;
        }
    } else {
        // Two-digit years of old records: 1985 stands for 2085.
        fields.tm_year = fullYear < 1990 ? fullYear - 1800 : fullYear - 1900;
    }
    value = fromLocalFields(fields);
}

void _ktTime::fromDate(int day, int month, int year)
{
    tm fields{};
    fields.tm_mday = clampedDay(day);
    fields.tm_mon = clampedMonth(month);
    fields.tm_year = (year < 0 ? 2014 : year <= 99 ? 2000 + year : year > 3000 ? 3000 : year) - 1900;
    value = fromLocalFields(fields);
}

void _ktTime::fromDate(int day, int month, int year, const bool& wrapMonth)
{
    long long fullYear = year;
    if (wrapMonth) {
        if (month >= -11 && month <= 0) {
            month += 12;
            fullYear -= 1;
        } else if (month < -11) {
            month += 24;
            fullYear -= 2;
        } else if (month >= 13 && month <= 24) {
            month -= 12;
            fullYear += 1;
        } else if (month > 24) {
            month -= 24;
            fullYear += 2;
        }
    }
    fromDate(day, month, clampToInt(fullYear));
}

_ktTime _ktTime::fromStringCompileDate2(const char* date, const char* time)
{
    _ktTime result;
    if (!date || !time) return result;
    int month = 0;
    for (int i = 0; i < 12; ++i)
        if (startsWithName(date, month_names[i])) month = i + 1;
    if (month == 0) return result;
    // "Mmm dd yyyy" and "hh:mm:ss"; the day may be padded with a blank.
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    if (!readPiece(date, 4, 2, true, day) || !readPiece(date, 7, 4, true, year) || !readPiece(time, 0, 2, false, hour) ||
        !readPiece(time, 3, 2, false, minute) || !readPiece(time, 6, 2, false, second))
        return result;
    result.fromDateTime(second, minute, hour, day, month, year);
    return result;
}

// --- text forms ----------------------------------------------------------------

_ktString8_allSize<250> _ktTime::asKT8String() const
{
    const tm t = localFields(value);
    return formatted("%02d.%02d. %02d:%02d.%02d", t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}

_ktString8_allSize<250> _ktTime::asString() const { return asKT8String(); }

_ktString8_allSize<250> _ktTime::asKT8StringMt() const
{
    if (value < 1) return _ktString8_allSize<250>("-.-");
    const tm t = localFields(value);
    return formatted("%s %02d. %02d:%02d.%02d", monthName(t.tm_mon), t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}

_ktString8_allSize<250> _ktTime::asStringMt() const { return asKT8StringMt(); }

_ktString8_allSize<250> _ktTime::asKT8StringDateMonth() const
{
    if (value < 1) return _ktString8_allSize<250>("-.-");
    const tm t = localFields(value);
    return formatted("%02d.%s. ", t.tm_mday, monthName(t.tm_mon));
}

_ktString8_allSize<250> _ktTime::asKT8StringDateMonthYear() const
{
    if (value < 1) return _ktString8_allSize<250>("-.-");
    const tm t = localFields(value);
    return formatted("%02d.%s.%02d ", t.tm_mday, monthName(t.tm_mon), t.tm_year + 1900);
}

_ktString8_allSize<250> _ktTime::asKT8StringHourMinSec() const
{
    // Straight from the offset, without the calendar: quick, but it shows the
    // daylight saving of today for every date.
    const long long local = wrapAdd(value, settledOffset());
    return formatted("%02d:%02d.%02d", static_cast<int>(local / 3600 % 24), static_cast<int>(local / 60 % 60),
                     static_cast<int>(local % 60));
}

_ktString<50> _ktTime::asStringYear3_kts() const
{
    if (value < 1) return _ktString<50>("-.-");
    const tm t = localFields(value);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%02d.%s.%02d", t.tm_mday, monthName(t.tm_mon), t.tm_year + 1900 - 2000);
    return _ktString<50>(buffer);
}

_ktString<50> _ktTime::asStringYear3() const { return asStringYear3_kts(); }

_ktString8_allSize<250> _ktTime::asStringFileName() const
{
    if (value < 1) return _ktString8_allSize<250>("000000_0000");
    const tm t = localFields(value);
    return formatted("%02d%02d_%02d%02d%02d", t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}

_ktString8_allSize<250> _ktTime::asStringFileName_TruncSec() const
{
    if (value < 1) return _ktString8_allSize<250>("000000_000");
    const tm t = localFields(value);
    return formatted("%02d%02d_%02d%02d%01d", t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec / 10);
}

_ktString8_allSize<250> _ktTime::asStringFileNameYearMinute() const
{
    if (value < 1) return _ktString8_allSize<250>("000000_0000");
    const tm t = localFields(value);
    return formatted("%02d%02d%02d_%02d%02d", t.tm_year + 1900 - 2000, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min);
}

// --- 32-bit twin -----------------------------------------------------------------

void _ktTime32::setCurrentTime(long long addSeconds) { value = static_cast<int>(wrapAdd(currentSeconds(), addSeconds)); }

void _ktTime32::to_tm(tm& out) const { out = localFields(value); }

void _ktTime32::to_tm_Offset(tm& out, const long long& addSeconds) const { out = localFields(wrapAdd(value, addSeconds)); }

_ktTime32::operator tm() const { return localFields(value); }

_ktTime32::operator tm() { return localFields(value); }

_ktString8_allSize<250> _ktTime32::asKT8String() const
{
    _ktTime wide;
    wide.value = value;
    return wide.asKT8String();
}

void _ktTime32::fromDateTime(int second, int minute, int hour, int day, int month, int year)
{
    _ktTime wide;
    wide.fromDateTime(second, minute, hour, day, month, year);
    value = static_cast<int>(wide.value);
}
