// imgLoadHeader: the host's first look at an EXR file in its file buffer.
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfThreading.h>
#include <OpenEXR/ImfVersion.h>

#include <Iex.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>

#include "image/fileBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/exrPrecheck.h"
#include "plugin/fileBufferStream.h"
#include "plugin/ktImageExr.h"

namespace {

// The version field's flag for files of several parts.
constexpr int multiPartFlag = 0x1000;
// The channel list is shown up to this many characters, then "...".
constexpr int channelListShown = 100;

const char* compressionText(Imf::Compression compression)
{
    switch (static_cast<int>(compression)) {
    case 0: return " uncompr. ";
    case 1: return " RLE";
    case 2: return " Zip-1line";
    case 3: return " Zip-16line";
    case 4: return " Wavelet";
    case 5: return " lossy float";
    case 6: return " lossy 4-by-4 static";
    case 7: return " lossy 4-by-4 variable";
    case 8: return " DWA32";
    case 9: return " DWA256";
    default: return " unknown compr.";
    }
}

// A channel name as the description shows it: all lower case but the first character.
_ktString8_allSize<500> shownChannelName(const char* name)
{
    _ktString8_allSize<500> shown(name);
    shown.makeLower();
    if (shown.length > 0) shown.text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(shown.text[0])));
    return shown;
}

// Steps after a successful opening: description, metadata and size. Returns the status.
int describe(Imf::RgbaInputFile& input, imgImageInfo& info, ktExrHeaderData& metadata)
{
    Imf::Header header;
    try {
        header = input.header();
    } catch (...) {
        info.infoText.add(" ERR: File is not an EXR file!");
        return imgStatusCannotHandle;
    }

    _ktString8_allSize<500> channelList;
    bool haveFirst = false;
    Imf::PixelType firstType = Imf::HALF;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
        if (!haveFirst) {
            firstType = it.channel().type;
            haveFirst = true;
        }
        channelList.add(shownChannelName(it.name()));
        channelList.add(" ");
    }

    if (haveFirst) {
        info.bitsPerChannel = 32;
        if (firstType == Imf::UINT) {
            info.infoText.add(" ERR: 32bit Int not supported!");
            return imgStatusCannotHandle;
        }
        info.infoText.add(firstType == Imf::HALF ? " Half" : " Float");
    }

    info.infoText.add(compressionText(header.compression()));
    if (header.compression() == Imf::NO_COMPRESSION) info.uncompressed = 1;
    info.infoText.add(header.hasTileDescription() ? " tiled" : " scanline");
    if (input.version() & multiPartFlag) info.infoText.add(" multipart");

    info.infoText.add(" '");
    info.hasAlpha = header.channels().findChannel("A") ? 1 : 0;
    // The lower-casing above spoils the packed names; put their capitals back.
    channelList.replace(_ktString8_allSize<500>("Packedrgba"), _ktString8_allSize<500>("PackedRGBA"));
    channelList.replace(_ktString8_allSize<500>("Packedrgb"), _ktString8_allSize<500>("PackedRGB"));
    if (channelList.length > channelListShown) {
        channelList.setLength(channelListShown);
        channelList.add("...");
    }
    info.infoText.add(channelList.asChar());
    info.infoText.add("'");

    for (const char* name : {"KT/jobID", "KT/clientname", "KT/scenename"}) {
        const auto* attribute = header.findTypedAttribute<Imf::StringAttribute>(name);
        if (!attribute) continue;
        info.infoText.add(" ");
        _ktString8_allSize<75> value;
        value = attribute->value();
        info.infoText.add(value.asChar());
    }

    std::memset(static_cast<void*>(&metadata), 0, sizeof metadata);
    metadata.magic = ktExrHeaderMagic;
    metadata.count = 0;
    bool unused = false;
    headerGetData(header, metadata, unused);

    // Computed wide: a window spanning the whole int range must not overflow.
    const Imath::Box2i& window = input.displayWindow();
    info.imageWidth = static_cast<std::int32_t>(static_cast<long long>(window.max.x) - window.min.x + 1);
    info.imageHeight = static_cast<std::int32_t>(static_cast<long long>(window.max.y) - window.min.y + 1);

    if (input.isComplete()) return imgStatusOk;
    info.infoText.add(" ERR: file not completed!");
    return imgStatusBrokenFile;
}

// The file could not be opened: a short buffer asks for more, a whole file is bad.
int openingFailed(const ktP::_imgFileBuffer& file, imgImageInfo& info)
{
    const auto loaded = static_cast<std::uint32_t>(file.sizeLoaded);
    if (loaded >= file.fileSize) {
        info.infoText.add(" ERR: unable to init exr file!");
        return imgStatusBrokenFile;
    }
    info.infoText.remove(_ktString<250>("File size smaller than requested"));
    info.infoText.add(" ERR: File buffer too small!");
    return imgStatusBufferTooShort;
}

int loadHeader(imgCallRecord* call)
{
    if (!call || !call->fileBuffer || !call->imageInfo || !call->headerData) return imgStatusLibraryFailure;
    auto& info = *static_cast<imgImageInfo*>(call->imageInfo);
    info.infoText = "Exr ";
    // Declared first so that the input file, which reads through it, goes first.
    _imgFileBufferStream stream(call->fileBuffer);
    std::unique_ptr<Imf::RgbaInputFile> input;
    try {
        kt::exrCheckBeforeOpening(*call->fileBuffer);
        stream.seekg(0);
        input = std::make_unique<Imf::RgbaInputFile>(stream, Imf::globalThreadCount());
    } catch (...) {
        return openingFailed(*call->fileBuffer, info);
    }
    return describe(*input, info, *call->headerData);
}

}  // namespace

extern "C" int imgLoadHeader(imgCallRecord* call) { return kt::callGuarded(loadHeader, call); }
