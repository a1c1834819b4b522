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
const unsigned kJobs[11] = {0xFFEEEEEE, 0xFFFFCCCC, 0xFFBBFFAA, 0xFFAACCFF, 0xFFFFFFCC, 0xFFEECCFF,
                            0xFFCCFFFF, 0xFF999999, 0xFFFF0000, 0xFF00FF00, 0xFF6666FF};

// Each scheme overwrites both tables whole (unused slots included). The dark
// one takes the light job colours to 65 % (colour bytes truncated, alpha kept)
// from the light ones every time, so applying it twice does not darken twice.
TEST(TableColors, EverySchemeOverwritesBothTablesWhole)
{
    for (unsigned word : lib_colors) EXPECT_EQ(word, 0u) << "before any scheme";
    for (unsigned word : lib_jobColors) EXPECT_EQ(word, 0u) << "before any scheme";
    for (bool dark : {false, true, true, false}) {
        lib_colors[35] = 0x12345678u;
        dark ? ktStyle_setTableColorsDark() : ktStyle_setTableColorsLight();
        for (int i = 0; i < 40; ++i) EXPECT_EQ(_intList_Colors()[i], i >= 29 ? 0u : dark ? kDark[i] : kLight[i]) << i;
        for (int i = 0; i < 11; ++i) {
            unsigned want = kJobs[i];
            for (int shift = 0; dark && shift < 24; shift += 8)
                want = (want & ~(0xFFu << shift)) | ((kJobs[i] >> shift & 0xFFu) * 65 / 100) << shift;
            EXPECT_EQ(_intList_jobColors()[i], want) << "job colour " << i << (dark ? " dark" : " light");
        }
    }
}

}  // namespace
