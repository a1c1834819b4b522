// The light and dark colour schemes against the host's colour words, written
// out by hand.
#include "style/tableColors.h"

#include <gtest/gtest.h>

namespace {

const unsigned kLight[29] = {
    0xFF000000, 0xFF444444, 0xFF999999, 0xFF00CC00, 0xFF00DD00, 0xFF88BB00, 0xFFAAAAAA, 0xFFEEEEEE,
    0xFFDD8822, 0xFFDD5222, 0xFF469BCC, 0xFFFF0000, 0xFFCCCCCC, 0xFFEEEEEE, 0xFFE9E9E9, 0xFFCCCCCC,
    0xFFAAAAAA, 0xFFDD4400, 0xFFEE6644, 0xFFEEFFFF, 0xFFEEEEEE, 0xFFCCCCCC, 0xFF333333, 0xFFCC00CC,
    0xFFCCCCCC, 0xFFFFFFFF, 0xFF999999, 0xFFAAAAAA, 0xFF609DCC,
};
// Slot 25 is nearly transparent on purpose.
const unsigned kDark[29] = {
    0xFFCCCCCC, 0xFF888888, 0xFF777777, 0xFF008800, 0xFF00AA00, 0xFF558800, 0xFF777777, 0xFF444444,
    0xFFBB5500, 0xFFC12F02, 0xFF0088BB, 0xFFCC0000, 0xFFAAAAAA, 0xFF999999, 0xFF111111, 0xFF333333,
    0xFF222222, 0xFFDD4400, 0xFFAA2200, 0xFF557777, 0xFF666666, 0xFF999999, 0xFFAAAAAA, 0xFF880088,
    0xFF2A2A2A, 0x0FCCCCCC, 0xFF666666, 0xFF555555, 0xFF609DCC,
};
const unsigned kLightJobs[11] = {0xFFEEEEEE, 0xFFFFCCCC, 0xFFBBFFAA, 0xFFAACCFF, 0xFFFFFFCC, 0xFFEECCFF,
                                 0xFFCCFFFF, 0xFF999999, 0xFFFF0000, 0xFF00FF00, 0xFF6666FF};
// The light job colours at 65 %, each colour byte truncated, alpha kept.
const unsigned kDarkJobs[11] = {0xFF9A9A9A, 0xFFA58484, 0xFF79A56E, 0xFF6E84A5, 0xFFA5A584, 0xFF9A84A5,
                                0xFF84A5A5, 0xFF636363, 0xFFA50000, 0xFF00A500, 0xFF4242A5};

void expectScheme(const unsigned (&colors)[29], const unsigned (&jobs)[11])
{
    const _intList_Colors table;
    const _intList_jobColors jobTable;
    for (int i = 0; i < 40; ++i) EXPECT_EQ(table[i], i < 29 ? colors[i] : 0u) << "slot " << i;
    for (int i = 0; i < 11; ++i) EXPECT_EQ(jobTable[i], jobs[i]) << "job colour " << i;
}

// Each scheme overwrites both tables whole (unused slots included), and the
// dark one refills the job colours before darkening them, so that applying it
// twice does not darken them twice.
TEST(TableColors, EverySchemeOverwritesBothTablesWhole)
{
    for (unsigned word : lib_colors) EXPECT_EQ(word, 0u) << "before any scheme";
    for (unsigned word : lib_jobColors) EXPECT_EQ(word, 0u) << "before any scheme";
    lib_colors[35] = 0x12345678u;
    ktStyle_setTableColorsLight();
    expectScheme(kLight, kLightJobs);
    lib_colors[39] = 1u;
    ktStyle_setTableColorsDark();
    expectScheme(kDark, kDarkJobs);
    ktStyle_setTableColorsDark();
    expectScheme(kDark, kDarkJobs);
    ktStyle_setTableColorsLight();
    expectScheme(kLight, kLightJobs);
    EXPECT_EQ(&_intList_jobColors()[10], &lib_jobColors[10]);
}

}  // namespace
