// The encoders' own deflate: a zlib stream of a chunk's predicted bytes, as
// zlib's and libdeflate's inflaters read it.
//
// Why not libdeflate's compressor: a ZIP chunk of half pixels holds two
// different kinds of bytes -- the low bytes of every half first, then the high
// bytes -- and its matches are short repeats at many distances. libdeflate
// needs its slow lazy levels to come out no larger than OpenEXR's zlib on
// such bytes (lines of 8-bit values made half are the worst case). Looking
// for long repeats by their next seven bytes and for short ones only close
// by, and giving each kind of byte a Huffman block of its own, gives smaller
// chunks than zlib's in a third of its time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kt {

class ChunkDeflater {
public:
    // Writes the zlib stream of `in` (n bytes) to `out`, which has room for
    // `room` bytes: one block for in[0, split) and one for in[split, n) (a
    // split of 0 or n makes one block). Returns the stream's size, or 0 when
    // it would not fit in `room` (nothing beyond `room` is written). Only when
// two blocks come out smaller than one is the split kept.
    std::size_t compress(const unsigned char* in, std::size_t n, std::size_t split, unsigned char* out,
                         std::size_t room);

private:
    // A match, and the literals that come before it; length 0: literals only.
    struct Sequence {
        std::uint32_t literals;
        std::uint16_t length;
        std::uint16_t distance;
    };
    // How often each literal/length and distance symbol is sent.
    struct Frequencies {
        std::uint32_t literal[286];
        std::uint32_t distance[30];
    };
    // A block's way of coding its sequences, chosen by cost in bits.
    struct BlockCode {
        enum Kind { stored, fixed, dynamic } kind;
        std::uint64_t bits;
        std::uint64_t headerBits;  // of the dynamic code's header, whichever kind won
        // 288 literal/length symbols: the fixed code has two that are never sent.
        std::uint8_t literalLength[288], distanceLength[30];
        std::uint16_t literalCode[288], distanceCode[30];
        // The dynamic header: the counts, the code-length code, and the
        // lengths run-length coded.
        int literalCount, distanceCount, lengthCount, symbols;
        std::uint8_t lengthLength[19];
        std::uint16_t lengthCode[19];
        std::uint8_t symbol[286 + 30], extra[286 + 30];
    };
    class BitWriter;

    // Fills sequences_ and frequency_ for in[0, split) and in[split, n);
    // returns where the second part's sequences start.
    std::size_t findSequences(const unsigned char* in, std::size_t n, std::size_t split, std::int64_t base);
    static void planBlock(const Frequencies& frequencies, std::size_t bytes, BlockCode& code);
    bool writeBlock(BitWriter& bits, BlockCode& code, const unsigned char* in, std::size_t begin,
                    std::size_t end, std::size_t firstSequence, std::size_t endSequence, bool last);

    // Hash chains over the input: head_ holds, per hash, the newest position
    // plus the call's base; prev_ the one before it with the same hash;
    // nearHead_ the newest position per hash of three bytes.
    std::vector<std::int32_t> head_;
    std::vector<std::int32_t> prev_;
    std::vector<std::int32_t> nearHead_;
    int hashBits_ = 0;  // head_ has 2^hashBits_ entries, nearHead_ half as many
    std::int64_t nextBase_ = 0;
    std::vector<Sequence> sequences_;
    Frequencies frequency_[2];
    BlockCode code_[3];  // the first part, the second, both as one block
};

}  // namespace kt
