// The encoders' deflater on any bytes: the first two choose where the first
// block ends and the third how much room the stream gets. A stream it
// returns must fit the room and inflate, with zlib and with libdeflate, to
// exactly the input; with room enough it must always return one.
#include <libdeflate.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "plugin/chunkDeflater.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

void checkInflates(const unsigned char* stream, std::size_t size, const unsigned char* in, std::size_t n)
{
    std::vector<unsigned char> back(n + 1);
    uLongf zlibSize = static_cast<uLongf>(back.size());
    require(uncompress(back.data(), &zlibSize, stream, static_cast<uLong>(size)) == Z_OK);
    require(zlibSize == n && std::memcmp(back.data(), in, n) == 0);

    static libdeflate_decompressor* const inflater = libdeflate_alloc_decompressor();
    std::size_t got = 0;
    std::memset(back.data(), 0, back.size());
    require(libdeflate_zlib_decompress(inflater, stream, size, back.data(), back.size(), &got) == LIBDEFLATE_SUCCESS);
    require(got == n && std::memcmp(back.data(), in, n) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 3) return 0;
    const std::size_t n = size - 3;
    const unsigned char* in = data + 3;
    const std::size_t split = n == 0 ? 0 : (static_cast<std::size_t>(data[0]) << 8 | data[1]) % (n + 1);
    static kt::ChunkDeflater deflater;  // kept across inputs, as a writer's thread keeps it across lines

    std::vector<unsigned char> out(n + n / 8 + 64);
    const std::size_t written = deflater.compress(in, n, split, out.data(), out.size());
    require(written != 0 && written <= out.size());
    checkInflates(out.data(), written, in, n);

    // Less room: a stream that fits, or 0, and nothing written past the room.
    const std::size_t room = written * data[2] / 256;
    std::vector<unsigned char> tight(room + 16, 0x5A);
    const std::size_t again = deflater.compress(in, n, split, tight.data(), room);
    for (std::size_t k = room; k < tight.size(); ++k) require(tight[k] == 0x5A);
    if (again != 0) {
        require(again <= room);
        checkInflates(tight.data(), again, in, n);
    }
    return 0;
}
