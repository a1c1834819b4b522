// What the fuzz targets share: the host's buffers around one input, and the
// check that an export answered with one of its documented codes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "image/fileBuffer.h"
#include "plugin/ktImageExr.h"

namespace kt::fuzz {

// The input as a host hands it over: the first `loaded` bytes in the
// buffer, `fileSize` said to be the whole file's length.
inline std::unique_ptr<ktP::_imgFileBuffer> fileBuffer(const std::uint8_t* data, std::size_t size, std::size_t loaded,
                                                      std::size_t fileSize)
{
    auto buffer = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned int>(size + 1));
    if (size > 0) std::memcpy(buffer->buffer, data, size);
    buffer->setSizeLoaded(static_cast<long long>(loaded));
    buffer->setFileSize(static_cast<long long>(fileSize));
    return buffer;
}

// An undocumented answer is a finding: stop as a crash does.
inline void require(bool documented)
{
    if (!documented) std::abort();
}

inline bool headerCode(int code) { return code == 1 || code == 4 || code == 6 || code == 14 || code == 16; }
inline bool decodeCode(int code) { return code == 1 || code == 4 || code == 6 || code == 7 || code == 14; }

}  // namespace kt::fuzz

namespace kt::fuzz {

// Reads the fuzzer's input front to back as numbers and texts; past its end
// every read gives zeros, so any input makes a complete set of choices.
class InputReader {
public:
    InputReader(const std::uint8_t* data, std::size_t size) : data(data), size(size) {}
    std::uint8_t byte() { return at < size ? data[at++] : 0; }
    std::uint16_t word() { return static_cast<std::uint16_t>(byte() | byte() << 8); }
    std::uint32_t dword() { return static_cast<std::uint32_t>(word()) | static_cast<std::uint32_t>(word()) << 16; }
    // Up to `count` bytes into `to`; returns how many there were.
    std::size_t bytes(void* to, std::size_t count)
    {
        const std::size_t n = std::min(count, size - at);
        if (n > 0) std::memcpy(to, data + at, n);
        at += n;
        return n;
    }
    std::size_t left() const { return size - at; }

private:
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
};

}  // namespace kt::fuzz

#include "plugin/exrMetadata.h"
#include "records/pluginRecords.h"

namespace kt::fuzz {

// A host's render-metadata record as the input makes it: a count that is
// sometimes the raw 32-bit value, entries with any type byte, any value
// count, names and texts of any bytes and sometimes a length field beyond
// the capacity, and raw values. Unused entries stay zero.
inline void fillMetadata(InputReader& in, ktExrHeaderData& record)
{
    std::memset(static_cast<void*>(&record), 0, sizeof record);
    const std::uint8_t shape = in.byte();
    record.magic = shape & 1 ? ktExrHeaderMagic : in.dword();
    const std::uint32_t entries = in.byte() % 12;
    record.count = shape & 2 ? in.dword() : entries;
    for (std::uint32_t i = 0; i < entries && in.left() > 0; ++i) {
        ktExrHeaderEntry& entry = record.entries[i];
        entry.type = static_cast<ktExrAttrType>(in.byte());
        entry.valueCount = in.byte();
        const std::uint8_t lengths = in.byte();
        entry.name.length = static_cast<unsigned short>(in.bytes(entry.name.text, in.byte() % 80));
        entry.text.length = static_cast<unsigned short>(in.bytes(entry.text.text, in.word() % 2002));
        if (lengths & 1) entry.name.length = in.word();
        if (lengths & 2) entry.text.length = in.word();
        in.bytes(entry.values, sizeof entry.values);
    }
}

// Job settings of any verbosity, any program name (one of those the
// encoders look for, with or without more characters after it, or any
// text) and any client name, terminated or not.
inline void fillJobSettings(InputReader& in, imgJobSettings& settings)
{
    std::memset(static_cast<void*>(&settings), 0, sizeof settings);
    static const char* const programs[] = {"ktClient", "ktExrCropRegion", "ktExrCropRegion_UNDO", "ktAssembleTiles"};
    const std::uint8_t choice = in.byte();
    settings.verbose = choice & 1;
    char raw[56] = {};
    in.bytes(raw, in.byte() % 55);
    std::string name = raw;
    if (choice & 2) name = programs[(choice >> 2) % 4] + (choice & 32 ? name : std::string());
    settings.appName = name;
    in.bytes(settings.clientName, in.byte() % 2 ? sizeof settings.clientName : in.byte() % 40);
}

}  // namespace kt::fuzz
