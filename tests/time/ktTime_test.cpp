// _ktTime cases that hold in every time zone: distances, waiting, the
// placeholders for "no time", the compiler-date parser's refusals and
// extreme values. The zone-dependent calendar is in ktTimeCalendar.cpp.
#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <string>

#include "time/ktTime.h"

namespace {

_ktTime at(long long value) { return _ktTime(value, true); }

TEST(KtTimeDistance, SecondsMinutesHoursAndNoTime)
{
    struct Case {
        long long from, to;
        int secs, mins, hours;
    } const cases[] = {
        {0, 100, 0, 0, 0},  // from no time
        {-5, 100, 0, 0, 0},
        {100, 0, 2000000000, 33333333, 555555},  // to no time
        {100, -1, 2000000000, 33333333, 555555},
        {1, 1, 0, 0, 0},
        {1000, 1059, 59, 0, 0},
        {1000, 1060, 60, 1, 0},
        {10000, 6401, -3599, -59, 0},  // truncated toward zero
        {10000, 6399, -3601, -60, -1},
        {1, LLONG_MAX, INT_MAX, INT_MAX / 60, INT_MAX / 3600},  // clamped to 32 bits
        {LLONG_MAX, 1, INT_MIN, INT_MIN / 60, INT_MIN / 3600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.from << " -> " << c.to);
        EXPECT_EQ(at(c.from).secsTo(at(c.to)), c.secs);
        EXPECT_EQ(at(c.from).minTo(at(c.to)), c.mins);
        EXPECT_EQ(at(c.from).hoursTo(at(c.to)), c.hours);
        EXPECT_EQ(at(c.from).secsDifference(at(c.to)), c.secs == INT_MIN ? INT_MAX : std::abs(c.secs));
    }
}

TEST(KtTimeWait, OverOnlyAfterTheWaitHasPassed)
{
    // {start, wait, now, over, seconds still to wait}
    const long long cases[][5] = {
        {1000, 60, 1059, 0, 1}, {1000, 60, 1060, 0, 0}, {1000, 60, 1061, 1, -1},
        {1000, -10, 995, 1, -5}, {1000, LLONG_MAX, LLONG_MAX, 0, 1000}, {1000, LLONG_MAX, 1, 0, INT_MAX},
        {LLONG_MIN, LLONG_MIN, 0, 1, INT_MIN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c[0] << " + " << c[1] << " vs " << c[2]);
        const _ktTime now = at(c[2]);
        _ktTime t = at(c[0]), kept = at(c[0]);
        EXPECT_EQ(t.waitTimeIsOver(c[1], &now), c[3] != 0);
        EXPECT_EQ(t.waitTimeDifference(c[1], &now), c[4]);
        EXPECT_EQ(kept.waitTimeIsOver(c[1], false, &now), c[3] != 0);
        EXPECT_EQ(kept.value, c[0]);
        EXPECT_EQ(t.waitTimeIsOver(c[1], true, &now), c[3] != 0);
        EXPECT_EQ(t.value, c[3] ? c[2] : c[0]);  // restarted from now once over
    }
    const _ktTime started = _ktTime::currentTime();
    EXPECT_FALSE(started.waitTimeIsOver(3600));
    EXPECT_TRUE(at(1000).waitTimeIsOver(0));
}

TEST(KtTimeText, PlaceholdersForNoTime)
{
    for (long long value : {0LL, -5LL, LLONG_MIN}) {
        const _ktTime t = at(value);
        EXPECT_STREQ(t.asKT8StringMt().text, "-.-");
        EXPECT_STREQ(t.asStringMt().text, "-.-");
        EXPECT_STREQ(t.asKT8StringDateMonth().text, "-.-");
        EXPECT_STREQ(t.asKT8StringDateMonthYear().text, "-.-");
        const _ktString<50> year3 = t.asStringYear3_kts();
        ASSERT_EQ(year3.length, 3);
        EXPECT_EQ(year3.text[0], '-');
        EXPECT_EQ(year3.text[1], '.');
        EXPECT_EQ(year3.text[2], '-');
        EXPECT_EQ(t.asStringYear3().length, 3);
        EXPECT_STREQ(t.asStringFileName().text, "000000_0000");
        EXPECT_STREQ(t.asStringFileName_TruncSec().text, "000000_000");
        EXPECT_STREQ(t.asStringFileNameYearMinute().text, "000000_0000");
    }
    EXPECT_STRNE(at(1).asKT8StringMt().text, "-.-");
    EXPECT_STRNE(at(1).asStringFileName().text, "000000_0000");
}

TEST(KtTimeCompilerDate, UnreadableTextsGiveZero)
{
    const char* const cases[][2] = {
        {"Xyz  5 2026", "14:07:09"}, {"", "14:07:09"},         {"Ma", "14:07:09"},
        {"Mar x5 2026", "14:07:09"}, {"Mar  5 20a6", "14:07:09"}, {"Mar  5 +026", "14:07:09"},
        {"Mar 5- 2026", "14:07:09"}, {"Mar  5 2026", "1a:07:09"}, {"Mar  5 2026", "14:0x:09"},
        {"Mar  5 2026", " 4:07:09"},  // hours are not trimmed
        {"Mar  5 2026", "14:07:9-"},
        {nullptr, "14:07:09"},       {"Mar  5 2026", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (c[0] ? c[0] : "(null)") << " / " << (c[1] ? c[1] : "(null)"));
        EXPECT_EQ(_ktTime::fromStringCompileDate2(c[0], c[1]).value, 0);
    }
    EXPECT_GT(_ktTime::fromStringCompileDate2("Mar  5 2026", "14:07:09").value, 0);
}

TEST(KtTime, ConstructionAndCurrentTime)
{
    EXPECT_EQ(_ktTime().value, 0);
    EXPECT_EQ(_ktTime(false).value, 0);
    EXPECT_EQ(_ktTime::convertStatFileTime(1234567890L).value, 1234567890);
    const long long before = std::time(nullptr);
    const _ktTime now(true), current = _ktTime::currentTime();
    _ktTime later;
    later.setCurrentTime(3600);
    _ktTime32 narrowLater;
    narrowLater.setCurrentTime(-60);
    const long long after = std::time(nullptr);
    for (long long v : {now.value, current.value}) {
        EXPECT_GE(v, before);
        EXPECT_LE(v, after);
    }
    EXPECT_GE(later.value, before + 3600);
    EXPECT_LE(later.value, after + 3600);
    EXPECT_GE(narrowLater.value, before - 60);
    EXPECT_LE(narrowLater.value, after - 60);
    EXPECT_EQ(_ktTime::d2sec(1), 86400);
    EXPECT_EQ(_ktTime::d2sec(-3), -259200);
    EXPECT_EQ(_ktTime::d2sec(24855), 2147472000);
}

TEST(KtTime, ExtremeValuesStayDefined)
{
    // Too far out for the calendar: the broken-down time is all zero.
    const _ktTime far = at(LLONG_MAX);
    tm fields = far;
    EXPECT_EQ(fields.tm_year, 0);
    EXPECT_EQ(fields.tm_mday, 0);
    EXPECT_EQ(far.dayOfMonth(LLONG_MAX), 0);
    far.to_tm_Offset(fields, -1);
    EXPECT_EQ(fields.tm_mday, 0);
    EXPECT_STREQ(far.asKT8StringMt().text, "Jan 00. 00:00.00");

    // Wrapping arithmetic, no trap: only that these return is checked.
    _ktTime t = at(LLONG_MAX);
    (void)t.getTotalDays(LLONG_MAX);
    (void)t.getDaySeconds(LLONG_MIN);
    (void)t.toLocalTime();
    t.fromTotalDays(LLONG_MAX);
    t.convertFromLocalTime();

    t.fromDateTime(INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX);
    _ktTime lastDay;
    lastDay.fromDate(31, 12, 3000);
    EXPECT_GT(t.value, lastDay.value);  // the time of day carried on from 31.12.3000
    t.fromDate(INT_MIN, INT_MIN, INT_MIN, true);
    EXPECT_GT(t.value, 0);
    t.fromDate(INT_MAX, INT_MAX, INT_MAX, true);
    EXPECT_EQ(t.value, lastDay.value);
}

}  // namespace
