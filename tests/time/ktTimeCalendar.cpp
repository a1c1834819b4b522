// Calendar cases that depend on the time zone. ctest runs this program once
// per zone with TZ set (see CMakeLists.txt); the expectations come from the
// civil date in UTC, computed here without the C library, minus the zone's
// known offset on that date.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "time/ktTime.h"

namespace {

enum ZoneIndex { kUTC, kBerlin, kKolkata, kStJohns, kZones };
const char* const kZoneNames[kZones] = {"UTC", "Europe/Berlin", "Asia/Kolkata", "America/St_Johns"};

// Days from 1970-01-01 to a proleptic Gregorian date.
long long daysFromCivil(long long y, int m, int d)
{
    y -= m <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const long long yoe = y - era * 400;
    const long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

struct Civil { int y = 1970, mo = 1, d = 1, h = 0, mi = 0, s = 0; };

// UTC offsets of the four zones on a date, in seconds; kMixed is the week
// between the Canadian and the European change to summer time.
using Offsets = std::array<int, kZones>;
constexpr Offsets kWinter{0, 3600, 19800, -12600}, kSummer{0, 7200, 19800, -9000}, kMixed{0, 3600, 19800, -9000};

long long gmtOffsetAt(time_t t)
{
    tm fields{};
    localtime_r(&t, &fields);
    return fields.tm_gmtoff;
}

class Calendar : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* tz = std::getenv("TZ");
        for (int i = 0; tz && i < kZones; ++i)
            if (std::strcmp(tz, kZoneNames[i]) == 0) zone = i;
        if (zone < 0) GTEST_SKIP() << "run with TZ set to UTC, Europe/Berlin, Asia/Kolkata or America/St_Johns";
        _ktTime::ktTime_Start_OffSet = -1;  // as a fresh process starts
        offsetNow = gmtOffsetAt(std::time(nullptr));
    }
    long long expected(const Civil& c, const Offsets& offsets) const
    {
        return daysFromCivil(c.y, c.mo, c.d) * 86400 + c.h * 3600 + c.mi * 60 + c.s - offsets[zone];
    }

    int zone = -1;
    long long offsetNow = 0;
};

// Wall-clock times either side of the daylight-saving changes, the year rules
// (two digits, negative, beyond 3000, the century shift below 1990), clamped
// days and months, and carried hours and seconds.
TEST_F(Calendar, FromDateTimeGivesTheWallClockAskedFor)
{
    const struct { int sec, min, hour, day, month, year; Civil local; Offsets offsets; } cases[] = {
        {9, 7, 14, 5, 3, 2026, {2026, 3, 5, 14, 7, 9}, kWinter},  {0, 30, 1, 31, 3, 2024, {2024, 3, 31, 1, 30}, kMixed},
        {0, 30, 3, 31, 3, 2024, {2024, 3, 31, 3, 30}, kSummer},  {0, 0, 12, 28, 10, 2024, {2024, 10, 28, 12}, kMixed},
        {0, 0, 12, 1, 1, 1989, {2089, 1, 1, 12}, kWinter},       {0, 0, 12, 1, 1, 1990, {1990, 1, 1, 12}, kWinter},
        {0, 0, 0, 31, 2, 24, {2024, 3, 2}, kWinter},  // 31 February carries; months clamp, not wrap
        {0, 0, 0, 15, 14, 2023, {2023, 12, 15}, kWinter},        {0, 0, 0, 0, 0, 2023, {2023, 1, 1}, kWinter},
        {0, 0, 0, 40, 4, 2023, {2023, 5, 1}, kSummer},           {0, 0, 0, 1, 6, -5, {2014, 6, 1}, kSummer},
        {0, 0, 0, 1, 1, 5000, {3000, 1, 1}, kWinter},  {-1, 0, 0, 1, 3, 2024, {2024, 2, 29, 23, 59, 59}, kWinter},
        {3600, 59, 23, 31, 12, 2023, {2024, 1, 1, 0, 59}, kWinter},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.year << "-" << c.month << "-" << c.day << " " << c.hour << ":" << c.min);
        _ktTime t;
        t.fromDateTime(c.sec, c.min, c.hour, c.day, c.month, c.year);
        EXPECT_EQ(t.value, expected(c.local, c.offsets));
        tm f{};
        t.to_tm(f);
        EXPECT_TRUE(f.tm_hour == c.local.h && f.tm_min == c.local.mi && f.tm_sec == c.local.s);
        EXPECT_TRUE(t.year() == c.local.y && t.month() == c.local.mo && t.dayOfMonth(0) == c.local.d);
        EXPECT_EQ(t.weekDay(), (daysFromCivil(c.local.y, c.local.mo, c.local.d) + 3) % 7);  // 1970-01-01 was a Thursday
        _ktTime32 narrowTime;
        narrowTime.fromDateTime(c.sec, c.min, c.hour, c.day, c.month, c.year);
        EXPECT_EQ(narrowTime.value, static_cast<int>(static_cast<unsigned int>(t.value)));
    }
}

// Year 1900 means this year; the date means today only when day and month are both left at 1 January.
TEST_F(Calendar, YearNineteenHundredMeansThisYear)
{
    const time_t before = std::time(nullptr);
    const int cases[][2] = {{1, 1}, {9, 5}, {1, 5}, {9, 1}};  // {day, month}; the first means today
    _ktTime results[4];
    for (int i = 0; i < 4; ++i) results[i].fromDateTime(0, 0, 10, cases[i][0], cases[i][1], 1900);
    const time_t after = std::time(nullptr);
    tm today{}, later{};
    localtime_r(&before, &today);
    localtime_r(&after, &later);
    if (today.tm_yday != later.tm_yday) GTEST_SKIP() << "midnight passed during the test";
    for (int i = 0; i < 4; ++i) {
        const int month = i ? cases[i][1] : today.tm_mon + 1, day = i ? cases[i][0] : today.tm_mday;
        EXPECT_TRUE(results[i].year() == today.tm_year + 1900 && results[i].month() == month) << i;
        EXPECT_EQ(results[i].dayOfMonth(0), day) << i;
    }
}

// Local midnight, the year rule without the century shift, and carrying a
// month outside 1..12 at most two years either way (April to September is summer time).
TEST_F(Calendar, FromDateIsLocalMidnightWithOptionalMonthCarry)
{
    struct Case { int day, month, year; bool useWrap, wrap; Civil local; } const cases[] = {
        {0, 0, -1, false, false, {2014, 1, 1}},          {31, 2, 24, false, false, {2024, 3, 2}},
        {1, 7, 1985, false, false, {1985, 7, 1}},        {1, 1, 5000, false, false, {3000, 1, 1}},
        {15, 14, 2023, true, true, {2024, 2, 15}},       {15, -13, 2023, true, true, {2021, 11, 15}},
        {15, 0, 2023, true, true, {2022, 12, 15}},       {15, -11, 2023, true, true, {2022, 1, 15}},
        {15, -30, 2023, true, true, {2021, 1, 15}},      {15, 13, 2023, true, true, {2024, 1, 15}},
        {15, 24, 2023, true, true, {2024, 12, 15}},      {15, 25, 2023, true, true, {2025, 1, 15}},
        {15, 40, 2023, true, true, {2025, 12, 15}},      {15, 14, 2023, true, false, {2023, 12, 15}},
    };
    for (const auto& c : cases) {
        _ktTime t;
        c.useWrap ? t.fromDate(c.day, c.month, c.year, c.wrap) : t.fromDate(c.day, c.month, c.year);
        const bool summer = c.local.mo >= 4 && c.local.mo <= 9;
        EXPECT_EQ(t.value, expected(c.local, summer ? kSummer : kWinter)) << c.day << "." << c.month << "." << c.year;
    }
}

// The compiler's texts, a month name in any case, a minus sign, missing pieces read as 0.
TEST_F(Calendar, CompilerDateTexts)
{
    struct Case { const char *date, *time; Civil local; Offsets offsets; } const cases[] = {
        {"Mar  5 2026", "14:07:09", {2026, 3, 5, 14, 7, 9}, kWinter},
        {"Jan  1 1985", "12:00:00", {2085, 1, 1, 12, 0, 0}, kWinter},
        {"jul 15 2024", "08:30:00", {2024, 7, 15, 8, 30, 0}, kSummer},
        {"Mar 15 2024", "14:07:-9", {2024, 3, 15, 14, 6, 51}, kMixed},
        {"Mar", "", {2000, 3, 1, 0, 0, 0}, kWinter},
    };
    for (const auto& c : cases)
        EXPECT_EQ(_ktTime::fromStringCompileDate2(c.date, c.time).value, expected(c.local, c.offsets)) << c.date;
}

TEST_F(Calendar, TextForms)
{
    _ktTime t;
    t.value = expected({2026, 3, 5, 14, 7, 9}, kWinter);
    const std::pair<_ktString8_allSize<250>, const char*> forms[] = {
        {t.asKT8String(), "03.05. 14:07.09"},       {t.asString(), "03.05. 14:07.09"},
        {t.asKT8StringMt(), "Mar 05. 14:07.09"},    {t.asStringMt(), "Mar 05. 14:07.09"},
        {t.asKT8StringDateMonth(), "05.Mar. "},     {t.asKT8StringDateMonthYear(), "05.Mar.2026 "},
        {t.asStringFileName(), "0305_140709"},      {t.asStringFileName_TruncSec(), "0305_14070"},
        {t.asStringFileNameYearMinute(), "260305_1407"}, {_ktTime32{int(t.value)}.asKT8String(), "03.05. 14:07.09"},
    };
    for (const auto& f : forms) EXPECT_STREQ(f.first.text, f.second);
    for (const _ktString<50>& year3 : {t.asStringYear3_kts(), t.asStringYear3()})
        EXPECT_EQ(std::string(year3.text, year3.text + year3.length), "05.Mar.26");
    tm fields{}, narrowFields{}, narrowPlain{};
    const _ktTime32 narrowTime{static_cast<int>(t.value)};
    t.to_tm_Offset(fields, 3 * 86400);
    narrowTime.to_tm_Offset(narrowFields, 3 * 86400);
    narrowTime.to_tm(narrowPlain);
    EXPECT_TRUE(fields.tm_mday == 8 && narrowFields.tm_mday == 8 && narrowPlain.tm_mday == 5);
    EXPECT_EQ(static_cast<tm>(narrowTime).tm_mday, 5);

    // The hour form uses today's offset for every date.
    t.value = 20000 * 86400LL - offsetNow + 14 * 3600 + 7 * 60 + 9;
    EXPECT_STREQ(t.asKT8StringHourMinSec().text, "14:07.09");

    // A value of 1 is a time; the plain form shows even 0.
    const char* const firstSecond[] = {"Jan 01. 00:00.01", "Jan 01. 01:00.01", "Jan 01. 05:30.01", "Dec 31. 20:30.01"};
    const char* const zeroPlain[kZones] = {"01.01. 00:00.00", "01.01. 01:00.00", "01.01. 05:30.00", "12.31. 20:30.00"};
    EXPECT_STREQ(_ktTime(1LL, true).asKT8StringMt().text, firstSecond[zone]);
    EXPECT_STREQ(_ktTime().asKT8String().text, zeroPlain[zone]);
}

TEST_F(Calendar, DayOfMonthAddsDaysAcrossMonthAndDaylightChanges)
{
    _ktTime t;
    t.fromDateTime(0, 0, 12, 28, 2, 2024);
    const int expectedDays[][2] = {{0, 28}, {1, 29}, {2, 1}, {-28, 31}, {32, 31}, {33, 1}};
    for (const auto& c : expectedDays) EXPECT_EQ(t.dayOfMonth(c[0]), c[1]) << "plus " << c[0] << " days";
}

// The offset settles from -1 on first use; an error beyond 43230 seconds wraps by a day.
TEST_F(Calendar, OffsetSettlesAndItsErrorIsMeasuredWithinHalfADay)
{
    EXPECT_EQ(_ktTime::getTime_Start_OffSet(), offsetNow);
    EXPECT_EQ(_ktTime::testIfOfsetIsRight(false), 0);
    EXPECT_EQ(_ktTime::isSummertime(), offsetNow == kSummer[zone] && kSummer[zone] != kWinter[zone]);
    // The error is a difference of two times of day, so each edge of the window (43230 either way) can only be
    // reached in one half of the UTC day: the one the clock allows is taken, with ten seconds to spare.
    const long long n = std::time(nullptr) % 86400, edge = n < 43160 ? -43230 : n > 43240 && n < 86390 ? 43230 : 0;
    // {guess - true offset, measured error} (near +-43200 the window holds two answers).
    const long long cases[][2] = {
        {100, -100}, {-100, 100}, {43169, -43169}, {-43169, 43169}, {-43231, -43169}, {43231, 43169}, {edge, -edge}};
    for (const auto& c : cases) {
        const long long guess = offsetNow + c[0];
        if (gmtOffsetAt(std::time(nullptr) - guess) != offsetNow) GTEST_SKIP() << "the offset changes within the day";
        _ktTime::ktTime_Start_OffSet = static_cast<int>(guess);
        EXPECT_EQ(_ktTime::testIfOfsetIsRight(false), c[1]) << "guess off by " << c[0];
        EXPECT_EQ(_ktTime::ktTime_Start_OffSet, guess);
    }
    _ktTime::ktTime_Start_OffSet = static_cast<int>(offsetNow + 500);
    EXPECT_TRUE(_ktTime::testIfOfsetIsRight(true) == 0 && _ktTime::ktTime_Start_OffSet == offsetNow);
}

// The local-count constructors settle the offset only at 99: at -1 a local count moves by one second.
TEST_F(Calendar, LocalCountConstructorsSettleOnlyAtNinetyNine)
{
    EXPECT_TRUE(_ktTime(1000LL, false).value == 1001 && _ktTime(1000u, false).value == 1001);
    EXPECT_EQ(_ktTime::ktTime_Start_OffSet, -1);
    _ktTime::ktTime_Start_OffSet = 99;
    EXPECT_EQ(_ktTime(4000000000u, false).value, 4000000000LL - offsetNow);
    _ktTime::ktTime_Start_OffSet = 500;
    EXPECT_EQ(_ktTime(1000LL, false).value, 500);
}

// Days begin at local midnight; divisions and remainders truncate toward zero.
TEST_F(Calendar, DayArithmeticUsesTheSettledOffset)
{
    const long long day = 19800;
    // {seconds into the local day, hour, minutes of the day}
    const int cases[][3] = {{0, 0, 0}, {3599, 0, 59}, {3600, 1, 60}, {86399, 23, 1439}};
    for (const auto& c : cases) {
        const _ktTime t(day * 86400 - offsetNow + c[0], true);
        EXPECT_TRUE(t.getTotalDays(0) == day && t.getTotalDays(86400) == day + 1 && t.getDaySeconds(0) == c[0]) << c[0];
        EXPECT_TRUE(t.getDayHour() == c[1] && t.getDayMinutes() == c[2]) << c[0];
    }
    _ktTime t;
    t.fromTotalDays(day);
    EXPECT_EQ(t.value, day * 86400 - offsetNow);
    const _ktTime lastSecond(t.value - 1, true), beforeEpoch(-offsetNow - 1, true);
    EXPECT_TRUE(lastSecond.daysTo(t) == 1 && t.daysDifference(lastSecond) == 1);
    // Day distances are differences of 32-bit day numbers, wrapped to 32 bits:
    // {from day, to day, daysTo, daysDifference}
    const long long dayCases[][4] = {
        {day, day - 3, -3, 3},  {(1LL << 31) - 1, 1LL << 31, 1, 1},  {10, (1LL << 31) + 5, 2147483643, 2147483643},
        {(1LL << 31) + 5, 10, -2147483643, 2147483643},  {1, (1LL << 31) + 1, INT_MIN, INT_MIN},
    };
    for (const auto& c : dayCases) {
        const _ktTime from(c[0] * 86400 - offsetNow + 7, true), to(c[1] * 86400 - offsetNow + 7, true);
        EXPECT_TRUE(from.daysTo(to) == c[2] && from.daysDifference(to) == c[3]) << c[0] << " -> " << c[1];
    }
    EXPECT_TRUE(beforeEpoch.getTotalDays(0) == 0 && beforeEpoch.getDaySeconds(0) == -1);

    t.value = 1000;
    EXPECT_EQ(t.toLocalTime(), 1000 + offsetNow);
    t.convertFromLocalTime();
    EXPECT_EQ(t.value, 1000 - offsetNow);
    t.value = 3000000000LL;  // past 2038 the 32-bit sum wraps
    EXPECT_EQ(t.toLocalTime(), 3000000000LL + offsetNow - 4294967296LL);
}

}  // namespace
