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
struct Depth8 {
    using Buffer = _imgRGBABuffer8;
    using Pixel = _Rgba8;
    using Channel = unsigned char;
    static constexpr int bytes = 4;
    static Pixel get(const Buffer& b, int x, int y) { Pixel p{}; b.read(p, x, y); return p; }
    static Pixel get(const Buffer& b, unsigned i) { Pixel p{}; b.read(p, i); return p; }
};
struct Depth16 {
    using Buffer = _imgRGBABuffer16;
    using Pixel = _Rgba16;
    using Channel = unsigned short;
    static constexpr int bytes = 8;
    static Pixel get(const Buffer& b, int x, int y) { Pixel* p = nullptr; b.read(p, x, y); return *p; }
    static Pixel get(const Buffer& b, unsigned i) { Pixel* p = nullptr; b.read(p, i); return *p; }
};
struct DepthF {
    using Buffer = _imgRGBABufferf;
    using Pixel = _Rgbaf;
    using Channel = float;
    static constexpr int bytes = 16;
    static Pixel get(const Buffer& b, int x, int y) { Pixel* p = nullptr; b.read(p, x, y); return *p; }
    static Pixel get(const Buffer& b, unsigned i) { Pixel* p = nullptr; b.read(p, i); return *p; }
};

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
    for (unsigned capacity : {0u, 1u, 16u}) {
        typename TypeParam::Buffer b(capacity);
        EXPECT_EQ(b.maxPixels, capacity ? capacity : 1u);
        EXPECT_EQ(b.width, 1u);
        EXPECT_EQ(b.height, 1u);
        EXPECT_EQ(b.pixelCount, 1u);
        EXPECT_EQ(b.bytesPerPixel, TypeParam::bytes);
        EXPECT_NE(b.pixels, nullptr);
        EXPECT_EQ(b.descFlag, 0);
        EXPECT_EQ(b.pixelFlags, 0);
        EXPECT_EQ(b.imageInfo.descSize, 528);
        EXPECT_EQ(b.imageInfo.imageWidth, 0);
        EXPECT_EQ(b.imageInfo.imageHeight, 0);
        EXPECT_EQ(b.imageInfo.hasAlpha, 0);
        EXPECT_EQ(b.imageInfo.bitsPerChannel, 8);
        EXPECT_EQ(b.imageInfo.uncompressed, 0);
        EXPECT_EQ(b.imageInfo.infoText.length, 0);
        EXPECT_EQ(b.imageInfo.descIndex, -1);
        for (unsigned char r : b.reserved) EXPECT_EQ(r, 0);
        // The host finds the record four bytes into the object.
        const auto* raw = reinterpret_cast<const unsigned char*>(&b);
        EXPECT_EQ(raw[4] | raw[5] << 8, 528);
        EXPECT_EQ(raw[537], TypeParam::bytes);
    }
}

TYPED_TEST(RgbaBuffer, WritesOutsideTheImageChangeNothing)
{
    typename TypeParam::Buffer b(20);   // four spare pixels behind the image
    auto model = fill4x4<TypeParam>(b);
    using P = typename TypeParam::Pixel;
    struct Case {
        int x, y, index;  // index -1: rejected
    } const cases[] = {
        {0, 0, 0},   {3, 0, 3},  {0, 3, 12}, {3, 3, 15}, {2, 1, 6},        {4, 0, -1},
        {0, 4, -1},  {-1, 0, -1}, {0, -1, -1}, {-1, 1, -1}, {INT_MIN, 3, -1}, {1, INT_MAX, -1},
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
    // Channel numbers beyond alpha select nothing.
    b.write(1, 1, typename TypeParam::Channel(99), static_cast<_ktChannel>(4));
    b.write(1, 1, typename TypeParam::Channel(99), static_cast<_ktChannel>(-1));
    expectPixels<TypeParam>(b, model);
    // By number: 0 .. maxPixels - 1 only.
    b.write(19, pixelNo<P>(8));
    model[19] = pixelNo<P>(8);
    for (int index : {20, -1, INT_MIN, INT_MAX}) {
        b.write(index, pixelNo<P>(7));
        b.write(index, P{}.r, P{}.g, P{}.b, P{}.a);
    }
    expectPixels<TypeParam>(b, model);
    // Inside width and height but beyond the capacity (the host set the size).
    b.height = 8;
    b.write(0, 5, pixelNo<P>(9));
    expectPixels<TypeParam>(b, model);
    EXPECT_TRUE(same(TypeParam::get(b, 0, 5), model[0]));
}

TYPED_TEST(RgbaBuffer, ReadsAcceptANegativeXAndFallBackToTheFirstPixel)
{
    typename TypeParam::Buffer b(16);
    const auto model = fill4x4<TypeParam>(b);
    struct Case {
        int x, y, index;  // index -1: out of range, the first pixel
    } const cases[] = {
        {3, 3, 15}, {-1, 1, 3}, {-4, 1, 0}, {-3, 3, 9}, {-5, 1, -1},      {4, 0, -1},
        {0, 4, -1}, {0, -1, -1}, {-1, 0, -1}, {INT_MIN, 3, -1}, {-1, INT_MIN, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "(" << c.x << ", " << c.y << ")");
        EXPECT_TRUE(same(TypeParam::get(b, c.x, c.y), model[c.index < 0 ? 0 : c.index]));
    }
    EXPECT_TRUE(same(TypeParam::get(b, 16u), model[0]));
    EXPECT_TRUE(same(TypeParam::get(b, 0xFFFFFFFFu), model[0]));
}

TEST(RgbaBufferPacked, ReadsPackRedLowestAndFallBackPerDepth)
{
    _imgRGBABuffer8 b8(16);
    b8.setWidth(4);
    b8.setHeight(4);
    b8.write(3, 0, 0x11, 0x22, 0x33, 0x44);
    EXPECT_EQ(b8.read(3, 0), 0x44332211u);
    EXPECT_EQ(b8.read(-1, 1), 0x44332211u);
    EXPECT_EQ(b8.read(3u), 0x44332211u);
    EXPECT_EQ(b8.read(4, 0), 0xFFCCCCCCu);
    EXPECT_EQ(b8.read(16u), 0xFFCCCCCCu);

    _imgRGBABuffer16 b16(16);
    b16.setWidth(4);
    b16.setHeight(4);
    EXPECT_EQ(b16.read(2, 2), 0xFFFFCCCCCCCCCCCCull);   // fresh content
    b16.write(1, 0, 0x1111, 0x2222, 0x3333, 0x4444);
    EXPECT_EQ(b16.read(1, 0), 0x4444333322221111ull);
    EXPECT_EQ(b16.read(1u), 0x4444333322221111ull);
    EXPECT_EQ(b16.read(0, 4), 0xFFFFCCCCCCCCCCCCull);
    EXPECT_EQ(b16.read(16u), 0xFFFFCCCCCCCCCCCCull);

    _imgRGBABufferf bf(16);
    bf.setWidth(4);
    bf.setHeight(4);
    bf.write(0, 1, 0.5f, -1.0f, 2.0f, 1.0f);
    const _Rgbaf in = bf.read(0, 1), viaIndex = bf.read(4u), outside = bf.read(0, -1), beyond = bf.read(16u);
    EXPECT_TRUE(in.r == 0.5f && in.g == -1.0f && in.b == 2.0f && in.a == 1.0f);
    EXPECT_TRUE(same(viaIndex, in));
    EXPECT_TRUE(outside.r == 0.0f && outside.g == 0.0f && outside.b == 0.0f && outside.a == 0.0f);
    EXPECT_TRUE(same(beyond, outside));
}

TEST(RgbaBuffer16, FreshBufferIsOpaqueLightGreyEverywhere)
{
    _imgRGBABuffer16 b(37);
    for (unsigned i = 0; i < 37; ++i) {
        const _Rgba16 p = Depth16::get(b, i);
        EXPECT_TRUE(p.r == 52428 && p.g == 52428 && p.b == 52428 && p.a == 65535) << i;
    }
}

TYPED_TEST(RgbaBuffer, ClearFillsEveryByteOfTheCapacityAndResetsTheFlags)
{
    typename TypeParam::Buffer b(5);
    b.pixelFlags = 1;
    b.descFlag = 3;
    b.clear();
    EXPECT_EQ(b.pixelFlags, 0);
    EXPECT_EQ(b.descFlag, 3);
    for (int i = 0; i < 5 * TypeParam::bytes; ++i) ASSERT_EQ(b.pixels[i], 0x60) << i;
    const auto p = TypeParam::get(b, 4u);
    std::uint32_t bits;
    std::memcpy(&bits, &p, sizeof bits);   // the first four bytes, whatever the depth
    EXPECT_EQ(bits, 0x60606060u);
}

TEST(RgbaBuffer8, ClearStaysInsideTheImage)
{
    _imgRGBABuffer8 b(3);
    b.allocation[0] = _Rgba8{1, 2, 3, 4};   // the spare pixel ahead of the image
    b.allocation[4] = _Rgba8{5, 6, 7, 8};   // the first spare pixel behind it
    b.clear();
    EXPECT_EQ(b.read(2u), 0x60606060u);
    EXPECT_EQ(b.allocation[0].a, 4);
    EXPECT_EQ(b.allocation[4].r, 5);
}

TEST(RgbaBufferElements, SingleElementWritesStopAtTheCapacity)
{
    _imgRGBABuffer8 b8(4);
    b8.allocation[5] = _Rgba8{9, 9, 9, 9};
    b8.writeByte(15, 0xAB);
    b8.writeByte(16, 0xCD);
    b8.writeByte(0xFFFFFFFFu, 0xCD);
    EXPECT_EQ(b8.read(3u) >> 24, 0xABu);
    EXPECT_EQ(b8.allocation[5].r, 9);

    _imgRGBABuffer16 b16(4);
    b16.writeShort(15, 0x1234);
    b16.writeShort(16, 0x5678);
    EXPECT_EQ(b16.read(3u), 0x1234CCCCCCCCCCCCull);

    _imgRGBABufferf bf(4);
    bf.clear();
    bf.writeFloat(14, 0.25f);
    bf.writeFloat(16, 0.75f);
    EXPECT_EQ(bf.read(3u).b, 0.25f);
}

TEST(RgbaBuffer8, WriteMixBlendsColourKeepsAlphaAndWrapsTheLowByte)
{
    struct Case {
        _Rgba8 before, over;
        float alpha;
        _Rgba8 after;
    } const cases[] = {
        {{100, 100, 100, 7}, {200, 100, 0, 99}, 0.5f, {150, 100, 50, 7}},
        {{100, 100, 100, 7}, {200, 100, 0, 99}, 0.0f, {100, 100, 100, 7}},
        {{100, 100, 100, 7}, {200, 100, 0, 99}, -1.0f, {100, 100, 100, 7}},
        {{100, 100, 100, 7}, {200, 100, 0, 99}, 1.0f, {200, 100, 0, 7}},
        {{10, 20, 30, 7}, {255, 255, 255, 99}, 0.25f, {71, 78, 86, 7}},   // 7.5 + 63.75, 15 + 63.75, 22.5 + 63.75
        {{100, 200, 200, 7}, {200, 100, 0, 99}, 2.0f, {44, 0, 56, 7}},    // 300, 0, -200
        {{100, 200, 200, 7}, {200, 100, 0, 99}, std::numeric_limits<float>::quiet_NaN(), {0, 0, 0, 7}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.alpha);
        _imgRGBABuffer8 b(4);
        b.setWidth(2);
        b.setHeight(2);
        b.write(1, 1, c.before);
        b.writeMix(1, 1, c.over, c.alpha);
        EXPECT_TRUE(same(Depth8::get(b, 1, 1), c.after));
        b.writeMix(2, 1, c.over, c.alpha);
        b.writeMix(-1, 1, c.over, c.alpha);
        EXPECT_TRUE(same(Depth8::get(b, 1, 1), c.after));
    }
}

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
        {14, -1, 2, 14, 1},  {15, -1, 1, 0, 0},  {0, -1, 16, 0, 15}, {0, -1, 15, 0, 15}, {13, -1, 2, 13, 2},
        {13, -1, 3, 13, 2},  {16, -1, 1, 0, 0},  {-1, -1, 2, 0, 0},  {3, -1, 0, 0, 0},   {3, -1, -5, 0, 0},
        {5, -1, INT_MAX, 5, 10},
        {2, 3, 1, 14, 1},    {3, 3, 1, 0, 0},    {2, 3, 5, 14, 1},   {1, 1, 3, 5, 3},    {4, 0, 1, 0, 0},
        {0, -2, 4, 0, 0},
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
    typename TypeParam::Buffer b(16);
    const auto model = fill4x4<TypeParam>(b);
    b.writeMulti(0, nullptr, 3);
    expectPixels<TypeParam>(b, model);
}

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
    src.imageInfo.hasAlpha = 1;
    src.imageInfo.infoText = "half RGBA";

    Buffer small(99);
    small.setHeight(9);
    EXPECT_FALSE(src.copyTo(small, true));
    EXPECT_EQ(small.width, 1u);
    EXPECT_EQ(small.height, 9u);
    EXPECT_EQ(small.pixelCount, 9u);
    EXPECT_EQ(small.descFlag, 0);
    EXPECT_EQ(small.imageInfo.imageWidth, 0);
    EXPECT_EQ(small.imageInfo.infoText.length, 0);

    Buffer tall(100);
    tall.setHeight(50);
    EXPECT_TRUE(src.copyTo(tall, true));
    EXPECT_EQ(tall.width, 2u);    // 10 x 50 did not fit: 100 / 50
    EXPECT_EQ(tall.height, 10u);
    EXPECT_EQ(tall.pixelCount, 20u);
    EXPECT_EQ(tall.maxPixels, 100u);
    EXPECT_EQ(tall.descFlag, 5);
    EXPECT_EQ(tall.pixelFlags, 1);
    EXPECT_EQ(tall.reserved[0], 0);
    EXPECT_EQ(tall.imageInfo.imageWidth, 640);
    EXPECT_EQ(tall.imageInfo.hasAlpha, 1);
    EXPECT_EQ(tall.imageInfo.infoText.length, 9);
    EXPECT_EQ(tall.imageInfo.infoText.text[8], 'A');
    // Only the source's pixelCount pixels travel, whatever the new size.
    for (unsigned n = 0; n < 100; ++n) ASSERT_TRUE(same(TypeParam::get(tall, n), TypeParam::get(src, n))) << n;

    Buffer roomy(400);
    roomy.setWidth(3);
    EXPECT_TRUE(src.copyTo(roomy, false));
    EXPECT_EQ(roomy.width, 10u);
    EXPECT_EQ(roomy.height, 10u);
    EXPECT_EQ(roomy.pixelCount, 100u);

    // A source whose pixelCount understates its size: the height is cut too.
    src.pixelCount = 1;
    Buffer half(50);
    EXPECT_TRUE(src.copyTo(half, true));
    EXPECT_EQ(half.width, 10u);
    EXPECT_EQ(half.height, 5u);
    EXPECT_EQ(half.pixelCount, 50u);
    EXPECT_TRUE(same(TypeParam::get(half, 0u), TypeParam::get(src, 0u)));
}

TEST(RgbaBuffer8, CopyToWithoutPixelsLeavesThemAlone)
{
    _imgRGBABuffer8 src(4), dst(4);
    src.write(0, _Rgba8{1, 2, 3, 4});
    dst.write(0, _Rgba8{9, 9, 9, 9});
    EXPECT_TRUE(src.copyTo(dst, false));
    EXPECT_EQ(dst.read(0u), 0x09090909u);
    EXPECT_TRUE(src.copyTo(dst, true));
    EXPECT_EQ(dst.read(0u), 0x04030201u);
}

TEST(RgbaBuffer8, WidthHeightConstructorTakesTheProductAsCapacity)
{
    _imgRGBABuffer8 b(4u, 3u);
    EXPECT_EQ(b.maxPixels, 12u);
    EXPECT_EQ(b.pixelCount, 12u);
    EXPECT_EQ(b.width, 4u);
    EXPECT_EQ(b.height, 3u);
    b.write(3, 2, _Rgba8{1, 2, 3, 4});
    EXPECT_EQ(b.read(11u), 0x04030201u);

    _imgRGBABuffer8 empty(0u, 5u);
    EXPECT_EQ(empty.maxPixels, 0u);
    EXPECT_EQ(empty.pixelCount, 0u);
    empty.write(0, 0, _Rgba8{1, 2, 3, 4});
    empty.clear();
    EXPECT_EQ(empty.read(0, 0), 0xFFCCCCCCu);
}

TEST(RgbaBuffer8, LetterBoxSharesRowsOfTheSource)
{
    _imgRGBABuffer8 src(4u, 16u);
    for (int n = 0; n < 64; ++n) src.write(n, pixelNo<_Rgba8>(n));

    _imgRGBABuffer8 view(1);
    view.createLetterBox(&src, 8, 10);   // cut to the 8 rows left
    EXPECT_EQ(view.maxPixels, 32u);
    EXPECT_EQ(view.pixelCount, 32u);
    EXPECT_EQ(view.allocation, nullptr);
    EXPECT_EQ(view.width, 1u);
    EXPECT_EQ(view.pixels, src.pixels + 32 * 4);
    view.width = 4;
    view.height = 8;
    EXPECT_TRUE(same(Depth8::get(view, 1, 0), pixelNo<_Rgba8>(33)));
    view.write(3, 7, _Rgba8{1, 1, 1, 1});
    EXPECT_EQ(src.read(3, 15), 0x01010101u);
    view.write(0, 8, _Rgba8{2, 2, 2, 2});   // below the view's rows: nothing
    EXPECT_EQ(src.read(3, 15), 0x01010101u);

    _imgRGBABuffer8 band(1);
    band.createLetterBox(&src, 2, 3);
    EXPECT_EQ(band.maxPixels, 12u);
    EXPECT_EQ(band.pixels, src.pixels + 8 * 4);
    band.createLetterBox(&src, 16, 5);
    EXPECT_EQ(band.maxPixels, 0u);

    // Arguments that would reach outside the source change nothing.
    _imgRGBABuffer8 keep(6);
    unsigned char* own = keep.pixels;
    keep.createLetterBox(&src, 17, 1);
    keep.createLetterBox(&src, -1, 2);
    keep.createLetterBox(&src, 0, -1);
    keep.createLetterBox(nullptr, 0, 1);
    keep.createLetterBox(&keep, 0, 1);
    EXPECT_EQ(keep.pixels, own);
    EXPECT_EQ(keep.maxPixels, 6u);

    view.freeLetterBox();
    EXPECT_EQ(view.maxPixels, 0u);
    EXPECT_EQ(view.width, 0u);
    EXPECT_EQ(view.height, 0u);
    EXPECT_EQ(view.pixelCount, 0u);
    EXPECT_EQ(view.pixels, nullptr);
    EXPECT_EQ(view.read(0u), 0xFFCCCCCCu);
    EXPECT_TRUE(same(Depth8::get(view, 0, 0), _Rgba8{0xCC, 0xCC, 0xCC, 0xFF}));
    view.write(0, _Rgba8{});
    view.clear();
    EXPECT_EQ(src.read(0, 8), 0x84838281u);   // pixelNo(32), untouched
}

TEST(RgbaBufferSize, DoesImageSizeFitUsesTheWrappingProduct)
{
    _imgRGBABuffer8 b(16);
    struct Case {
        unsigned w, h;
        bool fits;
    } const cases[] = {
        {4, 4, true},         {4, 5, false},           {16, 1, true},      {17, 1, false}, {0, 99, true},
        {65536, 65536, true}, {65536, 65537, false},   {0x80000000u, 2, true},
    };
    for (const auto& c : cases) EXPECT_EQ(b.doesImageSizeFit(c.w, c.h), c.fits) << c.w << " x " << c.h;
}

TEST(RgbaBufferSize, SetWidthAndHeightShrinkToTheCapacity)
{
    _imgRGBABuffer8 b(16);
    struct Step {
        bool isWidth;
        int value;
        unsigned w, h, count;
    } const steps[] = {
        {true, 8, 8, 1, 8},   {false, 4, 8, 2, 16},  {true, 20, 8, 2, 16}, {true, 3, 3, 2, 6},
        {false, 7, 3, 5, 15}, {true, -3, 0, 5, 0},   {false, 100, 0, 100, 0}, {true, 1, 0, 100, 0},   // only the dimension being set shrinks
    };
    for (const auto& s : steps) {
        if (s.isWidth)
            b.setWidth(s.value);
        else
            b.setHeight(s.value);
        EXPECT_EQ(b.width, s.w) << s.value;
        EXPECT_EQ(b.height, s.h) << s.value;
        EXPECT_EQ(b.pixelCount, s.count) << s.value;
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
// capacities cannot be had.
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
