// The stream adapters, first on their own, then with OpenEXR as their client:
// files written through the output adapter must be byte-identical to those
// written into a plain memory stream, and reading through the input adapter
// must give what an independent memory stream gives.
#include <gtest/gtest.h>

#include <OpenEXR/Iex.h>

#include <string>
#include <vector>

#include "plugin/fileBufferStream.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

const std::string kShort = "File size smaller than requested";

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
struct RecordingStream : _imgFileBufferStream {
    using _imgFileBufferStream::_imgFileBufferStream;
    char* readMemoryMapped(int n) override
    {
        char* p = _imgFileBufferStream::readMemoryMapped(n);
        handedOut.push_back({p, n});
        return p;
    }
    std::vector<std::pair<const char*, int>> handedOut;
};

// Every sample of every channel as an independent memory stream reads it.
void expectSamePixels(const DecodedExr& got, const DecodedExr& want)
{
    ASSERT_EQ(got.channels.size(), want.channels.size());
    for (std::size_t i = 0; i < want.channels.size(); ++i) EXPECT_TRUE(got.channels[i].values == want.channels[i].values) << want.channels[i].name;
}

}  // namespace

// Reading: rewinds, names itself "noFile", reports whether more than one byte
// remains, throws past the loaded data with the cursor kept, hands out
// pointers into the buffer up to its very end, ignores refused seeks and
// the high 32 bits of a position.
TEST(FileBufferStream, ReadsThroughTheBuffersCursor)
{
    auto b = fileBufferWith(Bytes{'0', '1', '2', '3', '4', '5', '6', '7', '8'}, kWhole, 100);
    b->setBufPosition(7);
    _imgFileBufferStream in(b.get());
    EXPECT_EQ(in.tellg(), 0u);
    EXPECT_TRUE(in.isMemoryMapped());
    EXPECT_EQ(std::string(in.fileName()), "noFile");
    const struct { int start, n; bool more; } reads[] = {{0, 7, true}, {0, 8, false}, {0, 9, false}, {5, 2, true}, {5, 3, false}};
    for (const auto& r : reads) {
        in.seekg(static_cast<uint64_t>(r.start));
        char dst[16] = {};
        EXPECT_EQ(in.read(dst, r.n), r.more) << r.start << " + " << r.n;
        EXPECT_EQ(in.tellg(), static_cast<uint64_t>(r.start + r.n));
        EXPECT_EQ(std::string(dst, static_cast<std::size_t>(r.n)), std::string("012345678").substr(static_cast<std::size_t>(r.start), static_cast<std::size_t>(r.n)));
    }
    char dst[16];
    in.seekg(4);
    EXPECT_EQ(ioExcText([&] { in.read(dst, 6); }), kShort);
    EXPECT_EQ(in.tellg(), 4u);
    EXPECT_EQ(in.readMemoryMapped(5), reinterpret_cast<char*>(b->buffer) + 4);  // exactly to the end
    EXPECT_EQ(ioExcText([&] { in.readMemoryMapped(1); }), kShort);
    EXPECT_EQ(in.tellg(), 9u);
    in.seekg(10);
    EXPECT_EQ(in.tellg(), 9u);
    in.seekg((1ULL << 32) + 3);
    in.clear();
    EXPECT_EQ(in.tellg(), 3u);
    EXPECT_EQ(ioExcText([&] { in.readMemoryMapped(7); }), kShort);
    EXPECT_EQ(in.tellg(), 3u);
}

// Writing: empties the buffer first, drops bytes that do not fit (the last
// byte of the capacity stays free) without an error, seeks without growing
// the file, and ignores refused seeks and the high 32 bits of a position.
TEST(FileBufferStreamOut, WritesThroughTheBuffersCursor)
{
    auto b = fileBufferWith(Bytes(50, 'x'), kWhole, kWhole, 20);
    b->setBufPosition(15);
    _imgFileBufferStreamOut out(b.get());
    auto content = [&] {
        const Bytes c = contentOf(*b);
        return std::string(c.begin(), c.end());
    };
    EXPECT_EQ(std::string(out.fileName()), "noFile");
    EXPECT_EQ(b->sizeLoaded + b->fileSize + b->bufPosition, 0);
    out.write("abcdef", 6);
    out.seekp(2);
    out.write("XY", 2);
    out.seekp(15);  // beyond the data: the cursor moves, the file does not grow
    EXPECT_EQ(out.tellp(), 15u);
    EXPECT_EQ(content(), "abXYef");
    out.seekp(21);  // beyond the capacity
    EXPECT_EQ(out.tellp(), 15u);
    out.seekp((1ULL << 32) + 6);
    EXPECT_EQ(out.tellp(), 6u);
    out.write("ghijklm", 7);
    out.write("nopqrst", 7);  // 13 + 7 reaches the capacity
    out.write("nopqrs", 6);
    EXPECT_EQ(content(), "abXYefghijklmnopqrs");
}

// Through both adapters with OpenEXR: the bytes written are OpenEXR's own,
// the pixels read are those an independent stream reads, handed out zero-copy.
TEST(ExrThroughAdapters, RoundTripMatchesOpenExrInMemory)
{
    const struct { bool tiled; Imf::Compression compression; Imf::LineOrder order; } layouts[] = {
        {false, Imf::NO_COMPRESSION, Imf::INCREASING_Y}, {false, Imf::RLE_COMPRESSION, Imf::DECREASING_Y},
        {false, Imf::PIZ_COMPRESSION, Imf::INCREASING_Y}, {false, Imf::DWAB_COMPRESSION, Imf::INCREASING_Y},
        {true, Imf::NO_COMPRESSION, Imf::RANDOM_Y},      {true, Imf::ZIP_COMPRESSION, Imf::DECREASING_Y}};
    for (const auto& layout : layouts) {
        SCOPED_TRACE(::testing::Message() << layout.tiled << " " << layout.compression << " " << layout.order);
        ExrPart part;
        part.displayWindow = box(-3, -2, 40, 30);
        part.dataWindow = box(-1, 2, 36, 29);
        part.channels.push_back({"Z", Imf::FLOAT});
        part.channels.push_back({"id", Imf::UINT});
        part.compression = layout.compression;
        part.lineOrder = layout.order;
        part.tiled = layout.tiled;
        part.tileWidth = 16;
        part.attribute("KT/jobID", std::string("JOB12"));
        const Bytes reference = makeExr(part);
        auto out = emptyFileBuffer(static_cast<unsigned>(reference.size() + 9));
        {
            _imgFileBufferStreamOut stream(out.get());
            writeExr(stream, part);
        }
        const Bytes written = contentOf(*out);
        EXPECT_TRUE(written == reference && out->fileSize == out->sizeLoaded);

        auto in = fileBufferWith(written);
        RecordingStream stream(in.get());
        const DecodedExr viaAdapter = readExr(stream);
        EXPECT_TRUE(viaAdapter.complete);
        expectSamePixels(viaAdapter, readExr(reference));
        EXPECT_EQ(viaAdapter.header.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "JOB12");
        ASSERT_FALSE(stream.handedOut.empty());
        const char* begin = reinterpret_cast<const char*>(in->buffer);
        for (const auto& [p, n] : stream.handedOut) EXPECT_TRUE(p >= begin && p + n <= begin + in->sizeLoaded);
    }
    ExrPart second;
    second.tiled = true;
    second.channels = channelList({"Z"}, Imf::FLOAT);
    const Bytes multi = makeMultiPartExr({ExrPart(), second});
    auto in = fileBufferWith(multi);
    for (int p = 0; p < 2; ++p) {
        _imgFileBufferStream stream(in.get());
        expectSamePixels(readExr(stream, p), readExr(multi, p));
    }
}
