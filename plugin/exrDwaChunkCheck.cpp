#include "plugin/exrDwaChunkCheck.h"

#include <Imath/ImathBox.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfTileDescription.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "plugin/exrLimits.h"

namespace {

using u64 = std::uint64_t;

// The loaded bytes, little-endian; zeros beyond them.
class ChunkBytes {
public:
    explicit ChunkBytes(const ktP::_imgFileBuffer& file)
        : data(file.buffer), loaded(static_cast<u64>(std::max(file.sizeLoaded, 0LL)))
    {
    }
    u64 size() const { return loaded; }
    unsigned byteAt(u64 at) const { return at < loaded ? data[at] : 0u; }
    u64 uint64At(u64 at) const
    {
        u64 value = 0;
        for (int i = 7; i >= 0; --i) value = value << 8 | byteAt(at + static_cast<u64>(i));
        return value;
    }
    std::int32_t int32At(u64 at) const { return static_cast<std::int32_t>(uint64At(at) & 0xFFFFFFFFu); }
    std::string bytes(u64 at, u64 count) const
    {
        std::string text;
        for (u64 i = 0; i < count; ++i) text += static_cast<char>(byteAt(at + i));
        return text;
    }

private:
    const unsigned char* data;
    u64 loaded;
};

// One channel rule of a DWA chunk.
struct Rule {
    std::string suffix;
    int colourIndex = -1;  // 0, 1, 2 for red, green, blue of a colour set; -1 for none
    bool anyCase = false;
    int type = 0;
};

// The chunk data starts with eleven 64-bit counters; the first is the
// version, the second to fifth the sizes of the four compressed sections
// that follow the rules.
constexpr u64 kCounterBytes = 11 * 8;
constexpr u64 kRulesVersion = 2;

// Reads the rules of a chunk's data as OpenEXR does. False when OpenEXR
// refuses the chunk before it decodes anything, or uses its fixed rules
// (versions before 2, whose colour sets are always distinct).
bool readRules(const ChunkBytes& bytes, u64 data, u64 dataSize, std::vector<Rule>& rules, u64& rulesEnd)
{
    if (dataSize < kCounterBytes || bytes.uint64At(data) != kRulesVersion) return false;
    u64 compressed = 0;
    for (int i = 1; i < 10; ++i) {
        const u64 value = bytes.uint64At(data + 8 * static_cast<u64>(i));
        if (static_cast<std::int64_t>(value) < 0) return false;
        if (i >= 2 && i <= 5) {
            if (value > dataSize) return false;
            compressed += value;  // four values below 2^31 each
        }
    }
    const u64 ruleBytes = bytes.byteAt(data + kCounterBytes) | bytes.byteAt(data + kCounterBytes + 1) << 8;
    if (ruleBytes < 2 || kCounterBytes + ruleBytes + compressed > dataSize) return false;

    rules.clear();
    u64 at = data + kCounterBytes + 2;
    u64 left = ruleBytes - 2;
    while (left > 0) {
        Rule rule;
        // A suffix is read up to its NUL, at most one character more than
        // the smaller of the bytes left and 255.
        for (int n = static_cast<int>(std::min<u64>(left, 255)); n >= 0; --n) {
            const char c = static_cast<char>(bytes.byteAt(at++));
            if (c == 0) break;
            rule.suffix += c;
        }
        const u64 ruleSize = rule.suffix.size() + 3;
        if (left < ruleSize) return false;
        const auto coding = static_cast<signed char>(bytes.byteAt(at++));
        rule.colourIndex = (coding >> 4) - 1;
        rule.anyCase = (coding & 1) != 0;
        rule.type = static_cast<signed char>(bytes.byteAt(at++));
        if (rule.colourIndex < -1 || rule.colourIndex >= 3 || ((coding >> 2) & 3) >= 3) return false;
        if (rule.type < 0 || rule.type >= OPENEXR_IMF_NAMESPACE::NUM_PIXELTYPES) return false;
        rules.push_back(rule);
        left -= ruleSize;
    }
    rulesEnd = data + kCounterBytes + ruleBytes;
    return true;
}

std::string lowered(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Groups the channels into colour sets as the decoder does and tells
// whether every complete set of one sampling has three distinct channels.
// The decoder's set is named by the channel name before the last dot; each
// rule matching a channel's suffix and type puts that channel at the rule's
// place, a later channel overriding an earlier one. So the place holds the
// last matching channel, whatever the order of the rules: the rules are
// looked up by suffix instead of tried on every channel, which keeps a
// chunk of thousands of rules over thousands of channels quick.
bool colourSetsDistinct(const OPENEXR_IMF_NAMESPACE::ChannelList& channels, const std::vector<Rule>& rules)
{
    struct Named {
        const OPENEXR_IMF_NAMESPACE::Channel* channel;
        std::size_t set;
    };
    std::vector<Named> named;
    std::map<std::string, std::size_t> setOfPrefix;
    std::map<std::string, std::vector<std::size_t>> bySuffix, byLoweredSuffix;
    for (auto it = channels.begin(); it != channels.end(); ++it) {
        const std::string name = it.name();
        const std::size_t dot = name.find_last_of('.');
        const std::string prefix = dot == std::string::npos ? std::string() : name.substr(0, dot);
        const std::string suffix = dot == std::string::npos ? name : name.substr(dot + 1);
        const std::size_t set = setOfPrefix.emplace(prefix, setOfPrefix.size()).first->second;
        bySuffix[suffix].push_back(named.size());
        byLoweredSuffix[lowered(suffix)].push_back(named.size());
        named.push_back({&it.channel(), set});
    }

    std::vector<std::array<long, 3>> members(setOfPrefix.size(), {-1, -1, -1});
    std::set<std::tuple<std::string, bool, int, int>> seen;  // a repeated rule changes nothing
    for (const Rule& rule : rules) {
        if (rule.colourIndex < 0 || !seen.emplace(rule.suffix, rule.anyCase, rule.type, rule.colourIndex).second)
            continue;
        const auto& index = rule.anyCase ? byLoweredSuffix : bySuffix;
        const auto found = index.find(rule.suffix);
        if (found == index.end()) continue;
        for (std::size_t i : found->second) {
            if (named[i].channel->type != rule.type) continue;
            long& member = members[named[i].set][static_cast<std::size_t>(rule.colourIndex)];
            member = std::max(member, static_cast<long>(i));
        }
    }

    for (const auto& m : members) {
        if (m[0] < 0 || m[1] < 0 || m[2] < 0) continue;
        const OPENEXR_IMF_NAMESPACE::Channel& r = *named[static_cast<std::size_t>(m[0])].channel;
        const OPENEXR_IMF_NAMESPACE::Channel& g = *named[static_cast<std::size_t>(m[1])].channel;
        const OPENEXR_IMF_NAMESPACE::Channel& b = *named[static_cast<std::size_t>(m[2])].channel;
        if (r.xSampling != g.xSampling || r.xSampling != b.xSampling || r.ySampling != g.ySampling ||
            r.ySampling != b.ySampling)
            continue;  // not decoded as a set
        if (m[0] == m[1] || m[0] == m[2] || m[1] == m[2]) return false;
    }
    return true;
}

// Multiples of `step` in [first, last].
u64 multiplesIn(std::int64_t first, std::int64_t last, std::int64_t step)
{
    auto floorDiv = [step](std::int64_t v) { return v >= 0 ? v / step : -((-v + step - 1) / step); };
    return last < first ? 0 : static_cast<u64>(floorDiv(last) - floorDiv(first - 1));
}

u64 levelSide(u64 side, int level, OPENEXR_IMF_NAMESPACE::LevelRoundingMode rounding)
{
    if (level >= 63) return 1;
    const u64 step = u64{1} << level;
    return std::max<u64>(rounding == OPENEXR_IMF_NAMESPACE::ROUND_UP ? (side + step - 1) / step : side / step, 1);
}

// Walks the first part's chunks and checks the rules of those OpenEXR
// would uncompress.
class DwaChunkWalk {
public:
    DwaChunkWalk(const ChunkBytes& bytes, const OPENEXR_IMF_NAMESPACE::Header& header, bool multiPart)
        : bytes(bytes), header(header), multiPart(multiPart), tiled(header.hasTileDescription())
    {
        const Imath::Box2i& window = header.dataWindow();
        minX = window.min.x;
        maxX = window.max.x;
        minY = window.min.y;
        maxY = window.max.y;
    }

    // Checks the chunk of the first part starting at `at` (its part number,
    // if any, included). False only for a chunk the decoder would read out
    // of bounds.
    bool chunkIsSound(u64 at)
    {
        if (multiPart) at += 4;
        const u64 sizeAt = at + (tiled ? 16 : 4);
        const std::int32_t size = bytes.int32At(sizeAt);
        if (size < 0) return true;
        const u64 data = sizeAt + 4;
        u64 rulesEnd = 0;
        if (!readRules(bytes, data, static_cast<u64>(size), rules, rulesEnd)) return true;
        const std::string ruleBytes = bytes.bytes(data + kCounterBytes, rulesEnd - data - kCounterBytes);
        if (ruleBytes != lastRuleBytes) {
            lastRuleBytes = ruleBytes;
            lastDistinct = colourSetsDistinct(header.channels(), rules);
        }
        return lastDistinct || static_cast<u64>(size) >= uncompressedSize(at);
    }

private:
    // The bytes the chunk's pixels take uncompressed (OpenEXR keeps a chunk
    // that large as it is); the largest value for coordinates OpenEXR
    // refuses, so that the chunk passes.
    u64 uncompressedSize(u64 at) const
    {
        u64 total = 0;
        if (tiled) {
            const OPENEXR_IMF_NAMESPACE::TileDescription& tiles = header.tileDescription();
            const std::int32_t dx = bytes.int32At(at), dy = bytes.int32At(at + 4);
            const std::int32_t lx = bytes.int32At(at + 8), ly = bytes.int32At(at + 12);
            if (dx < 0 || dy < 0 || lx < 0 || ly < 0 || tiles.xSize == 0 || tiles.ySize == 0) return kt::exrSaturated;
            const u64 levelWidth = levelSide(static_cast<u64>(std::int64_t{maxX} - minX + 1), lx, tiles.roundingMode);
            const u64 levelHeight = levelSide(static_cast<u64>(std::int64_t{maxY} - minY + 1), ly, tiles.roundingMode);
            const u64 x = static_cast<u64>(dx) * tiles.xSize, y = static_cast<u64>(dy) * tiles.ySize;
            if (x >= levelWidth || y >= levelHeight) return kt::exrSaturated;
            const u64 pixels = std::min<u64>(tiles.xSize, levelWidth - x) * std::min<u64>(tiles.ySize, levelHeight - y);
            for (auto it = header.channels().begin(); it != header.channels().end(); ++it)
                total += pixels * (it.channel().type == OPENEXR_IMF_NAMESPACE::HALF ? 2 : 4);
            return total;
        }
        const std::int64_t lines = static_cast<std::int64_t>(kt::exrLinesPerChunk(header.compression()));
        const std::int64_t first = bytes.int32At(at);
        if (lines == 0 || first < minY || first > maxY || (first - minY) % lines != 0) return kt::exrSaturated;
        const std::int64_t last = std::min<std::int64_t>(first + lines - 1, maxY);
        const u64 width = static_cast<u64>(std::int64_t{maxX} - minX + 1);
        for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
            const OPENEXR_IMF_NAMESPACE::Channel& channel = it.channel();
            if (channel.xSampling < 1 || channel.ySampling < 1) return kt::exrSaturated;
            const u64 lineBytes = (channel.type == OPENEXR_IMF_NAMESPACE::HALF ? 2 : 4) * width /
                                  static_cast<u64>(channel.xSampling);
            total += lineBytes * multiplesIn(first, last, channel.ySampling);
        }
        return total;
    }

    const ChunkBytes& bytes;
    const OPENEXR_IMF_NAMESPACE::Header& header;
    bool multiPart;
    bool tiled;
    int minX = 0, maxX = 0, minY = 0, maxY = 0;
    std::vector<Rule> rules;
    std::string lastRuleBytes;
    bool lastDistinct = true;
};

// Where the chunk at `at` ends (the next chunk of a file written in order),
// or 0 when its stated sizes leave the loaded bytes.
u64 chunkEnd(const ChunkBytes& bytes, u64 at, const kt::ExrPartLayout& layout, bool multiPart)
{
    u64 next = at + (multiPart ? 4 : 0) + (layout.tiled ? 16 : 4);
    if (layout.deep) {
        const u64 table = bytes.uint64At(next), data = bytes.uint64At(next + 8);
        if (table > bytes.size() || data > bytes.size()) return 0;
        next += 24 + table + data;
    } else {
        const std::int32_t size = bytes.int32At(next);
        if (size < 0) return 0;
        next += 4 + static_cast<u64>(size);
    }
    return next <= bytes.size() ? next : 0;
}

}  // namespace

bool kt::exrDwaColourSetsDistinct(const ktP::_imgFileBuffer& file, const OPENEXR_IMF_NAMESPACE::Header& header,
                                  const std::vector<ExrPartLayout>& parts, bool multiPart, std::uint64_t tableStart,
                                  std::uint64_t chunkCount, std::uint64_t chunksStart)
{
    if (parts.empty()) return true;
    const ChunkBytes bytes(file);
    DwaChunkWalk walk(bytes, header, multiPart);
    try {
        // Through the offset table.
        for (u64 i = 0; i < chunkCount; ++i) {
            const u64 offset = bytes.uint64At(tableStart + 8 * i);
            if (offset >= bytes.size()) continue;
            if (multiPart && bytes.int32At(offset) != 0) continue;
            if (!walk.chunkIsSound(offset)) return false;
        }
        // One after the other, as a damaged table is rebuilt.
        for (u64 at = chunksStart; at < bytes.size();) {
            const std::int32_t part = multiPart ? bytes.int32At(at) : 0;
            if (part < 0 || static_cast<u64>(part) >= parts.size()) break;
            if (part == 0 && !walk.chunkIsSound(at)) return false;
            const u64 next = chunkEnd(bytes, at, parts[static_cast<std::size_t>(part)], multiPart);
            if (next <= at) break;
            at = next;
        }
    } catch (...) {
        // Out of memory while comparing names: let OpenEXR meet the file as before.
    }
    return true;
}
