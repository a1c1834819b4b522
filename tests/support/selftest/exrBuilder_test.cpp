// The test builder against OpenEXR's own reading: what it claims to write is
// what an independent reader finds, and its byte helpers point where the file
// format says.
#include <gtest/gtest.h>

#include <Imath/half.h>
#include <OpenEXR/ImfPartType.h>

#include <unistd.h>

#include <algorithm>

#include "tests/support/exrBuilder.h"

using namespace kt::test;

TEST(ExrBuilder, WindowsChannelsValuesAndAttributesArriveAsDescribed)
{
    ExrPart part;
    part.displayWindow = box(-5, -4, 20, 10);
    part.dataWindow = box(-2, 0, 7, 9);
    part.channels = {{"beauty.R", Imf::FLOAT}, {"id", Imf::UINT}, {"Y", Imf::HALF, 2, 1}};
    part.channels[1].value = [](int x, int y) { return 1000.0 * y + x + 2; };
    part.value = [](const std::string& c, int x, int y) { return c == "Y" ? 0.25 * x : x * 0.5 + y; };
    part.compression = Imf::PIZ_COMPRESSION;
    part.attribute("KT/jobID", std::string("J1"));
    const DecodedExr d = readExr(makeExr(part));
    EXPECT_EQ(d.header.displayWindow(), box(-5, -4, 20, 10));
    EXPECT_EQ(d.header.dataWindow(), box(-2, 0, 7, 9));
    EXPECT_TRUE(d.complete);
    EXPECT_EQ(d.version & 0x1200, 0);  // neither tiled nor multi-part
    ASSERT_EQ(d.channels.size(), 3u);
    EXPECT_EQ(d.channels[0].name, "Y");  // OpenEXR keeps channels sorted by name
    EXPECT_EQ(d.channel("beauty.R").at(-2, 9), 8.0);
    EXPECT_EQ(d.channel("id").at(7, 9), 9009.0);
    EXPECT_EQ(d.channel("Y").at(-2, 3), -0.5);
    EXPECT_THROW(d.channel("Y").at(-1, 3), std::out_of_range);  // off the sampling grid
    EXPECT_EQ(d.header.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "J1");
    // The default pattern is exact in half and differs between neighbours and channels.
    const double v = patternValue("R", -3, 2);
    EXPECT_EQ(static_cast<double>(static_cast<float>(half(static_cast<float>(v)))), v);
    EXPECT_NE(patternValue("R", 0, 0), patternValue("R", 1, 0));
    EXPECT_NE(patternValue("R", 0, 0), patternValue("G", 0, 0));
}

// Chunk counts as the offset tables list them, for every scan-line grouping,
// mip- and rip-maps and multi-part files; a write limit leaves zeros in the table.
TEST(ExrBuilder, ChunksHeaderEndsAndWriteLimits)
{
    const std::pair<Imf::Compression, int> groupings[] = {
        {Imf::NO_COMPRESSION, 40}, {Imf::ZIP_COMPRESSION, 3}, {Imf::PIZ_COMPRESSION, 2}, {Imf::DWAB_COMPRESSION, 1}};
    for (const auto& [compression, chunks] : groupings) {
        ExrPart part;
        part.displayWindow = box(0, 0, 9, 39);
        part.compression = compression;
        part.writeLimit = compression == Imf::NO_COMPRESSION ? 5 : -1;
        const Bytes file = makeExr(part);
        EXPECT_EQ(readExr(file, 0, false).complete, compression != Imf::NO_COMPRESSION);
        const std::vector<std::uint64_t> offsets = chunkOffsets(file);
        ASSERT_EQ(offsets.size(), static_cast<std::size_t>(chunks)) << compression;
        EXPECT_EQ(offsets[0], offsetTableEnd(file));
        EXPECT_EQ(std::count(offsets.begin(), offsets.end(), 0u), compression ? 0 : 35);
        // The last attribute's value (screenWindowWidth, a float) ends right before the terminating zero.
        EXPECT_EQ(findBytes(file, "screenWindowWidth") + sizeof("screenWindowWidth") + sizeof("float") + 8,
                  headerEnd(file) - 1);
    }
    ExrPart mip;
    mip.displayWindow = box(0, 0, 15, 15);
    mip.tiled = true;
    mip.levelMode = Imf::MIPMAP_LEVELS;  // 16, 8, 4, 2, 1: 4 + 1 + 1 + 1 + 1 tiles of 8 x 8
    EXPECT_EQ(chunkCount(makeExr(mip)), 8);
    mip.levelMode = Imf::RIPMAP_LEVELS;  // 5 x 5 levels: (2+1+1+1+1)^2 tiles
    EXPECT_TRUE(readExr(makeExr(mip), 0, false).complete);
    EXPECT_EQ(chunkCount(makeExr(mip)), 36);
    EXPECT_THROW(headerEnd(truncated(makeExr(mip), 100)), std::out_of_range);
    mip.writeLimit = 3;
    EXPECT_FALSE(readExr(makeExr(mip), 0, false).complete);

    ExrPart right;
    right.name = "right";
    right.tiled = true;
    const Bytes multi = makeMultiPartExr({ExrPart(), right});
    const std::size_t end = headerEnd(multi);
    EXPECT_EQ(multi[end - 1] | multi[end - 2], 0);  // the empty header after the last part
    EXPECT_EQ(offsetTableEnd(multi), end + 8 * static_cast<std::size_t>(chunkCount(multi, 0) + chunkCount(multi, 1)));
    EXPECT_EQ(readExr(multi, 1).header.name(), "right");
}

TEST(ExrBuilder, DeepScanLinesKeepTheirFirstSample)
{
    ExrPart deep;
    deep.compression = Imf::ZIPS_COMPRESSION;
    deep.channels = {{"A", Imf::HALF}, {"Z", Imf::FLOAT}};
    deep.deepSamples = [](int x, int y) { return (x + y) % 3; };
    for (const Bytes& file : {makeExr(deep), makeMultiPartExr({deep})}) {
        const DecodedExr d = readExr(file);
        EXPECT_EQ(d.header.type(), Imf::DEEPSCANLINE);
        EXPECT_EQ(d.channel("Z").at(1, 0), static_cast<float>(patternValue("Z", 1, 0)));
        EXPECT_EQ(d.channel("A").at(15, 11), patternValue("A", 15, 11));
        EXPECT_EQ(d.channel("Z").at(0, 0), 0.0);  // no samples there
    }
    deep.tiled = true;
    EXPECT_THROW(makeExr(deep), std::invalid_argument);
}

TEST(ExrBuilder, BuffersHoldThePrefixTheyAreTold)
{
    const Bytes file = makeExr(ExrPart());
    auto whole = fileBufferWith(file);
    EXPECT_EQ(whole->bufferSize, static_cast<long long>(file.size()) + 1);
    EXPECT_EQ(contentOf(*whole), file);
    auto head = fileBufferWith(file, 100);
    EXPECT_EQ(head->fileSize, static_cast<long long>(file.size()));
    EXPECT_EQ(contentOf(*head), truncated(file, 100));
    EXPECT_EQ(fileBufferWith(file, 100, 100, 5000)->bufferSize, 5000);
    const GuardPagedFileBuffer guarded(file, 100);
    EXPECT_EQ(contentOf(*guarded.get()), truncated(file, 100));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(guarded.get()->buffer + 100) % sysconf(_SC_PAGESIZE), 0u);
    EXPECT_EQ(littleEndianAt(patched(file, 1, {0x77, 0x78}), 0, 3), 0x787776u);
    EXPECT_EQ(findBytes(file, "channels"), 8u);
}
