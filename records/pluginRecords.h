// The records that cross the boundary between the host and the plug-in.
//
// The host lays these out and owns them; the plug-in only reads and writes
// their fields. They are a binary interface between two separately built
// programs, so every byte position below is pinned and must never move.
#pragma once

#include <cstddef>
#include <cstdint>

#include "strings/ktString16.h"

namespace ktP {
class _imgFileBuffer;
}
struct ktExrHeaderData;

// The interface version this plug-in speaks; imgInfo refuses any other.
constexpr unsigned short imgInterfaceVersion = 0xA004;

// Status codes of the exports.
enum imgStatus : int {
    imgStatusOk = 1,
    imgStatusCannotHandle = 4,      // not EXR, 32-bit integer channels, or no output file
    imgStatusVersionMismatch = 5,   // imgInfo only
    imgStatusLibraryFailure = 6,    // any other failure inside the EXR library
    imgStatusChannelType = 7,       // decoders: a selected channel of an unsupported type
    imgStatusBrokenFile = 14,       // cannot be opened, incomplete, or pixel reading failed
    imgStatusBufferTooShort = 16,   // the buffer holds less of the file than is needed
};

// Filled by imgInfo. The gaps are the host's own fields: never touched.
struct imgPluginInfo {
    unsigned short interfaceVersion;   // in: the host's version; out: always 0xA004
    unsigned short pluginKind;
    unsigned char hostReserved0[14];
    _ktString<50> name;
    _ktString<100> author;
    _ktString<25> interfaceText;
    _ktString<25> version;
    unsigned short flagWordA;
    unsigned short hostReserved1;
    unsigned short flagWordB;
    unsigned short flagWordC;
    unsigned char hostReserved2[48];
    unsigned char flagByte;
    unsigned char hostReserved3[13];
    std::uint32_t maskA;
    _ktString<50> filePatterns;
    unsigned short maskB;
};

static_assert(offsetof(imgPluginInfo, interfaceVersion) == 0);
static_assert(offsetof(imgPluginInfo, pluginKind) == 2);
static_assert(offsetof(imgPluginInfo, hostReserved0) == 4);
static_assert(offsetof(imgPluginInfo, name) == 18);
static_assert(offsetof(imgPluginInfo, author) == 124);
static_assert(offsetof(imgPluginInfo, interfaceText) == 330);
static_assert(offsetof(imgPluginInfo, version) == 386);
static_assert(offsetof(imgPluginInfo, flagWordA) == 442);
static_assert(offsetof(imgPluginInfo, hostReserved1) == 444);
static_assert(offsetof(imgPluginInfo, flagWordB) == 446);
static_assert(offsetof(imgPluginInfo, flagWordC) == 448);
static_assert(offsetof(imgPluginInfo, hostReserved2) == 450);
static_assert(offsetof(imgPluginInfo, flagByte) == 498);
static_assert(offsetof(imgPluginInfo, hostReserved3) == 499);
static_assert(offsetof(imgPluginInfo, maskA) == 512);
static_assert(offsetof(imgPluginInfo, filePatterns) == 516);
static_assert(offsetof(imgPluginInfo, maskB) == 622);
static_assert(sizeof(imgPluginInfo) == 624);

// The image-information record at the head of every RGBA buffer. Header
// loading fills it; the buffer's constructor sets descSize and descIndex.
struct imgImageInfo {
    unsigned short descSize;      // 528, the record's own size
    std::int32_t imageWidth;      // display-window width
    std::int32_t imageHeight;     // display-window height
    unsigned char hasAlpha;       // the file has a channel named "A"
    unsigned char bitsPerChannel;
    unsigned char uncompressed;   // only ever set by the plug-in, never cleared
    _ktString<250> infoText;      // one-line description and error texts
    std::int32_t descIndex;
};

static_assert(offsetof(imgImageInfo, descSize) == 0);
static_assert(offsetof(imgImageInfo, imageWidth) == 4);
static_assert(offsetof(imgImageInfo, imageHeight) == 8);
static_assert(offsetof(imgImageInfo, hasAlpha) == 12);
static_assert(offsetof(imgImageInfo, bitsPerChannel) == 13);
static_assert(offsetof(imgImageInfo, uncompressed) == 14);
static_assert(offsetof(imgImageInfo, infoText) == 16);
static_assert(offsetof(imgImageInfo, descIndex) == 524);
static_assert(sizeof(imgImageInfo) == 528);

// The encoders' job settings. The host fills this record and passes it in
// imgCallRecord::jobSettings; the plug-in only reads it, and an encode
// without one runs as if every field were 0.
//
// appName is only ever tested by prefix, ignoring case (an empty name
// matches nothing):
//   "ktClient..."             the file gets the client-name attribute
//                             ("KT/clientname"; "clientname" from imgEncodef)
//   "ktExrCropRegion..." or   with verbose set, the crop region is printed
//   "ktAssembleTiles..."      on standard output
//   "ktExrCropRegion_UNDO..." imgEncodef writes the whole image uncropped
struct imgJobSettings {
    unsigned char verbose;        // non-zero: console messages for the programs above
    unsigned char reserved;       // 0
    _ktString<50> appName;        // name of the calling host program, tested by prefix
    char clientName[256];         // NUL-terminated; a text without NUL is read up to 255 bytes
};

static_assert(offsetof(imgJobSettings, verbose) == 0);
static_assert(offsetof(imgJobSettings, reserved) == 1);
static_assert(offsetof(imgJobSettings, appName) == 2);
static_assert(offsetof(imgJobSettings, clientName) == 108);
static_assert(sizeof(imgJobSettings) == 364);

// The one argument of imgLoadHeader, the decoders and the encoders.
struct imgCallRecord {
    ktP::_imgFileBuffer* fileBuffer;   // the file in memory
    // imgLoadHeader: the imgImageInfo record inside the host's RGBA buffer;
    // decoders and encoders: the RGBA buffer object of the export's depth.
    void* imageInfo;
    ktExrHeaderData* headerData;       // render metadata
    imgJobSettings* jobSettings;       // encoders only
};

static_assert(offsetof(imgCallRecord, fileBuffer) == 0);
static_assert(offsetof(imgCallRecord, imageInfo) == 8);
static_assert(offsetof(imgCallRecord, headerData) == 16);
static_assert(offsetof(imgCallRecord, jobSettings) == 24);
static_assert(sizeof(imgCallRecord) == 32);
