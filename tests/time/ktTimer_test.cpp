// ktTimer: the text for fixed millisecond counts, the 31-bit elapsed time
// (including a wall clock set back), and restarting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include <cstring>
#include <string>

#include "time/ktTimer.h"

namespace {

TEST(KtTimerText, FixedMilliseconds)
{
    const struct {
        unsigned int ms;
        const char* text;
    } cases[] = {
        {0, ".00s.ms"},      {9, ".00s.ms"},        {10, ".01s.ms"},          {250, ".25s.ms"},
        {999, ".99s.ms"},    {1000, ".00s.ms"},     {1001, "1.00s.ms"},       {1999, "1.99s.ms"},
        {3250, "3.25s.ms"},  {60005, "60.00s.ms"},  {0x7FFFFFFF, "2147483.64s.ms"},
        {0xFFFFFFFF, "4294967.29s.ms"},
    };
    for (const auto& c : cases) {
        const _ktString8_allSize<50> text = kt::elapsedText(c.ms);
        EXPECT_STREQ(text.text, c.text) << c.ms;
        EXPECT_EQ(text.length, std::strlen(c.text)) << c.ms;
    }
}

TEST(KtTimerElapsed, ThirtyOneBitsOfTheDifference)
{
    const unsigned long long base = 1700000000000ULL;  // a wall clock in 2023
    const struct {
        unsigned long long now, start;
        unsigned int ms;
    } cases[] = {
        {base, base, 0},
        {base + 3250, base, 3250},
        {base, base + 1, 0x7FFFFFFF},            // clock set back by 1 ms
        {base, base + 5000, 0x7FFFFFFF - 4999},  // ... by 5 s
        {base + 0x80000007ULL, base, 7},         // wraps after 2^31 ms
        {base + 0x100000005ULL, base, 5},        // only 32 bits are taken
    };
    for (const auto& c : cases) EXPECT_EQ(kt::elapsedMs(c.now, c.start), c.ms) << c.now - base << " " << c.start - base;
}

TEST(KtTimer, ReadsTheWallClock)
{
    timeval before{}, after{};
    gettimeofday(&before, nullptr);
    const unsigned long long ms = ktTimer::currentMillSeconds();
    gettimeofday(&after, nullptr);
    EXPECT_GE(ms, before.tv_sec * 1000ULL + before.tv_usec / 1000);
    EXPECT_LE(ms, after.tv_sec * 1000ULL + after.tv_usec / 1000);

    const unsigned long long beforeStart = ktTimer::currentMillSeconds();
    ktTimer timer;
    EXPECT_GE(timer.startMs, beforeStart);
    EXPECT_LE(timer.startMs, ktTimer::currentMillSeconds());
}

TEST(KtTimer, ClockSetBackGivesALargePositiveValue)
{
    ktTimer timer;
    timer.startMs = ktTimer::currentMillSeconds() + 3600 * 1000;  // started "in an hour"
    const unsigned int ms = timer.elapsed();
    EXPECT_LE(ms, 0x7FFFFFFFu - 3600 * 1000 + 1);
    EXPECT_GT(ms, 0x7FFFFFFFu - 2 * 3600 * 1000);
}

TEST(KtTimer, RestartCountsFromTheReadingItReturns)
{
    ktTimer timer;
    timer.startMs -= 7000 * 1000;  // started 7000 s ago
    const unsigned int first = timer.restart();
    const unsigned long long restartedAt = timer.startMs;
    EXPECT_GE(first, 7000u * 1000);
    EXPECT_LE(restartedAt, ktTimer::currentMillSeconds());
    EXPECT_LT(timer.elapsed(), first);

    timer.startMs -= 7000 * 1000;
    const std::string full = timer.restartAndString8().text;
    const std::string again = timer.restartAndString8().text;
    EXPECT_EQ(full.compare(0, 3, "700"), 0) << full;  // 7000.xx s
    EXPECT_EQ(full.substr(full.size() - 4), "s.ms");
    EXPECT_LT(again.size(), full.size()) << again;
    timer.start();
    EXPECT_THAT(timer.elapsedString8().text, testing::MatchesRegex(R"(([1-9][0-9]*)?\.[0-9][0-9]s\.ms)"));
}

}  // namespace
