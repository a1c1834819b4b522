#include "image/rgbaBuffer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <limits>
#include <vector>

namespace {

using ktP::_imgRGBABuffer16;
using ktP::_imgRGBABuffer8;
using ktP::_imgRGBABufferf;

template <typename P>
bool same(const P& a, const P& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// What differs between the depths; the expectations are written out in the tests.
template <class B, class P, int N>
struct Depth {
    using Buffer = B;
    using Pixel = P;
    static constexpr int bytes = N;
    // Pixel (x, y) or number i, through the copying (8-bit) or pointing read.
    template <class... At>
    static Pixel get(const Buffer& b, At... at)
    {
        Pixel copy{}, *in = &copy;
        if constexpr (N == 4) b.read(copy, at...); else b.read(in, at...);
        return *in;
    }
    // Pixel number n of the test images: every channel of every pixel differs.
    static Pixel no(int n)
    {
        using C = decltype(P{}.r);
        return P{C(n * 4 + 1), C(n * 4 + 2), C(n * 4 + 3), C(n * 4 + 4)};
    }
    // A 4 x 4 image of pixels no(n), written up to the capacity.
    static std::vector<Pixel> fill4x4(Buffer& b)
    {
        b.setWidth(4);
        b.setHeight(4);
        std::vector<Pixel> model;
        for (int n = 0; n < static_cast<int>(b.maxPixels); ++n) b.write(n, model.emplace_back(no(n)));
        return model;
    }
    static void expect(const Buffer& b, const std::vector<Pixel>& model)
    {
        for (unsigned n = 0; n < model.size(); ++n) EXPECT_TRUE(same(get(b, n), model[n])) << "pixel " << n;
    }
};
using Depth8 = Depth<_imgRGBABuffer8, _Rgba8, 4>;

template <typename D>
class RgbaBuffer : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth<_imgRGBABuffer16, _Rgba16, 8>, Depth<_imgRGBABufferf, _Rgbaf, 16>>;
TYPED_TEST_SUITE(RgbaBuffer, Depths);

TYPED_TEST(RgbaBuffer, ConstructionSetsTheRecordAndSubstitutesCapacityZero)
{
    for (unsigned capacity : {0u, 16u}) {
        const typename TypeParam::Buffer b(capacity);
        const imgImageInfo& info = b.imageInfo;
        EXPECT_TRUE(b.maxPixels == (capacity ? capacity : 1u) && b.bytesPerPixel == TypeParam::bytes && b.pixels);
        EXPECT_TRUE(b.width == 1 && b.height == 1 && b.pixelCount == 1 && b.descFlag == 0 && b.pixelFlags == 0);
        EXPECT_TRUE(info.descSize == 528 && info.imageWidth == 0 && info.hasAlpha == 0 && info.bitsPerChannel == 8);
        EXPECT_TRUE(info.uncompressed == 0 && info.infoText.length == 0 && info.descIndex == -1);
        EXPECT_EQ(b.reserved[0] | b.reserved[1] | b.reserved[2] | b.reserved[3], 0);
    }
}

// Writes by (x, y) need 0 <= x < width, 0 <= y < height and a pixel number
// inside the capacity; by number, 0 <= index < maxPixels; channel numbers
// beyond alpha select nothing.
TYPED_TEST(RgbaBuffer, WritesOutsideTheImageChangeNothing)
{
    typename TypeParam::Buffer b(20);  // four spare pixels behind the image
    auto model = TypeParam::fill4x4(b);
    const struct { int x, y, index; } cases[] = {  // index -1: rejected
        {3, 3, 15}, {2, 1, 6}, {4, 0, -1}, {0, 4, -1}, {-1, 0, -1}, {0, -1, -1}, {-1, 1, -1}, {INT_MIN, 3, -1},
        {1, INT_MAX, -1}};
    int n = 100;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "(" << c.x << ", " << c.y << ")");
        const auto whole = TypeParam::no(n++), parts = TypeParam::no(n++);
        b.write(c.x, c.y, whole);
        if (c.index >= 0) model[c.index] = whole;
        TypeParam::expect(b, model);
        b.write(c.x, c.y, parts.r, parts.g, parts.b, parts.a);
        b.write(c.x, c.y, parts.r, ktChannelBlue);
        if (c.index >= 0) model[c.index] = {parts.r, parts.g, parts.r, parts.a};
        TypeParam::expect(b, model);
    }
    b.write(1, 1, model[5].r, static_cast<_ktChannel>(4));
    b.write(1, 1, model[5].r, static_cast<_ktChannel>(-1));
    b.write(19, model[19] = TypeParam::no(8));
    for (int index : {20, -1, INT_MIN}) b.write(index, TypeParam::no(7));
    for (int index : {20, -1, INT_MIN}) b.write(index, 0, 0, 0, 0);
    b.height = 8;  // inside width and height but beyond the capacity (the host set the size)
    b.write(0, 5, TypeParam::no(9));
    TypeParam::expect(b, model);
}

// Reads test only x < width and y < height as signed numbers and the pixel
// number against the capacity: a negative x reaches back into the row before.
// Out of range, the pointer and copy forms give the first pixel.
TYPED_TEST(RgbaBuffer, ReadsAcceptANegativeXAndFallBackToTheFirstPixel)
{
    typename TypeParam::Buffer b(16);
    const auto model = TypeParam::fill4x4(b);
    const struct { int x, y, index; } cases[] = {  // index 0 also stands for out of range
        {3, 3, 15}, {-1, 1, 3}, {-4, 1, 0}, {-3, 3, 9}, {-5, 1, 0}, {4, 0, 0}, {0, 4, 0}, {0, -1, 0}, {-1, 0, 0},
    };
    for (const auto& c : cases) EXPECT_TRUE(same(TypeParam::get(b, c.x, c.y), model[c.index])) << c.x << ", " << c.y;
    EXPECT_TRUE(same(TypeParam::get(b, 16u), model[0]));
}

// The packed reads put red lowest; out of range each depth has its own fallback.
TEST(RgbaBufferPacked, ReadsPackRedLowestAndFallBackPerDepth)
{
    _imgRGBABuffer8 b8(4u, 4u);
    b8.write(3, 0, 0x11, 0x22, 0x33, 0x44);
    EXPECT_TRUE(b8.read(-1, 1) == 0x44332211u && b8.read(3u) == 0x44332211u);
    EXPECT_TRUE(b8.read(4, 0) == 0xFFCCCCCCu && b8.read(16u) == 0xFFCCCCCCu);

    _imgRGBABuffer16 b16(16);
    _imgRGBABufferf bf(16);
    for (unsigned i = 0; i < 16; ++i) EXPECT_EQ(b16.read(i), 0xFFFFCCCCCCCCCCCCull) << "fresh pixel " << i;
    for (int i : {0, 1}) {  // a 1 x 1 image: pixel 1 lies outside it
        b16.write(i, 0x1111, 0x2222, 0x3333, 0x4444);
        bf.write(i, 0.5f, -1.0f, 2.0f, 1.0f);
    }
    EXPECT_TRUE(b16.read(0, 0) == 0x4444333322221111ull && b16.read(0, 1) == 0xFFFFCCCCCCCCCCCCull);
    EXPECT_TRUE(same(bf.read(0, 0), _Rgbaf{0.5f, -1.0f, 2.0f, 1.0f}) && same(bf.read(16u), _Rgbaf{0, 0, 0, 0}));
    EXPECT_TRUE(same(bf.read(1, 0), _Rgbaf{0, 0, 0, 0}) && same(bf.read(0, 1), _Rgbaf{0, 0, 0, 0}));
}

// clear fills the capacity with 0x60 and no further; single elements (four per
// pixel) are bound by the capacity field, whatever block lies behind it.
TYPED_TEST(RgbaBuffer, ClearAndSingleElementsStopAtTheCapacity)
{
    typename TypeParam::Buffer b(5);
    b.pixelFlags = 1;
    b.descFlag = 3;
    b.clear();
    EXPECT_TRUE(b.pixelFlags == 0 && b.descFlag == 3);
    for (int i = 0; i < 5 * TypeParam::bytes; ++i) ASSERT_EQ(b.pixels[i], 0x60) << i;

    b.maxPixels = 3;
    const auto probe = TypeParam::no(0);
    for (unsigned i : {11u, 12u}) {  // the last element of pixel 2, the first of pixel 3
        if constexpr (TypeParam::bytes == 4) b.writeByte(i, probe.r);
        else if constexpr (TypeParam::bytes == 8) b.writeShort(i, probe.r);
        else b.writeFloat(i, probe.r);
    }
    b.maxPixels = 5;
    auto cleared = TypeParam::get(b, 4u), last = cleared;
    last.a = probe.r;
    EXPECT_TRUE(same(TypeParam::get(b, 2u), last) && same(TypeParam::get(b, 3u), cleared));

    _imgRGBABuffer8 spare(3);
    spare.allocation[0] = _Rgba8{1, 2, 3, 4};  // the spare pixels ahead of the image and behind it
    spare.allocation[4] = _Rgba8{5, 6, 7, 8};
    spare.clear();
    EXPECT_TRUE(spare.allocation[0].a == 4 && spare.allocation[4].r == 5);
}

// old * (1 - alpha) + new * alpha in red, green and blue, truncated, the low
// byte kept without a clamp; alpha <= 0 does nothing, the pixel's alpha is kept.
TEST(RgbaBuffer8, WriteMixBlendsColourKeepsAlphaAndWrapsTheLowByte)
{
    const struct { _Rgba8 before; float alpha; _Rgba8 after; } cases[] = {
        {{100, 100, 100, 7}, 0.5f, {150, 100, 50, 7}},   {{100, 100, 100, 7}, 0.0f, {100, 100, 100, 7}},
        {{100, 100, 100, 7}, -1.0f, {100, 100, 100, 7}}, {{10, 20, 30, 7}, 0.25f, {57, 40, 22, 7}},  // 57.5, 40, 22.5
        {{100, 200, 200, 7}, 2.0f, {44, 0, 56, 7}},  // 300, 0, -200
        {{100, 200, 200, 7}, std::numeric_limits<float>::quiet_NaN(), {0, 0, 0, 7}},
    };
    for (const auto& c : cases) {
        _imgRGBABuffer8 b(2u, 2u);
        b.write(1, 1, c.before);
        for (int x : {1, 2, -1}) b.writeMix(x, 1, _Rgba8{200, 100, 0, 99}, c.alpha);
        EXPECT_TRUE(same(Depth8::get(b, 1, 1), c.after)) << c.alpha;
    }
}

// A run that reaches the last pixel is cut one short of it: writeMulti never writes the last pixel.
TYPED_TEST(RgbaBuffer, WriteMultiNeverWritesTheLastPixel)
{
    std::vector<typename TypeParam::Pixel> source;
    for (int n = 0; n < 20; ++n) source.push_back(TypeParam::no(30 + n));
    const char* src = reinterpret_cast<const char*>(source.data());
    const struct { int x, y, count, first, copied; } cases[] = {  // y -1: the index form with index x
        {14, -1, 2, 14, 1}, {15, -1, 1, 0, 0}, {0, -1, 16, 0, 15}, {13, -1, 2, 13, 2}, {16, -1, 1, 0, 0},
        {-1, -1, 2, 0, 0},  {3, -1, 0, 0, 0},  {3, -1, -5, 0, 0},  {5, -1, INT_MAX, 5, 10},
        {2, 3, 1, 14, 1},   {3, 3, 1, 0, 0},   {1, 1, 3, 5, 3},    {4, 0, 1, 0, 0},    {0, -2, 4, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.x << "," << c.y << " count " << c.count);
        typename TypeParam::Buffer b(16);
        auto model = TypeParam::fill4x4(b);
        c.y == -1 ? b.writeMulti(c.x, src, c.count) : b.writeMulti(c.x, c.y, src, c.count);
        for (int k = 0; k < c.copied; ++k) model[c.first + k] = source[k];
        TypeParam::expect(b, model);
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
    for (int n = 0; n < 100; ++n) src.write(n, TypeParam::no(n));
    src.descFlag = 5;
    src.pixelFlags = 1;
    src.reserved[0] = 9;
    src.imageInfo.infoText = "half RGBA";
    Buffer small(99), tall(100), roomy(400), half(50);
    small.setHeight(9);
    EXPECT_FALSE(src.copyTo(small, true));
    EXPECT_TRUE(small.width == 1 && small.height == 9 && small.pixelCount == 9 && small.imageInfo.infoText.length == 0);

    tall.setHeight(50);
    EXPECT_TRUE(src.copyTo(tall, true));
    EXPECT_TRUE(tall.width == 2 && tall.height == 10 && tall.pixelCount == 20);  // 10 x 50 did not fit
    EXPECT_TRUE(tall.descFlag == 5 && tall.pixelFlags == 1 && tall.reserved[0] == 0);
    EXPECT_TRUE(tall.imageInfo.infoText.length == 9 && tall.imageInfo.infoText.text[8] == 'A');
    for (unsigned n = 0; n < 100; ++n) ASSERT_TRUE(same(TypeParam::get(tall, n), TypeParam::no(n))) << n;

    roomy.setWidth(3);
    roomy.write(0, TypeParam::no(200));
    EXPECT_TRUE(src.copyTo(roomy, false));
    EXPECT_TRUE(roomy.width == 10 && roomy.height == 10 && same(TypeParam::get(roomy, 0u), TypeParam::no(200)));

    src.pixelCount = 1;  // understating the source's size: the height is cut too
    EXPECT_TRUE(src.copyTo(half, true));
    EXPECT_TRUE(half.width == 10 && half.height == 5 && half.pixelCount == 50);
}

// A letterbox is a view on a band of the source's rows, cut at its last row;
// it releases nothing, and freeLetterBox leaves an empty buffer.
TEST(RgbaBuffer8, LetterBoxSharesRowsOfTheSource)
{
    _imgRGBABuffer8 src(4u, 16u), view(1), band(1), keep(6), empty(0u, 5u);
    EXPECT_TRUE(src.maxPixels == 64 && src.pixelCount == 64 && empty.maxPixels + empty.pixelCount == 0);
    for (int n = 0; n < 64; ++n) src.write(n, Depth8::no(n));

    view.createLetterBox(&src, 8, 10);  // cut to the 8 rows left
    EXPECT_TRUE(view.maxPixels == 32 && view.pixelCount == 32 && view.width == 1 && view.allocation == nullptr);
    EXPECT_EQ(view.pixels, src.pixels + 32 * 4);
    view.width = 4;
    view.height = 8;
    view.write(3, 7, _Rgba8{1, 1, 1, 1});
    view.write(0, 8, _Rgba8{2, 2, 2, 2});  // below the view's rows: nothing
    EXPECT_TRUE(src.read(3, 15) == 0x01010101u && same(Depth8::get(view, 1, 0), Depth8::no(33)));
    band.createLetterBox(&src, 2, 3);
    EXPECT_TRUE(band.maxPixels == 12 && band.pixels == src.pixels + 8 * 4);

    // Arguments that would reach outside the source change nothing.
    unsigned char* own = keep.pixels;
    const struct { _imgRGBABuffer8* source; int first, count; } bad[] = {
        {&src, 17, 1}, {&src, -1, 2}, {&src, 0, -1}, {nullptr, 0, 1}, {&keep, 0, 1}};
    for (const auto& c : bad) keep.createLetterBox(c.source, c.first, c.count);
    EXPECT_TRUE(keep.pixels == own && keep.maxPixels == 6);

    view.freeLetterBox();
    EXPECT_TRUE(view.maxPixels == 0 && view.width == 0 && view.height == 0 && view.pixelCount == 0 && !view.pixels);
    EXPECT_TRUE(view.read(0u) == 0xFFCCCCCCu && same(Depth8::get(view, 0, 0), _Rgba8{0xCC, 0xCC, 0xCC, 0xFF}));
    for (_imgRGBABuffer8* b : {&view, &empty}) {
        b->write(0, _Rgba8{});
        b->clear();
    }
    EXPECT_EQ(src.read(0, 8), 0x84838281u);  // pixel 32, untouched
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

#ifndef __has_feature
#define __has_feature(x) 0
#endif

// In a child process with little address space the largest capacities cannot
// be had: every depth is left empty, and every access fails without harm.
TEST(RgbaBufferDeathTest, FailedAllocationLeavesAnEmptyBuffer)
{
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
    GTEST_SKIP() << "the sanitizer reserves address space of its own";
#else
    const auto check = [] {
        rlimit limit{1u << 30, 1u << 30};
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(2);
        _imgRGBABuffer8 b8(0xFFFFFFF0u);
        _imgRGBABuffer16 b16(0xFFFFFFF0u);
        _imgRGBABufferf bf(0xFFFFFFF0u);
        bool ok = true;
        for (ktP::_imgRGBABuffer_all* b : std::initializer_list<ktP::_imgRGBABuffer_all*>{&b8, &b16, &bf})
            ok = ok && b->maxPixels == 0 && b->width == 0 && b->height == 0 && b->pixelCount == 1 && !b->pixels;
        b8.write(0, 0, _Rgba8{});
        b8.clear();
        b16.clear();
        _exit(ok && b8.read(0, 0) == 0xFFCCCCCCu && b16.read(0u) == 0xFFFFCCCCCCCCCCCCull ? 0 : 1);
    };
    EXPECT_EXIT(check(), ::testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
