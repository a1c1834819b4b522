// _ktTime cases that hold in every time zone: distances, waiting, the
// placeholders for "no time", the compiler-date parser's refusals and
// extreme values. The zone-dependent calendar is in ktTimeCalendar.cpp.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>

#include "time/ktTime.h"

namespace {

_ktTime at(long long value) { return _ktTime(value, true); }

// From no time 0, to no time 2000000000 (a value below 1 is none), minutes
// and hours truncated toward zero; a distance beyond 32 bits keeps its low
// 32 bits (narrowed, not saturated), and so does its absolute value.
TEST(KtTimeDistance, SecondsMinutesHoursAndNoTime)
{
    struct Case { long long from, to; int secs, mins, hours, difference; } const cases[] = {
        {0, 100, 0, 0, 0, 0},          {100, 0, 2000000000, 33333333, 555555, 2000000000}, {1, 1, 0, 0, 0, 0},
        {1000, 1060, 60, 1, 0, 60},    {10000, 6401, -3599, -59, 0, 3599},  {10000, 6399, -3601, -60, -1, 3601},
        {1, 1 + (1LL << 32) + 90, 90, 1, 0, 90},  {1, LLONG_MAX, -2, 0, 0, 2},
        {1, 1 + (1LL << 31), INT_MIN, -35791394, -596523, INT_MIN},
    };
    for (const auto& c : cases) {
        const _ktTime from = at(c.from), to = at(c.to);
        EXPECT_TRUE(from.secsTo(to) == c.secs && from.secsDifference(to) == c.difference) << c.from << " " << c.to;
        EXPECT_TRUE(from.minTo(to) == c.mins && from.hoursTo(to) == c.hours) << c.from << " -> " << c.to;
    }
}

// Over only once start + wait lies before now; the restarting form then moves the start to now.
TEST(KtTimeWait, OverOnlyAfterTheWaitHasPassed)
{
    // {start, wait, now, over, seconds still to wait}
    const long long cases[][5] = {
        {1000, 60, 1059, 0, 1}, {1000, 60, 1060, 0, 0}, {1000, 60, 1061, 1, -1}, {1000, -10, 995, 1, -5},
        {1000, LLONG_MAX, LLONG_MAX, 0, 1000}, {1000, (1LL << 32) + 5, 1000, 0, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c[0] << " + " << c[1] << " vs " << c[2]);
        const _ktTime now = at(c[2]);
        _ktTime t = at(c[0]), kept = at(c[0]);
        EXPECT_TRUE(t.waitTimeIsOver(c[1], &now) == (c[3] != 0) && t.waitTimeDifference(c[1], &now) == c[4]);
        EXPECT_TRUE(kept.waitTimeIsOver(c[1], false, &now) == (c[3] != 0) && kept.value == c[0]);
        EXPECT_EQ(t.waitTimeIsOver(c[1], true, &now), c[3] != 0);
        EXPECT_EQ(t.value, c[3] ? c[2] : c[0]);
    }
    EXPECT_TRUE(!_ktTime::currentTime().waitTimeIsOver(3600) && at(1000).waitTimeIsOver(0));  // against the clock
}

// Each text form's own placeholder for a value below 1; the two file-name
// forms of different lengths share the same placeholder length on purpose.
TEST(KtTimeText, PlaceholdersForNoTime)
{
    using Form = _ktString8_allSize<250> (_ktTime::*)() const;
    const struct { Form form; const char* text; } forms[] = {
        {&_ktTime::asKT8StringMt, "-.-"},           {&_ktTime::asStringMt, "-.-"},
        {&_ktTime::asKT8StringDateMonth, "-.-"},    {&_ktTime::asKT8StringDateMonthYear, "-.-"},
        {&_ktTime::asStringFileName, "000000_0000"}, {&_ktTime::asStringFileName_TruncSec, "000000_000"},
        {&_ktTime::asStringFileNameYearMinute, "000000_0000"},
    };
    for (long long value : {0LL, LLONG_MIN}) {
        for (const auto& f : forms) EXPECT_STREQ((at(value).*f.form)().text, f.text) << value;
        for (const _ktString<50>& year3 : {at(value).asStringYear3_kts(), at(value).asStringYear3()})
            EXPECT_EQ(std::string(year3.text, year3.text + year3.length), "-.-");
    }
    EXPECT_STRNE(at(1).asStringFileName().text, "000000_0000");
}

// Every piece must be digits (a minus sign allowed first); the hour is not trimmed.
TEST(KtTimeCompilerDate, UnreadableTextsGiveZero)
{
    const char* const cases[][2] = {
        {"Xyz  5 2026", "14:07:09"}, {"", "14:07:09"},  {"Ma", "14:07:09"},          {"Mar x5 2026", "14:07:09"},
        {"Mar  5 20a6", "14:07:09"}, {"Mar  5 +026", "14:07:09"}, {"Mar 5- 2026", "14:07:09"},
        {"Mar  5 2026", "1a:07:09"}, {"Mar  5 2026", " 4:07:09"}, {"Mar  5 2026", "14:07:9-"},
        {nullptr, "14:07:09"},       {"Mar  5 2026", nullptr},
    };
    for (const auto& c : cases)
        EXPECT_EQ(_ktTime::fromStringCompileDate2(c[0], c[1]).value, 0) << (c[0] ? c[0] : "-") << (c[1] ? c[1] : "-");
}

// The current time, moved by the seconds asked for, in both widths; days and file times as seconds.
TEST(KtTime, CurrentTimeAndSecondCounts)
{
    EXPECT_TRUE(_ktTime::d2sec(-3) == -259200 && _ktTime::convertStatFileTime(1234567890L).value == 1234567890);
    const long long before = std::time(nullptr);
    const _ktTime now(true);
    _ktTime later;
    _ktTime32 earlier;
    later.setCurrentTime(3600);
    earlier.setCurrentTime(-60);
    const long long after = std::time(nullptr);
    EXPECT_TRUE(now.value >= before && now.value <= after && _ktTime(false).value == 0);
    EXPECT_TRUE(later.value - 3600 >= before && later.value - 3600 <= after && earlier.value + 60 >= before);
    EXPECT_LE(earlier.value + 60, after);
}

// Values beyond the calendar give an all-zero broken-down time, and the
// wrapping arithmetic stays defined (the sanitizers watch these calls).
TEST(KtTime, ExtremeValuesStayDefined)
{
    _ktTime t = at(LLONG_MAX);
    const tm fields = t;
    EXPECT_TRUE(fields.tm_year + fields.tm_mday == 0 && t.dayOfMonth(LLONG_MAX) == 0);
    EXPECT_STREQ(t.asKT8StringMt().text, "Jan 00. 00:00.00");
    (void)t.getTotalDays(LLONG_MAX);
    (void)t.getDaySeconds(LLONG_MIN);
    (void)t.toLocalTime();
    t.fromTotalDays(LLONG_MAX);
    t.convertFromLocalTime();

    _ktTime lastDay;
    lastDay.fromDate(31, 12, 3000);
    t.fromDateTime(INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX);
    EXPECT_GT(t.value, lastDay.value);  // the time of day carried on from 31.12.3000
    t.fromDate(INT_MIN, INT_MIN, INT_MIN, true);
    const long long lowest = t.value;
    t.fromDate(INT_MAX, INT_MAX, INT_MAX, true);
    EXPECT_TRUE(lowest > 0 && t.value == lastDay.value);
}

}  // namespace
