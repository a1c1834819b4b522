#include "exrHost.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "exitStatus.h"
#include "headerRecord.h"

namespace ktexr {

namespace {

// Every EXR file begins with these four bytes.
constexpr unsigned char kExrMagic[4] = {0x76, 0x2f, 0x31, 0x01};

// The largest single write of an encode of this width and height: a scan
// line with its chunk header, or the line-offset table.
unsigned long long largestWrite(unsigned long long width, unsigned long long height)
{
    return std::max(8 * width + 64, 8 * height + 64);
}

template <class Buffer>
PluginCall decodeCall();
template <>
PluginCall decodeCall<ktP::_imgRGBABuffer8>() { return PluginCall::decode8; }
template <>
PluginCall decodeCall<ktP::_imgRGBABuffer16>() { return PluginCall::decode16; }
template <>
PluginCall decodeCall<ktP::_imgRGBABufferf>() { return PluginCall::decodef; }

template <class Buffer>
PluginCall encodeCall();
template <>
PluginCall encodeCall<ktP::_imgRGBABuffer8>() { return PluginCall::encode8; }
template <>
PluginCall encodeCall<ktP::_imgRGBABuffer16>() { return PluginCall::encode16; }
template <>
PluginCall encodeCall<ktP::_imgRGBABufferf>() { return PluginCall::encodef; }

}  // namespace

LoadedFile::LoadedFile(const std::string& path, unsigned long long bytes) : file_(path)
{
    unsigned char magic[sizeof kExrMagic] = {};
    if (file_.readUpTo(0, magic, sizeof magic) != sizeof magic || std::memcmp(magic, kExrMagic, sizeof magic) != 0)
        throw Failure(exitNotExr, path, "not an EXR file (it does not begin with the EXR magic number)");
    loadUpTo(std::max(bytes, 1ull));
}

void LoadedFile::loadUpTo(unsigned long long bytes)
{
    bytes = std::min(bytes, file_.size());
    if (buffer_ && bytes <= loaded_) return;
    if (bytes > kLargestFile)
        throw Failure(exitUnreadable, path(),
                      "needs " + humanSize(bytes) + " in memory, beyond the 4 GiB a plug-in file buffer holds");
    auto next = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned int>(bytes + 1));
    if (next->bufferSize == 0)
        throw Failure(exitUnreadable, path(), "not enough memory to load " + humanSize(bytes));
    unsigned long long kept = buffer_ ? loaded_ : 0;
    if (kept) std::memcpy(next->buffer, buffer_->buffer, static_cast<std::size_t>(kept));
    file_.readAt(kept, next->buffer + kept, static_cast<std::size_t>(bytes - kept));
    next->setFileSize(static_cast<long long>(file_.size()));
    next->setSizeLoaded(static_cast<long long>(bytes));
    buffer_ = std::move(next);
    loaded_ = bytes;
}

HeaderInfo callLoadHeader(const PluginLibrary& plugin, ktP::_imgFileBuffer& buffer)
{
    HeaderInfo info;
    info.metadata = newHeaderRecord();
    // The image record lives at the head of an RGBA buffer; any depth will
    // do, and a fresh one has every field at its initial value.
    ktP::_imgRGBABuffer8 holder(1u);
    imgJobSettings settings{};
    imgCallRecord call{};
    call.fileBuffer = &buffer;
    call.imageInfo = &holder.imageInfo;
    call.headerData = info.metadata.get();
    call.jobSettings = &settings;
    info.status = plugin.call(PluginCall::loadHeader, call);
    info.calls = 1;
    info.record = holder.imageInfo;
    info.description = narrow(holder.imageInfo.infoText);
    info.width = holder.imageInfo.imageWidth;
    info.height = holder.imageInfo.imageHeight;
    info.hasAlpha = holder.imageInfo.hasAlpha != 0;
    info.bitsPerChannel = holder.imageInfo.bitsPerChannel;
    info.uncompressed = holder.imageInfo.uncompressed != 0;
    return info;
}

HeaderInfo loadHeader(const PluginLibrary& plugin, LoadedFile& file)
{
    int calls = 0;
    for (;;) {
        HeaderInfo info = callLoadHeader(plugin, file.buffer());
        info.calls = ++calls;
        if (info.status != imgStatusBufferTooShort || file.whole()) return info;
        file.loadUpTo(file.loaded() * 4);
    }
}

void requireHeader(const HeaderInfo& header, const LoadedFile& file)
{
    if (header.status == imgStatusOk) return;
    const ExitStatus status = exitStatusOfPlugin(header.status);
    std::string message = "plug-in status " + std::to_string(header.status) + " (" +
                          pluginStatusMeaning(header.status) + "): " + header.description;
    throw Failure(status, file.path(), message);
}

template <class Buffer>
std::unique_ptr<Buffer> makeRgbaBuffer(unsigned long long width, unsigned long long height, const std::string& forFile)
{
    if (width == 0 || height == 0 || width > 0x7FFFFFFF || height > 0x7FFFFFFF)
        throw Failure(exitUnreadable, forFile,
                      "an image of " + std::to_string(width) + " x " + std::to_string(height) + " pixels cannot be held");
    if (width * height > kLargestImage)
        throw Failure(exitUnreadable, forFile,
                      std::to_string(width) + " x " + std::to_string(height) +
                          " pixels are beyond the 2^32 - 1 pixels a plug-in RGBA buffer holds");
    auto buffer = std::make_unique<Buffer>(static_cast<unsigned int>(width * height));
    if (buffer->pixels == nullptr || buffer->maxPixels == 0)
        throw Failure(exitUnreadable, forFile,
                      "not enough memory for " + std::to_string(width) + " x " + std::to_string(height) + " pixels");
    buffer->setWidth(static_cast<int>(width));
    buffer->setHeight(static_cast<int>(height));
    return buffer;
}

template <class Buffer>
std::unique_ptr<Buffer> decode(const PluginLibrary& plugin, LoadedFile& file, const HeaderInfo& header, bool gamma,
                               unsigned long long width, unsigned long long height)
{
    if (!file.whole()) throw Failure(exitPluginFailure, file.path(), "decode asked for before the file was loaded");
    requireHeader(header, file);
    if (width == 0) width = header.width > 0 ? static_cast<unsigned long long>(header.width) : 0;
    if (height == 0) height = header.height > 0 ? static_cast<unsigned long long>(header.height) : 0;
    auto pixels = makeRgbaBuffer<Buffer>(width, height, file.path());
    pixels->imageInfo = header.record;
    pixels->pixelFlags = gamma ? 1 : 0;

    auto metadata = newHeaderRecord();
    imgJobSettings settings{};
    imgCallRecord call{};
    call.fileBuffer = &file.buffer();
    call.imageInfo = pixels.get();
    call.headerData = header.metadata ? header.metadata.get() : metadata.get();
    call.jobSettings = &settings;
    int status = plugin.call(decodeCall<Buffer>(), call);
    if (status != imgStatusOk)
        throw Failure(exitStatusOfPlugin(status), file.path(),
                      "cannot decode: plug-in status " + std::to_string(status) + " (" + pluginStatusMeaning(status) +
                          ")");
    return pixels;
}

unsigned long long encodeCapacity(unsigned long long width, unsigned long long height, unsigned entries)
{
    // The encoders never store a line larger than its raw half pixels (ZIP
    // falls back to raw data), and may write a box of 9 x 9 for an empty image.
    width = std::max(width, 9ull);
    height = std::max(height, 9ull);
    unsigned long long pixels = 8 * width * height + 16 * height;
    unsigned long long header = 64 * 1024 + 2200ull * (entries + 4);
    return pixels + header + 2 * largestWrite(width, height);
}

template <class Buffer>
EncodedFile encode(const PluginLibrary& plugin, Buffer& pixels, const EncodeJob& job, const std::string& forFile)
{
    unsigned entries = job.metadata ? entryCount(*job.metadata) : 0;
    unsigned long long capacity = encodeCapacity(pixels.width, pixels.height, entries);
    capacity = std::min(capacity, kLargestFileBuffer);

    EncodedFile out;
    out.buffer = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned int>(capacity));
    if (out.buffer->bufferSize == 0)
        throw Failure(exitUnwritable, forFile, "not enough memory for the encoded file (" + humanSize(capacity) + ")");

    imgJobSettings settings{};
    settings.verbose = job.verbose ? 1 : 0;
    settings.appName = job.appName.c_str();
    std::strncpy(settings.clientName, job.clientName.c_str(), sizeof settings.clientName - 1);
    auto empty = newHeaderRecord();
    imgCallRecord call{};
    call.fileBuffer = out.buffer.get();
    call.imageInfo = &pixels;
    call.headerData = const_cast<ktExrHeaderData*>(job.metadata ? job.metadata : empty.get());
    call.jobSettings = &settings;
    int status = plugin.call(encodeCall<Buffer>(), call);
    if (status != imgStatusOk)
        throw Failure(exitPluginFailure, forFile,
                      "cannot encode: plug-in status " + std::to_string(status) + " (" + pluginStatusMeaning(status) +
                          ")");

    // The output stream drops what does not fit without a word: a file that
    // came within one write of the capacity may have lost data.
    unsigned long long written = static_cast<unsigned long long>(out.buffer->fileSize);
    if (written + largestWrite(pixels.width, pixels.height) >= capacity)
        throw Failure(exitUnwritable, forFile,
                      "the encoded file would be larger than the 4 GiB a plug-in file buffer holds");
    HeaderInfo check = callLoadHeader(plugin, *out.buffer);
    if (check.status != imgStatusOk)
        throw Failure(exitPluginFailure, forFile,
                      "the plug-in wrote a file it cannot read back (status " + std::to_string(check.status) +
                          "): " + check.description);
    return out;
}

template std::unique_ptr<ktP::_imgRGBABuffer8> makeRgbaBuffer<ktP::_imgRGBABuffer8>(unsigned long long,
                                                                                    unsigned long long,
                                                                                    const std::string&);
template std::unique_ptr<ktP::_imgRGBABuffer16> makeRgbaBuffer<ktP::_imgRGBABuffer16>(unsigned long long,
                                                                                      unsigned long long,
                                                                                      const std::string&);
template std::unique_ptr<ktP::_imgRGBABufferf> makeRgbaBuffer<ktP::_imgRGBABufferf>(unsigned long long,
                                                                                    unsigned long long,
                                                                                    const std::string&);
template std::unique_ptr<ktP::_imgRGBABuffer8> decode<ktP::_imgRGBABuffer8>(const PluginLibrary&, LoadedFile&,
                                                                            const HeaderInfo&, bool,
                                                                            unsigned long long, unsigned long long);
template std::unique_ptr<ktP::_imgRGBABuffer16> decode<ktP::_imgRGBABuffer16>(const PluginLibrary&, LoadedFile&,
                                                                              const HeaderInfo&, bool,
                                                                              unsigned long long, unsigned long long);
template std::unique_ptr<ktP::_imgRGBABufferf> decode<ktP::_imgRGBABufferf>(const PluginLibrary&, LoadedFile&,
                                                                            const HeaderInfo&, bool,
                                                                            unsigned long long, unsigned long long);
template EncodedFile encode<ktP::_imgRGBABuffer8>(const PluginLibrary&, ktP::_imgRGBABuffer8&, const EncodeJob&,
                                                  const std::string&);
template EncodedFile encode<ktP::_imgRGBABuffer16>(const PluginLibrary&, ktP::_imgRGBABuffer16&, const EncodeJob&,
                                                   const std::string&);
template EncodedFile encode<ktP::_imgRGBABufferf>(const PluginLibrary&, ktP::_imgRGBABufferf&, const EncodeJob&,
                                                  const std::string&);

}  // namespace ktexr
