// imgEncode8, imgEncode16, imgEncodef: one procedure over the three depths.
#include "plugin/exrEncoder.h"

#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfThreading.h>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "plugin/exrChunkReader.h"
#include "plugin/exrChunkWriter.h"
#include "plugin/exrMetadata.h"
#include "plugin/fileBufferStream.h"
#include "plugin/ktImageExr.h"

namespace kt::exr {

namespace {

constexpr int kMargin = 3;
// Row stores are filled as arrays of halves, four to a pixel.
static_assert(sizeof(Imf::Rgba) == 4 * sizeof(half));
// Worker threads compress whole line buffers; a few per thread keeps them busy.
constexpr int kRowsPerThread = 16;
constexpr int kMaxRowsPerWrite = 64;

// ---- conversion to half ----------------------------------------------------------

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KT_EXR_F16C 1
// Whole rows go through the processor's half conversion where it has one: the
// same rounding (to nearest, ties to even) as the scalar code, eight values at
// a time, which keeps the calling thread from holding up OpenEXR's workers.
constexpr int kRoundNearest = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;

bool hasHalfInstructions()
{
    static const bool yes = [] {
        unsigned a = 0, b = 0, c = 0, d = 0;
        // AVX2 as the compiler sees it (the system saves the wide registers too), F16C from CPUID 1.
        return __builtin_cpu_supports("avx2") && __get_cpuid(1, &a, &b, &c, &d) && (c & bit_F16C) != 0;
    }();
    return yes;
}

// Each converts pairs of pixels (eight values) and returns how many pixels it did.
__attribute__((target("avx2,f16c"))) int convertPairs(const unsigned char* src, int pixels, Imf::Rgba* dst)
{
    const __m256 scale = _mm256_set1_ps(255.0f);
    int i = 0;
    for (; i + 2 <= pixels; i += 2) {
        const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + 4 * i));
        const __m256 v = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)), scale);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm256_cvtps_ph(v, kRoundNearest));
    }
    return i;
}

__attribute__((target("avx2,f16c"))) int convertPairs(const unsigned short* src, int pixels, Imf::Rgba* dst)
{
    const __m256 scale = _mm256_set1_ps(65535.0f);
    int i = 0;
    for (; i + 2 <= pixels; i += 2) {
        const __m128i words = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * i));
        const __m256 v = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(words)), scale);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm256_cvtps_ph(v, kRoundNearest));
    }
    return i;
}

__attribute__((target("avx2,f16c"))) int convertPairs(const float* src, int pixels, Imf::Rgba* dst)
{
    int i = 0;
    for (; i + 2 <= pixels; i += 2) {
        const __m256 v = _mm256_loadu_ps(src + 4 * i);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm256_cvtps_ph(v, kRoundNearest));
        // The instruction quiets signalling NaNs; the half type keeps their bits.
        if (_mm256_movemask_ps(_mm256_cmp_ps(v, v, _CMP_UNORD_Q)) != 0)
            for (int k = i; k < i + 2; ++k)
                dst[k] = Imf::Rgba(half(src[4 * k]), half(src[4 * k + 1]), half(src[4 * k + 2]), half(src[4 * k + 3]));
    }
    return i;
}
#endif

// ---- the three depths ----------------------------------------------------

// 8 bits: v / 255 in single precision, then to half; 256 values, one table.
struct Depth8 {
    using Buffer = ktP::_imgRGBABuffer8;
    using Channel = unsigned char;
    static constexpr const char* clientAttribute = "KT/clientname";
    static constexpr bool isFloat = false;

    static bool empty(const Channel* p) { return (p[0] | p[1] | p[2] | p[3]) == 0; }
    // Whether any of the eight pixels from p on is occupied.
    static bool anyOf8(const Channel* p)
    {
        std::uint64_t w[4];
        std::memcpy(w, p, sizeof w);
        return (w[0] | w[1] | w[2] | w[3]) != 0;
    }
    static half toHalf(Channel v)
    {
        static const std::array<half, 256> table = [] {
            std::array<half, 256> t{};
            for (int i = 0; i < 256; ++i) t[static_cast<std::size_t>(i)] = half(static_cast<float>(i) / 255.0f);
            return t;
        }();
        return table[v];
    }
};

// 16 bits: v / 65535 likewise; the table is built once, on the first encode.
struct Depth16 {
    using Buffer = ktP::_imgRGBABuffer16;
    using Channel = unsigned short;
    static constexpr const char* clientAttribute = "KT/clientname";
    static constexpr bool isFloat = false;

    static bool empty(const Channel* p) { return (p[0] | p[1] | p[2] | p[3]) == 0; }
    static bool anyOf8(const Channel* p)
    {
        std::uint64_t w[8];
        std::memcpy(w, p, sizeof w);
        return (w[0] | w[1] | w[2] | w[3] | w[4] | w[5] | w[6] | w[7]) != 0;
    }
    static half toHalf(Channel v)
    {
        static const std::unique_ptr<const half[]> table = [] {
            std::unique_ptr<half[]> t(new half[65536]);
            for (int i = 0; i < 65536; ++i) t[static_cast<std::size_t>(i)] = half(static_cast<float>(i) / 65535.0f);
            return std::unique_ptr<const half[]>(std::move(t));
        }();
        return table[v];
    }
};

// Float: the value itself, rounded to the nearest half (ties to even).
struct DepthF {
    using Buffer = ktP::_imgRGBABufferf;
    using Channel = float;
    // The float export has always written the client without the "KT/" prefix.
    static constexpr const char* clientAttribute = "clientname";
    static constexpr bool isFloat = true;

    // Compared as floats, so -0.0 counts as empty and NaN as occupied.
    static bool empty(const Channel* p) { return (p[0] == 0.0f) & (p[1] == 0.0f) & (p[2] == 0.0f) & (p[3] == 0.0f); }
    static bool anyOf8(const Channel* p)
    {
        int any = 0;
        for (int k = 0; k < 32; ++k) any |= (p[k] != 0.0f);
        return any != 0;
    }
    static half toHalf(Channel v) { return half(v); }
};

// n pixels from src (four values each) into dst.
template <class Depth>
void convertPixels(const typename Depth::Channel* src, int n, Imf::Rgba* dst, bool instructions = true)
{
    int done = 0;
#ifdef KT_EXR_F16C
    if (instructions && hasHalfInstructions()) done = convertPairs(src, n, dst);
#else
    (void)instructions;
#endif
    for (int i = done; i < n; ++i)
        dst[i] = Imf::Rgba(Depth::toHalf(src[4 * i]), Depth::toHalf(src[4 * i + 1]), Depth::toHalf(src[4 * i + 2]),
                           Depth::toHalf(src[4 * i + 3]));
}

template <class Depth>
const typename Depth::Channel* rowOf(const typename Depth::Buffer& image, int y)
{
    return reinterpret_cast<const typename Depth::Channel*>(image.pixels) + std::size_t{image.width} * 4u * static_cast<std::size_t>(y);
}

// ---- crop search -------------------------------------------------------------

// The first occupied pixel of row[from, to), or -1; eight pixels per test.
template <class Depth>
int firstOccupied(const typename Depth::Channel* row, int from, int to)
{
    int x = from;
    while (x + 8 <= to && !Depth::anyOf8(row + 4 * x)) x += 8;
    for (; x < to; ++x)
        if (!Depth::empty(row + 4 * x)) return x;
    return -1;
}

// The last occupied pixel of row[from, to), or -1.
template <class Depth>
int lastOccupied(const typename Depth::Channel* row, int from, int to)
{
    int x = to;
    while (x - 8 >= from && !Depth::anyOf8(row + 4 * (x - 8))) x -= 8;
    for (--x; x >= from; --x)
        if (!Depth::empty(row + 4 * x)) return x;
    return -1;
}

template <class Depth>
bool occupiedBox(const typename Depth::Buffer& image, CropBox& box)
{
    const int width = static_cast<int>(image.width);
    const int height = static_cast<int>(image.height);
    if (width <= 0 || height <= 0 || !image.pixels) return false;

    // From the top: the first row with anything in it gives min y and min x.
    int minY = 0, minX = -1;
    for (; minY < height && minX < 0; ++minY) minX = firstOccupied<Depth>(rowOf<Depth>(image, minY), 0, width);
    if (minX < 0) return false;
    --minY;

    // From the bottom: the last row with anything in it gives max y and max x.
    int maxY = height - 1, maxX = -1;
    for (; maxX < 0; --maxY) maxX = lastOccupied<Depth>(rowOf<Depth>(image, maxY), 0, width);
    ++maxY;

    // Every other row only needs looking at outside the columns found so far.
    for (int y = minY; y <= maxY && (minX > 0 || maxX < width - 1); ++y) {
        const auto* row = rowOf<Depth>(image, y);
        const int left = firstOccupied<Depth>(row, 0, minX);
        if (left >= 0) minX = left;
        const int right = lastOccupied<Depth>(row, maxX + 1, width);
        if (right >= 0) maxX = right;
    }
    box = CropBox{minX, minY, maxX, maxY};
    return true;
}

// ---- output ----------------------------------------------------------------------

// Sits between OpenEXR and the file buffer's stream: notices every byte the
// buffer refuses (the buffer stream drops them silently), and once closed lets
// nothing more through, so that abandoning a half-written file adds nothing to it.
class GuardedStream : public OPENEXR_IMF_NAMESPACE::OStream {
public:
    explicit GuardedStream(_imgFileBufferStreamOut& target) : OStream("noFile"), out(target) {}

    void write(const char src[], int n) override
    {
        if (closed) return;
        const uint64_t before = out.tellp();
        out.write(src, n);
        if (n > 0 && out.tellp() != before + static_cast<uint64_t>(n)) lost = true;
    }
    uint64_t tellp() override { return out.tellp(); }
    void seekp(uint64_t pos) override
    {
        if (closed) return;
        out.seekp(pos);
        if (out.tellp() != pos) lost = true;
    }

    void close() { closed = true; }
    // Whether the file buffer refused anything OpenEXR wrote.
    bool lostBytes() const { return lost; }

private:
    _imgFileBufferStreamOut& out;
    bool closed = false;
    bool lost = false;
};

// Pixels minX..maxX of row y as halves; anything outside the buffer is empty.
template <class Depth>
void convertRow(const typename Depth::Buffer& image, int y, const CropBox& box, Imf::Rgba* out)
{
    const int width = static_cast<int>(image.width);
    const int inside = (y < static_cast<int>(image.height)) ? std::max(0, std::min(box.maxX, width - 1) - box.minX + 1) : 0;
    if (inside > 0) convertPixels<Depth>(rowOf<Depth>(image, y) + 4 * box.minX, inside, out);
    std::fill(out + inside, out + (box.maxX - box.minX + 1), Imf::Rgba(half(0.0f), half(0.0f), half(0.0f), half(0.0f)));
}

// Writes the region's rows, `batch` scan lines per writePixels call. The
// frame buffer's base is placed so that row y, pixel x sits at its own
// coordinates (OpenEXR addresses base + y * yStride + x); the arithmetic is
// done on addresses because that base lies outside the row store.
template <class Depth>
void writeRows(Imf::RgbaOutputFile& file, const typename Depth::Buffer& image, const CropBox& box, int batch)
{
    const std::size_t regionWidth = static_cast<std::size_t>(box.maxX - box.minX + 1);
    std::unique_ptr<Imf::Rgba[]> store(new Imf::Rgba[regionWidth * static_cast<std::size_t>(batch)]);
    for (int y0 = box.minY; y0 <= box.maxY; y0 += batch) {
        const int rows = std::min(batch, box.maxY - y0 + 1);
        for (int r = 0; r < rows; ++r) convertRow<Depth>(image, y0 + r, box, store.get() + regionWidth * static_cast<std::size_t>(r));
        const std::uintptr_t shift =
            (static_cast<std::uintptr_t>(y0) * regionWidth + static_cast<std::uintptr_t>(box.minX)) * sizeof(Imf::Rgba);
        const auto* base = reinterpret_cast<const Imf::Rgba*>(reinterpret_cast<std::uintptr_t>(store.get()) - shift);
        file.setFrameBuffer(base, 1, regionWidth);
        file.writePixels(rows);
    }
}

// Shows in the float image the host keeps which part went into the file:
// red, green and blue outside the region become 0.04, alpha stays. The
// region's own last row is painted as well, as the host has always shown it.
void paintOutside(ktP::_imgRGBABufferf& image, const CropBox& box)
{
    const int width = static_cast<int>(image.width);
    const int height = static_cast<int>(image.height);
    auto paint = [&](int y, int fromX, int toX) {
        float* row = reinterpret_cast<float*>(image.pixels) + std::size_t{image.width} * 4u * static_cast<std::size_t>(y);
        for (int x = std::max(fromX, 0); x <= std::min(toX, width - 1); ++x) row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = 0.04f;
    };
    for (int y = 0; y < height; ++y) {
        paint(y, 0, box.minX - 1);
        paint(y, box.maxX + 1, width - 1);
        if (y < box.minY || y >= box.maxY) paint(y, box.minX, box.maxX);
    }
}

// The file through OpenEXR's output file: the reference way.
template <class Depth>
int writeWithOutputFile(GuardedStream& stream, const Imf::Header& header, const typename Depth::Buffer& image,
                        const CropBox& box, int threads)
{
    std::unique_ptr<Imf::RgbaOutputFile> file;
    try {
        file = std::make_unique<Imf::RgbaOutputFile>(stream, header, Imf::WRITE_RGBA, threads);
    } catch (...) {
        return imgStatusCannotHandle;
    }
    try {
        writeRows<Depth>(*file, image, box, std::max(1, std::min(rowsPerWrite(threads), box.maxY - box.minY + 1)));
    } catch (...) {
        // Abandon the file as it stands: no line-offset table follows.
        stream.close();
        file.reset();
        return imgStatusLibraryFailure;
    }
    file.reset();  // writes the line-offset table
    return imgStatusOk;
}

// The same file with the lines deflated by our own deflater on OpenEXR's pool.
template <class Depth>
int writeQuickly(GuardedStream& stream, const Imf::Header& header, const typename Depth::Buffer& image,
                 const CropBox& box, int threads)
{
    switch (kt::exrWriteRgbaZipsLines(stream, header, threads,
                                      [&](int y, Imf::Rgba* row) { convertRow<Depth>(image, y, box, row); })) {
    case kt::ExrWriteOutcome::written: return imgStatusOk;
    case kt::ExrWriteOutcome::headerRefused: return imgStatusCannotHandle;
    case kt::ExrWriteOutcome::pixelsFailed: break;
    }
    stream.close();  // nothing more reaches the file buffer
    return imgStatusLibraryFailure;
}

// The settings of a call that came without a job-settings record.
const imgJobSettings& noSettings()
{
    static const imgJobSettings none{};
    return none;
}

// An empty metadata record for a call that came without one; only ever read.
ktExrHeaderData& noMetadata()
{
    static ktExrHeaderData none{};
    return none;
}

bool reportsRegion(const imgJobSettings& settings)
{
    return settings.verbose != 0 &&
           (settings.appName.startsWith("ktExrCropRegion") || settings.appName.startsWith("ktAssembleTiles"));
}

std::string clientNameOf(const imgJobSettings& settings)
{
    return std::string(settings.clientName, strnlen(settings.clientName, sizeof settings.clientName - 1));
}

// The buffer's pixel memory holds what its width and height say.
bool consistent(const ktP::_imgRGBABuffer_all& image)
{
    const std::uint64_t count = std::uint64_t{image.width} * image.height;
    return count <= image.maxPixels && (count == 0 || image.pixels != nullptr);
}

template <class Depth>
int encode(imgCallRecord* call)
{
    if (!call || !call->fileBuffer || !call->imageInfo) return imgStatusCannotHandle;
    auto& image = *static_cast<typename Depth::Buffer*>(call->imageInfo);
    if (!consistent(image)) return imgStatusCannotHandle;
    const imgJobSettings& settings = call->jobSettings ? *call->jobSettings : noSettings();
    ktExrHeaderData& metadata = call->headerData ? *call->headerData : noMetadata();
    const int width = static_cast<int>(image.width);
    const int height = static_cast<int>(image.height);

    // Exceptions from here on answer 6 (the exports' firewall).
    // 1. The file buffer as the output stream.
    _imgFileBufferStreamOut bufferStream(call->fileBuffer);
    GuardedStream stream(bufferStream);

    // 2. The crop box, and 3. the region report or mark.
    CropBox box{0, 0, width - 1, height - 1};
    const bool noCrop = Depth::isFloat && settings.appName.startsWith("ktExrCropRegion_UNDO");
    if (noCrop) {
        if (reportsRegion(settings)) {
            std::printf("    EXR NO CROP");
            std::fflush(stdout);
        }
    } else {
        if (!findOccupiedBox(image, box) && !Depth::isFloat) box = CropBox{0, 0, 5, 5};
        addCropMargin(box, width, height);
        if (reportsRegion(settings)) {
            const std::uint64_t area = std::uint64_t(box.maxX - box.minX + 1) * std::uint64_t(box.maxY - box.minY + 1);
            const float share = static_cast<float>(area) / static_cast<float>(image.pixelCount) * 100.0f;
            std::printf("    EXR region:    min: %4d %4d    max: %4d %4d   %5.1f%%\n", box.minX, box.minY, box.maxX,
                        box.maxY, static_cast<double>(share));
            std::fflush(stdout);
        } else if (Depth::isFloat) {
            image.imageInfo.infoText += " region";
        }
    }

    // 4. The header, 5. the client attribute, 6. the render metadata.
    Imf::Header header(width, height, Imath::Box2i(Imath::V2i(box.minX, box.minY), Imath::V2i(box.maxX, box.maxY)), 1.0f,
                       Imath::V2f(0.0f, 0.0f), 1.0f, Imf::INCREASING_Y, Imf::ZIPS_COMPRESSION);
    if (settings.appName.startsWith("ktClient"))
        header.insert(Depth::clientAttribute, Imf::StringAttribute(clientNameOf(settings)));
    headerInsertData(header, metadata, "-");

    // 7.-10. The file: header, the region's lines, the offset table.
    const int threads = Imf::globalThreadCount();
    const int status = kt::exrReferencePathForced() ? writeWithOutputFile<Depth>(stream, header, image, box, threads)
                                                    : writeQuickly<Depth>(stream, header, image, box, threads);
    if (status != imgStatusOk) return status;

    // The size check, then the float image's painting.
    if (stream.lostBytes()) {
        image.imageInfo.infoText += " ERR: File buffer too small!";
        return imgStatusCannotHandle;
    }
    if constexpr (Depth::isFloat) {
        if (!noCrop) paintOutside(image, box);
    }
    return imgStatusOk;
}

}  // namespace

bool findOccupiedBox(const ktP::_imgRGBABuffer8& image, CropBox& box) { return occupiedBox<Depth8>(image, box); }
bool findOccupiedBox(const ktP::_imgRGBABuffer16& image, CropBox& box) { return occupiedBox<Depth16>(image, box); }
bool findOccupiedBox(const ktP::_imgRGBABufferf& image, CropBox& box) { return occupiedBox<DepthF>(image, box); }

void toHalfPixels(const unsigned char* src, int pixels, Imf::Rgba* dst) { convertPixels<Depth8>(src, pixels, dst); }
void toHalfPixels(const unsigned short* src, int pixels, Imf::Rgba* dst) { convertPixels<Depth16>(src, pixels, dst); }
void toHalfPixels(const float* src, int pixels, Imf::Rgba* dst) { convertPixels<DepthF>(src, pixels, dst); }
void toHalfPixelsPortable(const unsigned char* src, int pixels, Imf::Rgba* dst)
{
    convertPixels<Depth8>(src, pixels, dst, false);
}
void toHalfPixelsPortable(const unsigned short* src, int pixels, Imf::Rgba* dst)
{
    convertPixels<Depth16>(src, pixels, dst, false);
}
void toHalfPixelsPortable(const float* src, int pixels, Imf::Rgba* dst) { convertPixels<DepthF>(src, pixels, dst, false); }

void addCropMargin(CropBox& box, int width, int height)
{
    for (int i = 0; i < kMargin; ++i) {
        if (box.minX > 0) --box.minX;
        if (box.minY > 0) --box.minY;
        if (box.maxX < width - 1) ++box.maxX;
        if (box.maxY < height - 1) ++box.maxY;
    }
}

int rowsPerWrite(int threadCount)
{
    if (threadCount <= 0) return 1;
    return std::min(kMaxRowsPerWrite, threadCount * kRowsPerThread);
}

}  // namespace kt::exr

extern "C" int imgEncode8(imgCallRecord* call) { return kt::callGuarded(kt::exr::encode<kt::exr::Depth8>, call); }
extern "C" int imgEncode16(imgCallRecord* call) { return kt::callGuarded(kt::exr::encode<kt::exr::Depth16>, call); }
extern "C" int imgEncodef(imgCallRecord* call) { return kt::callGuarded(kt::exr::encode<kt::exr::DepthF>, call); }
