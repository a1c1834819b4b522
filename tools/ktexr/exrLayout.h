// What an EXR file holds beyond what the plug-in reports: its parts, their
// windows, channels, compression and attributes, and whether every chunk
// of pixels its offset tables promise is really there. Read with OpenEXR's
// Core library straight from the file on disk, a few bytes at a time, so it
// works on files far larger than memory.
#pragma once

#include <string>
#include <vector>

#include "exrGeometry.h"
#include "fileIo.h"

namespace ktexr {

struct ChannelLayout {
    std::string name;
    std::string type;  // "half", "float" or "uint"
};

struct AttributeLayout {
    std::string name;
    std::string type;    // the EXR type name ("string", "chromaticities", ...)
    long long size = 0;  // characters of a string, elements of a float vector
};

struct PartLayout {
    std::string name;     // empty for a single part without one
    std::string storage;  // "scanline", "tiled", "deep scanline" or "deep tiled"
    PixelBox displayWindow;
    PixelBox dataWindow;
    std::string compression;  // as OpenEXR names it: "none", "zip", "piz", ...
    std::vector<ChannelLayout> channels;
    std::vector<AttributeLayout> attributes;  // in file order, the standard ones included
    float pixelAspectRatio = 1.0f;
    float screenWindowCenter[2] = {0.0f, 0.0f};
    float screenWindowWidth = 1.0f;
    int levels = 1;                           // resolution levels of a tiled part
    long long chunks = 0;                     // as the header says
};

struct ExrLayout {
    std::vector<PartLayout> parts;
};

// The headers of every part. A Failure (exitIncomplete) naming the file when
// OpenEXR cannot read them.
ExrLayout readLayout(const InputFile& file);

// Whether every chunk of every part is listed in the offset tables and lies
// within the file, its own header intact: an empty text when so, else what
// is missing. Pixels are not decompressed.
std::string missingChunks(const InputFile& file);

// missingChunks as a Failure (exitIncomplete) naming the file: a frame cut
// short is never decoded as if it were whole.
void requireComplete(const InputFile& file);

}  // namespace ktexr
