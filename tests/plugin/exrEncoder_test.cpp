// imgEncode8, imgEncode16 and imgEncodef: every file compared byte for byte
// with the one OpenEXR itself writes from the header the encoders promise and
// from half values worked out here; the console report, the float image's
// painting, and the failures.
#include <gtest/gtest.h>

#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfThreading.h>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrEncoder.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

namespace {

using kt::test::box;
using kt::test::Bytes;

// The half nearest to `value` (ties to even), worked out in double precision
// from the float's exact value rather than through any half type. NaN gives 0x7E00.
std::uint16_t nearestHalf(float value)
{
    if (std::isnan(value)) return 0x7E00;
    const std::uint16_t sign = std::signbit(value) ? 0x8000 : 0;
    const double a = std::fabs(static_cast<double>(value));
    if (a >= 65520.0) return sign | 0x7C00;  // halfway to 2^16 and beyond: infinity
    if (a < std::ldexp(1.0, -14)) return static_cast<std::uint16_t>(sign | int(std::nearbyint(std::ldexp(a, 24))));
    int e = 0;
    std::frexp(a, &e);  // a in [2^(e-1), 2^e); the mantissa below rounds to 1024..2048
    return static_cast<std::uint16_t>(sign | (((e + 14) << 10) + int(std::nearbyint(std::ldexp(a, 11 - e))) - 1024));
}

// One export with its buffer; the 8-bit and 16-bit values are divided by
// their top value in single precision, floats taken as they are.
template <class B, class V, int (*Export)(imgCallRecord*), int Top>
struct Depth {
    using Buffer = B;
    using Value = V;
    static constexpr bool isFloat = Top == 0;
    static constexpr V kOn = static_cast<V>(isFloat ? 0.75 : Top * 3 / 4);
    static constexpr const char* clientAttribute = isFloat ? "clientname" : "KT/clientname";
    static int encode(imgCallRecord* call) { return Export(call); }
    static std::uint16_t expected(V v) { return nearestHalf(isFloat ? float(v) : static_cast<float>(v) / float(Top)); }
};
using Depth8 = Depth<ktP::_imgRGBABuffer8, unsigned char, imgEncode8, 255>;
using Depth16 = Depth<ktP::_imgRGBABuffer16, unsigned short, imgEncode16, 65535>;
using DepthF = Depth<ktP::_imgRGBABufferf, float, imgEncodef, 0>;

// One encode: a zeroed image, job settings, an empty metadata record and a
// file buffer with room for the image uncompressed.
template <class D>
struct Job {
    using V = typename D::Value;
    Job(int w, int h) : width(w), height(h), image(std::make_unique<typename D::Buffer>(static_cast<unsigned>(w * h)))
    {
        image->setWidth(w);
        image->setHeight(h);
        std::memset(image->pixels, 0, static_cast<std::size_t>(w * h) * static_cast<std::size_t>(image->bytesPerPixel));
    }
    void set(int x, int y, V r, V g, V b, V a) { image->write(x, y, r, g, b, a); }
    V* values() const { return reinterpret_cast<V*>(image->pixels); }
    int encode(bool withRecords = true)
    {
        original.assign(values(), values() + 4 * width * height);
        imgCallRecord call{file.get(), image.get(), metadata.get(), &settings};
        if (!withRecords) call.headerData = nullptr, call.jobSettings = nullptr;
        return result = D::encode(&call);
    }
    Bytes bytes() const { return kt::test::contentOf(*file); }
    std::string info() const { return kt::test::textOf(image->imageInfo.infoText); }

    int width, height, result = 0;  // the image's size; what the last encode returned
    std::unique_ptr<typename D::Buffer> image;
    std::unique_ptr<ktP::_imgFileBuffer> file = kt::test::emptyFileBuffer(unsigned(width * height * 8 + 65536));
    std::unique_ptr<ktExrHeaderData> metadata = std::make_unique<ktExrHeaderData>();
    imgJobSettings settings{};
    std::vector<V> original;  // the pixels as the encode found them
};

// The encoded file must hold, byte for byte, the header OpenEXR writes from
// the header the encoders promise (its date stamp taken from the file, the
// client as given), and the expected halves.
template <class D>
void expectFile(const Job<D>& job, const Imath::Box2i& window, const char* client = nullptr)
{
    const Bytes written = job.bytes();
    ASSERT_EQ(job.file->fileSize, static_cast<long long>(written.size()));
    const Imf::Header got = kt::test::readExr(written, 0, false).header;
    ASSERT_EQ(got.dataWindow(), window);
    Imf::Header header(job.width, job.height, window, 1, Imath::V2f(0, 0), 1, Imf::INCREASING_Y, Imf::ZIPS_COMPRESSION);
    if (const auto* date = got.findTypedAttribute<Imf::StringAttribute>("KT/dateWritten"))
        header.insert("KT/dateWritten", *date);
    header.insert("KT/application", Imf::StringAttribute("-"));
    if (client) header.insert(D::clientAttribute, Imf::StringAttribute(client));
    kt::test::MemoryOStream out;
    {
        Imf::RgbaOutputFile file(out, header, Imf::WRITE_RGBA, 0);
        const int width = window.max.x - window.min.x + 1, height = window.max.y - window.min.y + 1;
        std::vector<Imf::Rgba> pixels(static_cast<std::size_t>(width * height));
        for (int y = window.min.y; y <= window.max.y; ++y)
            for (int x = window.min.x; x <= window.max.x; ++x) {
                const bool inside = x < job.width && y < job.height;
                const auto* v = inside ? &job.original[static_cast<std::size_t>(4 * (x + job.width * y))] : nullptr;
                Imf::Rgba& p = pixels[static_cast<std::size_t>((y - window.min.y) * width + x - window.min.x)];
                half* const h[] = {&p.r, &p.g, &p.b, &p.a};
                for (int c = 0; c < 4; ++c) h[c]->setBits(inside ? D::expected(v[c]) : 0);
            }
        // OpenEXR addresses base + y * width + x; the base lies before the pixels.
        const std::uintptr_t origin = std::uintptr_t(window.min.y) * std::uintptr_t(width) + std::uintptr_t(window.min.x);
        const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(pixels.data()) - origin * sizeof(Imf::Rgba);
        file.setFrameBuffer(reinterpret_cast<const Imf::Rgba*>(base), 1, static_cast<std::size_t>(width));
        file.writePixels(height);
    }
    // The header byte for byte; the pixels as OpenEXR reads them (the chunks
    // themselves may be deflated differently).
    const Bytes& want = out.bytes();
    const std::size_t headerBytes = kt::test::headerEnd(want);
    ASSERT_EQ(kt::test::headerEnd(written), headerBytes);
    EXPECT_TRUE(std::equal(want.begin(), want.begin() + static_cast<long>(headerBytes), written.begin()));
    const kt::test::DecodedExr a = kt::test::readExr(want), b = kt::test::readExr(written);
    ASSERT_EQ(a.channels.size(), b.channels.size());
    for (std::size_t k = 0; k < a.channels.size(); ++k)  // as bits: NaNs too
        EXPECT_EQ(0, std::memcmp(a.channels[k].values.data(), b.channels[k].values.data(),
                                 a.channels[k].values.size() * sizeof(double)))
            << a.channels[k].name;
}

template <class D>
class EncoderDepth : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16, DepthF>;
TYPED_TEST_SUITE(EncoderDepth, Depths);

}  // namespace

// Crop boxes: the first and last occupied rows, columns widened by any row,
// a margin of three clipped at the edges; empty images get the integer
// depths' small start box (even one larger than the image), the float depth's
// whole image. With worker threads rows go to OpenEXR in batches: not a byte may change.
TYPED_TEST(EncoderDepth, CropBoxesAndEveryByteOfTheFile)
{
    using D = TypeParam;
    enum Fill { All, AlphaOnly, ColourOnly };
    const struct {
        int width, height;
        std::vector<std::array<int, 2>> occupied;
        Fill fill;
        Imath::Box2i window, emptyFloat = {};
    } cases[] = {
        {100, 100, {{55, 40}}, All, box(52, 37, 58, 43)},  // columns are searched eight at a time
        {100, 100, {{3, 3}}, All, box(0, 0, 6, 6)},
        {100, 100, {{4, 4}}, All, box(1, 1, 7, 7)},
        {100, 100, {{99, 99}}, All, box(96, 96, 99, 99)},
        {90, 60, {{45, 5}, {2, 30}, {88, 31}, {45, 50}}, All, box(0, 2, 89, 53)},  // widest rows in the middle
        {400, 130, {{0, 3}, {399, 126}}, All, box(0, 0, 399, 129)},                  // many rows at once
        {90, 60, {{80, 10}, {20, 11}, {30, 40}}, All, box(17, 7, 83, 43)},        // first row furthest right
        {90, 60, {{50, 10}, {60, 20}, {5, 40}}, All, box(2, 7, 63, 43)},          // last row furthest left
        {100, 100, {{30, 60}}, AlphaOnly, box(27, 57, 33, 63)},
        {100, 100, {{30, 60}}, ColourOnly, box(27, 57, 33, 63)},
        {50, 1, {{25, 0}}, All, box(22, 0, 28, 0)},
        {100, 100, {}, All, box(0, 0, 8, 8), box(0, 0, 99, 99)},
        {4, 3, {}, All, box(0, 0, 5, 5), box(0, 0, 3, 2)},
        {7, 7, {}, All, box(0, 0, 6, 6), box(0, 0, 6, 6)},
    };
    const auto on = D::kOn, off = typename D::Value{};
    const int saved = Imf::globalThreadCount();
    for (int threads : {0, 3}) {
        Imf::setGlobalThreadCount(threads);
        for (const auto& c : cases) {
            Job<D> job(c.width, c.height);
            for (const auto& p : c.occupied)
                job.set(p[0], p[1], c.fill == AlphaOnly ? off : on, c.fill == AlphaOnly ? off : on / 2,
                        c.fill == All ? on / 4 : off, c.fill == ColourOnly ? off : on);
            ASSERT_EQ(job.encode(), 1);
            SCOPED_TRACE(::testing::Message() << c.width << " x " << c.height << ", " << threads << " threads");
            expectFile(job, D::isFloat && c.occupied.empty() ? c.emptyFloat : c.window);
        }
    }
    Imf::setGlobalThreadCount(saved);
}

// Both ways of converting (the processor's half instructions and the
// portable one) against the oracle, value by value.
template <class T, class Oracle>
void expectConversions(std::vector<T> src, Oracle oracle)
{
    src.resize((src.size() + 3) / 4 * 4);
    const int pixels = static_cast<int>(src.size() / 4);
    std::vector<Imf::Rgba> fast(src.size() / 4), portable(src.size() / 4);
    kt::exr::toHalfPixels(src.data(), pixels, fast.data());
    kt::exr::toHalfPixelsPortable(src.data(), pixels, portable.data());
    auto isNan = [](std::uint16_t bits) { return (bits & 0x7C00) == 0x7C00 && (bits & 0x03FF) != 0; };
    int mismatches = 0;
    for (std::size_t i = 0; i < src.size(); ++i) {
        const Imf::Rgba &f = fast[i / 4], &p = portable[i / 4];
        const half fh[] = {f.r, f.g, f.b, f.a}, ph[] = {p.r, p.g, p.b, p.a};
        const std::uint16_t a = fh[i % 4].bits(), b = ph[i % 4].bits();
        const std::uint16_t want = oracle(src[i]);
        if ((a != b || (isNan(want) ? !isNan(a) : a != want)) && ++mismatches <= 5)
            ADD_FAILURE() << double(src[i]) << " (index " << i << "): " << std::hex << a << " / " << b << ", not " << want;
    }
    EXPECT_EQ(mismatches, 0);
}

// Every byte and word value, floats around every rounding boundary of the
// half range (also with the flush-to-zero modes render hosts often set), and
// NaNs with payloads, which the file keeps as the half type makes them.
TEST(HalfConversion, EveryByteWordAndFloatNearARoundingBoundary)
{
    std::vector<unsigned char> bytes;
    for (int i = 0; i < 256 + 4; ++i) bytes.push_back(static_cast<unsigned char>(i * 7));  // an odd number of pixels
    expectConversions(bytes, [](unsigned char v) { return nearestHalf(static_cast<float>(v) / 255.0f); });
    std::vector<unsigned short> words;
    for (int i = 0; i < 65536 + 4; ++i) words.push_back(static_cast<unsigned short>(i * 40503));
    expectConversions(words, [](unsigned short v) { return nearestHalf(static_cast<float>(v) / 65535.0f); });

    std::vector<float> floats, nans;
    auto add = [](std::vector<float>& to, std::uint32_t bits) {
        for (std::uint32_t b : {bits, bits ^ 0x80000000u}) to.push_back(0.0f), std::memcpy(&to.back(), &b, 4);
    };
    for (std::uint32_t e = 90; e <= 145; ++e)  // from far below the smallest half subnormal to past the largest half
        for (std::uint32_t high = 0; high < 1024; high += 31)
            for (std::uint32_t low : {0x0000u, 0x0001u, 0x0FFFu, 0x1000u, 0x1001u, 0x1FFFu, 0x17FFu, 0x1800u, 0x0800u})
                add(floats, e << 23 | high << 13 | low), add(floats, e << 23 | (1023 - high) << 13 | (low ^ 0x1FFFu));
    for (std::uint32_t bits : {0x00000001u, 0x007FFFFFu, 0x7F7FFFFFu, 0x7F800000u, 0x477FEFFFu, 0x477FF000u})
        add(floats, bits);
    expectConversions(floats, nearestHalf);
#if defined(__x86_64__)
    const unsigned int saved = _mm_getcsr();
    _mm_setcsr(saved | 0x8040u);
    expectConversions(floats, nearestHalf);
    _mm_setcsr(saved);
#endif
    for (std::uint32_t bits : {0x7F800001u, 0x7F802000u, 0x7FA00000u, 0x7FC00000u, 0x7F801FFFu, 0x7FFFFFFFu})
        add(nans, bits);
    expectConversions(nans, [](float v) { return half(v).bits(); });
}

// The program's name decides, by prefix and in any case: the client
// attribute for "ktClient..." (read up to the end of its field; the float
// encoder names it without "KT/"), the region line for "ktExrCropRegion..."
// and "ktAssembleTiles..." when verbose; otherwise the float encoder marks the
// description instead, never past its 250 characters. "ktExrCropRegion_UNDO..."
// makes the float encoder write the whole image and leave the buffer alone.
TYPED_TEST(EncoderDepth, ProgramNameDecidesClientAttributeAndRegionReport)
{
    using D = TypeParam;
    const std::string client = "Studio \xC3\xA9t\xC3\xA9 / Client 7";
    const struct {
        unsigned char verbose;
        const char* appName;
        int size, x, y;  // a square image with one occupied pixel
        const char* line;
        std::size_t text;  // characters in the description before
        bool client = false;
    } cases[] = {
        {1, "ktExrCropRegion", 100, 50, 40, "    EXR region:    min:   47   37    max:   53   43     0.5%\n", 4},
        {7, "KTEXRCROPREGION tool", 10, 5, 5, "    EXR region:    min:    2    2    max:    8    8    49.0%\n", 4},
        {1, "ktassembletiles2", 1500, 1234, 900, "    EXR region:    min: 1231  897    max: 1237  903     0.0%\n", 4},
        {1, "ktExrCropRegion_UNDO", 21, 5, 5, "    EXR region:    min:    2    2    max:    8    8    11.1%\n", 4},
        {0, "ktExrCropRegion", 20, 5, 5, "", 0},  {1, "ktExrCrop", 20, 5, 5, "", 243}, {1, "", 20, 5, 5, "", 244},
        {1, "ktClient", 20, 5, 5, "", 250, true}, {1, "KTCLIENT x", 20, 5, 5, "", 4, true}, {0, "ktClien", 20, 5, 5, "", 4},
        {0, "myktClient", 20, 5, 5, "", 4},
    };
    for (const auto& c : cases) {
        Job<D> job(c.size, c.size);
        job.set(c.x, c.y, D::kOn, D::kOn, D::kOn, D::kOn);
        job.settings.verbose = c.verbose;
        job.settings.appName = c.appName;
        std::strcpy(job.settings.clientName, client.c_str());
        const std::string before(c.text, 'i');
        job.image->imageInfo.infoText = before.c_str();
        const bool whole = D::isFloat && std::strstr(c.appName, "_UNDO");
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(job.encode(), 1);
        SCOPED_TRACE(c.appName);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), whole ? "    EXR NO CROP" : c.line);
        EXPECT_EQ(job.info(), (before + (D::isFloat && !*c.line ? " region" : "")).substr(0, 250));
        if (whole) {
            EXPECT_EQ(std::memcmp(job.original.data(), job.values(), job.original.size() * sizeof(float)), 0);
        }
        expectFile(job, whole ? box(0, 0, c.size - 1, c.size - 1) : box(c.x - 3, c.y - 3, c.x + 3, c.y + 3),
                   c.client ? client.c_str() : nullptr);
    }
    Job<D> job(8, 8);
    job.settings.appName = "ktClient";
    std::memset(job.settings.clientName, 'c', sizeof job.settings.clientName);  // no terminator
    ASSERT_EQ(job.encode(), 1);
    expectFile(job, box(0, 0, 7, 7), std::string(255, 'c').c_str());
}

// After writing, red, green and blue outside the region become 0.04 (the
// region's own last row too); the file holds the image as it was.
TEST(FloatEncoder, PaintsOutsideTheRegionAndTheRegionsLastRow)
{
    const int w = 20, h = 12;
    Job<DepthF> job(w, h);
    job.set(9, 5, 0.0f, 0.0f, 0.0f, 0.25f);
    job.set(11, 6, 0.0f, 0.5f, std::numeric_limits<float>::quiet_NaN(), 0.0f);  // NaN counts as occupied
    for (int x = 0; x < w; ++x) job.set(x, 0, -0.0f, 0.0f, 0.0f, -0.0f);  // -0 is empty; its sign stays
    ASSERT_EQ(job.encode(), 1);
    expectFile(job, box(6, 2, 14, 9));
    for (int i = 0; i < 4 * w * h; ++i) {
        const int x = i / 4 % w, y = i / 4 / w;
        const bool painted = i % 4 != 3 && (x < 6 || x > 14 || y < 2 || y >= 9);
        const float want = painted ? 0.04f : job.original[static_cast<std::size_t>(i)];
        EXPECT_EQ(std::memcmp(&job.values()[i], &want, 4), 0) << "(" << x << ", " << y << ") channel " << i % 4;
    }
}

// A file buffer one byte too small for the file is answered with 4 and a
// cut error text, never with a truncated file; the float image stays unpainted.
TYPED_TEST(EncoderDepth, BufferTooSmallIsReportedNeverTruncated)
{
    using D = TypeParam;
    const std::string text(230, 't');
    auto attempt = [&](unsigned capacity) {
        auto job = std::make_unique<Job<D>>(40, 30);
        for (int y = 3; y < 27; ++y)
            for (int x = 2; x < 39; ++x) job->set(x, y, typename D::Value(x * 3), typename D::Value(y), D::kOn, D::kOn);
        job->image->imageInfo.infoText = text.c_str();
        if (capacity) job->file = kt::test::emptyFileBuffer(capacity);
        job->encode();
        return job;
    };
    const unsigned length = static_cast<unsigned>(attempt(0)->bytes().size());
    // The last byte of a buffer never holds data, and the line-offset table
    // is written last, in 8-byte entries, behind the full length.
    const auto exact = attempt(length + 9);
    ASSERT_EQ(exact->result, 1);
    expectFile(*exact, box(0, 0, 39, 29));
    for (unsigned capacity : {length + 8, 200u}) {
        const auto job = attempt(capacity);
        EXPECT_EQ(job->result, 4) << capacity;
        EXPECT_EQ(job->info(), (text + (D::isFloat ? " region" : "") + " ERR: File buffer too small!").substr(0, 250));
        EXPECT_EQ(job->values()[4 * 40 * 29], 0) << "painted";
    }
}

// Host records the encoders cannot use: metadata OpenEXR refuses, an image
// without pixels (6, the buffer emptied); no file or image, an image larger
// than its memory (4). Without settings or metadata the stamps alone are written.
TYPED_TEST(EncoderDepth, RecordsThatCannotBeWrittenFail)
{
    using D = TypeParam;
    Job<D> job(10, 10);
    job.file->writeString("old content");
    job.metadata->magic = ktExrHeaderMagic;
    job.metadata->count = 1;
    job.metadata->entries[0].name = "dataWindow";  // a standard attribute's name with another type
    job.metadata->entries[0].type = ktExrAttrType::Int;
    EXPECT_EQ(job.encode(), 6);
    EXPECT_EQ(job.file->fileSize, 0) << "the buffer is emptied and nothing is written";
    job.metadata->count = 0;
    job.file->writeString("old content");
    job.image->setHeight(0);
    EXPECT_EQ(job.encode(), 6);
    EXPECT_EQ(job.file->fileSize, 0);
    job.file->writeString("kept");
    job.image->setHeight(10);
    job.image->height = 11;  // a host record out of step with its capacity
    EXPECT_EQ(job.encode(), 4);
    EXPECT_EQ(job.file->fileSize, 4);
    job.image->height = 10;
    EXPECT_EQ(D::encode(nullptr), 4);
    for (imgCallRecord call : {imgCallRecord{nullptr, job.image.get(), job.metadata.get(), &job.settings},
                               imgCallRecord{job.file.get(), nullptr, job.metadata.get(), &job.settings}})
        EXPECT_EQ(D::encode(&call), 4);
    job.set(1, 1, D::kOn, 0, 0, 0);
    ASSERT_EQ(job.encode(false), 1);
    expectFile(job, box(0, 0, 4, 4));
}
