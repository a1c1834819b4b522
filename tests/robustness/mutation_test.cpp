// Bit rot and botched copies: files of many kinds with bytes flipped, set to
// extreme values, or byte ranges duplicated, always the same ones (fixed
// seed). Every call answers with one of its documented codes; the sanitizer
// build sees that nothing is read or written out of bounds and nothing leaks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/robustness/pluginCalls.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

constexpr int kMutantsPerFile = 2000;

// Draws from a fixed sequence: the engine's raw output is specified by the
// standard, the library's distributions are not.
class Draw {
public:
    explicit Draw(std::uint32_t seed) : engine(seed) {}
    std::size_t below(std::size_t n) { return n == 0 ? 0 : engine() % n; }

private:
    std::mt19937 engine;
};

// One mutant of `file`. Half of the changes fall into the headers and
// offset tables, where a byte decides how everything else is read.
Bytes mutant(const Bytes& file, std::size_t opening, Draw& draw, std::string& what)
{
    Bytes out = file;
    const std::size_t size = out.size();
    auto position = [&] { return draw.below(2) ? draw.below(opening) : draw.below(size); };
    std::ostringstream log;
    switch (draw.below(4)) {
    case 0: {  // a few bits flipped
        const std::size_t count = 1 + draw.below(4);
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t at = position();
            const auto mask = static_cast<char>(1 + draw.below(255));
            out[at] = static_cast<char>(out[at] ^ mask);
            log << "xor " << at << " ";
        }
        break;
    }
    case 1: {  // a 32-bit field set to an extreme value
        static const std::uint32_t extremes[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x10000, 0xFFFF};
        const std::size_t at = position();
        const std::uint32_t v = extremes[draw.below(std::size(extremes))];
        for (std::size_t i = 0; i < 4 && at + i < size; ++i) out[at + i] = static_cast<char>(v >> (8 * i));
        log << "word " << v << " at " << at;
        break;
    }
    case 2: {  // a range copied over another place
        const std::size_t from = position(), length = 1 + draw.below(64), to = position();
        for (std::size_t i = 0; i < length && from + i < size && to + i < size; ++i) out[to + i] = file[from + i];
        log << "copy " << from << "+" << length << " to " << to;
        break;
    }
    default: {  // a range duplicated in place: the file grows
        const std::size_t from = position(), length = 1 + draw.below(64);
        const std::size_t end = std::min(size, from + length);
        out.insert(out.begin() + static_cast<std::ptrdiff_t>(end), file.begin() + static_cast<std::ptrdiff_t>(from),
                   file.begin() + static_cast<std::ptrdiff_t>(end));
        log << "duplicate " << from << "+" << length;
        break;
    }
    }
    what = log.str();
    return out;
}

}  // namespace

TEST(Mutation, EveryMutantGetsADocumentedCode)
{
    long long mutants = 0, calls = 0;
    std::uint32_t seed = 20240611;
    for (const SampleFile& sample : sampleFiles()) {
        SCOPED_TRACE(sample.name);
        Draw draw(seed++);
        const std::size_t opening = offsetTableEnd(sample.bytes);
        int reported = 0;
        for (int n = 0; n < kMutantsPerFile; ++n) {
            std::string what;
            const Bytes file = mutant(sample.bytes, opening, draw, what);
            std::string text, again;
            const int header = loadHeader(file, kWhole, kWhole, &text);
            // The same answer on a second look: nothing depends on stale memory.
            const int second = loadHeader(file, kWhole, kWhole, &again);
            const int partial = loadHeader(file, static_cast<long long>(file.size() / 2), kWhole);
            const int depth = n % 3 == 0 ? 8 : n % 3 == 1 ? 16 : 32;
            const int decoded = decode(depth, file);
            calls += 4;
            ++mutants;
            const bool ok = isHeaderCode(header) && header != 16 && second == header && again == text &&
                            isHeaderCode(partial) && isDecodeCode(decoded) &&
                            (header == 1 || header == 6 || text.find(" ERR: ") != std::string::npos);
            if (!ok && reported++ < 10)
                ADD_FAILURE() << what << ": header " << header << " (" << text << "), again " << second << " ("
                              << again << "), partial " << partial << ", decode " << decoded;
        }
    }
    std::printf("[ figures  ] mutation: %lld mutants, %lld calls\n", mutants, calls);
}
