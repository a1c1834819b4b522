#include "style/tableColors.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "image/pixelTypes.h"

unsigned int lib_colors[40];
unsigned int lib_jobColors[11];

namespace {

constexpr int kSchemeSlots = 29;

constexpr unsigned int kLightColors[kSchemeSlots] = {
    0xFF000000, 0xFF444444, 0xFF999999, 0xFF00CC00, 0xFF00DD00, 0xFF88BB00, 0xFFAAAAAA, 0xFFEEEEEE,
    0xFFDD8822, 0xFFDD5222, 0xFF469BCC, 0xFFFF0000, 0xFFCCCCCC, 0xFFEEEEEE, 0xFFE9E9E9, 0xFFCCCCCC,
    0xFFAAAAAA, 0xFFDD4400, 0xFFEE6644, 0xFFEEFFFF, 0xFFEEEEEE, 0xFFCCCCCC, 0xFF333333, 0xFFCC00CC,
    0xFFCCCCCC, 0xFFFFFFFF, 0xFF999999, 0xFFAAAAAA, 0xFF609DCC,
};

// Slot 25 is nearly transparent on purpose; the host relies on it.
constexpr unsigned int kDarkColors[kSchemeSlots] = {
    0xFFCCCCCC, 0xFF888888, 0xFF777777, 0xFF008800, 0xFF00AA00, 0xFF558800, 0xFF777777, 0xFF444444,
    0xFFBB5500, 0xFFC12F02, 0xFF0088BB, 0xFFCC0000, 0xFFAAAAAA, 0xFF999999, 0xFF111111, 0xFF333333,
    0xFF222222, 0xFFDD4400, 0xFFAA2200, 0xFF557777, 0xFF666666, 0xFF999999, 0xFFAAAAAA, 0xFF880088,
    0xFF2A2A2A, 0x0FCCCCCC, 0xFF666666, 0xFF555555, 0xFF609DCC,
};

constexpr unsigned int kJobColors[std::size(lib_jobColors)] = {
    0xFFEEEEEE, 0xFFFFCCCC, 0xFFBBFFAA, 0xFFAACCFF, 0xFFFFFFCC, 0xFFEECCFF,
    0xFFCCFFFF, 0xFF999999, 0xFFFF0000, 0xFF00FF00, 0xFF6666FF,
};

constexpr float kDarkJobFactor = 0.65f;

void setTables(const unsigned int (&colors)[kSchemeSlots])
{
    std::copy(std::begin(colors), std::end(colors), lib_colors);
    std::fill(lib_colors + kSchemeSlots, std::end(lib_colors), 0u);
    std::copy(std::begin(kJobColors), std::end(kJobColors), lib_jobColors);
}

}  // namespace

unsigned int& _intList_Colors::operator[](int index) const { return lib_colors[index]; }

unsigned int& _intList_jobColors::operator[](int index) const { return lib_jobColors[index]; }

void ktStyle_setTableColorsLight() { setTables(kLightColors); }

void ktStyle_setTableColorsDark()
{
    // The job colours start from the light ones every time, so applying the
    // dark scheme twice does not darken them twice.
    setTables(kDarkColors);
    for (unsigned int& word : lib_jobColors) {
        _Rgba8 colour;
        std::memcpy(&colour, &word, sizeof colour);
        colour.makeDark(kDarkJobFactor);
        std::memcpy(&word, &colour, sizeof word);
    }
}
