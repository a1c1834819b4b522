// The encoders' deflater against two independent inflaters (zlib's and
// libdeflate's), over inputs that reach each of its parts: stored blocks,
// matches at the window's edge, code lengths that need limiting, tiny and
// empty inputs, and one deflater reused from large inputs to small.
#include <gtest/gtest.h>

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "plugin/chunkDeflater.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Input {
    const char* name;
    std::function<Bytes()> make;
};

Bytes randomBytes(std::size_t n, unsigned seed, int alphabet = 256)
{
    std::mt19937 random(seed);
    Bytes b(n);
    for (auto& v : b) v = static_cast<unsigned char>(random() % static_cast<unsigned>(alphabet));
    return b;
}

// Symbol s appears fib(s) times, shuffled: Huffman's code for it would be
// far deeper than deflate's 15 bits.
Bytes fibonacciBytes()
{
    Bytes b;
    std::size_t a = 1, c = 1;
    for (int s = 0; s < 26; ++s, c = a + c, a = c - a) b.insert(b.end(), a, static_cast<unsigned char>(s * 7));
    std::shuffle(b.begin(), b.end(), std::mt19937(5));
    return b;
}

// A random block, then the same block again: its match lies exactly `gap`
// bytes back.
Bytes repeatedAfter(std::size_t gap)
{
    Bytes b = randomBytes(gap, 9);
    b.insert(b.end(), b.begin(), b.begin() + 2000);
    return b;
}

const Input kInputs[] = {
    {"empty", [] { return Bytes(); }},
    {"one byte", [] { return Bytes{42}; }},
    {"seven bytes", [] { return Bytes{1, 2, 3, 1, 2, 3, 1}; }},
    {"eight equal bytes", [] { return Bytes(8, 0x80); }},
    {"a long run", [] { return Bytes(100000, 0x80); }},
    {"random: stored", [] { return randomBytes(30000, 1); }},
    {"random beyond one stored block", [] { return randomBytes(140000, 2); }},
    {"three symbols", [] { return randomBytes(30720, 3, 3); }},
    {"code lengths to limit", fibonacciBytes},
    {"a repeat inside the window", [] { return repeatedAfter(32767); }},
    {"a repeat just outside it", [] { return repeatedAfter(32768); }},
    {"a repeat far outside it", [] { return repeatedAfter(50000); }},
    {"text", [] {
         std::string s;
         for (int i = 0; i < 3000; ++i) s += "line " + std::to_string(i * 7 % 113) + " of the render log\n";
         return Bytes(s.begin(), s.end());
     }},
    {"after the large ones, small again", [] { return randomBytes(300, 4, 4); }},
};

Bytes inflateWithZlib(const Bytes& stream, std::size_t expected)
{
    Bytes out(expected + 1);
    uLongf size = static_cast<uLongf>(out.size());
    if (uncompress(out.data(), &size, stream.data(), static_cast<uLong>(stream.size())) != Z_OK) return {1, 2, 3};
    out.resize(size);
    return out;
}

Bytes inflateWithLibdeflate(const Bytes& stream, std::size_t expected)
{
    libdeflate_decompressor* d = libdeflate_alloc_decompressor();
    Bytes out(expected + 1);
    std::size_t size = 0;
    const auto result = libdeflate_zlib_decompress(d, stream.data(), stream.size(), out.data(), out.size(), &size);
    libdeflate_free_decompressor(d);
    if (result != LIBDEFLATE_SUCCESS) return {1, 2, 3};
    out.resize(size);
    return out;
}

TEST(ChunkDeflater, BothInflatersGetEveryInputBackWithEverySplit)
{
    kt::ChunkDeflater deflater;  // one for all: what earlier inputs leave behind must not matter
    for (const Input& input : kInputs) {
        const Bytes in = input.make();
        for (const std::size_t split : {std::size_t(0), in.size() / 2, std::size_t(1), in.size()}) {
            SCOPED_TRACE(std::string(input.name) + ", split at " + std::to_string(split));
            Bytes stream(in.size() + in.size() / 8 + 64);
            stream.resize(deflater.compress(in.data(), in.size(), split, stream.data(), stream.size()));
            ASSERT_FALSE(stream.empty());
            EXPECT_EQ(inflateWithZlib(stream, in.size()), in);
            EXPECT_EQ(inflateWithLibdeflate(stream, in.size()), in);

            Bytes again(stream.size());
            again.resize(deflater.compress(in.data(), in.size(), split, again.data(), again.size()));
            EXPECT_EQ(again, stream) << "the same input must give the same stream";
        }
    }
}

TEST(ChunkDeflater, AStreamThatDoesNotFitIsRefusedWithoutWritingPastTheRoom)
{
    kt::ChunkDeflater deflater;
    for (const Input& input : kInputs) {
        SCOPED_TRACE(input.name);
        const Bytes in = input.make();
        Bytes full(in.size() + in.size() / 8 + 64);
        const std::size_t size = deflater.compress(in.data(), in.size(), in.size() / 2, full.data(), full.size());
        for (const std::size_t room : {size - 1, size / 2, std::size_t(0)}) {
            Bytes out(room + 64, 0xA5);
            EXPECT_EQ(deflater.compress(in.data(), in.size(), in.size() / 2, out.data(), room), 0u) << room;
            EXPECT_TRUE(std::all_of(out.begin() + static_cast<long>(room), out.end(), [](unsigned char v) { return v == 0xA5; }))
                << "written past a room of " << room;
        }
    }
}

}  // namespace
