// The host's side of the plug-in protocol: EXR files loaded into file
// buffers (the head first for large files), headers read into the image
// record and the render-metadata record, pixels decoded into and encoded
// from RGBA buffers. Everything the program does with pixels goes through
// here, and through the plug-in's exports only.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "fileIo.h"
#include "image/fileBuffer.h"
#include "image/rgbaBuffer.h"
#include "pluginLibrary.h"
#include "plugin/exrMetadata.h"

namespace ktexr {

// How much of a file is loaded before the first header call.
constexpr unsigned long long kHeadBytes = 64 * 1024;
// Asks LoadedFile for all of the file.
constexpr unsigned long long kWholeFile = ~0ull;

// The largest file a file buffer can hold: its capacity is an unsigned
// 32-bit count to which 4 spare bytes are added, and its last byte never
// holds data.
constexpr unsigned long long kLargestFileBuffer = 0xFFFFFFFFull - 4;
constexpr unsigned long long kLargestFile = kLargestFileBuffer - 1;

// The largest image an RGBA buffer holds: its capacity counts pixels in an
// unsigned 32-bit number.
constexpr unsigned long long kLargestImage = 0xFFFFFFFFull;

// A file on disk as it lies in the host's file buffer: whole, or its first
// part with fileSize telling how long the whole file is.
class LoadedFile {
public:
    // Opens the file and loads its first `bytes` (the whole file if shorter).
    // A file that does not begin as every EXR file does is refused first
    // (exitNotExr), before anything more of it is loaded.
    LoadedFile(const std::string& path, unsigned long long bytes);

    const std::string& path() const { return file_.path(); }
    unsigned long long fileSize() const { return file_.size(); }
    unsigned long long loaded() const { return loaded_; }
    bool whole() const { return loaded_ == file_.size(); }

    // Loads the first `bytes` (at most the whole file) into a new buffer of
    // that capacity plus one byte. Failures: exitUnreadable, also for files
    // beyond kLargestFile and when the memory cannot be had.
    void loadUpTo(unsigned long long bytes);
    void loadWhole() { loadUpTo(file_.size()); }

    ktP::_imgFileBuffer& buffer() { return *buffer_; }
    const InputFile& input() const { return file_; }

private:
    InputFile file_;
    std::unique_ptr<ktP::_imgFileBuffer> buffer_;
    unsigned long long loaded_ = 0;
};

// What imgLoadHeader reported about one file.
struct HeaderInfo {
    int status = 0;
    std::string description;  // infoText, error texts included
    int width = 0;            // of the display window
    int height = 0;
    bool hasAlpha = false;
    int bitsPerChannel = 0;
    bool uncompressed = false;
    imgImageInfo record{};    // the whole record as the plug-in left it
    std::unique_ptr<ktExrHeaderData> metadata;
    int calls = 0;            // imgLoadHeader calls it took
};

// One imgLoadHeader call on a file buffer as it is.
HeaderInfo callLoadHeader(const PluginLibrary& plugin, ktP::_imgFileBuffer& buffer);

// Reads the header of a loaded file; while the plug-in answers that the
// buffer holds too little, loads four times as much and calls again.
HeaderInfo loadHeader(const PluginLibrary& plugin, LoadedFile& file);

// Turns a header status other than success into a Failure for the file.
void requireHeader(const HeaderInfo& header, const LoadedFile& file);

// An RGBA buffer of exactly width x height pixels. Failures: exitUnreadable
// naming `forFile` for sizes beyond kLargestImage, empty sizes and memory
// that cannot be had.
template <class Buffer>
std::unique_ptr<Buffer> makeRgbaBuffer(unsigned long long width, unsigned long long height,
                                       const std::string& forFile);

// Decodes a whole file whose header has been read (status 1) into a new
// buffer of the display size, or of width x height when those are not 0
// (the decoder places pixels relative to the display window and drops
// those beyond the buffer). With `gamma` the buffer asks for the gamma
// curve. Failures name the file, with the exit status of the plug-in's code.
template <class Buffer>
std::unique_ptr<Buffer> decode(const PluginLibrary& plugin, LoadedFile& file, const HeaderInfo& header, bool gamma,
                               unsigned long long width = 0, unsigned long long height = 0);

// What the encoders are told about the job.
struct EncodeJob {
    std::string appName;      // the calling program, as the plug-in tests its prefix
    std::string clientName;   // written when appName begins with "ktClient"
    bool verbose = false;     // the encoders report the region on standard output
    const ktExrHeaderData* metadata = nullptr;  // null: no entries
};

// An encoded file in the file buffer the encoder wrote it into.
struct EncodedFile {
    std::unique_ptr<ktP::_imgFileBuffer> buffer;
    const unsigned char* data() const { return buffer->buffer; }
    std::size_t size() const { return static_cast<std::size_t>(buffer->fileSize); }
};

// Encodes an RGBA buffer of any depth into a new EXR file in memory, then
// reads the result's header back through the plug-in: an encode that does
// not give a complete, readable file is a Failure with exitPluginFailure
// naming `forFile`. The float encoder paints the buffer outside the region
// it wrote: do not use a float buffer's pixels after this.
template <class Buffer>
EncodedFile encode(const PluginLibrary& plugin, Buffer& pixels, const EncodeJob& job, const std::string& forFile);

// The file-buffer capacity an encode of width x height pixels needs at most
// with `entries` metadata entries (beyond kLargestFileBuffer when the file
// could outgrow a file buffer).
unsigned long long encodeCapacity(unsigned long long width, unsigned long long height, unsigned entries);

}  // namespace ktexr
