#include "plugin/exrPixelTransfer.h"

#include <Imath/half.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <type_traits>

#include "plugin/exrChunkReader.h"
#include "plugin/exrLimits.h"

namespace kt {

namespace {

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
        gammaTable.reset(exrNewArray<float>(kHalfValues));
        for (int bits = 0; bits < kHalfValues; ++bits) {
            const float v = half(half::FromBits, static_cast<std::uint16_t>(bits));
            gammaTable[bits] = exrGammaCorrected(v, gammaValue);
        }
    } else {
        colourTable.reset(exrNewArray<ChannelOf<Pixel>>(kHalfValues));
        alphaTable.reset(exrNewArray<ChannelOf<Pixel>>(kHalfValues));
        for (int bits = 0; bits < kHalfValues; ++bits) {
            const float v = half(half::FromBits, static_cast<std::uint16_t>(bits));
            const float c = gamma ? exrGammaCorrected(v, gammaValue) : v;
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
            for (std::int64_t i = 0; i < count; ++i) values[i] = exrGammaCorrected(in[i], gammaValue);
        } else {
            for (std::int64_t i = 0; i < count; ++i) values[i] = in[i];
        }
        return;
    }
    case Imf::FLOAT: {
        const float* in = channel.floatPlane.values + start;
        if (curve) {
            for (std::int64_t i = 0; i < count; ++i) values[i] = exrGammaCorrected(in[i], gammaValue);
        } else {
            std::memcpy(values, in, static_cast<std::size_t>(count) * sizeof(float));
        }
        return;
    }
    case Imf::UINT: {
        const std::uint32_t* in = channel.uintPlane.values + start;
        for (std::int64_t i = 0; i < count; ++i) {
            const float v = static_cast<float>(in[i]);
            values[i] = curve ? exrGammaCorrected(v, gammaValue) : v;
        }
        return;
    }
    default: {
        // A role left without any channel reads 0.
        const float v = curve ? exrGammaCorrected(0.0f, gammaValue) : 0.0f;
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
    exrRunShared(parts - 1, [&] {
        for (int part; (part = nextPart.fetch_add(1)) < parts;)
            work.rows(rowCount * part / parts, rowCount * (part + 1) / parts);
    });
}


// The transfer pixel by pixel through the buffer's own bounds-checked write:
// for buffers whose size fields disagree with their capacity.
template <class Buffer, class Pixel>
void transferPixelByPixel(const Transfer<Buffer, Pixel>& t)
{
    exrClearPixels(*t.out);
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
                for (int role = kRed; role <= kBlue; ++role) v[role] = exrGammaCorrected(v[role], t.gammaValue);
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

template <class Buffer, class Pixel>
void place(Buffer& out, const ExrPlanesToPlace& planes, int threads)
{
    Transfer<Buffer, Pixel> transfer;
    transfer.out = &out;
    for (int role = 0; role < kRoleCount; ++role) transfer.source[role] = planes.source[role];
    transfer.width = planes.width;
    transfer.height = planes.height;
    transfer.columnShift = planes.columnShift;
    transfer.rowShift = planes.rowShift;
    transfer.gamma = planes.gamma;
    transfer.gammaValue = planes.gammaValue;
    transfer.allHalf = true;
    for (const _singleChannel* s : transfer.source)
        transfer.allHalf = transfer.allHalf && s->pixelType == Imf::HALF && s->halfPlane.values;
    transferAll(transfer, threads);
}

}  // namespace

void exrClearPixels(ktP::_imgRGBABuffer_all& out)
{
    if (out.pixels && out.bytesPerPixel > 0)
        std::memset(out.pixels, 0, static_cast<std::size_t>(out.bytesPerPixel) * out.maxPixels);
}

void exrPlacePixels(ktP::_imgRGBABuffer8& out, const ExrPlanesToPlace& planes, int threads)
{
    place<ktP::_imgRGBABuffer8, _Rgba8>(out, planes, threads);
}

void exrPlacePixels(ktP::_imgRGBABuffer16& out, const ExrPlanesToPlace& planes, int threads)
{
    place<ktP::_imgRGBABuffer16, _Rgba16>(out, planes, threads);
}

void exrPlacePixels(ktP::_imgRGBABufferf& out, const ExrPlanesToPlace& planes, int threads)
{
    place<ktP::_imgRGBABufferf, _Rgbaf>(out, planes, threads);
}

}  // namespace kt
