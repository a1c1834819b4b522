// The file buffer: sizes, cursor, bounds, byte order. Expected bytes are
// written out by hand; the machine is taken to be little-endian (checked).
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "image/fileBuffer.h"

using ktP::_imgFileBuffer;
using Bytes = std::vector<unsigned char>;

namespace {

// A buffer holding `bytes` as a loaded file, with room for `spare` more.
std::unique_ptr<_imgFileBuffer> holding(const Bytes& bytes, unsigned spare = 1)
{
    auto b = std::make_unique<_imgFileBuffer>(static_cast<unsigned>(bytes.size()) + spare);
    std::memcpy(b->buffer, bytes.data(), bytes.size());
    b->setSizeLoaded(static_cast<long long>(bytes.size()));
    b->setFileSize(static_cast<long long>(bytes.size()));
    return b;
}

Bytes written(const _imgFileBuffer& b) { return Bytes(b.buffer, b.buffer + b.fileSize); }

// capacity, loaded, file size, cursor
using Fields = std::array<long long, 4>;
Fields fields(const _imgFileBuffer& b) { return {b.bufferSize, b.sizeLoaded, b.fileSize, b.bufPosition}; }

// One read run at `pos` (the sequential ones from a cursor placed there). `bits` holds the out-value's bytes,
// zero-extended, before and after; `own` and `other` are the results for the bytes 01 02 03 ... in the buffer's
// own order and in the other.
struct Read {
    const char* name;
    int width, size;
    bool positional;
    bool (*run)(_imgFileBuffer& b, int pos, bool bigEndian, std::uint64_t& bits);
    std::uint64_t own, other;
};

#define KT_READ(T, width, positional, call, own, other)                                \
    Read{#call, width, sizeof(T), positional,                                          \
         [](_imgFileBuffer& b, int p, [[maybe_unused]] bool e, std::uint64_t& bits) { \
             if (!positional) b.setBufPosition(p);                                     \
             T v;                                                                      \
             std::memcpy(&v, &bits, sizeof v);                                         \
             const bool ok = b.call;                                                   \
             bits = 0;                                                                 \
             std::memcpy(&bits, &v, sizeof v);                                         \
             return ok;                                                                \
         },                                                                            \
         own, other}

const Read kReads[] = {
    KT_READ(unsigned char, 1, false, readUint8(v), 0x01, 0x01),
    KT_READ(signed char, 1, false, readSint8(v), 0x01, 0x01),
    KT_READ(unsigned short, 2, false, readUint16(v, e), 0x0201, 0x0102),
    KT_READ(short, 2, false, readSint16(v, e), 0x0201, 0x0102),
    // The buffer's own order keeps the fourth byte on top; the other order drops it.
    KT_READ(unsigned, 3, false, readUint24(v, e), 0x04030201, 0x010203),
    KT_READ(unsigned, 4, false, readUint32(v, e), 0x04030201, 0x01020304),
    KT_READ(int, 4, false, readSint32(v, e), 0x04030201, 0x01020304),
    KT_READ(float, 4, false, readfloat(v, e), 0x04030201, 0x01020304),
    KT_READ(double, 8, false, readdouble(v), 0x0807060504030201, 0x0807060504030201),
    KT_READ(unsigned char, 1, true, readUint8P(v, p), 0x01, 0x01),
    KT_READ(signed char, 1, true, readSint8P(v, p), 0x01, 0x01),
    KT_READ(unsigned short, 2, true, readUint16P(v, p, e), 0x0201, 0x0102),
    KT_READ(short, 2, true, readSint16P(v, p, e), 0x0201, 0x0102),
    KT_READ(unsigned, 4, true, readUint32P(v, p, e), 0x04030201, 0x01020304),
    KT_READ(int, 4, true, readSint32P(v, p, e), 0x04030201, 0x01020304),
    KT_READ(float, 4, true, readfloatP(v, p, e), 0x04030201, 0x01020304),
    KT_READ(double, 8, true, readdoubleP(v, p), 0x0807060504030201, 0x0807060504030201),
};
#undef KT_READ

class FileBufferBytes : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__) GTEST_SKIP() << "expected bytes are written for little-endian";
    }
};

}  // namespace

TEST(FileBuffer, FreshBufferIsEmptyAndCapacityZeroRefusesEverything)
{
    _imgFileBuffer b(100);
    EXPECT_EQ(fields(b), (Fields{100, 0, 0, 0}));
    EXPECT_TRUE(!b.isBigEndian && b.name.length == 0 && b.name.text[0] == 0);
    std::memset(b.buffer, 0x5A, 104);  // the spare bytes are allocated too (ASan checks)

    for (unsigned size : {0u, 0xFFFFFFFFu, 0xFFFFFFFCu}) {  // the last two would wrap size + 4
        _imgFileBuffer empty(size);
        unsigned char byte = 7;
        EXPECT_TRUE(empty.bufferSize == 0 && !empty.readUint8(byte) && !empty.writeUint8(byte)) << size;
        EXPECT_TRUE(!empty.writeString("") && empty.setSizeLoaded(5) == -1 && !empty.setBufPosition(0)) << size;
    }
}

// sizeLoaded stays below the capacity and above -1; fileSize is stored even when too large.
TEST(FileBuffer, SizesAreClampedOrReported)
{
    _imgFileBuffer b(100);
    const long long cases[][2] = {{100, 99}, {99, 99}, {LLONG_MAX, 99}, {0, 0}, {-5, 0}};
    for (const auto& c : cases) EXPECT_TRUE(b.setSizeLoaded(c[0]) == c[1] && b.sizeLoaded == c[1]) << c[0];
    EXPECT_TRUE(!b.setFileSize(150) && b.fileSize == 150 && b.setFileSize(100));
}

// Positions 0..sizeLoaded are valid; moving forward onto or past the end
// clamps the cursor there and fails, moving before 0 fails in place.
TEST(FileBuffer, ReadCursorPositioning)
{
    const struct { long long start, arg; bool relative, ok; long long after; } cases[] = {
        {4, 10, false, true, 10}, {4, 11, false, false, 4}, {4, -1, false, false, 4}, {4, 0, false, true, 0},
        {8, 1, true, true, 9},    {8, 2, true, false, 10},  {8, 50, true, false, 10}, {10, -11, true, false, 10},
        {10, -10, true, true, 0}, {5, 0, true, true, 5},    {5, LLONG_MAX, true, false, 10},
        {5, LLONG_MIN, true, false, 5},
    };
    for (const auto& c : cases) {
        _imgFileBuffer b(100);
        b.setSizeLoaded(10);
        ASSERT_TRUE(b.setBufPosition(c.start));
        EXPECT_EQ(c.relative ? b.offsetBufPosition(c.arg) : b.setBufPosition(c.arg), c.ok) << c.start << " / " << c.arg;
        EXPECT_EQ(b.bufPosition, c.after) << c.start << " / " << c.arg;
    }
}

// Any position up to the capacity, judged by its low 32 bits; with extend a
// position past the data makes the gap count as written.
TEST(FileBuffer, SetBufPositionWriteJudgesLow32Bits)
{
    const long long k4G = 1LL << 32;
    const struct { long long pos; bool extend, ok; long long cursor, loaded; } cases[] = {
        {-1, true, false, 3, 10},    {100, false, true, 100, 10},          {101, false, false, 3, 10},
        {20, false, true, 20, 10},   {20, true, true, 20, 20},             {5, true, true, 5, 10},
        {100, true, true, 100, 100}, {k4G + 50, false, true, k4G + 50, 10}, {k4G - 1, false, false, 3, 10}};
    for (const auto& c : cases) {
        _imgFileBuffer b(100);
        b.setSizeLoaded(10);
        b.setFileSize(10);
        b.setBufPosition(3);
        EXPECT_EQ(b.setBufPositionWrite(c.pos, c.extend), c.ok) << c.pos;
        EXPECT_EQ(fields(b), (Fields{100, c.loaded, c.loaded, c.cursor})) << c.pos;
    }
}

// Every write in both byte orders, on a buffer taking either order as its own:
// the bytes are reversed exactly when the two differ.
TEST_F(FileBufferBytes, WritesInBothByteOrders)
{
    const Bytes own = {0xCD, 0xAB, 0xFE, 0xFF, 0x56, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12, 0xFE, 0xFF,
                       0xFF, 0xFF, 0x00, 0x00, 0xC0, 0xBF, 0x80, 0xFF, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    const Bytes other = {0xAB, 0xCD, 0xFF, 0xFE, 0x12, 0x34, 0x56, 0x12, 0x34, 0x56, 0x78, 0xFF, 0xFF,
                         0xFF, 0xFE, 0xBF, 0xC0, 0x00, 0x00, 0x80, 0xFF, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    for (int order = 0; order < 4; ++order) {
        const bool machineBig = order & 1, big = order & 2;
        _imgFileBuffer b(64);
        b.isBigEndian = machineBig;
        EXPECT_TRUE(b.writeUint16(0xABCD, big) && b.writeSint16(-2, big));
        EXPECT_TRUE(b.writeUint24(0xAB123456u, big));  // the top byte is not written
        EXPECT_TRUE(b.writeUint32(0x12345678u, big) && b.writeSint32(-2, big) && b.writefloat(-1.5f, big));
        EXPECT_TRUE(b.writeUint8(0x80) && b.writeSint8(-1) && b.writedouble(1.0));  // double: always machine order
        EXPECT_EQ(written(b), big == machineBig ? own : other) << "isBigEndian " << machineBig << ", bigEndian " << big;
        EXPECT_EQ(fields(b), (Fields{64, 29, 29, 29}));
    }
}

// Every read in both byte orders, on a buffer taking either order as its own.
// A read ending exactly at sizeLoaded succeeds, one byte further fails and
// changes nothing; the out-value is left alone then, except by the
// sequential 16-bit read, which zeroes it.
TEST_F(FileBufferBytes, EveryReadInBothByteOrdersUpToTheLoadedData)
{
    const std::uint64_t marker = 0xA5A5A5A5A5A5A5A5u;
    for (const Read& r : kReads) {
        for (int order = 0; order < 4; ++order) {
            const bool machineBig = order & 1, big = order & 2;
            auto b = holding({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09});
            b->isBigEndian = machineBig;
            b->setBufPosition(5);
            std::uint64_t bits = 0;
            EXPECT_TRUE(r.run(*b, 0, big, bits)) << r.name;
            EXPECT_EQ(bits, big == machineBig ? r.own : r.other) << r.name << " " << machineBig << big;
            EXPECT_EQ(b->bufPosition, r.positional ? 5 : r.width) << r.name;
        }
        auto b = holding(Bytes(16, 0x22), 4);
        std::uint64_t bits = marker;
        EXPECT_TRUE(r.run(*b, 16 - r.width, false, bits)) << r.name;
        EXPECT_EQ(b->bufPosition, r.positional ? 0 : 16) << r.name;
        const int past = 16 - r.width + 1;
        bits = marker;
        EXPECT_FALSE(r.run(*b, past, true, bits)) << r.name;
        EXPECT_EQ(fields(*b), (Fields{20, 16, 16, r.positional ? 0 : past})) << r.name;
        const std::uint64_t mask = r.size == 8 ? ~0ull : (1ull << (8 * r.size)) - 1;
        EXPECT_EQ(bits, std::strcmp(r.name, "readUint16(v, e)") == 0 ? 0 : marker & mask) << r.name;
    }
}

// The bound is the data as a whole (fileSize), wherever the cursor stands: a
// write of n bytes fits iff the data stays below the capacity (the last byte
// never holds data), also into the middle; a cursor parked beyond the data may
// write up to the spare bytes behind the capacity, but never outside the allocation.
TEST(FileBuffer, WriteBoundIsTheDataNotTheCursor)
{
    struct Row {
        int data, cursor, width;
        bool ok;
        Fields after;
    };
    std::vector<Row> rows = {
        {8, 0, 2, false, {10, 8, 8, 0}},    // 8 + 2 reaches the capacity, though written at 0
        {8, 0, 1, true, {10, 8, 8, 1}},     // inside the data: nothing grows
        {0, 9, 1, true, {10, 10, 10, 10}},  // parked at the last byte
        {5, 9, 4, true, {10, 13, 13, 13}},  // 5 + 4 stays below the capacity
        {0, 10, 4, true, {10, 14, 14, 14}}, // at the capacity, into the spare bytes
        {0, 10, 8, false, {10, 0, 0, 10}},  // would leave the allocation
    };
    for (int n : {1, 2, 3, 4, 8}) {  // appending n bytes: up to the last byte but one, and one byte further
        rows.push_back({9 - n, 9 - n, n, true, {10, 9, 9, 9}});
        rows.push_back({10 - n, 10 - n, n, false, {10, 10 - n, 10 - n, 10 - n}});
    }
    double nines;
    std::memset(&nines, 0x99, sizeof nines);
    for (const Row& r : rows) {
        _imgFileBuffer b(10);
        const Bytes ones(static_cast<size_t>(r.data), 1);
        ASSERT_TRUE(b.writeBuffer(const_cast<unsigned char*>(ones.data()), r.data));
        ASSERT_TRUE(b.setBufPositionWrite(r.cursor, false));
        const bool ok = r.width == 1 ? b.writeUint8(0x99)
                      : r.width == 2 ? b.writeUint16(0x9999, false)
                      : r.width == 3 ? b.writeUint24(0x999999u, true)
                      : r.width == 4 ? b.writeUint32(0x99999999u, false)
                                     : b.writedouble(nines);
        EXPECT_EQ(ok, r.ok) << r.data << " bytes, cursor " << r.cursor << ", width " << r.width;
        EXPECT_EQ(fields(b), r.after) << r.data << " bytes, cursor " << r.cursor << ", width " << r.width;
        if (ok) {
            EXPECT_EQ(b.buffer[r.cursor], 0x99);
        }
    }
}

// Strings go without their terminating zero; null and negative counts are refused.
TEST(FileBuffer, StringAndBlockTransfers)
{
    _imgFileBuffer b(10);
    std::memset(b.buffer, 0xEE, 10);
    unsigned char src[4] = {0xC3, 0xA9, 7, 6}, dst[4] = {0, 0, 0, 0};
    EXPECT_TRUE(b.writeString("ab") && b.writeString("") && b.writeBuffer(src, 0) && b.writeBuffer(nullptr, 0));
    EXPECT_TRUE(!b.writeString(nullptr) && !b.writeBuffer(nullptr, 4) && !b.writeBuffer(src, -1));
    EXPECT_TRUE(b.writeBuffer(src, 2));
    EXPECT_TRUE(written(b) == (Bytes{'a', 'b', 0xC3, 0xA9}) && b.buffer[4] == 0xEE);
    EXPECT_FALSE(b.writeString("abcdef"));  // 4 + 6 reaches 10

    ASSERT_TRUE(b.setBufPosition(1));
    EXPECT_TRUE(!b.readBuffer(dst, 4) && !b.readBuffer(nullptr, 3) && !b.readBuffer(dst, -1) && b.readBuffer(dst, 3));
    EXPECT_TRUE((Bytes{dst, dst + 4}) == (Bytes{'b', 0xC3, 0xA9, 0}) && b.bufPosition == 4);

    EXPECT_TRUE(b.readBufferP(dst, 2, 2) && b.readBufferP(dst, 0, 4));
    EXPECT_EQ((Bytes{dst, dst + 2}), (Bytes{0xC3, 0xA9}));
    const int bad[][2] = {{3, 2}, {2, -1}, {-1, 2}};  // {count, pos}
    for (const auto& c : bad) EXPECT_FALSE(b.readBufferP(dst, c[0], c[1])) << c[0] << " at " << c[1];
    EXPECT_TRUE(!b.readBufferP(nullptr, 1, 0) && b.bufPosition == 4);
    EXPECT_TRUE(b.writeString("abcde") && fields(b) == (Fields{10, 9, 9, 9}));  // up to the last byte but one
}

// The record is the host's: as many bytes as asked for land in it from its
// first byte, whatever its size (3000 here, beyond any size of our own).
TEST(PluginBuffer, ReadsTheRecordRawFromTheCursor)
{
    constexpr short kRecord = 3000;
    Bytes data(kRecord + 8);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + 1);
    auto b = holding(data);
    Bytes host(kRecord + 1, 0xEE);
    auto* record = reinterpret_cast<ktP::_imgPluginBuffer*>(host.data());

    for (short bad : {short{0}, short{-1}}) EXPECT_FALSE(record->readfromFileBuffer(b.get(), bad));
    EXPECT_TRUE(!record->readfromFileBuffer(nullptr, 4) && b->bufPosition == 0 && host[0] == 0xEE);

    EXPECT_TRUE(b->setBufPosition(3) && record->readfromFileBuffer(b.get(), 5));
    EXPECT_EQ((Bytes{host.begin(), host.begin() + 6}), (Bytes{22, 29, 36, 43, 50, 0xEE}));
    EXPECT_TRUE(record->readfromFileBuffer(b.get(), kRecord));
    EXPECT_TRUE(std::memcmp(host.data(), data.data() + 8, kRecord) == 0 && host[kRecord] == 0xEE);
    EXPECT_FALSE(record->readfromFileBuffer(b.get(), 1));  // nothing left
}
