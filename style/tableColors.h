// The host's colour tables for its list and table views, and the light and
// dark schemes that fill them.
//
// Colour words hold four 8-bit channels, alpha in the top byte; read as an
// _Rgba8 on a little-endian machine the low byte is the first channel. The
// tables are process-wide and unlocked: the host applies a scheme once,
// before its views read them. Both are zero until then.
#pragma once

// 40 slots; the schemes set 0 to 28 and keep the rest 0.
extern unsigned int lib_colors[40];
// The colours of the 11 job states.
extern unsigned int lib_jobColors[11];

// Index views on the two tables; the index is not checked.
struct _intList_Colors {
    unsigned int& operator[](int index) const;
};
struct _intList_jobColors {
    unsigned int& operator[](int index) const;
};

// Overwrite both tables whole with the light scheme.
void ktStyle_setTableColorsLight();
// Overwrite both tables whole with the dark scheme: its own table colours,
// and the light job colours darkened to 65 %.
void ktStyle_setTableColorsDark();
