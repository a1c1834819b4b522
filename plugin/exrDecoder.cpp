#include "plugin/exrDecoder.h"

#include <Imath/ImathBox.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfThreading.h>

#include <Iex.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrChunkReader.h"
#include "plugin/exrPrecheck.h"
#include "plugin/guardedFileBufferStream.h"
#include "plugin/ktImageExr.h"

_singleChannel::~_singleChannel()
{
    delete[] uintPlane.values;
    delete[] floatPlane.values;
    delete[] halfPlane.values;
}

float _singleChannel::getValue(const int& x, const int& y) const
{
    switch (pixelType) {
    case Imf::HALF:
        if (!halfPlane.values) return 0.0f;
        return static_cast<float>(halfPlane.values[std::int64_t{y} * halfPlane.columns + x]);
    case Imf::FLOAT:
        if (!floatPlane.values) return 0.0f;
        return floatPlane.values[std::int64_t{y} * floatPlane.columns + x];
    case Imf::UINT:
        if (!uintPlane.values) return 0.0f;
        return static_cast<float>(uintPlane.values[std::int64_t{y} * uintPlane.columns + x]);
    default:
        return 0.0f;
    }
}

void* _singleChannel::get_dataPointer() const
{
    switch (pixelType) {
    case Imf::HALF:
        return halfPlane.values;
    case Imf::FLOAT:
        return floatPlane.values;
    case Imf::UINT:
        return uintPlane.values;
    default:
        return nullptr;
    }
}

namespace {

enum Role : int { kRed, kGreen, kBlue, kAlpha, kRoleCount };
const char* const kRoleLetters[kRoleCount] = {"R", "G", "B", "A"};

// No single block beyond this is asked for: the sizes come from the file,
// and the allocator's own refusal of absurd sizes is not to be relied on.
constexpr std::uint64_t kLargestAllocation = std::uint64_t{1} << 39;

// Array new of count elements; std::bad_alloc when that cannot be had.
template <class T>
T* newArray(std::uint64_t count)
{
    if (count > kLargestAllocation / sizeof(T)) throw std::bad_alloc();
    T* values = new (std::nothrow) T[static_cast<std::size_t>(count)];
    if (!values) throw std::bad_alloc();
    return values;
}

template <class T>
void allocatePlane(_channelPlane<T>& plane, std::int64_t rows, std::int64_t columns)
{
    T* values = newArray<T>(static_cast<std::uint64_t>(rows) * static_cast<std::uint64_t>(columns));
    delete[] plane.values;
    plane.values = values;
    plane.rows = rows;
    plane.columns = columns;
}

// Which slot each role reads, and how many slots were handed out.
struct ChannelChoice {
    int slotOfRole[kRoleCount] = {0, 0, 0, 0};
    int slotsUsed = 0;
};

// Picks the channel numbers of the four roles by name: exact names first
// ("R", "g", ...), then names ending in the letter, each role starting at
// its own number (0 to 3).
void chooseChannelNumbers(const Imf::ChannelList& channels, int (&number)[kRoleCount])
{
    int exact[kRoleCount] = {0, 1, 2, 3};
    int suffix[kRoleCount] = {-1, -1, -1, -1};
    bool exactSeen = false;
    int n = 0;
    for (auto it = channels.begin(); it != channels.end() && n < kt::exrDecoderSlotCount; ++it, ++n) {
        const _ktString8_allSize<150> name(it.name());
        for (int role = 0; role < kRoleCount; ++role) {
            if (name.isEqual(_ktString8_allSize<150>(kRoleLetters[role]))) {
                exact[role] = n;
                exactSeen = true;
            } else if (name.endsWith(kRoleLetters[role])) {
                if (suffix[role] < 0) suffix[role] = n;
            }
        }
    }
    // One exact name anywhere switches the suffix rule off for every role.
    for (int role = 0; role < kRoleCount; ++role)
        number[role] = exactSeen || suffix[role] < 0 ? exact[role] : suffix[role];
}

// Hands out slots in channel order to the channels the roles picked, sizes
// each slot's plane to the data window and puts its slice into frame.
// Roles whose number matches no channel keep slot 0.
ChannelChoice fillSlots(const Imf::ChannelList& channels, const int (&number)[kRoleCount], const Imath::Box2i& window,
                        _singleChannel* slots, Imf::FrameBuffer& frame)
{
    const std::int64_t width = std::int64_t{window.max.x} - window.min.x + 1;
    const std::int64_t height = std::int64_t{window.max.y} - window.min.y + 1;
    ChannelChoice choice;
    int n = 0;
    for (auto it = channels.begin(); it != channels.end() && n < kt::exrDecoderSlotCount; ++it, ++n) {
        int role = kRoleCount;
        for (int r = 0; r < kRoleCount; ++r) {
            if (n == number[r]) {
                role = r;
                break;
            }
        }
        if (role == kRoleCount) continue;
        // The frame buffer would refuse it (every slice has sampling 1): no plane of the window's size.
        if (it.channel().xSampling != 1 || it.channel().ySampling != 1)
            throw Iex::ArgExc("subsampled channel");

        const int index = choice.slotsUsed++;
        choice.slotOfRole[role] = index;
        _singleChannel& slot = slots[index];
        slot.name = it.name();
        slot.pixelType = it.channel().type;
        switch (slot.pixelType) {
        case Imf::HALF:
            allocatePlane(slot.halfPlane, height, width);
            slot.bytesPerValue = 2;
            break;
        case Imf::FLOAT:
            allocatePlane(slot.floatPlane, height, width);
            slot.bytesPerValue = 4;
            break;
        case Imf::UINT:
            allocatePlane(slot.uintPlane, height, width);
            slot.bytesPerValue = 4;
            break;
        default:
            continue;  // a slot with a name but no plane and no slice
        }
        slot.dataPointer = slot.get_dataPointer();
        // The exact offset, also where 32 bits would wrap: a wrapped one
        // would have OpenEXR write outside the plane.
        slot.originOffset = (std::int64_t{window.min.y} * width + window.min.x) * slot.bytesPerValue;
        slot.sliceBase = reinterpret_cast<char*>(reinterpret_cast<std::uintptr_t>(slot.dataPointer) -
                                                 static_cast<std::uintptr_t>(slot.originOffset));
        frame.insert(it.name(), Imf::Slice(slot.pixelType, slot.sliceBase, slot.bytesPerValue,
                                           static_cast<std::size_t>(width) * slot.bytesPerValue, 1, 1, 0.0, false,
                                           false));
    }
    return choice;
}

// ---- moving the decoded planes into the host's buffer --------------------

// What an export stores: the pixel type and how four floats become one.
template <class Pixel>
struct PixelFrom {
    static Pixel floats(float r, float g, float b, float a)
    {
        Pixel p;
        p.fromFloatRGBA_sw(r, g, b, a, false);
        return p;
    }
};
template <>
struct PixelFrom<_Rgbaf> {
    static _Rgbaf floats(float r, float g, float b, float a) { return _Rgbaf{r, g, b, a}; }
};

template <class Pixel>
using ChannelOf = std::remove_reference_t<decltype(Pixel::r)>;

constexpr int kHalfValues = 1 << 16;
// Below this many pixels per call the tables cost more than they save.
constexpr std::int64_t kTablePixels = 32768;
// Below this many pixels the transfer stays on the calling thread.
constexpr std::int64_t kParallelPixels = 1 << 18;

// Everything the transfer reads; shared read-only by the threads that run it.
template <class Buffer, class Pixel>
struct Transfer {
    Buffer* out = nullptr;
    const _singleChannel* source[kRoleCount] = {};
    std::int64_t width = 0;      // data window
    std::int64_t height = 0;
    std::int64_t columnShift = 0;  // target column of data column 0
    std::int64_t rowShift = 0;     // target row of data row 0
    bool gamma = false;
    float gammaValue = 1.0f;

    // Target rectangle that data covers: [txBegin, txEnd) x [tyBegin, tyEnd).
    std::int64_t txBegin = 0, txEnd = 0, tyBegin = 0, tyEnd = 0;

    // With every role on a HALF channel and enough pixels: each half's
    // result, through the same conversion as pixel by pixel. Integer
    // pixels: the stored channel for colour (gamma applied) and alpha;
    // float pixels: the gamma-corrected float (colour only, when gamma is on).
    bool allHalf = false;
    std::unique_ptr<ChannelOf<Pixel>[]> colourTable;
    std::unique_ptr<ChannelOf<Pixel>[]> alphaTable;
    std::unique_ptr<float[]> gammaTable;

    void buildTables();
    // Fills target rows [from, to): cleared where no data lands, converted where it does.
    void rows(std::int64_t from, std::int64_t to) const;

private:
    void convertRow(std::int64_t row, std::int64_t column, std::int64_t count, Pixel* target) const;
    void floatRow(const _singleChannel& channel, bool colour, std::int64_t row, std::int64_t column,
                  std::int64_t count, float* values) const;
};

template <class Buffer, class Pixel>
void Transfer<Buffer, Pixel>::buildTables()
{
    if (!allHalf || (txEnd - txBegin) * (tyEnd - tyBegin) < kTablePixels) return;
    if constexpr (std::is_same_v<Pixel, _Rgbaf>) {
        if (!gamma) return;  // a half widens through OpenEXR's own table
        gammaTable.reset(newArray<float>(kHalfValues));
        for (int bits = 0; bits < kHalfValues; ++bits) {
            const float v = half(half::FromBits, static_cast<std::uint16_t>(bits));
            gammaTable[bits] = kt::exrGammaCorrected(v, gammaValue);
        }
    } else {
        colourTable.reset(newArray<ChannelOf<Pixel>>(kHalfValues));
        alphaTable.reset(newArray<ChannelOf<Pixel>>(kHalfValues));
        for (int bits = 0; bits < kHalfValues; ++bits) {
            const float v = half(half::FromBits, static_cast<std::uint16_t>(bits));
            const float c = gamma ? kt::exrGammaCorrected(v, gammaValue) : v;
            const Pixel p = PixelFrom<Pixel>::floats(c, c, c, v);
            colourTable[bits] = p.r;
            alphaTable[bits] = p.a;
        }
    }
}

template <class Buffer, class Pixel>
void Transfer<Buffer, Pixel>::floatRow(const _singleChannel& channel, bool colour, std::int64_t row,
                                       std::int64_t column, std::int64_t count, float* values) const
{
    const bool curve = colour && gamma;
    const std::int64_t start = row * width + column;
    switch (channel.pixelType) {
    case Imf::HALF: {
        const half* in = channel.halfPlane.values + start;
        if (curve && gammaTable) {
            for (std::int64_t i = 0; i < count; ++i) values[i] = gammaTable[in[i].bits()];
        } else if (curve) {
            for (std::int64_t i = 0; i < count; ++i) values[i] = kt::exrGammaCorrected(in[i], gammaValue);
        } else {
            for (std::int64_t i = 0; i < count; ++i) values[i] = in[i];
        }
        return;
    }
    case Imf::FLOAT: {
        const float* in = channel.floatPlane.values + start;
        if (curve) {
            for (std::int64_t i = 0; i < count; ++i) values[i] = kt::exrGammaCorrected(in[i], gammaValue);
        } else {
            std::memcpy(values, in, static_cast<std::size_t>(count) * sizeof(float));
        }
        return;
    }
    case Imf::UINT: {
        const std::uint32_t* in = channel.uintPlane.values + start;
        for (std::int64_t i = 0; i < count; ++i) {
            const float v = static_cast<float>(in[i]);
            values[i] = curve ? kt::exrGammaCorrected(v, gammaValue) : v;
        }
        return;
    }
    default: {
        // A role left without any channel reads 0.
        const float v = curve ? kt::exrGammaCorrected(0.0f, gammaValue) : 0.0f;
        std::fill(values, values + count, v);
        return;
    }
    }
}

template <class Buffer, class Pixel>
void Transfer<Buffer, Pixel>::convertRow(std::int64_t row, std::int64_t column, std::int64_t count,
                                         Pixel* target) const
{
    if (allHalf) {
        const std::int64_t start = row * width + column;
        const half* r = source[kRed]->halfPlane.values + start;
        const half* g = source[kGreen]->halfPlane.values + start;
        const half* b = source[kBlue]->halfPlane.values + start;
        const half* a = source[kAlpha]->halfPlane.values + start;
        if constexpr (!std::is_same_v<Pixel, _Rgbaf>) {
            if (colourTable) {
                const auto* colour = colourTable.get();
                const auto* alpha = alphaTable.get();
                for (std::int64_t i = 0; i < count; ++i)
                    target[i] = Pixel{colour[r[i].bits()], colour[g[i].bits()], colour[b[i].bits()],
                                      alpha[a[i].bits()]};
                return;
            }
        } else {
            if (!gamma) {
                for (std::int64_t i = 0; i < count; ++i) target[i] = _Rgbaf{r[i], g[i], b[i], a[i]};
                return;
            }
            if (gammaTable) {
                const float* curve = gammaTable.get();
                for (std::int64_t i = 0; i < count; ++i)
                    target[i] = _Rgbaf{curve[r[i].bits()], curve[g[i].bits()], curve[b[i].bits()], a[i]};
                return;
            }
        }
    }
    // Any mix of channel types: each role as floats, a block at a time.
    constexpr std::int64_t kBlock = 256;
    float values[kRoleCount][kBlock];
    for (std::int64_t done = 0; done < count; done += kBlock) {
        const std::int64_t n = std::min(kBlock, count - done);
        for (int role = 0; role < kRoleCount; ++role)
            floatRow(*source[role], role != kAlpha, row, column + done, n, values[role]);
        for (std::int64_t i = 0; i < n; ++i)
            target[done + i] =
                PixelFrom<Pixel>::floats(values[kRed][i], values[kGreen][i], values[kBlue][i], values[kAlpha][i]);
    }
}

template <class Buffer, class Pixel>
void Transfer<Buffer, Pixel>::rows(std::int64_t from, std::int64_t to) const
{
    const std::int64_t bufferWidth = out->width;
    Pixel* const first = reinterpret_cast<Pixel*>(out->pixels);
    const std::int64_t count = txEnd - txBegin;
    for (std::int64_t ty = from; ty < to; ++ty) {
        Pixel* line = first + ty * bufferWidth;
        if (ty < tyBegin || ty >= tyEnd) {
            std::memset(static_cast<void*>(line), 0, static_cast<std::size_t>(bufferWidth) * sizeof(Pixel));
            continue;
        }
        std::memset(static_cast<void*>(line), 0, static_cast<std::size_t>(txBegin) * sizeof(Pixel));
        std::memset(static_cast<void*>(line + txEnd), 0, static_cast<std::size_t>(bufferWidth - txEnd) * sizeof(Pixel));
        convertRow(ty - rowShift, txBegin - columnShift, count, line + txBegin);
    }
}

// Runs work.rows over [0, rowCount) in `parts` ranges, shared between this
// thread and OpenEXR's pool.
template <class Work>
void runRows(const Work& work, std::int64_t rowCount, int parts)
{
    parts = static_cast<int>(std::clamp<std::int64_t>(parts, 1, std::max<std::int64_t>(rowCount, 1)));
    std::atomic<int> nextPart{0};
    kt::exrRunShared(parts - 1, [&] {
        for (int part; (part = nextPart.fetch_add(1)) < parts;)
            work.rows(rowCount * part / parts, rowCount * (part + 1) / parts);
    });
}

// Sets the whole pixel memory to zero bytes.
void clearPixels(ktP::_imgRGBABuffer_all& out)
{
    if (out.pixels && out.bytesPerPixel > 0)
        std::memset(out.pixels, 0, static_cast<std::size_t>(out.bytesPerPixel) * out.maxPixels);
}

// The transfer pixel by pixel through the buffer's own bounds-checked write:
// for buffers whose size fields disagree with their capacity.
template <class Buffer, class Pixel>
void transferPixelByPixel(const Transfer<Buffer, Pixel>& t)
{
    clearPixels(*t.out);
    for (std::int64_t r = 0; r < t.height; ++r) {
        const std::int64_t ty = r + t.rowShift;
        if (ty < 0 || ty >= std::int64_t{t.out->height}) continue;
        for (std::int64_t c = 0; c < t.width; ++c) {
            const std::int64_t tx = c + t.columnShift;
            if (tx < 0 || tx >= std::int64_t{t.out->width}) continue;
            const int x = static_cast<int>(c), y = static_cast<int>(r);
            float v[kRoleCount];
            for (int role = 0; role < kRoleCount; ++role) v[role] = t.source[role]->getValue(x, y);
            if (t.gamma)
                for (int role = kRed; role <= kBlue; ++role) v[role] = kt::exrGammaCorrected(v[role], t.gammaValue);
            const int px = static_cast<int>(tx), py = static_cast<int>(ty);
            t.out->write(px, py, PixelFrom<Pixel>::floats(v[kRed], v[kGreen], v[kBlue], v[kAlpha]));
        }
    }
}

template <class Buffer, class Pixel>
void transferAll(Transfer<Buffer, Pixel>& t, int threads)
{
    Buffer& out = *t.out;
    const std::int64_t bufferWidth = out.width, bufferHeight = out.height;
    t.tyBegin = std::max<std::int64_t>(0, t.rowShift);
    t.tyEnd = std::min(bufferHeight, t.rowShift + t.height);
    t.txBegin = std::max<std::int64_t>(0, t.columnShift);
    t.txEnd = std::min(bufferWidth, t.columnShift + t.width);
    if (t.tyBegin >= t.tyEnd || t.txBegin >= t.txEnd) t.tyBegin = t.tyEnd = t.txBegin = t.txEnd = 0;

    // Row by row only where every in-range pixel is one the buffer's write
    // accepts; otherwise the buffer decides pixel by pixel.
    const std::uint64_t imagePixels = static_cast<std::uint64_t>(bufferWidth * bufferHeight);
    const bool rowWise =
        out.pixels && out.bytesPerPixel == static_cast<signed char>(sizeof(Pixel)) && imagePixels <= out.maxPixels;
    if (!rowWise || bufferHeight > INT32_MAX || bufferWidth > INT32_MAX) {
        transferPixelByPixel(t);
        return;
    }
    try {
        t.buildTables();
    } catch (...) {
        t.colourTable.reset();
        t.alphaTable.reset();
        t.gammaTable.reset();
    }
    // The capacity beyond the image.
    std::memset(out.pixels + imagePixels * sizeof(Pixel), 0,
                static_cast<std::size_t>(out.maxPixels - imagePixels) * sizeof(Pixel));
    const bool parallel = threads > 1 && bufferWidth * bufferHeight >= kParallelPixels;
    runRows(t, bufferHeight, parallel ? threads : 1);
}

// ---- the decoding procedure shared by the three exports ------------------

template <class Buffer, class Pixel>
int decode(imgCallRecord* call)
{
    if (!call || !call->fileBuffer || !call->imageInfo) return imgStatusLibraryFailure;
    Buffer& out = *static_cast<Buffer*>(call->imageInfo);

    // 1. Check the file's claims against its size, then open it.
    kt::_imgGuardedFileBufferStream stream(call->fileBuffer);
    int threads = 0;
    bool dataFits = false;
    std::unique_ptr<Imf::InputFile> file;
    std::unique_ptr<Imf::Header> header;
    try {
        threads = Imf::globalThreadCount();
        // A damaged header can make OpenEXR allocate by sizes it announces.
        dataFits = kt::exrCheckBeforeOpening(*call->fileBuffer).pixelDataFits();
        if (dataFits) {
            stream.seekg(0);
            file = std::make_unique<Imf::InputFile>(stream, threads);
            header = std::make_unique<Imf::Header>(file->header());
        }
    } catch (...) {
        return imgStatusCannotHandle;
    }
    // A file too short for its pixels is answered as if reading them had
    // failed, before OpenEXR's buffers or the planes are sized by its header.
    if (!dataFits) {
        clearPixels(out);
        return imgStatusBrokenFile;
    }

    // From here on every failure leaves the buffer cleared. The clearing
    // itself waits until the outcome is known: on success only the pixels
    // that no data reaches are cleared, since the rest are overwritten.
    struct ClearOnFailure {
        ktP::_imgRGBABuffer_all* buffer = nullptr;
        ~ClearOnFailure()
        {
            if (buffer) clearPixels(*buffer);
        }
    } clearOnFailure;

    // 2. The windows, the region mark, and a slot with a plane for each channel a role picks.
    std::unique_ptr<std::uint64_t[]> scratch;
    std::unique_ptr<_singleChannel[]> slots;
    Imf::FrameBuffer frame;
    ChannelChoice choice;
    Imath::Box2i window;
    Imath::Box2i display;
    std::int64_t width = 0, height = 0;
    try {
        display = header->displayWindow();
        window = header->dataWindow();
        width = std::int64_t{window.max.x} - window.min.x + 1;
        height = std::int64_t{window.max.y} - window.min.y + 1;
        if (width <= 0 || height <= 0) throw std::bad_alloc();

        // Kept for the failure it can raise, never touched.
        scratch.reset(newArray<std::uint64_t>(10 * static_cast<std::uint64_t>(width)));

        if (width != std::int64_t{out.width} || height != std::int64_t{out.height}) out.imageInfo.infoText += " region";
        clearOnFailure.buffer = &out;

        slots.reset(newArray<_singleChannel>(kt::exrDecoderSlotCount));
        int number[kRoleCount];
        chooseChannelNumbers(header->channels(), number);
        choice = fillSlots(header->channels(), number, window, slots.get(), frame);
    } catch (...) {
        return imgStatusLibraryFailure;
    }

    for (int i = 0; i < choice.slotsUsed; ++i)
        if (!slots[i].get_dataPointer()) return imgStatusChannelType;

    try {
        file->setFrameBuffer(frame);
        stream.setGuard(kt::exrChunkByteBound(*header));
    } catch (...) {
        return imgStatusLibraryFailure;
    }
    // 3. The pixels into the planes: the quick reader first; whatever it
    // declines, OpenEXR's C++ reader reads.
    std::vector<kt::ExrPlaneTarget> targets;
    for (int i = 0; i < choice.slotsUsed; ++i)
        targets.push_back({slots[i].name.text, static_cast<char*>(slots[i].dataPointer)});
    if (!kt::exrReadPlanesQuickly(*call->fileBuffer, *header, targets, threads)) {
        try {
            file->readPixels(window.min.y, window.max.y);
        } catch (...) {
            return imgStatusBrokenFile;
        }
    }
    header.reset();
    file.reset();

    // 4. Placement, gamma and conversion into the host's buffer.
    Transfer<Buffer, Pixel> transfer;
    transfer.out = &out;
    for (int role = 0; role < kRoleCount; ++role) transfer.source[role] = &slots[choice.slotOfRole[role]];
    transfer.width = width;
    transfer.height = height;
    transfer.columnShift = std::int64_t{window.min.x} - display.min.x;
    transfer.rowShift = std::int64_t{window.min.y} - display.min.y;
    transfer.gamma = (out.pixelFlags & 1) != 0;
    transfer.gammaValue = gammaV;
    transfer.allHalf = true;
    for (const _singleChannel* s : transfer.source)
        transfer.allHalf = transfer.allHalf && s->pixelType == Imf::HALF && s->halfPlane.values;

    clearOnFailure.buffer = nullptr;
    transferAll(transfer, threads);
    return imgStatusOk;
}

}  // namespace

extern "C" int imgDecode8(imgCallRecord* call)
{
    return kt::callGuarded(decode<ktP::_imgRGBABuffer8, _Rgba8>, call);
}

extern "C" int imgDecode16(imgCallRecord* call)
{
    return kt::callGuarded(decode<ktP::_imgRGBABuffer16, _Rgba16>, call);
}

extern "C" int imgDecodef(imgCallRecord* call)
{
    return kt::callGuarded(decode<ktP::_imgRGBABufferf, _Rgbaf>, call);
}
