// Calendar cases that depend on the time zone. ctest runs this program once
// per zone with TZ set (see CMakeLists.txt); the expectations come from the
// civil date in UTC, computed here without the C library, minus the zone's
// known offset on that date.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "time/ktTime.h"

namespace {

enum ZoneIndex { kUTC, kBerlin, kKolkata, kStJohns, kZones };
const char* const kZoneNames[kZones] = {"UTC", "Europe/Berlin", "Asia/Kolkata", "America/St_Johns"};

int zoneFromEnvironment()
{
    const char* tz = std::getenv("TZ");
    for (int i = 0; tz && i < kZones; ++i)
        if (std::strcmp(tz, kZoneNames[i]) == 0) return i;
    return -1;
}

// Days from 1970-01-01 to a proleptic Gregorian date.
long long daysFromCivil(long long y, int m, int d)
{
    y -= m <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const long long yoe = y - era * 400;
    const long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

struct Civil {
    int y = 1970, mo = 1, d = 1, h = 0, mi = 0, s = 0;
};

long long utcSeconds(const Civil& c) { return daysFromCivil(c.y, c.mo, c.d) * 86400 + c.h * 3600 + c.mi * 60 + c.s; }

// UTC offsets of the four zones on a date, in seconds.
struct Offsets {
    int of[kZones];
};
constexpr Offsets kWinter{{0, 3600, 19800, -12600}};
constexpr Offsets kSummer{{0, 7200, 19800, -9000}};

// The offset the local clock has right now, from the calendar's own field.
long long gmtOffsetAt(time_t t)
{
    tm fields{};
    localtime_r(&t, &fields);
    return fields.tm_gmtoff;
}

std::string narrow(const _ktString<50>& s)
{
    std::string out;
    for (int i = 0; i < s.length; ++i) out += static_cast<char>(s.text[i]);
    return out;
}

class Calendar : public ::testing::Test {
protected:
    void SetUp() override
    {
        zone = zoneFromEnvironment();
        if (zone < 0) GTEST_SKIP() << "run with TZ set to UTC, Europe/Berlin, Asia/Kolkata or America/St_Johns";
        _ktTime::ktTime_Start_OffSet = -1;  // as a fresh process starts
        offsetNow = gmtOffsetAt(std::time(nullptr));
    }
    long long expected(const Civil& local, const Offsets& offsets) const { return utcSeconds(local) - offsets.of[zone]; }

    int zone = -1;
    long long offsetNow = 0;
};

struct DateTimeCase {
    int sec, min, hour, day, month, year;
    Civil local;
    Offsets offsets;
};

const DateTimeCase kDateTimes[] = {
    {9, 7, 14, 5, 3, 2026, {2026, 3, 5, 14, 7, 9}, kWinter},
    {0, 0, 12, 1, 7, 2024, {2024, 7, 1, 12, 0, 0}, kSummer},
    // Either side of the European spring and autumn changes ...
    {0, 30, 1, 31, 3, 2024, {2024, 3, 31, 1, 30, 0}, {{0, 3600, 19800, -9000}}},
    {0, 30, 3, 31, 3, 2024, {2024, 3, 31, 3, 30, 0}, kSummer},
    {0, 0, 12, 26, 10, 2024, {2024, 10, 26, 12, 0, 0}, kSummer},
    {0, 0, 12, 28, 10, 2024, {2024, 10, 28, 12, 0, 0}, {{0, 3600, 19800, -9000}}},
    // ... and of the Canadian ones.
    {0, 0, 12, 9, 3, 2024, {2024, 3, 9, 12, 0, 0}, kWinter},
    {0, 0, 12, 11, 3, 2024, {2024, 3, 11, 12, 0, 0}, {{0, 3600, 19800, -9000}}},
    {0, 0, 12, 1, 1, 1985, {2085, 1, 1, 12, 0, 0}, kWinter},   // one century on
    {0, 0, 12, 1, 1, 1989, {2089, 1, 1, 12, 0, 0}, kWinter},
    {0, 0, 12, 1, 1, 1990, {1990, 1, 1, 12, 0, 0}, kWinter},   // first year kept
    {0, 0, 0, 31, 2, 24, {2024, 3, 2, 0, 0, 0}, kWinter},      // 31 February
    {0, 0, 0, 15, 14, 2023, {2023, 12, 15, 0, 0, 0}, kWinter}, // month clamped, not wrapped
    {0, 0, 0, 0, 0, 2023, {2023, 1, 1, 0, 0, 0}, kWinter},
    {0, 0, 0, 40, 4, 2023, {2023, 5, 1, 0, 0, 0}, kSummer},    // day 31 of April
    {0, 0, 0, 1, 6, -5, {2014, 6, 1, 0, 0, 0}, kSummer},
    {0, 0, 0, 1, 1, 5000, {3000, 1, 1, 0, 0, 0}, kWinter},
    {3600, 59, 23, 31, 12, 2023, {2024, 1, 1, 0, 59, 0}, kWinter},
    {-1, 0, 0, 1, 3, 2024, {2024, 2, 29, 23, 59, 59}, kWinter},
};

TEST_F(Calendar, FromDateTimeGivesTheWallClockAskedFor)
{
    for (const auto& c : kDateTimes) {
        SCOPED_TRACE(testing::Message() << c.year << "-" << c.month << "-" << c.day << " " << c.hour << ":" << c.min);
        _ktTime t;
        t.fromDateTime(c.sec, c.min, c.hour, c.day, c.month, c.year);
        EXPECT_EQ(t.value, expected(c.local, c.offsets));
        tm fields{};
        t.to_tm(fields);
        EXPECT_EQ(fields.tm_hour * 3600 + fields.tm_min * 60 + fields.tm_sec, c.local.h * 3600 + c.local.mi * 60 + c.local.s);
        EXPECT_EQ(t.dayOfMonth(0), c.local.d);
        EXPECT_EQ(t.month(), c.local.mo);
        EXPECT_EQ(t.year(), c.local.y);
        EXPECT_EQ(t.weekDay(), (daysFromCivil(c.local.y, c.local.mo, c.local.d) + 3) % 7);  // 1970-01-01 was a Thursday

        _ktTime32 narrowTime;
        narrowTime.fromDateTime(c.sec, c.min, c.hour, c.day, c.month, c.year);
        EXPECT_EQ(narrowTime.value, static_cast<int>(static_cast<unsigned int>(t.value)));
    }
}

TEST_F(Calendar, YearNineteenHundredMeansThisYear)
{
    const time_t before = std::time(nullptr);
    _ktTime defaults, fixed, firstOfMay, ninthOfJanuary;
    defaults.fromDateTime(0, 0, 10, 1, 1, 1900);
    fixed.fromDateTime(0, 0, 10, 9, 5, 1900);
    firstOfMay.fromDateTime(0, 0, 10, 1, 5, 1900);
    ninthOfJanuary.fromDateTime(0, 0, 10, 9, 1, 1900);
    tm today{}, later{};
    localtime_r(&before, &today);
    const time_t after = std::time(nullptr);
    localtime_r(&after, &later);
    if (today.tm_yday != later.tm_yday) GTEST_SKIP() << "midnight passed during the test";
    EXPECT_EQ(defaults.year(), today.tm_year + 1900);
    EXPECT_EQ(defaults.month(), today.tm_mon + 1);
    EXPECT_EQ(defaults.dayOfMonth(0), today.tm_mday);
    EXPECT_EQ(fixed.year(), today.tm_year + 1900);
    EXPECT_EQ(fixed.month(), 5);
    EXPECT_EQ(fixed.dayOfMonth(0), 9);
    EXPECT_EQ(firstOfMay.month() * 100 + firstOfMay.dayOfMonth(0), 501);
    EXPECT_EQ(ninthOfJanuary.month() * 100 + ninthOfJanuary.dayOfMonth(0), 109);
    EXPECT_EQ(ninthOfJanuary.year(), today.tm_year + 1900);
}

TEST_F(Calendar, FromDateIsLocalMidnightWithOptionalMonthCarry)
{
    struct Case {
        int day, month, year;
        bool useWrap, wrap;
        Civil local;
        Offsets offsets;
    } const cases[] = {
        {0, 0, -1, false, false, {2014, 1, 1}, kWinter},
        {31, 2, 24, false, false, {2024, 3, 2}, kWinter},
        {1, 1, 1985, false, false, {1985, 1, 1}, kWinter},  // no century shift here
        {1, 1, 5000, false, false, {3000, 1, 1}, kWinter},
        {1, 7, 2024, false, false, {2024, 7, 1}, kSummer},
        {15, 14, 2023, true, true, {2024, 2, 15}, kWinter},
        {15, -13, 2023, true, true, {2021, 11, 15}, kWinter},
        {15, 0, 2023, true, true, {2022, 12, 15}, kWinter},
        {15, -11, 2023, true, true, {2022, 1, 15}, kWinter},
        {15, -30, 2023, true, true, {2021, 1, 15}, kWinter},
        {15, 13, 2023, true, true, {2024, 1, 15}, kWinter},
        {15, 24, 2023, true, true, {2024, 12, 15}, kWinter},
        {15, 25, 2023, true, true, {2025, 1, 15}, kWinter},
        {15, 40, 2023, true, true, {2025, 12, 15}, kWinter},
        {15, 14, 2023, true, false, {2023, 12, 15}, kWinter},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.day << "." << c.month << "." << c.year << " wrap " << c.wrap);
        _ktTime t;
        if (c.useWrap)
            t.fromDate(c.day, c.month, c.year, c.wrap);
        else
            t.fromDate(c.day, c.month, c.year);
        EXPECT_EQ(t.value, expected(c.local, c.offsets));
    }
}

TEST_F(Calendar, CompilerDateTexts)
{
    struct Case {
        const char *date, *time;
        Civil local;
        Offsets offsets;
    } const cases[] = {
        {"Mar  5 2026", "14:07:09", {2026, 3, 5, 14, 7, 9}, kWinter},
        {"Dec 31 1999", "23:59:59", {1999, 12, 31, 23, 59, 59}, kWinter},
        {"Jan  1 1985", "12:00:00", {2085, 1, 1, 12, 0, 0}, kWinter},
        {"jul 15 2024", "08:30:00", {2024, 7, 15, 8, 30, 0}, kSummer},
        {"Mar 15 2024", "14:07:-9", {2024, 3, 15, 14, 6, 51}, {{0, 3600, 19800, -9000}}},
        {"Mar", "", {2000, 3, 1, 0, 0, 0}, kWinter},  // missing pieces read as 0
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.date) + " " + c.time);
        EXPECT_EQ(_ktTime::fromStringCompileDate2(c.date, c.time).value, expected(c.local, c.offsets));
    }
    const _ktTime built = _ktTime::fromStringCompileDate2(__DATE__, __TIME__);
    EXPECT_GE(built.year(), 2024);
    EXPECT_LE(built.value, std::time(nullptr) + 86400);  // built earlier, maybe in another zone
}

TEST_F(Calendar, TextForms)
{
    _ktTime t;
    t.value = expected({2026, 3, 5, 14, 7, 9}, kWinter);
    EXPECT_STREQ(t.asKT8String().text, "03.05. 14:07.09");
    EXPECT_STREQ(t.asString().text, "03.05. 14:07.09");
    EXPECT_STREQ(t.asKT8StringMt().text, "Mar 05. 14:07.09");
    EXPECT_STREQ(t.asStringMt().text, "Mar 05. 14:07.09");
    EXPECT_STREQ(t.asKT8StringDateMonth().text, "05.Mar. ");
    EXPECT_STREQ(t.asKT8StringDateMonthYear().text, "05.Mar.2026 ");
    EXPECT_EQ(narrow(t.asStringYear3_kts()), "05.Mar.26");
    EXPECT_EQ(narrow(t.asStringYear3()), "05.Mar.26");
    EXPECT_STREQ(t.asStringFileName().text, "0305_140709");
    EXPECT_STREQ(t.asStringFileName_TruncSec().text, "0305_14070");
    EXPECT_STREQ(t.asStringFileNameYearMinute().text, "260305_1407");

    _ktTime32 narrowTime{static_cast<int>(t.value)};
    EXPECT_STREQ(narrowTime.asKT8String().text, "03.05. 14:07.09");
    tm fields{};
    narrowTime.to_tm_Offset(fields, 3 * 86400);
    EXPECT_EQ(fields.tm_mday, 8);

    // The hour form uses today's offset for every date.
    t.value = 20000 * 86400LL - offsetNow + 14 * 3600 + 7 * 60 + 9;
    EXPECT_STREQ(t.asKT8StringHourMinSec().text, "14:07.09");

    // A value of 1 is a time; the plain form shows even 0.
    const char* const firstSecond[kZones] = {"Jan 01. 00:00.01", "Jan 01. 01:00.01", "Jan 01. 05:30.01", "Dec 31. 20:30.01"};
    const char* const zeroPlain[kZones] = {"01.01. 00:00.00", "01.01. 01:00.00", "01.01. 05:30.00", "12.31. 20:30.00"};
    t.value = 1;
    EXPECT_STREQ(t.asKT8StringMt().text, firstSecond[zone]);
    t.value = 0;
    EXPECT_STREQ(t.asKT8String().text, zeroPlain[zone]);
}

TEST_F(Calendar, DayOfMonthAddsDaysAcrossMonthAndDaylightChanges)
{
    _ktTime t;
    t.fromDateTime(0, 0, 12, 28, 2, 2024);
    const int expectedDays[][2] = {{0, 28}, {1, 29}, {2, 1}, {-28, 31}, {32, 31}, {33, 1}};
    for (const auto& c : expectedDays) EXPECT_EQ(t.dayOfMonth(c[0]), c[1]) << "plus " << c[0] << " days";
}

TEST_F(Calendar, OffsetSettlesFromMinusOneOnFirstUse)
{
    EXPECT_EQ(_ktTime::getTime_Start_OffSet(), offsetNow);
    EXPECT_EQ(_ktTime::testIfOfsetIsRight(false), 0);
    EXPECT_EQ(_ktTime::isSummertime(), zone == kBerlin ? offsetNow == 7200 : zone == kStJohns ? offsetNow == -9000 : false);
}

TEST_F(Calendar, OffsetErrorIsMeasuredWithinHalfADay)
{
    // {guess - true offset, measured error}: errors beyond 43230 seconds wrap by
    // a day. (Near +-43200 the window holds two answers, one for each time of day.)
    const long long cases[][2] = {{100, -100}, {-100, 100}, {43169, -43169}, {-43169, 43169}, {-43231, -43169}, {43231, 43169}};
    for (const auto& c : cases) {
        const long long guess = offsetNow + c[0];
        if (gmtOffsetAt(std::time(nullptr) - guess) != offsetNow) GTEST_SKIP() << "daylight saving changes within half a day";
        _ktTime::ktTime_Start_OffSet = static_cast<int>(guess);
        EXPECT_EQ(_ktTime::testIfOfsetIsRight(false), c[1]) << "guess off by " << c[0];
        EXPECT_EQ(_ktTime::ktTime_Start_OffSet, guess);
    }
    _ktTime::ktTime_Start_OffSet = static_cast<int>(offsetNow + 500);
    EXPECT_EQ(_ktTime::testIfOfsetIsRight(true), 0);
    EXPECT_EQ(_ktTime::ktTime_Start_OffSet, offsetNow);
}

TEST_F(Calendar, LocalCountConstructorsSettleOnlyAtNinetyNine)
{
    EXPECT_EQ(_ktTime(1000LL, false).value, 1001);  // -1 is taken as it stands
    EXPECT_EQ(_ktTime(1000u, false).value, 1001);
    EXPECT_EQ(_ktTime::ktTime_Start_OffSet, -1);
    EXPECT_EQ(_ktTime(1000LL, true).value, 1000);
    _ktTime::ktTime_Start_OffSet = 99;
    EXPECT_EQ(_ktTime(4000000000u, false).value, 4000000000LL - offsetNow);
    _ktTime::ktTime_Start_OffSet = 500;
    EXPECT_EQ(_ktTime(1000LL, false).value, 500);
}

TEST_F(Calendar, DayArithmeticUsesTheSettledOffset)
{
    const long long day = 19800;
    // {seconds into the local day, hour, minutes of the day}
    const int cases[][3] = {{0, 0, 0}, {1, 0, 0}, {3599, 0, 59}, {3600, 1, 60}, {45296, 12, 754}, {86399, 23, 1439}};
    for (const auto& c : cases) {
        _ktTime t;
        t.value = day * 86400 - offsetNow + c[0];
        EXPECT_EQ(t.getTotalDays(0), day) << c[0];
        EXPECT_EQ(t.getTotalDays(86400), day + 1) << c[0];
        EXPECT_EQ(t.getDaySeconds(0), c[0]);
        EXPECT_EQ(t.getDayHour(), c[1]);
        EXPECT_EQ(t.getDayMinutes(), c[2]);
    }
    _ktTime t;
    t.fromTotalDays(day);
    EXPECT_EQ(t.value, day * 86400 - offsetNow);
    _ktTime lastSecond(t.value - 1, true), beforeEpoch(-offsetNow - 1, true);
    EXPECT_EQ(lastSecond.daysTo(t), 1);
    EXPECT_EQ(t.daysDifference(lastSecond), 1);
    EXPECT_EQ(beforeEpoch.getTotalDays(0), 0);  // truncated toward zero
    EXPECT_EQ(beforeEpoch.getDaySeconds(0), -1);
}

TEST_F(Calendar, LocalCountConversions)
{
    _ktTime t(1000LL, true);
    EXPECT_EQ(t.toLocalTime(), 1000 + offsetNow);
    t.convertFromLocalTime();
    EXPECT_EQ(t.value, 1000 - offsetNow);
    t.value = 3000000000LL;  // past 2038 the 32-bit sum wraps
    EXPECT_EQ(t.toLocalTime(), 3000000000LL + offsetNow - 4294967296LL);
}

}  // namespace
