// The file buffer: sizes, cursor, bounds, byte order. Expected bytes are
// written out by hand; the machine is taken to be little-endian (checked).
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <memory>
#include <ostream>
#include <vector>

#include "image/fileBuffer.h"

using ktP::_imgFileBuffer;
using Bytes = std::vector<unsigned char>;

namespace {

bool machineIsLittleEndian()
{
    const std::uint16_t probe = 1;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

// A buffer holding `bytes` as a loaded file, with room for `spare` more.
std::unique_ptr<_imgFileBuffer> holding(const Bytes& bytes, unsigned spare = 1)
{
    auto b = std::make_unique<_imgFileBuffer>(static_cast<unsigned>(bytes.size()) + spare);
    if (!bytes.empty()) std::memcpy(b->buffer, bytes.data(), bytes.size());
    b->setSizeLoaded(static_cast<long long>(bytes.size()));
    b->setFileSize(static_cast<long long>(bytes.size()));
    return b;
}

Bytes written(const _imgFileBuffer& b) { return Bytes(b.buffer, b.buffer + b.fileSize); }

struct Fields {
    long long bufferSize, sizeLoaded, fileSize, bufPosition;
    bool operator==(const Fields& o) const
    {
        return bufferSize == o.bufferSize && sizeLoaded == o.sizeLoaded && fileSize == o.fileSize &&
               bufPosition == o.bufPosition;
    }
};
std::ostream& operator<<(std::ostream& os, const Fields& f)
{
    return os << "{capacity " << f.bufferSize << ", loaded " << f.sizeLoaded << ", file " << f.fileSize << ", cursor "
              << f.bufPosition << "}";
}
Fields fields(const _imgFileBuffer& b) { return {b.bufferSize, b.sizeLoaded, b.fileSize, b.bufPosition}; }

// One read operation of either family, run at `pos` (sequential ones from a
// cursor placed there). `bits` carries the out-value's bytes, zero-extended:
// in, the value it starts with; out, the value it ends with.
struct ReadOp {
    const char* name;
    int width;
    int size;  // of the out-value
    bool positional;
    std::function<bool(_imgFileBuffer&, int pos, bool bigEndian, std::uint64_t& bits)> run;
};

template <class T, class Call>
ReadOp op(const char* name, int width, bool positional, Call call)
{
    return {name, width, static_cast<int>(sizeof(T)), positional, [=](_imgFileBuffer& b, int pos, bool big, std::uint64_t& bits) {
                if (!positional) b.setBufPosition(pos);
                T value;
                std::memcpy(&value, &bits, sizeof value);
                const bool ok = call(b, value, pos, big);
                bits = 0;
                std::memcpy(&bits, &value, sizeof value);
                return ok;
            }};
}

// Each operation with the bytes 01 02 03 ... read in the buffer's own order and in the other.
struct OrderedRead {
    ReadOp read;
    std::uint64_t own, other;
};

const OrderedRead kReads[] = {
    {op<unsigned char>("readUint8", 1, false, [](auto& b, auto& v, int, bool) { return b.readUint8(v); }), 0x01, 0x01},
    {op<signed char>("readSint8", 1, false, [](auto& b, auto& v, int, bool) { return b.readSint8(v); }), 0x01, 0x01},
    {op<unsigned short>("readUint16", 2, false, [](auto& b, auto& v, int, bool e) { return b.readUint16(v, e); }),
     0x0201, 0x0102},
    {op<short>("readSint16", 2, false, [](auto& b, auto& v, int, bool e) { return b.readSint16(v, e); }), 0x0201,
     0x0102},
    // The buffer's own order keeps the fourth byte on top; the other order drops it.
    {op<unsigned>("readUint24", 3, false, [](auto& b, auto& v, int, bool e) { return b.readUint24(v, e); }),
     0x04030201, 0x010203},
    {op<unsigned>("readUint32", 4, false, [](auto& b, auto& v, int, bool e) { return b.readUint32(v, e); }),
     0x04030201, 0x01020304},
    {op<int>("readSint32", 4, false, [](auto& b, auto& v, int, bool e) { return b.readSint32(v, e); }), 0x04030201,
     0x01020304},
    {op<float>("readfloat", 4, false, [](auto& b, auto& v, int, bool e) { return b.readfloat(v, e); }), 0x04030201,
     0x01020304},
    {op<double>("readdouble", 8, false, [](auto& b, auto& v, int, bool) { return b.readdouble(v); }),
     0x0807060504030201, 0x0807060504030201},
    {op<unsigned char>("readUint8P", 1, true, [](auto& b, auto& v, int p, bool) { return b.readUint8P(v, p); }), 0x01,
     0x01},
    {op<signed char>("readSint8P", 1, true, [](auto& b, auto& v, int p, bool) { return b.readSint8P(v, p); }), 0x01,
     0x01},
    {op<unsigned short>("readUint16P", 2, true, [](auto& b, auto& v, int p, bool e) { return b.readUint16P(v, p, e); }),
     0x0201, 0x0102},
    {op<short>("readSint16P", 2, true, [](auto& b, auto& v, int p, bool e) { return b.readSint16P(v, p, e); }), 0x0201,
     0x0102},
    {op<unsigned>("readUint32P", 4, true, [](auto& b, auto& v, int p, bool e) { return b.readUint32P(v, p, e); }),
     0x04030201, 0x01020304},
    {op<int>("readSint32P", 4, true, [](auto& b, auto& v, int p, bool e) { return b.readSint32P(v, p, e); }),
     0x04030201, 0x01020304},
    {op<float>("readfloatP", 4, true, [](auto& b, auto& v, int p, bool e) { return b.readfloatP(v, p, e); }),
     0x04030201, 0x01020304},
    {op<double>("readdoubleP", 8, true, [](auto& b, auto& v, int p, bool) { return b.readdoubleP(v, p); }),
     0x0807060504030201, 0x0807060504030201},
};

class FileBufferBytes : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!machineIsLittleEndian()) GTEST_SKIP() << "expected bytes are written for a little-endian machine";
    }
};

}  // namespace

TEST(FileBuffer, FreshBufferIsEmptyWithSpareBytes)
{
    _imgFileBuffer b(100);
    ASSERT_NE(b.buffer, nullptr);
    EXPECT_EQ(fields(b), (Fields{100, 0, 0, 0}));
    EXPECT_FALSE(b.isBigEndian);
    EXPECT_EQ(b.name.length, 0);
    EXPECT_EQ(b.name.text[0], 0);
    // The whole allocation, spare bytes included, is writable memory (ASan checks).
    std::memset(b.buffer, 0x5A, 104);
}

TEST(FileBuffer, CapacityZeroRefusesEverything)
{
    for (unsigned size : {0u, 0xFFFFFFFFu, 0xFFFFFFFCu}) {  // the last two would wrap size + 4
        SCOPED_TRACE(size);
        _imgFileBuffer b(size);
        EXPECT_EQ(b.bufferSize, 0);
        unsigned char byte = 7;
        unsigned short word = 9;
        EXPECT_FALSE(b.readUint8(byte));
        EXPECT_FALSE(b.readUint16(word, false));
        EXPECT_EQ(word, 0);
        EXPECT_FALSE(b.writeUint8(byte));
        EXPECT_FALSE(b.writeString(""));  // 0 + 0 >= 0
        EXPECT_EQ(b.setSizeLoaded(5), -1);
        EXPECT_FALSE(b.setBufPosition(0));
        EXPECT_TRUE(b.setFileSize(0));
        EXPECT_FALSE(b.setFileSize(1));
        EXPECT_EQ(b.fileSize, 1);
    }
}

TEST(FileBuffer, SetSizeLoadedClampsBelowCapacity)
{
    const struct { long long in, stored; } cases[] = {
        {100, 99}, {99, 99}, {98, 98}, {150, 99}, {LLONG_MAX, 99}, {0, 0}, {-5, 0}, {LLONG_MIN, 0}};
    _imgFileBuffer b(100);
    for (const auto& c : cases) {
        EXPECT_EQ(b.setSizeLoaded(c.in), c.stored) << c.in;
        EXPECT_EQ(b.sizeLoaded, c.stored);
    }
}

TEST(FileBuffer, SetFileSizeStoresEvenWhenTooLarge)
{
    _imgFileBuffer b(100);
    EXPECT_FALSE(b.setFileSize(150));
    EXPECT_EQ(b.fileSize, 150);
    EXPECT_TRUE(b.setFileSize(100));
    EXPECT_TRUE(b.setFileSize(-3));
    EXPECT_EQ(b.fileSize, -3);
    EXPECT_EQ(b.sizeLoaded, 0);
}

TEST(FileBuffer, SetBufPositionAcceptsZeroToSizeLoaded)
{
    _imgFileBuffer b(100);
    b.setSizeLoaded(10);
    const struct { long long pos; bool ok; long long after; } cases[] = {
        {4, true, 4}, {-1, false, 4}, {11, false, 4}, {10, true, 10}, {0, true, 0}, {LLONG_MAX, false, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(b.setBufPosition(c.pos), c.ok) << c.pos;
        EXPECT_EQ(b.bufPosition, c.after) << c.pos;
    }
}

TEST(FileBuffer, OffsetBufPositionClampsForwardOnly)
{
    const struct { long long start, delta; bool ok; long long after; } cases[] = {
        {8, 1, true, 9},       {8, 2, false, 10},         {8, 50, false, 10},       {10, -11, false, 10},
        {10, -10, true, 0},    {5, 0, true, 5},           {10, 0, true, 10},        {5, LLONG_MAX, false, 10},
        {5, LLONG_MIN, false, 5}, {0, -1, false, 0}};
    for (const auto& c : cases) {
        _imgFileBuffer b(100);
        b.setSizeLoaded(10);
        ASSERT_TRUE(b.setBufPosition(c.start));
        EXPECT_EQ(b.offsetBufPosition(c.delta), c.ok) << c.start << " + " << c.delta;
        EXPECT_EQ(b.bufPosition, c.after) << c.start << " + " << c.delta;
    }
}

TEST(FileBuffer, SetBufPositionWriteJudgesLow32Bits)
{
    const long long k4G = 1LL << 32;
    const struct { long long pos; bool extend; bool ok; long long cursor, loaded; } cases[] = {
        {-1, true, false, 3, 10},         {0, false, true, 0, 10},          {100, false, true, 100, 10},
        {101, false, false, 3, 10},       {20, false, true, 20, 10},        {20, true, true, 20, 20},
        {5, true, true, 5, 10},           {100, true, true, 100, 100},      {k4G + 50, false, true, k4G + 50, 10},
        {k4G + 101, false, false, 3, 10}, {k4G - 1, false, false, 3, 10}};
    for (const auto& c : cases) {
        _imgFileBuffer b(100);
        b.setSizeLoaded(10);
        b.setFileSize(10);
        b.setBufPosition(3);
        EXPECT_EQ(b.setBufPositionWrite(c.pos, c.extend), c.ok) << c.pos;
        EXPECT_EQ(b.bufPosition, c.cursor) << c.pos;
        EXPECT_EQ(b.sizeLoaded, c.loaded) << c.pos;
        EXPECT_EQ(b.fileSize, c.loaded) << c.pos;
    }
}

TEST(FileBuffer, SequentialReadsStopAtSizeLoaded)
{
    auto b = holding(Bytes(10, 0x11), 90);
    ASSERT_TRUE(b->setBufPosition(8));
    unsigned short word = 0;
    EXPECT_TRUE(b->readUint16(word, false));
    EXPECT_EQ(word, 0x1111);
    EXPECT_EQ(b->bufPosition, 10);
    unsigned char byte = 0xAB;
    EXPECT_FALSE(b->readUint8(byte));
    EXPECT_EQ(byte, 0xAB);
    word = 0xBEEF;
    EXPECT_FALSE(b->readUint16(word, false));
    EXPECT_EQ(word, 0);  // the one read that touches its out-value on failure
    EXPECT_EQ(b->bufPosition, 10);
}

TEST_F(FileBufferBytes, BufferOrderFollowsIsBigEndianNotTheArgumentAlone)
{
    auto b = holding({0x01, 0x02, 0x03, 0x04});
    b->isBigEndian = true;  // now `true` means "as the machine stores it"
    unsigned u32 = 0;
    EXPECT_TRUE(b->readUint32(u32, true));
    EXPECT_EQ(u32, 0x04030201u);
    b->setBufPosition(0);
    EXPECT_TRUE(b->readUint32(u32, false));
    EXPECT_EQ(u32, 0x01020304u);
}

TEST_F(FileBufferBytes, DoublesAreWrittenInMachineOrder)
{
    _imgFileBuffer out(20);
    EXPECT_TRUE(out.writedouble(1.0));
    EXPECT_EQ(written(out), (Bytes{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
}

TEST_F(FileBufferBytes, WritesInBothByteOrders)
{
    const struct { bool big; Bytes expected; } cases[] = {
        {false, {0xCD, 0xAB, 0xFE, 0xFF, 0x78, 0x56, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0xC0, 0xBF,
                 0x80, 0xFF}},
        {true, {0xAB, 0xCD, 0xFF, 0xFE, 0x12, 0x34, 0x56, 0x78, 0xFF, 0xFF, 0xFF, 0xFE, 0xBF, 0xC0, 0x00, 0x00,
                0x80, 0xFF}},
    };
    for (const auto& c : cases) {
        _imgFileBuffer b(64);
        EXPECT_TRUE(b.writeUint16(0xABCD, c.big));
        EXPECT_TRUE(b.writeSint16(-2, c.big));
        EXPECT_TRUE(b.writeUint32(0x12345678u, c.big));
        EXPECT_TRUE(b.writeSint32(-2, c.big));
        EXPECT_TRUE(b.writefloat(-1.5f, c.big));
        EXPECT_TRUE(b.writeUint8(0x80));
        EXPECT_TRUE(b.writeSint8(-1));
        EXPECT_EQ(written(b), c.expected) << "bigEndian " << c.big;
        EXPECT_EQ(b.sizeLoaded, 18);
        EXPECT_EQ(b.bufPosition, 18);
    }
}

TEST_F(FileBufferBytes, Uint24WritesThreeBytesAndReadsFour)
{
    _imgFileBuffer b(16);
    EXPECT_TRUE(b.writeUint24(0xAB123456u, false));  // the top byte is not written
    EXPECT_TRUE(b.writeUint24(0x123456u, true));
    EXPECT_TRUE(b.writeUint8(0xAB));
    EXPECT_EQ(written(b), (Bytes{0x56, 0x34, 0x12, 0x12, 0x34, 0x56, 0xAB}));

    ASSERT_TRUE(b.setBufPosition(0));
    unsigned v = 0;
    EXPECT_TRUE(b.readUint24(v, false));
    EXPECT_EQ(v, 0x12123456u);  // the fourth byte rides in the top 8 bits
    EXPECT_EQ(v & 0xFFFFFFu, 0x123456u);
    EXPECT_EQ(b.bufPosition, 3);
    EXPECT_TRUE(b.readUint24(v, true));
    EXPECT_EQ(v, 0x123456u);  // reversed order: three bytes, the fourth dropped
    EXPECT_EQ(b.bufPosition, 6);
    EXPECT_FALSE(b.readUint24(v, true));  // one byte left
    EXPECT_EQ(v, 0x123456u);
}

TEST_F(FileBufferBytes, Uint24AtTheEndOfTheDataLoadsASpareByte)
{
    auto b = holding({0x56, 0x34, 0x12}, 0);  // capacity 3: the fourth byte is a spare one
    EXPECT_EQ(b->sizeLoaded, 2);                // the last byte of the capacity is never data
    unsigned v = 0;
    EXPECT_FALSE(b->readUint24(v, false));
    ASSERT_TRUE(b->setBufPositionWrite(3, true));  // the capacity itself as the end of the data
    ASSERT_TRUE(b->setBufPosition(0));
    EXPECT_TRUE(b->readUint24(v, false));
    EXPECT_EQ(v & 0xFFFFFFu, 0x123456u);
    EXPECT_EQ(b->bufPosition, 3);
}

TEST(FileBuffer, WritesStopOneByteShortOfTheCapacity)
{
    _imgFileBuffer b(8);
    for (int i = 0; i < 7; ++i) EXPECT_TRUE(b.writeUint8(static_cast<unsigned char>(i))) << i;
    EXPECT_FALSE(b.writeUint8(7));
    EXPECT_EQ(fields(b), (Fields{8, 7, 7, 7}));
}

TEST(FileBuffer, WriteBoundForEveryWidth)
{
    // With k bytes of data in a capacity of 12, a write of w bytes fits iff k + w <= 11.
    for (int width : {1, 2, 3, 4, 8}) {
        for (int k : {11 - width, 12 - width}) {
            _imgFileBuffer b(12);
            ASSERT_TRUE(b.setBufPositionWrite(k, true));
            const Fields before = fields(b);
            bool ok = false;
            switch (width) {
                case 1: ok = b.writeUint8(1); break;
                case 2: ok = b.writeUint16(1, false); break;
                case 3: ok = b.writeUint24(1, true); break;
                case 4: ok = b.writefloat(1.0f, true); break;
                default: ok = b.writedouble(1.0); break;
            }
            const bool fits = k + width <= 11;
            EXPECT_EQ(ok, fits) << "width " << width << " after " << k;
            if (fits)
                EXPECT_EQ(fields(b), (Fields{12, k + width, k + width, k + width}));
            else
                EXPECT_EQ(fields(b), before);
        }
    }
}

TEST(FileBuffer, WriteBoundIsTheDataNotTheCursor)
{
    _imgFileBuffer b(10);
    unsigned char eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_TRUE(b.writeBuffer(eight, 8));
    ASSERT_TRUE(b.setBufPositionWrite(0, false));
    EXPECT_FALSE(b.writeUint16(0x9999, false));  // 8 + 2 reaches the capacity, though at 0
    EXPECT_TRUE(b.writeUint8(0x99));
    EXPECT_EQ(fields(b), (Fields{10, 8, 8, 1}));
    EXPECT_EQ(b.buffer[0], 0x99);
    EXPECT_EQ(b.buffer[1], 2);
}

TEST(FileBuffer, CursorBeyondTheDataCannotReachTheLastByte)
{
    _imgFileBuffer b(10);
    for (long long pos : {9LL, 10LL}) {
        ASSERT_TRUE(b.setBufPositionWrite(pos, false));
        EXPECT_FALSE(b.writeUint8(1)) << pos;
        EXPECT_EQ(b.fileSize, 0);
    }
    ASSERT_TRUE(b.setBufPositionWrite(8, false));
    EXPECT_TRUE(b.writeUint8(1));
    EXPECT_EQ(fields(b), (Fields{10, 9, 9, 9}));
}

TEST(FileBuffer, WriteStringCopiesTheCharactersOnly)
{
    _imgFileBuffer b(10);
    std::memset(b.buffer, 0xEE, 10);
    EXPECT_TRUE(b.writeString("abc"));
    EXPECT_TRUE(b.writeString(""));
    EXPECT_TRUE(b.writeString("\xC3\xA9"));
    EXPECT_EQ(written(b), (Bytes{'a', 'b', 'c', 0xC3, 0xA9}));
    EXPECT_EQ(b.buffer[5], 0xEE);
    EXPECT_FALSE(b.writeString(nullptr));
    EXPECT_FALSE(b.writeString("abcde"));  // 5 + 5 reaches 10
    EXPECT_TRUE(b.writeString("abcd"));
    EXPECT_EQ(fields(b), (Fields{10, 9, 9, 9}));
}

TEST(FileBuffer, BlockWritesAndReads)
{
    _imgFileBuffer b(10);
    unsigned char src[4] = {9, 8, 7, 6};
    EXPECT_TRUE(b.writeBuffer(src, 0));
    EXPECT_TRUE(b.writeBuffer(nullptr, 0));
    EXPECT_FALSE(b.writeBuffer(nullptr, 4));
    EXPECT_FALSE(b.writeBuffer(src, -1));
    EXPECT_EQ(fields(b), (Fields{10, 0, 0, 0}));
    EXPECT_TRUE(b.writeBuffer(src, 4));

    ASSERT_TRUE(b.setBufPosition(1));
    unsigned char dst[4] = {0, 0, 0, 0};
    EXPECT_FALSE(b.readBuffer(dst, 4));
    EXPECT_FALSE(b.readBuffer(nullptr, 3));
    EXPECT_FALSE(b.readBuffer(dst, -1));
    EXPECT_TRUE(b.readBuffer(dst, 0));
    EXPECT_EQ(b.bufPosition, 1);
    EXPECT_TRUE(b.readBuffer(dst, 3));
    EXPECT_EQ((Bytes{dst, dst + 4}), (Bytes{8, 7, 6, 0}));
    EXPECT_EQ(b.bufPosition, 4);
}

TEST_F(FileBufferBytes, EveryReadInBothByteOrders)
{
    for (const OrderedRead& r : kReads) {
        for (bool big : {false, true}) {
            auto b = holding({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09});
            b->setBufPosition(5);
            std::uint64_t bits = 0;
            EXPECT_TRUE(r.read.run(*b, 0, big, bits)) << r.read.name;
            EXPECT_EQ(bits, big ? r.other : r.own) << r.read.name << " bigEndian " << big;
            EXPECT_EQ(b->bufPosition, r.read.positional ? 5 : r.read.width) << r.read.name;
        }
    }
}

TEST(FileBuffer, EveryReadStopsAtTheLoadedData)
{
    const std::uint64_t marker = 0xA5A5A5A5A5A5A5A5u;
    for (const OrderedRead& r : kReads) {
        const ReadOp& read = r.read;
        auto b = holding(Bytes(16, 0x22), 4);
        std::uint64_t bits = marker;
        EXPECT_TRUE(read.run(*b, 16 - read.width, false, bits)) << read.name;
        EXPECT_EQ(b->bufPosition, read.positional ? 0 : 16) << read.name;

        const int past = 16 - read.width + 1;
        bits = marker;
        EXPECT_FALSE(read.run(*b, past, true, bits)) << read.name;
        EXPECT_EQ(fields(*b), (Fields{20, 16, 16, read.positional ? 0 : past})) << read.name;
        // The out-value is left alone, except by the sequential 16-bit read, which zeroes it.
        const std::uint64_t mask = read.size == 8 ? ~0ull : (1ull << (8 * read.size)) - 1;
        EXPECT_EQ(bits, std::string(read.name) == "readUint16" ? 0 : marker & mask) << read.name;
    }
}

TEST(FileBuffer, PositionBlockReads)
{
    auto b = holding({0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE, 0x00, 0x00});
    b->setBufPosition(3);
    unsigned char dst[4] = {};
    EXPECT_TRUE(b->readBufferP(dst, 4, 6));
    EXPECT_EQ((Bytes{dst, dst + 4}), (Bytes{0xDC, 0xFE, 0, 0}));
    EXPECT_TRUE(b->readBufferP(dst, 0, 10));
    EXPECT_FALSE(b->readBufferP(nullptr, 4, 6));
    EXPECT_FALSE(b->readBufferP(dst, 4, -1));
    EXPECT_FALSE(b->readBufferP(dst, -1, 2));
    EXPECT_EQ(b->bufPosition, 3);
    b->setSizeLoaded(9);
    EXPECT_FALSE(b->readBufferP(dst, 4, 6));
}

TEST(PluginBuffer, ReadsTheRecordRawFromTheCursor)
{
    Bytes data(ktP::_imgPluginBuffer::kSize + 8);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + 1);
    auto b = holding(data);
    auto record = std::make_unique<ktP::_imgPluginBuffer>();
    std::memset(record->data, 0xEE, sizeof record->data);

    for (short bad : {short{0}, short{-1}, short{ktP::_imgPluginBuffer::kSize + 1}}) {
        EXPECT_FALSE(record->readfromFileBuffer(b.get(), bad)) << bad;
        EXPECT_EQ(b->bufPosition, 0);
        EXPECT_EQ(record->data[0], 0xEE);
    }
    EXPECT_FALSE(record->readfromFileBuffer(nullptr, 4));

    ASSERT_TRUE(b->setBufPosition(3));
    EXPECT_TRUE(record->readfromFileBuffer(b.get(), 5));
    EXPECT_EQ((Bytes{record->data, record->data + 6}), (Bytes{22, 29, 36, 43, 50, 0xEE}));
    EXPECT_EQ(b->bufPosition, 8);

    EXPECT_TRUE(record->readfromFileBuffer(b.get(), ktP::_imgPluginBuffer::kSize));
    EXPECT_EQ(0, std::memcmp(record->data, data.data() + 8, sizeof record->data));
    EXPECT_FALSE(record->readfromFileBuffer(b.get(), 1));  // nothing left
}
