// Bit rot and botched copies: files of many kinds with bytes flipped, set to
// extreme values, or byte ranges duplicated, always the same ones (fixed
// seed). Every call answers with one of its documented codes; the sanitizer
// build sees that nothing is read or written out of bounds and nothing leaks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "tests/robustness/pluginCalls.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

constexpr int kMutantsPerFile = 2000;

// One mutant of `file`, drawn from a fixed sequence (the engine's raw output
// is specified by the standard, the library's distributions are not). Half
// of the changes fall into the headers and offset tables, where a byte
// decides how everything else is read.
Bytes mutant(const Bytes& file, std::size_t opening, std::mt19937& engine, std::string& what)
{
    auto below = [&](std::size_t n) { return n == 0 ? 0 : engine() % n; };
    auto position = [&] { return below(2) ? below(opening) : below(file.size()); };
    auto at = [](std::size_t n) { return static_cast<std::ptrdiff_t>(n); };
    Bytes out = file;
    switch (below(4)) {
    case 0:  // a few bits flipped
        for (std::size_t i = 0, count = 1 + below(4); i < count; ++i) {
            const std::size_t where = position();
            out[where] = static_cast<char>(out[where] ^ static_cast<char>(1 + below(255)));
            what += "xor " + std::to_string(where) + " ";
        }
        break;
    case 1: {  // a 32-bit field set to an extreme value
        static const std::uint32_t extremes[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x10000, 0xFFFF};
        const std::size_t where = position();
        const std::uint32_t v = extremes[below(std::size(extremes))];
        for (std::size_t i = 0; i < 4 && where + i < file.size(); ++i) out[where + i] = static_cast<char>(v >> (8 * i));
        what = "word " + std::to_string(v) + " at " + std::to_string(where);
        break;
    }
    case 2: {  // a range copied over another place
        const std::size_t from = position(), length = 1 + below(64), to = position();
        for (std::size_t i = 0; i < length && from + i < file.size() && to + i < file.size(); ++i) out[to + i] = file[from + i];
        what = "copy " + std::to_string(from) + "+" + std::to_string(length) + " to " + std::to_string(to);
        break;
    }
    default: {  // a range duplicated in place: the file grows
        const std::size_t from = position(), length = 1 + below(64), end = std::min(file.size(), from + length);
        out.insert(out.begin() + at(end), file.begin() + at(from), file.begin() + at(end));
        what = "duplicate " + std::to_string(from) + "+" + std::to_string(length);
    }
    }
    return out;
}

}  // namespace

// Every mutant, whole and half loaded, gets one of the documented codes;
// refusals of a whole file come with an error text.
TEST(Mutation, EveryMutantGetsADocumentedCode)
{
    long long mutants = 0, calls = 0;
    std::uint32_t seed = 20240611;
    for (const SampleFile& sample : sampleFiles()) {
        SCOPED_TRACE(sample.name);
        std::mt19937 engine(seed++);
        const std::size_t opening = offsetTableEnd(sample.bytes);
        int reported = 0;
        for (int n = 0; n < kMutantsPerFile; ++n) {
            std::string what;
            const Bytes file = mutant(sample.bytes, opening, engine, what);
            std::string text;
            const int header = loadHeader(file, kWhole, kWhole, &text);
            const int partial = loadHeader(file, static_cast<long long>(file.size() / 2), kWhole);
            const int decoded = decode(n % 3 == 0 ? 8 : n % 3 == 1 ? 16 : 32, file);
            calls += 3;
            ++mutants;
            const bool ok = isHeaderCode(header) && header != 16 && isHeaderCode(partial) && isDecodeCode(decoded) &&
                            (header == 1 || header == 6 || text.find(" ERR: ") != std::string::npos);
            if (!ok && reported++ < 10)
                ADD_FAILURE() << what << ": header " << header << " (" << text << "), partial " << partial << ", decode " << decoded;
        }
    }
    std::printf("[ figures  ] mutation: %lld mutants, %lld calls\n", mutants, calls);
}
