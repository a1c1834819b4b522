#include "plugin/chunkDeflater.h"

#include <libdeflate.h>

#include <algorithm>
#include <cstring>

namespace kt {

namespace {

constexpr int kWindow = 32768;
constexpr std::size_t kMinMatch = 3;
constexpr std::size_t kMaxMatch = 258;

// The match finder's settings, chosen on rendered frames at 8 and 16 bits
// and on OpenEXR's test images: long repeats come from a chain of
// candidates with the same next seven bytes; short ones (ramps, charts) from
// the latest place with the same next three bytes, if it is near enough for
// the match to cost less than its literals.
constexpr int kMaxHashBits = 15;  // the chains' table for lines of 32 KB and more
constexpr int kHashedBytes = 7;
constexpr int kChainDepth = 3;
constexpr int kNearDistance = 64;
constexpr std::size_t kNiceLength = 32;
// Positions inside a longer match are not hashed (its last two are): they
// are mostly runs, whose start is found again anyway.
constexpr std::size_t kInsertLimit = 32;

// Deflate's length and distance codes: each code's first value and its
// number of extra bits.
constexpr std::uint16_t kLengthBase[29] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                           31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr std::uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                           2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::uint16_t kDistanceBase[30] = {1,    2,    3,    4,    5,    7,     9,     13,    17,  25,
                                             33,   49,   65,   97,   129,  193,   257,   385,   513, 769,
                                             1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr std::uint8_t kDistanceExtra[30] = {0, 0, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6,
                                             6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
// The order in which a block's header gives the code-length code's lengths.
constexpr std::uint8_t kCodeLengthOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

struct CodeTables {
    std::uint8_t lengthCode[kMaxMatch + 1];
    // Distances up to 256 directly, longer ones by (distance - 1) / 128.
    std::uint8_t distanceCode[512];

    CodeTables()
    {
        for (int code = 0; code < 29; ++code)
            for (int l = kLengthBase[code]; l < kLengthBase[code] + (1 << kLengthExtra[code]); ++l)
                lengthCode[l] = static_cast<std::uint8_t>(code);
        lengthCode[258] = 28;  // 258 has a code of its own, not 227 + 31
        for (int code = 0; code < 30; ++code)
            for (int d = kDistanceBase[code]; d < kDistanceBase[code] + (1 << kDistanceExtra[code]); ++d)
                distanceCode[d <= 256 ? d - 1 : 256 + ((d - 1) >> 7)] = static_cast<std::uint8_t>(code);
    }
    int ofDistance(unsigned d) const { return distanceCode[d <= 256 ? d - 1 : 256 + ((d - 1) >> 7)]; }
};
const CodeTables kCodes;

// Code lengths of at most `limit` bits for `count` symbols of the given
// frequencies (0 for unused symbols), as short as Huffman's where the limit
// allows. At least two symbols get a code, as inflaters expect of a block.
void codeLengths(const std::uint32_t* frequency, int count, int limit, std::uint8_t* lengths)
{
    std::uint32_t weight[288];
    std::memcpy(weight, frequency, sizeof(std::uint32_t) * static_cast<std::size_t>(count));
    int used = 0;
    for (int s = 0; s < count; ++s) used += weight[s] != 0;
    for (int s = 0; used < 2; ++s)
        if (weight[s] == 0) weight[s] = 1, ++used;

    // Sorted by weight, then symbol, as plain numbers: weight above the
    // symbol's nine bits.
    std::uint64_t key[288];
    int m = 0;
    for (int s = 0; s < count; ++s)
        if (weight[s] != 0) key[m++] = std::uint64_t(weight[s]) << 9 | static_cast<unsigned>(s);
    std::sort(key, key + m);
    std::uint16_t order[288];
    for (int i = 0; i < m; ++i) order[i] = static_cast<std::uint16_t>(key[i] & 511);

    // Moffat and Katajainen's in-place Huffman lengths: a[] holds the sorted
    // weights, then the internal nodes' parents, then the depths.
    std::uint32_t a[288];
    for (int i = 0; i < m; ++i) a[i] = weight[order[i]];
    int leaf = 0, root = 0;
    for (int next = 0; next < m - 1; ++next) {
        for (int pick = 0; pick < 2; ++pick) {
            std::uint32_t w;
            if (leaf >= m || (root < next && a[root] < a[leaf])) {
                w = a[root];
                a[root++] = static_cast<std::uint32_t>(next);
            } else {
                w = a[leaf++];
            }
            a[next] = pick == 0 ? w : a[next] + w;
        }
    }
    a[m - 2] = 0;
    for (int next = m - 3; next >= 0; --next) a[next] = a[a[next]] + 1;
    int available = 1, nodes = 0, depth = 0, next = m - 1;
    root = m - 2;
    while (available > 0) {
        while (root >= 0 && static_cast<int>(a[root]) == depth) ++nodes, --root;
        while (available > nodes) a[next--] = static_cast<std::uint32_t>(depth), --available;
        available = 2 * nodes;
        ++depth;
        nodes = 0;
    }

    // a[i] is the length of order[i], longest first. Codes longer than the
    // limit are cut to it, and the code made whole again by moving leaves
    // one level down from the deepest level that has room.
    int perLength[64] = {};
    for (int i = 0; i < m; ++i) ++perLength[std::min(static_cast<int>(a[i]), limit)];
    std::uint32_t kraft = 0;
    for (int l = 1; l <= limit; ++l) kraft += static_cast<std::uint32_t>(perLength[l]) << (limit - l);
    for (; kraft > (1u << limit); --kraft) {
        --perLength[limit];
        for (int l = limit - 1; l > 0; --l)
            if (perLength[l] != 0) {
                --perLength[l];
                perLength[l + 1] += 2;
                break;
            }
    }
    std::memset(lengths, 0, static_cast<std::size_t>(count));
    int i = 0;
    for (int l = limit; l >= 1; --l)
        for (int k = 0; k < perLength[l]; ++k) lengths[order[i++]] = static_cast<std::uint8_t>(l);
}

int extraBitsOf(int lengthSymbol) { return lengthSymbol == 16 ? 2 : lengthSymbol == 17 ? 3 : lengthSymbol == 18 ? 7 : 0; }

// The canonical codes of `lengths`, bit-reversed as deflate sends them.
void canonicalCodes(const std::uint8_t* lengths, int count, std::uint16_t* codes)
{
    static const struct ByteReversal {
        std::uint8_t of[256];
        ByteReversal()
        {
            for (int v = 0; v < 256; ++v) {
                int r = 0;
                for (int k = 0; k < 8; ++k) r |= ((v >> k) & 1) << (7 - k);
                of[v] = static_cast<std::uint8_t>(r);
            }
        }
    } reversed;
    int perLength[16] = {};
    for (int s = 0; s < count; ++s) ++perLength[lengths[s]];
    perLength[0] = 0;
    unsigned next[16] = {};
    unsigned code = 0;
    for (int l = 1; l < 16; ++l) next[l] = code = (code + static_cast<unsigned>(perLength[l - 1])) << 1;
    for (int s = 0; s < count; ++s) {
        const int l = lengths[s];
        if (l == 0) continue;
        const unsigned c = next[l]++;
        codes[s] = static_cast<std::uint16_t>((reversed.of[c & 255] << 8 | reversed.of[c >> 8]) >> (16 - l));
    }
}

}  // namespace

// Bits gathered in a 64-bit word, written out eight bytes at a time (byte
// by byte in the last eight of the room): a `flush` must come before the
// word would hold more than 64 bits. Once the output is full, everything
// after is dropped and `full` says so.
class ChunkDeflater::BitWriter {
public:
    BitWriter(unsigned char* out, std::size_t room) : begin(out), at(out), limit(out + room) {}

    void put(std::uint64_t value, int count)
    {
        bits |= value << filled;
        filled += count;
    }
    void flush()
    {
        const std::size_t whole = static_cast<std::size_t>(filled >> 3);
        const std::size_t left = static_cast<std::size_t>(limit - at);
        if (left >= 8) {
            std::memcpy(at, &bits, 8);
        } else if (left >= whole) {
            for (std::size_t k = 0; k < whole; ++k) at[k] = static_cast<unsigned char>(bits >> (8 * k));
        } else {
            full = true;
            bits = 0;
            filled = 0;
            return;
        }
        at += whole;
        bits = whole == 8 ? 0 : bits >> (8 * whole);
        filled &= 7;
    }
    void alignToByte()
    {
        if (filled == 0) return;
        put(0, 8 - filled);
        flush();
    }
    // Whole bytes, after alignToByte.
    void copy(const unsigned char* bytes, std::size_t count)
    {
        if (full || static_cast<std::size_t>(limit - at) < count) {
            full = true;
            return;
        }
        std::memcpy(at, bytes, count);
        at += count;
    }
    std::size_t size() const { return static_cast<std::size_t>(at - begin); }
    int pending() const { return filled; }

    bool full = false;

private:
    unsigned char* begin;
    unsigned char* at;
    unsigned char* limit;
    std::uint64_t bits = 0;
    int filled = 0;
};

std::size_t ChunkDeflater::compress(const unsigned char* in, std::size_t n, std::size_t split, unsigned char* out,
                                    std::size_t room)
{
    if (n >= (std::size_t(1) << 30)) return 0;
    if (split == 0 || split > n) split = n;

    // Positions go into the chains plus a base that moves past every earlier
    // input by more than the window, so entries left from earlier calls count
    // as too far back and the tables never need clearing. They are sized for
    // the longest input so far: small tiles do not pay for a 4K line's.
    int wanted = 10;
    while (wanted < kMaxHashBits && (std::size_t(1) << wanted) < n) ++wanted;
    if (wanted > hashBits_ || nextBase_ > (std::int64_t(1) << 30)) {
        hashBits_ = std::max(wanted, hashBits_);
        head_.assign(std::size_t(1) << hashBits_, 0);
        nearHead_.assign(std::size_t(1) << (hashBits_ - 1), 0);
        nextBase_ = kWindow + 1;
    }
    const std::int64_t base = nextBase_;
    nextBase_ += static_cast<std::int64_t>(n) + kWindow + 1;
    if (prev_.size() < n) prev_.resize(n);
    const std::size_t secondPart = findSequences(in, n, split, base);

    BitWriter bits(out, room);
    bits.put(0x9C78, 16);  // deflate with a 32 KB window, no dictionary
    bits.flush();
    // Two blocks, unless one for both parts comes out smaller: that is
    // worth trying only where a block's header is a good part of the whole
    // (short lines), as building codes is a good part of the time.
    bool written = false;
    if (split < n) {
        planBlock(frequency_[0], split, code_[0]);
        planBlock(frequency_[1], n - split, code_[1]);
        const std::uint64_t twoBlocks = code_[0].bits + code_[1].bits;
        bool twoAreSmaller = true;
        if (16 * std::min(code_[0].headerBits, code_[1].headerBits) > twoBlocks) {
            Frequencies both;
            for (int s = 0; s < 286; ++s) both.literal[s] = frequency_[0].literal[s] + frequency_[1].literal[s];
            for (int s = 0; s < 30; ++s) both.distance[s] = frequency_[0].distance[s] + frequency_[1].distance[s];
            both.literal[256] = 1;
            planBlock(both, n, code_[2]);
            twoAreSmaller = twoBlocks < code_[2].bits;
        }
        if (twoAreSmaller) {
            written = writeBlock(bits, code_[0], in, 0, split, 0, secondPart, false) &&
                      writeBlock(bits, code_[1], in, split, n, secondPart, sequences_.size(), true);
        } else {
            written = writeBlock(bits, code_[2], in, 0, n, 0, sequences_.size(), true);
        }
    } else {
        planBlock(frequency_[0], n, code_[0]);
        written = writeBlock(bits, code_[0], in, 0, n, 0, sequences_.size(), true);
    }
    if (!written) return 0;
    bits.alignToByte();
    bits.put(__builtin_bswap32(libdeflate_adler32(1, in, n)), 32);
    bits.flush();
    return bits.full ? 0 : bits.size();
}

std::size_t ChunkDeflater::findSequences(const unsigned char* in, std::size_t n, std::size_t split, std::int64_t base)
{
    sequences_.clear();
    for (Frequencies& f : frequency_) {
        std::fill(std::begin(f.literal), std::end(f.literal), 0u);
        std::fill(std::begin(f.distance), std::end(f.distance), 0u);
        f.literal[256] = 1;
    }

    // Hashing reads eight bytes, so the input's last seven are never hashed.
    const int hashShift = 64 - hashBits_, nearHashShift = 32 - (hashBits_ - 1);
    auto hashAt = [in, hashShift](std::size_t at) {
        std::uint64_t v;
        std::memcpy(&v, in + at, 8);
        v <<= 64 - 8 * kHashedBytes;
        return static_cast<std::uint32_t>((v * 0x9E3779B97F4A7C15ull) >> hashShift);
    };
    auto nearHashAt = [in, nearHashShift](std::size_t at) {
        std::uint32_t v;
        std::memcpy(&v, in + at, 4);
        return static_cast<std::uint32_t>(((v << 8) * 0x9E3779B1u) >> nearHashShift);
    };
    auto insert = [&](std::size_t at) {
        if (at + 8 > n) return;
        const std::int32_t biased = static_cast<std::int32_t>(base + static_cast<std::int64_t>(at));
        const std::uint32_t h = hashAt(at);
        prev_[at] = head_[h];
        head_[h] = biased;
        nearHead_[nearHashAt(at)] = biased;
    };
    auto matchLength = [in](std::size_t older, std::size_t at, std::size_t limit) {
        std::size_t l = 0;
        for (; l + 8 <= limit; l += 8) {
            std::uint64_t x, y;
            std::memcpy(&x, in + older + l, 8);
            std::memcpy(&y, in + at + l, 8);
            if (x != y) return l + static_cast<std::size_t>(__builtin_ctzll(x ^ y) >> 3);
        }
        while (l < limit && in[older + l] == in[at + l]) ++l;
        return l;
    };

    // The parts end at split and at n; no match runs across either.
    std::size_t secondPart = 0;
    Frequencies* f = &frequency_[0];
    std::uint32_t literals = 0;
    std::size_t at = 0, end = split;
    for (;;) {
        if (at == end) {
            for (std::size_t k = at - literals; k < at; ++k) ++f->literal[in[k]];
            sequences_.push_back({literals, 0, 0});
            literals = 0;
            if (end == n) break;
            secondPart = sequences_.size();
            f = &frequency_[1];
            end = n;
        }
        std::size_t best = 0, distance = 0;
        if (at + 8 <= n) {
            const std::size_t limit = std::min(kMaxMatch, end - at);
            const std::int32_t biased = static_cast<std::int32_t>(base + static_cast<std::int64_t>(at));
            const std::uint32_t h = hashAt(at);
            std::int32_t candidate = head_[h];
            prev_[at] = candidate;
            head_[h] = biased;
            const std::int64_t floor = std::int64_t(biased) - kWindow;
            for (int depth = kChainDepth; candidate > floor && depth > 0; --depth) {
                const std::size_t older = static_cast<std::size_t>(candidate - base);
                if (in[older + best] == in[at + best]) {
                    const std::size_t l = matchLength(older, at, limit);
                    if (l > best) {
                        best = l;
                        distance = at - older;
                        if (l >= kNiceLength || l == limit) break;
                    }
                }
                candidate = prev_[older];
            }
            std::int32_t& near = nearHead_[nearHashAt(at)];
            if (best < kHashedBytes && near > biased - kNearDistance) {
                const std::size_t older = static_cast<std::size_t>(near - base);
                std::uint32_t x, y;
                std::memcpy(&x, in + older, 4);
                std::memcpy(&y, in + at, 4);
                if (((x ^ y) & 0xFFFFFF) == 0) {
                    const std::size_t l = matchLength(older, at, limit);
                    if (l > best) best = l, distance = at - older;
                }
            }
            near = biased;
        }
        if (best < kMinMatch) {
            ++literals;
            ++at;
            continue;
        }
        for (std::size_t k = at - literals; k < at; ++k) ++f->literal[in[k]];
        sequences_.push_back({literals, static_cast<std::uint16_t>(best), static_cast<std::uint16_t>(distance)});
        ++f->literal[257 + kCodes.lengthCode[best]];
        ++f->distance[kCodes.ofDistance(static_cast<unsigned>(distance))];
        literals = 0;
        for (std::size_t k = best <= kInsertLimit ? at + 1 : at + best - 2; k < at + best; ++k) insert(k);
        at += best;
    }
    return secondPart;
}

void ChunkDeflater::planBlock(const Frequencies& f, std::size_t bytes, BlockCode& code)
{
    std::uint64_t fixedBits = 3, dataBits = 0;
    for (int s = 0; s < 286; ++s) {
        const unsigned extra = s > 256 ? kLengthExtra[s - 257] : 0;
        fixedBits += std::uint64_t(f.literal[s]) * ((s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8) + extra);
    }
    for (int s = 0; s < 30; ++s) fixedBits += std::uint64_t(f.distance[s]) * (5 + kDistanceExtra[s]);

    codeLengths(f.literal, 286, 15, code.literalLength);
    code.literalLength[286] = code.literalLength[287] = 0;
    codeLengths(f.distance, 30, 15, code.distanceLength);
    for (int s = 0; s < 286; ++s)
        dataBits += std::uint64_t(f.literal[s]) * (code.literalLength[s] + (s > 256 ? kLengthExtra[s - 257] : 0));
    for (int s = 0; s < 30; ++s)
        dataBits += std::uint64_t(f.distance[s]) * (code.distanceLength[s] + kDistanceExtra[s]);
    code.literalCount = 286;
    code.distanceCount = 30;
    while (code.literalCount > 257 && code.literalLength[code.literalCount - 1] == 0) --code.literalCount;
    while (code.distanceCount > 1 && code.distanceLength[code.distanceCount - 1] == 0) --code.distanceCount;

    // Both lengths lists as one, run-length coded with symbols 16 (repeat the
    // previous length 3-6 times), 17 (3-10 zeros) and 18 (11-138 zeros).
    std::uint8_t lengths[286 + 30];
    std::memcpy(lengths, code.literalLength, static_cast<std::size_t>(code.literalCount));
    std::memcpy(lengths + code.literalCount, code.distanceLength, static_cast<std::size_t>(code.distanceCount));
    const int total = code.literalCount + code.distanceCount;
    int& symbols = code.symbols;
    symbols = 0;
    for (int k = 0; k < total;) {
        const std::uint8_t length = lengths[k];
        int run = 1;
        while (k + run < total && lengths[k + run] == length) ++run;
        k += run;
        auto add = [&](std::uint8_t symbol, int extra) {
            code.symbol[symbols] = symbol;
            code.extra[symbols++] = static_cast<std::uint8_t>(extra);
        };
        if (length == 0) {
            for (; run >= 11; run -= std::min(run, 138)) add(18, std::min(run, 138) - 11);
            if (run >= 3) add(17, run - 3), run = 0;
        } else {
            add(length, 0), --run;
            for (; run >= 3; run -= std::min(run, 6)) add(16, std::min(run, 6) - 3);
        }
        for (; run > 0; --run) add(length, 0);
    }
    std::uint32_t lengthFrequency[19] = {};
    for (int k = 0; k < symbols; ++k) ++lengthFrequency[code.symbol[k]];
    codeLengths(lengthFrequency, 19, 7, code.lengthLength);
    code.lengthCount = 19;
    while (code.lengthCount > 4 && code.lengthLength[kCodeLengthOrder[code.lengthCount - 1]] == 0) --code.lengthCount;
    std::uint64_t dynamicBits = 3 + 5 + 5 + 4 + 3 * static_cast<std::uint64_t>(code.lengthCount) + dataBits;
    for (int k = 0; k < symbols; ++k) dynamicBits += code.lengthLength[code.symbol[k]] + extraBitsOf(code.symbol[k]);

    // Stored: the header, up to seven bits to the byte, and four bytes of
    // lengths per 65,535 bytes.
    const std::uint64_t storedBits = 3 + 7 + 8 * (bytes + 4 * std::max<std::size_t>(1, (bytes + 65534) / 65535));
    code.headerBits = dynamicBits - dataBits;
    if (storedBits <= fixedBits && storedBits <= dynamicBits) {
        code.kind = BlockCode::stored;
        code.bits = storedBits;
    } else if (fixedBits <= dynamicBits) {
        code.kind = BlockCode::fixed;
        code.bits = fixedBits;
        for (int s = 0; s < 288; ++s)
            code.literalLength[s] = static_cast<std::uint8_t>(s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8);
        std::fill(std::begin(code.distanceLength), std::end(code.distanceLength), std::uint8_t(5));
    } else {
        code.kind = BlockCode::dynamic;
        code.bits = dynamicBits;
    }
}

bool ChunkDeflater::writeBlock(BitWriter& bits, BlockCode& code, const unsigned char* in, std::size_t begin,
                               std::size_t end, std::size_t firstSequence, std::size_t endSequence, bool last)
{
    canonicalCodes(code.literalLength, 288, code.literalCode);
    canonicalCodes(code.distanceLength, 30, code.distanceCode);
    canonicalCodes(code.lengthLength, 19, code.lengthCode);
    if (code.kind == BlockCode::stored) {
        std::size_t at = begin;
        do {
            const std::size_t take = std::min<std::size_t>(65535, end - at);
            bits.put(last && at + take == end ? 1 : 0, 3);
            bits.alignToByte();
            bits.put(take | ((take ^ 0xFFFF) << 16), 32);
            bits.flush();
            bits.copy(in + at, take);
            at += take;
        } while (at < end && !bits.full);
        return !bits.full;
    }

    bits.put(last ? 1 : 0, 1);
    if (code.kind == BlockCode::fixed) {
        bits.put(1, 2);
    } else {
        bits.put(2, 2);
        bits.put(static_cast<unsigned>(code.literalCount - 257), 5);
        bits.put(static_cast<unsigned>(code.distanceCount - 1), 5);
        bits.put(static_cast<unsigned>(code.lengthCount - 4), 4);
        bits.flush();
        for (int k = 0; k < code.lengthCount; ++k) {
            bits.put(code.lengthLength[kCodeLengthOrder[k]], 3);
            bits.flush();
        }
        for (int k = 0; k < code.symbols; ++k) {
            const int s = code.symbol[k];
            bits.put(code.lengthCode[s], code.lengthLength[s]);
            bits.put(code.extra[k], extraBitsOf(s));
            bits.flush();
        }
    }
    std::size_t at = begin;
    for (std::size_t i = firstSequence; i < endSequence; ++i) {
        const Sequence& sequence = sequences_[i];
        for (const unsigned char *p = in + at, *stop = p + sequence.literals; p < stop; ++p) {
            bits.put(code.literalCode[*p], code.literalLength[*p]);
            if (bits.pending() >= 40) bits.flush();
        }
        at += sequence.literals;
        if (sequence.length != 0) {
            const int l = kCodes.lengthCode[sequence.length];
            bits.put(code.literalCode[257 + l], code.literalLength[257 + l]);
            bits.put(sequence.length - kLengthBase[l], kLengthExtra[l]);
            bits.flush();
            const int d = kCodes.ofDistance(sequence.distance);
            bits.put(code.distanceCode[d], code.distanceLength[d]);
            bits.put(sequence.distance - kDistanceBase[d], kDistanceExtra[d]);
            bits.flush();
            at += sequence.length;
        }
        if (bits.full) return false;
    }
    bits.flush();
    bits.put(code.literalCode[256], code.literalLength[256]);
    bits.flush();
    return !bits.full;
}

}  // namespace kt
