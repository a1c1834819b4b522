#include "style/tableColors.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

const std::uint32_t kLight[29] = {
    0xFF000000, 0xFF444444, 0xFF999999, 0xFF00CC00, 0xFF00DD00, 0xFF88BB00, 0xFFAAAAAA, 0xFFEEEEEE,
    0xFFDD8822, 0xFFDD5222, 0xFF469BCC, 0xFFFF0000, 0xFFCCCCCC, 0xFFEEEEEE, 0xFFE9E9E9, 0xFFCCCCCC,
    0xFFAAAAAA, 0xFFDD4400, 0xFFEE6644, 0xFFEEFFFF, 0xFFEEEEEE, 0xFFCCCCCC, 0xFF333333, 0xFFCC00CC,
    0xFFCCCCCC, 0xFFFFFFFF, 0xFF999999, 0xFFAAAAAA, 0xFF609DCC,
};
const std::uint32_t kDark[29] = {
    0xFFCCCCCC, 0xFF888888, 0xFF777777, 0xFF008800, 0xFF00AA00, 0xFF558800, 0xFF777777, 0xFF444444,
    0xFFBB5500, 0xFFC12F02, 0xFF0088BB, 0xFFCC0000, 0xFFAAAAAA, 0xFF999999, 0xFF111111, 0xFF333333,
    0xFF222222, 0xFFDD4400, 0xFFAA2200, 0xFF557777, 0xFF666666, 0xFF999999, 0xFFAAAAAA, 0xFF880088,
    0xFF2A2A2A, 0x0FCCCCCC, 0xFF666666, 0xFF555555, 0xFF609DCC,
};
const std::uint32_t kLightJobs[11] = {
    0xFFEEEEEE, 0xFFFFCCCC, 0xFFBBFFAA, 0xFFAACCFF, 0xFFFFFFCC, 0xFFEECCFF,
    0xFFCCFFFF, 0xFF999999, 0xFFFF0000, 0xFF00FF00, 0xFF6666FF,
};
const std::uint32_t kDarkJobs[11] = {
    0xFF9A9A9A, 0xFFA58484, 0xFF79A56E, 0xFF6E84A5, 0xFFA5A584, 0xFF9A84A5,
    0xFF84A5A5, 0xFF636363, 0xFFA50000, 0xFF00A500, 0xFF4242A5,
};

// 65 % of each colour byte, truncated, in integers: none of the job
// colours' bytes is a multiple of 20, where float and exact could differ.
std::uint32_t darkened(std::uint32_t word)
{
    std::uint32_t out = word & 0xFF000000u;
    for (int shift = 0; shift < 24; shift += 8) out |= (((word >> shift) & 0xFFu) * 13u / 20u) << shift;
    return out;
}

void expectScheme(const std::uint32_t (&colors)[29], const std::uint32_t (&jobs)[11])
{
    const _intList_Colors table;
    const _intList_jobColors jobTable;
    for (int i = 0; i < 29; ++i) EXPECT_EQ(table[i], colors[i]) << "slot " << i;
    for (int i = 29; i < 40; ++i) EXPECT_EQ(lib_colors[i], 0u) << "slot " << i;
    for (int i = 0; i < 11; ++i) EXPECT_EQ(jobTable[i], jobs[i]) << "job colour " << i;
}

// Runs first in the process: nothing has been applied yet.
TEST(TableColors, ZeroBeforeAnySchemeIsApplied)
{
    for (unsigned int word : lib_colors) EXPECT_EQ(word, 0u);
    for (unsigned int word : lib_jobColors) EXPECT_EQ(word, 0u);
}

TEST(TableColors, LightScheme)
{
    ktStyle_setTableColorsLight();
    expectScheme(kLight, kLightJobs);
}

TEST(TableColors, DarkJobColoursAreTheLightOnesAt65Percent)
{
    for (int i = 0; i < 11; ++i) EXPECT_EQ(darkened(kLightJobs[i]), kDarkJobs[i]) << i;
    ktStyle_setTableColorsLight();
    ktStyle_setTableColorsDark();
    expectScheme(kDark, kDarkJobs);
    for (int i = 0; i < 11; ++i) EXPECT_EQ(lib_jobColors[i], darkened(kLightJobs[i])) << i;
}

TEST(TableColors, DarkSchemeTwiceDoesNotDarkenTwice)
{
    ktStyle_setTableColorsDark();
    ktStyle_setTableColorsDark();
    expectScheme(kDark, kDarkJobs);
    ktStyle_setTableColorsLight();
    expectScheme(kLight, kLightJobs);
}

TEST(TableColors, SchemesOverwriteTheWholeTable)
{
    lib_colors[35] = 0x12345678u;
    lib_colors[39] = 1u;
    ktStyle_setTableColorsDark();
    EXPECT_EQ(lib_colors[35], 0u);
    EXPECT_EQ(lib_colors[39], 0u);
}

TEST(TableColors, IndexViewsReachTheSharedTables)
{
    ktStyle_setTableColorsLight();
    const _intList_Colors table;
    const _intList_jobColors jobTable;
    EXPECT_EQ(&table[7], &lib_colors[7]);
    EXPECT_EQ(&jobTable[10], &lib_jobColors[10]);
    table[39] = 0xAABBCCDDu;
    jobTable[0] = 0x01020304u;
    EXPECT_EQ(lib_colors[39], 0xAABBCCDDu);
    EXPECT_EQ(lib_jobColors[0], 0x01020304u);
    ktStyle_setTableColorsLight();
}

}  // namespace
