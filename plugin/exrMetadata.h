// Render metadata as the host keeps it, and its way into and out of EXR headers.
//
// ktExrHeaderData is allocated and owned by the host; the plug-in fills it
// when a header is read and writes it back as attributes when a file is
// written. The record is a binary interface with a separately built host:
// every byte position below is pinned and must never move.
#pragma once

#include <OpenEXR/ImfForward.h>

#include <cstddef>
#include <cstdint>

#include "strings/ktString8.h"

// Which value field of an entry holds the attribute's value.
enum class ktExrAttrType : unsigned char {
    String = 0,       // text
    Int = 1,          // values[0].i
    Float = 2,        // values[0].f
    M44f = 3,         // values[0..15].f, row by row
    FloatVector = 4,  // values[0..valueCount-1].f
    V2f = 5,          // values[0..1].f: x, y
    V3f = 6,          // values[0..2].f: x, y, z
};

// One numeric slot: a signed 32-bit integer or an IEEE single, as the type says.
union ktExrValue {
    float f;
    std::int32_t i;
};

// One attribute: its name, which field holds its value, and the value.
struct ktExrHeaderEntry {
    _ktString8_allSize<75> name;      // cut to 75 characters
    ktExrAttrType type;
    unsigned char reserved0;
    _ktString8_allSize<2000> text;    // string attributes, cut to 2,000 characters; its own padding fills 2083
    unsigned char valueCount;         // float vectors: number of values used, at most 10
    unsigned char reserved2[3];
    ktExrValue values[16];
};

// The whole record: a marker, the number of used entries and the entries in header order.
struct ktExrHeaderData {
    std::uint32_t magic;              // ktExrHeaderMagic when the record holds data
    std::uint32_t count;
    ktExrHeaderEntry entries[410];
};

constexpr std::uint32_t ktExrHeaderMagic = 0xFEBA;
// Reading stops counting past this index, so at most 401 entries are filled.
constexpr std::uint32_t ktExrHeaderLastIndex = 400;
constexpr int ktExrVectorMaxValues = 10;

static_assert(sizeof(ktExrAttrType) == 1);
static_assert(sizeof(ktExrValue) == 4);
static_assert(offsetof(ktExrHeaderEntry, name) == 0);
static_assert(offsetof(ktExrHeaderEntry, type) == 78);
static_assert(offsetof(ktExrHeaderEntry, reserved0) == 79);
static_assert(offsetof(ktExrHeaderEntry, text) == 80);
static_assert(sizeof(_ktString8_allSize<2000>) == 2004);
static_assert(offsetof(ktExrHeaderEntry, valueCount) == 2084);
static_assert(offsetof(ktExrHeaderEntry, reserved2) == 2085);
static_assert(offsetof(ktExrHeaderEntry, values) == 2088);
static_assert(sizeof(ktExrHeaderEntry) == 2152);
static_assert(offsetof(ktExrHeaderData, magic) == 0);
static_assert(offsetof(ktExrHeaderData, count) == 4);
static_assert(offsetof(ktExrHeaderData, entries) == 8);
static_assert(sizeof(ktExrHeaderData) == 882328);

// The job-ID alphabets, set when the library is loaded: 36 capitals and
// digits without I, and 24 small letters without i and m.
extern _ktString8_allSize<40> ktExrIdAlphabetBig;
extern _ktString8_allSize<25> ktExrIdAlphabetSmall;

// Appends every non-standard attribute of `header`, in header order, to
// `data` from index `count` on. The caller clears the record and sets magic
// and count first. Names beyond 75 characters, texts beyond 2,000, vector
// values beyond 10 and attributes past the 401st entry are dropped silently;
// attributes of other types are skipped. `flag` is not used.
void headerGetData(Imf::Header& header, ktExrHeaderData& data, bool& flag);

// Inserts the "KT/dateWritten" (now) and "KT/application" stamps into
// `header`, then every entry of `data` (when it holds data) whose name is
// not already a string attribute of the header. A null `application`
// stamps an empty text. OpenEXR's exceptions (a name already used by an
// attribute of another type, an empty name) pass to the caller.
void headerInsertData(Imf::Header& header, ktExrHeaderData& data, const char* application);

// The short text of a job ID: "{", three capitals from bits 24 to 55 divided
// by 10,000, up to two small letters from the low byte, "}".
_ktString8_allSize<75> ID2str_local(unsigned long long id);
