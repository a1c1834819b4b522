#include "image/rgbaBuffer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {

using ktP::_imgRGBABuffer16;
using ktP::_imgRGBABuffer8;
using ktP::_imgRGBABufferf;

// What differs between the depths; the expectations of each test are
// written out by hand below.
template <class B, class P, class C, int N>
struct Depth {
    using Buffer = B;
    using Pixel = P;
    using Channel = C;
    static constexpr int bytes = N;
    // Pixel (x, y) or number i, through the copying (8-bit) or pointing read.
    template <class... At>
    static Pixel get(const Buffer& b, At... at)
    {
        Pixel copy{}, *in = &copy;
        if constexpr (N == 4) b.read(copy, at...); else b.read(in, at...);
        return *in;
    }
};
using Depth8 = Depth<_imgRGBABuffer8, _Rgba8, unsigned char, 4>;
using Depth16 = Depth<_imgRGBABuffer16, _Rgba16, unsigned short, 8>;
using DepthF = Depth<_imgRGBABufferf, _Rgbaf, float, 16>;

template <typename P>
P pixelNo(int n)
{
    using C = decltype(P{}.r);
    return P{C(n * 4 + 1), C(n * 4 + 2), C(n * 4 + 3), C(n * 4 + 4)};
}

template <typename P>
bool same(const P& a, const P& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// A 4 x 4 image whose pixel n is pixelNo(n), up to the capacity.
template <typename D>
std::vector<typename D::Pixel> fill4x4(typename D::Buffer& b)
{
    b.setWidth(4);
    b.setHeight(4);
    std::vector<typename D::Pixel> model;
    for (int n = 0; n < static_cast<int>(b.maxPixels); ++n) {
        model.push_back(pixelNo<typename D::Pixel>(n));
        b.write(n, model.back());
    }
    return model;
}

template <typename D>
void expectPixels(const typename D::Buffer& b, const std::vector<typename D::Pixel>& model)
{
    for (unsigned n = 0; n < model.size(); ++n) EXPECT_TRUE(same(D::get(b, n), model[n])) << "pixel " << n;
}

template <typename D>
class RgbaBuffer : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16, DepthF>;
TYPED_TEST_SUITE(RgbaBuffer, Depths);

TYPED_TEST(RgbaBuffer, ConstructionSetsTheRecordAndSubstitutesCapacityZero)
{
    for (unsigned capacity : {0u, 16u}) {
        const typename TypeParam::Buffer b(capacity);
        const imgImageInfo& info = b.imageInfo;
        EXPECT_TRUE(b.maxPixels == (capacity ? capacity : 1u) && b.bytesPerPixel == TypeParam::bytes && b.pixels);
        EXPECT_TRUE(b.width == 1 && b.height == 1 && b.pixelCount == 1 && b.descFlag == 0 && b.pixelFlags == 0);
        EXPECT_TRUE(info.descSize == 528 && info.imageWidth == 0 && info.imageHeight == 0 && info.hasAlpha == 0);
        EXPECT_TRUE(info.bitsPerChannel == 8 && info.uncompressed == 0 && info.infoText.length == 0 && info.descIndex == -1);
        EXPECT_EQ(b.reserved[0] | b.reserved[1] | b.reserved[2] | b.reserved[3], 0);
    }
}

// Writes by (x, y) need 0 <= x < width, 0 <= y < height and a pixel number
// inside the capacity; by number, 0 <= index < maxPixels; channel numbers
// beyond alpha select nothing.
TYPED_TEST(RgbaBuffer, WritesOutsideTheImageChangeNothing)
{
    typename TypeParam::Buffer b(20);   // four spare pixels behind the image
    auto model = fill4x4<TypeParam>(b);
    using P = typename TypeParam::Pixel;
    struct Case {
        int x, y, index;  // index -1: rejected
    } const cases[] = {
        {3, 3, 15}, {2, 1, 6}, {4, 0, -1}, {0, 4, -1}, {-1, 0, -1}, {0, -1, -1}, {-1, 1, -1}, {INT_MIN, 3, -1}, {1, INT_MAX, -1},
    };
    int n = 100;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "(" << c.x << ", " << c.y << ")");
        const P whole = pixelNo<P>(n++), parts = pixelNo<P>(n++);
        b.write(c.x, c.y, whole);
        if (c.index >= 0) model[c.index] = whole;
        expectPixels<TypeParam>(b, model);
        b.write(c.x, c.y, parts.r, parts.g, parts.b, parts.a);
        if (c.index >= 0) model[c.index] = parts;
        expectPixels<TypeParam>(b, model);
        b.write(c.x, c.y, parts.r, ktChannelBlue);
        if (c.index >= 0) model[c.index].b = parts.r;
        expectPixels<TypeParam>(b, model);
    }
    b.write(1, 1, typename TypeParam::Channel(99), static_cast<_ktChannel>(4));
    b.write(1, 1, typename TypeParam::Channel(99), static_cast<_ktChannel>(-1));
    b.write(19, pixelNo<P>(8));
    model[19] = pixelNo<P>(8);
    for (int index : {20, -1, INT_MIN}) {
        b.write(index, pixelNo<P>(7));
        b.write(index, P{}.r, P{}.g, P{}.b, P{}.a);
    }
    b.height = 8;  // inside width and height but beyond the capacity (the host set the size)
    b.write(0, 5, pixelNo<P>(9));
    expectPixels<TypeParam>(b, model);
}

// Reads test only x < width and y < height as signed numbers and the pixel
// number against the capacity: a negative x reaches back into the row before.
// Out of range, the pointer and copy forms give the first pixel.
TYPED_TEST(RgbaBuffer, ReadsAcceptANegativeXAndFallBackToTheFirstPixel)
{
    typename TypeParam::Buffer b(16);
    const auto model = fill4x4<TypeParam>(b);
    struct Case {
        int x, y, index;  // index -1: out of range, the first pixel
    } const cases[] = {
        {3, 3, 15}, {-1, 1, 3}, {-4, 1, 0}, {-3, 3, 9}, {-5, 1, -1}, {4, 0, -1}, {0, 4, -1}, {0, -1, -1}, {-1, 0, -1},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(same(TypeParam::get(b, c.x, c.y), model[c.index < 0 ? 0 : c.index])) << c.x << ", " << c.y;
    EXPECT_TRUE(same(TypeParam::get(b, 16u), model[0]));
}

// The packed reads put red lowest; out of range each depth has its own fallback.
TEST(RgbaBufferPacked, ReadsPackRedLowestAndFallBackPerDepth)
{
    _imgRGBABuffer8 b8(16);
    b8.setWidth(4);
    b8.setHeight(4);
    b8.write(3, 0, 0x11, 0x22, 0x33, 0x44);
    EXPECT_EQ(b8.read(-1, 1), 0x44332211u);
    EXPECT_EQ(b8.read(3u), 0x44332211u);
    EXPECT_EQ(b8.read(4, 0), 0xFFCCCCCCu);
    EXPECT_EQ(b8.read(16u), 0xFFCCCCCCu);

    _imgRGBABuffer16 b16(16);
    b16.setWidth(4);
    b16.setHeight(4);
    for (unsigned i = 0; i < 16; ++i) EXPECT_EQ(b16.read(i), 0xFFFFCCCCCCCCCCCCull) << "fresh pixel " << i;
    b16.write(1, 0, 0x1111, 0x2222, 0x3333, 0x4444);
    EXPECT_EQ(b16.read(1, 0), 0x4444333322221111ull);
    b16.write(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(b16.read(0, 4), 0xFFFFCCCCCCCCCCCCull);
    EXPECT_EQ(b16.read(16u), 0xFFFFCCCCCCCCCCCCull);

    _imgRGBABufferf bf(16);
    bf.setWidth(4);
    bf.setHeight(4);
    bf.write(0, 1, 0.5f, -1.0f, 2.0f, 1.0f);
    const _Rgbaf in = bf.read(0, 1), outside = bf.read(0, -1);
    EXPECT_TRUE(in.r == 0.5f && in.g == -1.0f && in.b == 2.0f && in.a == 1.0f);
    EXPECT_TRUE(same(bf.read(4u), in));
    EXPECT_TRUE(outside.r == 0.0f && outside.g == 0.0f && outside.b == 0.0f && outside.a == 0.0f);
    EXPECT_TRUE(same(bf.read(16u), outside));
}

// The same byte fill, 0x60, in every depth, over the whole capacity and no further.
TYPED_TEST(RgbaBuffer, ClearFillsEveryByteOfTheCapacityAndResetsTheFlags)
{
    typename TypeParam::Buffer b(5);
    b.pixelFlags = 1;
    b.descFlag = 3;
    b.clear();
    EXPECT_TRUE(b.pixelFlags == 0 && b.descFlag == 3);
    for (int i = 0; i < 5 * TypeParam::bytes; ++i) ASSERT_EQ(b.pixels[i], 0x60) << i;

    _imgRGBABuffer8 spare(3);
    spare.allocation[0] = _Rgba8{1, 2, 3, 4};  // the spare pixels ahead of the image and behind it
    spare.allocation[4] = _Rgba8{5, 6, 7, 8};
    spare.clear();
    EXPECT_TRUE(spare.allocation[0].a == 4 && spare.allocation[4].r == 5);
}

// Single elements (bytes, 16-bit channels, floats), four per pixel: the
// bound is the capacity field, whatever block lies behind it.
TEST(RgbaBufferElements, SingleElementWritesStopAtTheCapacity)
{
    _imgRGBABuffer8 b8(4);
    _imgRGBABuffer16 b16(4);
    _imgRGBABufferf bf(4);
    b8.clear();
    bf.clear();
    const std::initializer_list<ktP::_imgRGBABuffer_all*> all = {&b8, &b16, &bf};
    for (auto* b : all) b->maxPixels = 3;
    b8.writeByte(11, 0xAB);
    b8.writeByte(12, 0xCD);
    b16.writeShort(11, 0x1234);
    b16.writeShort(12, 0x5678);
    bf.writeFloat(10, 0.25f);
    bf.writeFloat(12, 0.75f);
    for (auto* b : all) b->maxPixels = 4;
    EXPECT_TRUE(b8.read(2u) == 0xAB606060u && b8.read(3u) == 0x60606060u);
    EXPECT_TRUE(b16.read(2u) == 0x1234CCCCCCCCCCCCull && b16.read(3u) == 0xFFFFCCCCCCCCCCCCull);
    _Rgbaf cleared;
    std::memset(&cleared, 0x60, sizeof cleared);
    EXPECT_TRUE(bf.read(2u).b == 0.25f && same(bf.read(3u), cleared));
}

// old * (1 - alpha) + new * alpha in red, green and blue, truncated, the low
// byte kept without a clamp; alpha <= 0 does nothing, the pixel's alpha is kept.
TEST(RgbaBuffer8, WriteMixBlendsColourKeepsAlphaAndWrapsTheLowByte)
{
    struct Case { _Rgba8 before, over; float alpha; _Rgba8 after; } const cases[] = {
        {{100, 100, 100, 7}, {200, 100, 0, 99}, 0.5f, {150, 100, 50, 7}},
        {{100, 100, 100, 7}, {200, 100, 0, 99}, 0.0f, {100, 100, 100, 7}},
        {{100, 100, 100, 7}, {200, 100, 0, 99}, -1.0f, {100, 100, 100, 7}},
        {{10, 20, 30, 7}, {255, 255, 255, 99}, 0.25f, {71, 78, 86, 7}},   // 7.5 + 63.75, 15 + 63.75, 22.5 + 63.75
        {{100, 200, 200, 7}, {200, 100, 0, 99}, 2.0f, {44, 0, 56, 7}},    // 300, 0, -200
        {{100, 200, 200, 7}, {200, 100, 0, 99}, std::numeric_limits<float>::quiet_NaN(), {0, 0, 0, 7}},
    };
    for (const auto& c : cases) {
        _imgRGBABuffer8 b(4);
        b.setWidth(2);
        b.setHeight(2);
        b.write(1, 1, c.before);
        b.writeMix(1, 1, c.over, c.alpha);
        b.writeMix(2, 1, c.over, c.alpha);
        b.writeMix(-1, 1, c.over, c.alpha);
        EXPECT_TRUE(same(Depth8::get(b, 1, 1), c.after)) << c.alpha;
    }
}

// A run that reaches the last pixel is cut one short of it: writeMulti never writes the last pixel.
TYPED_TEST(RgbaBuffer, WriteMultiNeverWritesTheLastPixel)
{
    using P = typename TypeParam::Pixel;
    std::vector<P> source;
    for (int n = 0; n < 20; ++n) source.push_back(pixelNo<P>(30 + n));
    const char* src = reinterpret_cast<const char*>(source.data());
    struct Case {
        int x, y;    // y < 0: the index form with index x
        int count;
        int first, copied;   // pixels expected to change
    } const cases[] = {
        {14, -1, 2, 14, 1}, {15, -1, 1, 0, 0}, {0, -1, 16, 0, 15}, {13, -1, 2, 13, 2}, {16, -1, 1, 0, 0},
        {-1, -1, 2, 0, 0},  {3, -1, 0, 0, 0},  {3, -1, -5, 0, 0},  {5, -1, INT_MAX, 5, 10},
        {2, 3, 1, 14, 1},   {3, 3, 1, 0, 0},   {1, 1, 3, 5, 3},    {4, 0, 1, 0, 0},    {0, -2, 4, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.x << "," << c.y << " count " << c.count);
        typename TypeParam::Buffer b(16);
        auto model = fill4x4<TypeParam>(b);
        if (c.y == -1)
            b.writeMulti(c.x, src, c.count);
        else
            b.writeMulti(c.x, c.y, src, c.count);
        for (int k = 0; k < c.copied; ++k) model[c.first + k] = source[k];
        expectPixels<TypeParam>(b, model);
    }
}

// copyTo settles the width first, against the destination's old height, then
// the height; it carries the descriptive fields but not the reserved bytes,
// and the source's pixelCount pixels only when asked.
TYPED_TEST(RgbaBuffer, CopyToSettlesWidthBeforeHeight)
{
    using Buffer = typename TypeParam::Buffer;
    Buffer src(100);
    src.setWidth(10);
    src.setHeight(10);
    for (int n = 0; n < 100; ++n) src.write(n, pixelNo<typename TypeParam::Pixel>(n));
    src.descFlag = 5;
    src.pixelFlags = 1;
    src.reserved[0] = 9;
    src.imageInfo.imageWidth = 640;
    src.imageInfo.infoText = "half RGBA";

    Buffer small(99);
    small.setHeight(9);
    EXPECT_FALSE(src.copyTo(small, true));
    EXPECT_TRUE(small.width == 1 && small.height == 9 && small.pixelCount == 9 && small.imageInfo.imageWidth == 0);

    Buffer tall(100);
    tall.setHeight(50);
    EXPECT_TRUE(src.copyTo(tall, true));
    EXPECT_TRUE(tall.width == 2 && tall.height == 10 && tall.pixelCount == 20 && tall.maxPixels == 100);  // 10 x 50 did not fit
    EXPECT_TRUE(tall.descFlag == 5 && tall.pixelFlags == 1 && tall.reserved[0] == 0 && tall.imageInfo.imageWidth == 640);
    EXPECT_TRUE(tall.imageInfo.infoText.length == 9 && tall.imageInfo.infoText.text[8] == 'A');
    for (unsigned n = 0; n < 100; ++n) ASSERT_TRUE(same(TypeParam::get(tall, n), TypeParam::get(src, n))) << n;

    Buffer roomy(400);
    roomy.setWidth(3);
    roomy.write(0, pixelNo<typename TypeParam::Pixel>(200));
    EXPECT_TRUE(src.copyTo(roomy, false));
    EXPECT_TRUE(roomy.width == 10 && roomy.height == 10 && roomy.pixelCount == 100);
    EXPECT_TRUE(same(TypeParam::get(roomy, 0u), pixelNo<typename TypeParam::Pixel>(200)));

    // A source whose pixelCount understates its size: the height is cut too.
    src.pixelCount = 1;
    Buffer half(50);
    EXPECT_TRUE(src.copyTo(half, true));
    EXPECT_TRUE(half.width == 10 && half.height == 5 && half.pixelCount == 50);
}

TEST(RgbaBuffer8, WidthHeightConstructorTakesTheProductAsCapacity)
{
    _imgRGBABuffer8 b(4u, 3u);
    b.write(3, 2, _Rgba8{1, 2, 3, 4});
    EXPECT_TRUE(b.maxPixels == 12 && b.pixelCount == 12 && b.width == 4 && b.height == 3 && b.read(11u) == 0x04030201u);

    _imgRGBABuffer8 empty(0u, 5u);
    EXPECT_EQ(empty.maxPixels + empty.pixelCount, 0u);
    empty.write(0, 0, _Rgba8{1, 2, 3, 4});
    empty.clear();
    EXPECT_EQ(empty.read(0, 0), 0xFFCCCCCCu);
}

// A letterbox is a view on a band of the source's rows, cut at its last row;
// it releases nothing, and freeLetterBox leaves an empty buffer.
TEST(RgbaBuffer8, LetterBoxSharesRowsOfTheSource)
{
    _imgRGBABuffer8 src(4u, 16u);
    for (int n = 0; n < 64; ++n) src.write(n, pixelNo<_Rgba8>(n));

    _imgRGBABuffer8 view(1);
    view.createLetterBox(&src, 8, 10);   // cut to the 8 rows left
    EXPECT_TRUE(view.maxPixels == 32 && view.pixelCount == 32 && view.width == 1 && view.allocation == nullptr);
    EXPECT_EQ(view.pixels, src.pixels + 32 * 4);
    view.width = 4;
    view.height = 8;
    EXPECT_TRUE(same(Depth8::get(view, 1, 0), pixelNo<_Rgba8>(33)));
    view.write(3, 7, _Rgba8{1, 1, 1, 1});
    view.write(0, 8, _Rgba8{2, 2, 2, 2});   // below the view's rows: nothing
    EXPECT_EQ(src.read(3, 15), 0x01010101u);

    _imgRGBABuffer8 band(1);
    band.createLetterBox(&src, 2, 3);
    EXPECT_TRUE(band.maxPixels == 12 && band.pixels == src.pixels + 8 * 4);

    // Arguments that would reach outside the source change nothing.
    _imgRGBABuffer8 keep(6);
    unsigned char* own = keep.pixels;
    keep.createLetterBox(&src, 17, 1);
    keep.createLetterBox(&src, -1, 2);
    keep.createLetterBox(&src, 0, -1);
    keep.createLetterBox(nullptr, 0, 1);
    keep.createLetterBox(&keep, 0, 1);
    EXPECT_TRUE(keep.pixels == own && keep.maxPixels == 6);

    view.freeLetterBox();
    EXPECT_TRUE(view.maxPixels == 0 && view.width == 0 && view.height == 0 && view.pixelCount == 0 && !view.pixels);
    EXPECT_EQ(view.read(0u), 0xFFCCCCCCu);
    EXPECT_TRUE(same(Depth8::get(view, 0, 0), _Rgba8{0xCC, 0xCC, 0xCC, 0xFF}));
    view.write(0, _Rgba8{});
    view.clear();
    EXPECT_EQ(src.read(0, 8), 0x84838281u);   // pixelNo(32), untouched
}

// The fit test takes the 32-bit product as the host computes it, wrapping;
// setting one dimension shrinks only that one, to the capacity over the other.
TEST(RgbaBufferSize, FitAndDimensionsAgainstTheCapacity)
{
    _imgRGBABuffer8 b(16);
    const struct { unsigned w, h; bool fits; } fits[] = {
        {4, 4, true}, {4, 5, false}, {17, 1, false}, {0, 99, true}, {65536, 65536, true}, {65536, 65537, false},
    };
    for (const auto& c : fits) EXPECT_EQ(b.doesImageSizeFit(c.w, c.h), c.fits) << c.w << " x " << c.h;
    const struct { bool isWidth; int value; unsigned w, h, count; } steps[] = {
        {true, 8, 8, 1, 8},   {false, 4, 8, 2, 16}, {true, 20, 8, 2, 16},    {true, 3, 3, 2, 6},
        {false, 7, 3, 5, 15}, {true, -3, 0, 5, 0},  {false, 100, 0, 100, 0}, {true, 1, 0, 100, 0},
    };
    for (const auto& s : steps) {
        s.isWidth ? b.setWidth(s.value) : b.setHeight(s.value);
        EXPECT_TRUE(b.width == s.w && b.height == s.h && b.pixelCount == s.count) << s.isWidth << " " << s.value;
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KT_SANITIZED 1
#endif
#endif

// In a child process with little address space, so that the largest
// capacities cannot be had: every depth is left empty and every access fails.
TEST(RgbaBufferDeathTest, FailedAllocationLeavesAnEmptyBuffer)
{
#ifdef KT_SANITIZED
    GTEST_SKIP() << "sanitizers reserve address space of their own";
#else
    const auto check = [] {
        rlimit limit{1u << 30, 1u << 30};
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(2);
        bool ok = true;
        _imgRGBABuffer8 b8(0xFFFFFFF0u);
        _imgRGBABuffer16 b16(0xFFFFFFF0u);
        _imgRGBABufferf bf(0xFFFFFFF0u);
        for (ktP::_imgRGBABuffer_all* b : {static_cast<ktP::_imgRGBABuffer_all*>(&b8),
                                           static_cast<ktP::_imgRGBABuffer_all*>(&b16),
                                           static_cast<ktP::_imgRGBABuffer_all*>(&bf)})
            ok = ok && b->maxPixels == 0 && b->width == 0 && b->height == 0 && b->pixelCount == 1 && !b->pixels;
        b8.write(0, 0, _Rgba8{});
        b8.clear();
        b16.clear();
        ok = ok && b8.read(0, 0) == 0xFFCCCCCCu && b16.read(0u) == 0xFFFFCCCCCCCCCCCCull;
        _exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(check(), ::testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
