// The stream adapters, first on their own, then with OpenEXR as their client:
// files written through the output adapter must be byte-identical to those
// written into a plain memory stream, and reading through the input adapter
// must give what an independent memory stream gives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Imath/half.h>
#include <OpenEXR/Iex.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfMultiPartInputFile.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "plugin/fileBufferStream.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;
using ::testing::HasSubstr;

namespace {

const char kShort[] = "File size smaller than requested";

// The message of the IoExc that `action` throws, or "" when it throws none.
template <class F>
std::string ioExcText(F&& action)
{
    try {
        action();
    } catch (const IEX_NAMESPACE::IoExc& e) {
        return e.what();
    }
    return "";
}

// Records every pointer that OpenEXR is handed through readMemoryMapped.
class RecordingStream : public _imgFileBufferStream {
public:
    using _imgFileBufferStream::_imgFileBufferStream;
    char* readMemoryMapped(int n) override
    {
        char* p = _imgFileBufferStream::readMemoryMapped(n);
        handedOut.push_back({p, n});
        return p;
    }
    std::vector<std::pair<const char*, int>> handedOut;
};

void expectSamePixels(const DecodedExr& got, const DecodedExr& want)
{
    ASSERT_EQ(got.channels.size(), want.channels.size());
    for (size_t i = 0; i < got.channels.size(); ++i) {
        EXPECT_EQ(got.channels[i].name, want.channels[i].name);
        const std::vector<double>& a = got.channels[i].values;
        const std::vector<double>& b = want.channels[i].values;
        ASSERT_EQ(a.size(), b.size()) << got.channels[i].name;
        // NaN samples count as equal to NaN samples.
        const auto differs = [&](size_t k) { return a[k] != b[k] && !(std::isnan(a[k]) && std::isnan(b[k])); };
        size_t k = 0;
        while (k < a.size() && !differs(k)) ++k;
        EXPECT_EQ(k, a.size()) << got.channels[i].name << ": first difference at sample " << k;
    }
}

// Encodes `part` through the output adapter into a new buffer of `capacity` bytes.
std::unique_ptr<ktP::_imgFileBuffer> encodedThroughAdapter(const ExrPart& part, size_t capacity)
{
    auto buffer = emptyFileBuffer(static_cast<unsigned>(capacity));
    _imgFileBufferStreamOut out(buffer.get());
    writeExr(out, part);
    return buffer;
}

}  // namespace

// --- the input adapter by itself ---------------------------------------------

TEST(FileBufferStream, RewindsAndNamesItself)
{
    auto b = fileBufferWith(Bytes(10, 'x'));
    b->setBufPosition(7);
    _imgFileBufferStream in(b.get());
    EXPECT_EQ(b->bufPosition, 0);
    EXPECT_TRUE(in.isMemoryMapped());
    EXPECT_STREQ(in.fileName(), "noFile");
    EXPECT_EQ(in.tellg(), 0u);
}

TEST(FileBufferStream, ReadReportsWhetherMoreThanOneByteRemains)
{
    const struct { int start, n; bool more; } cases[] = {
        {0, 7, true},   // two left
        {0, 8, false},  // one left
        {0, 9, false},  // none left
        {5, 2, true},
        {5, 3, false},
    };
    for (const auto& c : cases) {
        auto b = fileBufferWith(Bytes{'0', '1', '2', '3', '4', '5', '6', '7', '8'});
        _imgFileBufferStream in(b.get());
        in.seekg(static_cast<uint64_t>(c.start));
        char dst[16] = {};
        EXPECT_EQ(in.read(dst, c.n), c.more) << c.start << " + " << c.n;
        EXPECT_EQ(in.tellg(), static_cast<uint64_t>(c.start + c.n));
        EXPECT_EQ(std::string(dst, static_cast<size_t>(c.n)), std::string("012345678").substr(c.start, c.n));
    }
}

TEST(FileBufferStream, ReadPastTheDataThrowsAndKeepsTheCursor)
{
    auto b = fileBufferWith(Bytes(9, 'x'), 9, 100);  // 9 of 100 bytes loaded
    _imgFileBufferStream in(b.get());
    char dst[16];
    in.seekg(4);
    EXPECT_EQ(ioExcText([&] { in.read(dst, 6); }), kShort);
    EXPECT_EQ(in.tellg(), 4u);
    EXPECT_EQ(ioExcText([&] { in.read(dst, 5); }), "");
    EXPECT_EQ(in.tellg(), 9u);
}

TEST(FileBufferStream, MemoryMappedReadsPointIntoTheBuffer)
{
    auto b = fileBufferWith(Bytes{'a', 'b', 'c', 'd', 'e', 'f'});
    _imgFileBufferStream in(b.get());
    char* first = in.readMemoryMapped(2);
    EXPECT_EQ(first, reinterpret_cast<char*>(b->buffer));
    char* rest = in.readMemoryMapped(4);  // exactly to the end
    EXPECT_EQ(rest, reinterpret_cast<char*>(b->buffer) + 2);
    EXPECT_EQ(std::string(rest, 4), "cdef");
    EXPECT_EQ(in.tellg(), 6u);
    EXPECT_EQ(ioExcText([&] { in.readMemoryMapped(1); }), kShort);
    EXPECT_EQ(in.tellg(), 6u);
    in.seekg(3);
    EXPECT_EQ(ioExcText([&] { in.readMemoryMapped(4); }), kShort);
    EXPECT_EQ(in.tellg(), 3u);
}

TEST(FileBufferStream, RefusedSeeksAreSilent)
{
    auto b = fileBufferWith(Bytes(10, 'x'));
    _imgFileBufferStream in(b.get());
    in.seekg(6);
    EXPECT_NO_THROW(in.seekg(11));
    EXPECT_EQ(in.tellg(), 6u);
    in.seekg(10);
    EXPECT_EQ(in.tellg(), 10u);
    in.seekg((1ULL << 32) + 3);  // only the low 32 bits count
    EXPECT_EQ(in.tellg(), 3u);
    in.clear();
    EXPECT_EQ(in.tellg(), 3u);
    EXPECT_EQ(b->sizeLoaded, 10);
}

// --- the output adapter by itself --------------------------------------------

TEST(FileBufferStreamOut, EmptiesTheBuffer)
{
    auto b = fileBufferWith(Bytes(50, 'x'), kWhole, kWhole, 100);
    b->setBufPosition(20);
    _imgFileBufferStreamOut out(b.get());
    EXPECT_STREQ(out.fileName(), "noFile");
    EXPECT_EQ(b->sizeLoaded, 0);
    EXPECT_EQ(b->fileSize, 0);
    EXPECT_EQ(b->bufPosition, 0);
    EXPECT_EQ(out.tellp(), 0u);
}

TEST(FileBufferStreamOut, OverflowingWritesAreDroppedSilently)
{
    auto b = emptyFileBuffer(10);
    _imgFileBufferStreamOut out(b.get());
    EXPECT_NO_THROW(out.write("abcdef", 6));
    EXPECT_NO_THROW(out.write("ghij", 4));  // 6 + 4 reaches the capacity
    EXPECT_EQ(contentOf(*b), (Bytes{'a', 'b', 'c', 'd', 'e', 'f'}));
    EXPECT_EQ(out.tellp(), 6u);
    out.write("ghi", 3);
    EXPECT_EQ(b->fileSize, 9);
}

TEST(FileBufferStreamOut, SeekingNeverGrowsTheFile)
{
    auto b = emptyFileBuffer(20);
    _imgFileBufferStreamOut out(b.get());
    out.write("abcdef", 6);
    out.seekp(2);
    out.write("XY", 2);
    EXPECT_EQ(contentOf(*b), (Bytes{'a', 'b', 'X', 'Y', 'e', 'f'}));
    out.seekp(15);  // beyond the data: the cursor moves, the file does not grow
    EXPECT_EQ(out.tellp(), 15u);
    EXPECT_EQ(b->fileSize, 6);
    out.seekp(21);  // beyond the capacity: ignored
    EXPECT_EQ(out.tellp(), 15u);
    out.seekp((1ULL << 32) + 1);  // only the low 32 bits count
    EXPECT_EQ(out.tellp(), 1u);
    out.write("Z", 1);
    EXPECT_EQ(contentOf(*b), (Bytes{'a', 'Z', 'X', 'Y', 'e', 'f'}));
}

// --- with OpenEXR as the client ------------------------------------------------

struct Layout {
    bool tiled;
    Imf::Compression compression;
    Imf::LineOrder order;
    bool lossless;
};

std::string layoutName(const ::testing::TestParamInfo<Layout>& info)
{
    static const char* const compressions[] = {"None", "Rle", "Zips", "Zip",  "Piz",
                                               "Pxr24", "B44", "B44a", "Dwaa", "Dwab"};
    static const char* const orders[] = {"IncreasingY", "DecreasingY", "RandomY"};
    const Layout& l = info.param;
    return std::string(l.tiled ? "Tiled" : "ScanLine") + compressions[l.compression] + orders[l.order];
}

class ExrThroughAdapters : public ::testing::TestWithParam<Layout> {};

TEST_P(ExrThroughAdapters, RoundTripMatchesOpenExrInMemory)
{
    const Layout layout = GetParam();
    ExrPart part;
    part.displayWindow = box(-3, -2, 40, 30);
    part.dataWindow = box(-1, 2, 36, 29);
    part.channels = channelList({"A", "B", "G", "R"}, Imf::HALF);
    part.channels.push_back({"Z", Imf::FLOAT});
    part.channels.push_back({"id", Imf::UINT});
    part.compression = layout.compression;
    part.lineOrder = layout.order;
    part.tiled = layout.tiled;
    part.tileWidth = 16;
    part.tileHeight = 8;
    part.attribute("KT/jobID", std::string("JOB12")).attribute("note.count", 7);

    const Bytes reference = makeExr(part);
    auto out = encodedThroughAdapter(part, reference.size() + 9);
    const Bytes written = contentOf(*out);
    EXPECT_EQ(written, reference) << "the adapter must store exactly what OpenEXR writes";
    EXPECT_EQ(out->fileSize, static_cast<long long>(reference.size()));

    auto in = fileBufferWith(written);
    RecordingStream stream(in.get());
    const DecodedExr viaAdapter = readExr(stream);
    const DecodedExr viaMemory = readExr(reference);
    EXPECT_TRUE(viaAdapter.complete);
    expectSamePixels(viaAdapter, viaMemory);
    EXPECT_EQ(viaAdapter.header.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "JOB12");
    EXPECT_EQ(viaAdapter.header.typedAttribute<Imf::IntAttribute>("note.count").value(), 7);

    // Pixel data arrives zero-copy: every pointer lies inside the loaded data.
    ASSERT_FALSE(stream.handedOut.empty());
    const char* begin = reinterpret_cast<const char*>(in->buffer);
    for (const auto& [p, n] : stream.handedOut) {
        EXPECT_GE(p, begin);
        EXPECT_LE(p + n, begin + in->sizeLoaded);
    }

    if (!layout.lossless) return;
    for (const char* name : {"R", "A"}) {
        const DecodedChannel& c = viaAdapter.channel(name);
        for (int y : {2, 17, 29})
            for (int x : {-1, 0, 36})
                EXPECT_EQ(c.at(x, y), static_cast<float>(half(static_cast<float>(patternValue(name, x, y)))));
    }
    EXPECT_EQ(viaAdapter.channel("Z").at(5, 5), static_cast<float>(patternValue("Z", 5, 5)));
    EXPECT_EQ(viaAdapter.channel("id").at(36, 29), static_cast<double>(static_cast<unsigned>(patternValue("id", 36, 29))));
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ExrThroughAdapters,
    ::testing::Values(Layout{false, Imf::NO_COMPRESSION, Imf::INCREASING_Y, true},
                      Layout{false, Imf::RLE_COMPRESSION, Imf::DECREASING_Y, true},
                      Layout{false, Imf::ZIPS_COMPRESSION, Imf::INCREASING_Y, true},
                      Layout{false, Imf::ZIP_COMPRESSION, Imf::DECREASING_Y, true},
                      Layout{false, Imf::PIZ_COMPRESSION, Imf::INCREASING_Y, true},
                      Layout{false, Imf::PXR24_COMPRESSION, Imf::INCREASING_Y, false},
                      Layout{false, Imf::B44A_COMPRESSION, Imf::INCREASING_Y, false},
                      Layout{false, Imf::DWAB_COMPRESSION, Imf::INCREASING_Y, false},
                      Layout{true, Imf::NO_COMPRESSION, Imf::RANDOM_Y, true},
                      Layout{true, Imf::ZIP_COMPRESSION, Imf::INCREASING_Y, true},
                      Layout{true, Imf::PIZ_COMPRESSION, Imf::DECREASING_Y, true},
                      Layout{true, Imf::DWAA_COMPRESSION, Imf::INCREASING_Y, false}),
    layoutName);

TEST(ExrThroughAdapter, SubsampledChannelsAndMipmapsRoundTrip)
{
    ExrPart yc;
    yc.displayWindow = box(0, 0, 31, 15);
    yc.channels = {{"Y", Imf::HALF}, {"RY", Imf::HALF, 2, 2}, {"BY", Imf::HALF, 2, 2}};
    const Bytes scanLines = makeExr(yc);

    ExrPart mip;
    mip.tiled = true;
    mip.levelMode = Imf::MIPMAP_LEVELS;
    mip.channels = channelList({"R"}, Imf::FLOAT);
    const Bytes tiles = makeExr(mip);

    for (const Bytes* file : {&scanLines, &tiles}) {
        auto in = fileBufferWith(*file);
        _imgFileBufferStream stream(in.get());
        expectSamePixels(readExr(stream), readExr(*file));
    }
    EXPECT_EQ(readExr(scanLines).channel("RY").at(30, 14), static_cast<float>(half(static_cast<float>(patternValue("RY", 30, 14)))));
}

TEST(ExrThroughAdapter, MultiPartFileReadsEveryPart)
{
    ExrPart first;
    first.name = "beauty";
    ExrPart second;
    second.tiled = true;
    second.channels = channelList({"Z"}, Imf::FLOAT);
    second.value = constantValue(2.5);
    const Bytes file = makeMultiPartExr({first, second});

    auto in = fileBufferWith(file);
    for (int p = 0; p < 2; ++p) {
        _imgFileBufferStream stream(in.get());
        const DecodedExr d = readExr(stream, p);
        EXPECT_EQ(d.parts, 2);
        EXPECT_NE(d.version & 0x1000, 0);
        expectSamePixels(d, readExr(file, p));
    }
    _imgFileBufferStream stream(in.get());
    EXPECT_EQ(readExr(stream, 1).channel("Z").at(15, 11), 2.5);
}

TEST(ExrThroughAdapter, APartialBufferFailsAsTooShort)
{
    const Bytes file = makeExr(ExrPart());
    const size_t header = headerEnd(file);
    // Cut inside the header, and inside the offset table.
    for (size_t loaded : {size_t{40}, header - 1, header + 4}) {
        auto in = fileBufferWith(file, static_cast<long long>(loaded), static_cast<long long>(file.size()));
        _imgFileBufferStream stream(in.get());
        try {
            Imf::InputFile exr(stream, 0);
            ADD_FAILURE() << "opened with only " << loaded << " of " << file.size() << " bytes";
        } catch (const std::exception& e) {
            EXPECT_THAT(e.what(), HasSubstr(kShort)) << loaded;
            EXPECT_THAT(e.what(), HasSubstr("noFile")) << loaded;
        }
    }
}

TEST(ExrThroughAdapter, TooSmallOutputLeavesAShortFileWithoutError)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 63, 63);
    part.compression = Imf::NO_COMPRESSION;
    const Bytes reference = makeExr(part);
    const size_t header = headerEnd(reference);
    const size_t table = offsetTableEnd(reference);

    // Exactly enough: the offset table, rewritten last, needs 8 bytes below the capacity.
    EXPECT_EQ(contentOf(*encodedThroughAdapter(part, reference.size() + 9)), reference);

    // One byte less: everything but the rewritten offset table, which stays zero.
    Bytes noTable;
    EXPECT_NO_THROW(noTable = contentOf(*encodedThroughAdapter(part, reference.size() + 8)));
    ASSERT_EQ(noTable.size(), reference.size());
    EXPECT_TRUE(std::equal(noTable.begin(), noTable.begin() + header, reference.begin()));
    EXPECT_TRUE(std::all_of(noTable.begin() + header, noTable.begin() + table, [](char c) { return c == 0; }));
    EXPECT_TRUE(std::equal(noTable.begin() + table, noTable.end(), reference.begin() + table));

    // Far too small: the header arrives, most of the pixels do not.
    std::unique_ptr<ktP::_imgFileBuffer> out;
    EXPECT_NO_THROW(out = encodedThroughAdapter(part, table + 600));
    ASSERT_TRUE(out);
    const Bytes cut = contentOf(*out);
    EXPECT_LT(cut.size(), table + 600);
    EXPECT_LT(cut.size(), reference.size());
    EXPECT_EQ(out->fileSize, out->sizeLoaded);
    EXPECT_TRUE(std::equal(cut.begin(), cut.begin() + header, reference.begin()));
}

TEST(ExrThroughAdapter, RealFilesReadAsFromMemory)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no EXR corpus beside the checkout";
    int files = 0;
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"}) {
        for (const std::string& path : corpusFiles(folder)) {
            SCOPED_TRACE(path);
            const Bytes file = readFileBytes(path);
            auto in = fileBufferWith(file);
            RecordingStream stream(in.get());
            expectSamePixels(readExr(stream), readExr(file));
            EXPECT_FALSE(stream.handedOut.empty());
            ++files;
        }
    }
    EXPECT_GT(files, 0);
}
