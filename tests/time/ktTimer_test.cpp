// ktTimer: the text for fixed millisecond counts, the 31-bit elapsed time
// (including a wall clock set back), and restarting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include <string>

#include "time/ktTimer.h"

namespace {

// No seconds up to exactly one second, hundredths truncated, the unit as the host parses it.
TEST(KtTimerText, FixedMilliseconds)
{
    const struct { unsigned int ms; const char* text; } cases[] = {
        {0, ".00s.ms"},    {9, ".00s.ms"},     {10, ".01s.ms"},    {999, ".99s.ms"},
        {1000, ".00s.ms"}, {1001, "1.00s.ms"}, {3250, "3.25s.ms"}, {0xFFFFFFFF, "4294967.29s.ms"},
    };
    for (const auto& c : cases) {
        const _ktString8_allSize<50> text = kt::elapsedText(c.ms);
        EXPECT_EQ(std::string(text.text, text.length), c.text) << c.ms;
    }
}

// The difference taken in 32 bits and masked to 31: a clock set back gives a
// large positive value, never a negative one.
TEST(KtTimerElapsed, ThirtyOneBitsOfTheDifference)
{
    const unsigned long long base = 1700000000000ULL;  // a wall clock in 2023
    const struct { unsigned long long now, start; unsigned int ms; } cases[] = {
        {base, base, 0},
        {base + 3250, base, 3250},
        {base, base + 5000, 0x7FFFFFFF - 4999},  // clock set back by 5 s
        {base + 0x80000007ULL, base, 7},         // wraps after 2^31 ms
        {base + 0x100000005ULL, base, 5},        // only 32 bits are taken
    };
    for (const auto& c : cases) EXPECT_EQ(kt::elapsedMs(c.now, c.start), c.ms) << c.now - base << " " << c.start - base;
}

TEST(KtTimer, ReadsTheWallClockAndRestartsFromTheReadingItReturns)
{
    timeval before{}, after{};
    gettimeofday(&before, nullptr);
    ktTimer timer;
    gettimeofday(&after, nullptr);
    EXPECT_GE(timer.startMs, before.tv_sec * 1000ULL + before.tv_usec / 1000);
    EXPECT_LE(timer.startMs, after.tv_sec * 1000ULL + after.tv_usec / 1000);

    timer.startMs -= 7000 * 1000;  // started 7000 s ago
    const unsigned int first = timer.restart();
    EXPECT_GE(first, 7000u * 1000);
    EXPECT_LT(timer.elapsed(), first);
    timer.startMs -= 7000 * 1000;
    EXPECT_THAT(timer.restartAndString8().text, testing::MatchesRegex(R"(700[0-9]\.[0-9][0-9]s\.ms)"));
    EXPECT_LT(timer.elapsed(), 7000u * 1000);
    timer.startMs -= 5000 * 1000;
    EXPECT_THAT(timer.elapsedString8().text, testing::MatchesRegex(R"(500[0-9]\.[0-9][0-9]s\.ms)"));
}

}  // namespace
