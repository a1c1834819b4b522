#include "tests/robustness/sampleFiles.h"

#include <Imath/ImathMatrix.h>
#include <Imath/ImathVec.h>

#include <cmath>

using namespace kt::test;

namespace kt::robust {

std::vector<SampleFile> sampleFiles()
{
    std::vector<SampleFile> files;
    auto add = [&files](const std::string& name, const ExrPart& part) { files.push_back({name, makeExr(part)}); };

    ExrPart zip;
    zip.displayWindow = box(0, 0, 23, 15);
    zip.attribute("KT/jobID", std::string("JOB12"));
    zip.attribute("KT/clientname", std::string("client"));
    zip.attribute("exposure", 1.5f);
    zip.attribute("frame", 42);
    zip.attribute("offset", Imath::V2f(0.5f, -2.0f));
    zip.attribute("camera", Imath::M44f());
    zip.attribute("weights", std::vector<float>{0.25f, 0.5f});
    zip.attribute("passes", std::vector<std::string>{"beauty", "depth"});
    add("scan lines, ZIP, attributes", zip);

    ExrPart window;
    window.displayWindow = box(0, 0, 23, 15);
    window.dataWindow = box(4, 2, 19, 13);
    window.channels = channelList({"B", "G", "R"}, Imf::FLOAT);
    window.compression = Imf::NO_COMPRESSION;
    add("scan lines, uncompressed float, data window inside", window);

    ExrPart mip;
    mip.displayWindow = box(0, 0, 19, 11);
    mip.compression = Imf::PIZ_COMPRESSION;
    mip.tiled = true;
    mip.levelMode = Imf::MIPMAP_LEVELS;
    mip.roundingMode = Imf::ROUND_UP;
    add("tiled, PIZ, mip-mapped", mip);

    ExrPart rip;
    rip.displayWindow = box(0, 0, 15, 15);
    rip.dataWindow = box(-3, -2, 12, 13);
    rip.compression = Imf::RLE_COMPRESSION;
    rip.tiled = true;
    rip.levelMode = Imf::RIPMAP_LEVELS;
    add("tiled, RLE, rip-mapped, data window across", rip);

    ExrPart b44;
    b44.displayWindow = box(0, 0, 15, 15);
    b44.compression = Imf::B44A_COMPRESSION;
    b44.lineOrder = Imf::DECREASING_Y;
    add("scan lines, B44A, decreasing y", b44);

    ExrPart dwa;
    dwa.displayWindow = box(0, 0, 31, 15);
    dwa.channels = channelList({"B", "G", "R"});
    dwa.compression = Imf::DWAA_COMPRESSION;
    add("scan lines, DWAA", dwa);

    ExrPart mixed;
    mixed.displayWindow = box(0, 0, 15, 7);
    mixed.channels = {{"A", Imf::FLOAT}, {"B"}, {"G"}, {"R"}, {"Z", Imf::UINT}};
    mixed.compression = Imf::PXR24_COMPRESSION;
    add("scan lines, PXR24, half, float and unsigned", mixed);

    ExrPart tiles;
    tiles.displayWindow = box(0, 0, 20, 9);
    tiles.compression = Imf::ZIPS_COMPRESSION;
    tiles.tiled = true;
    tiles.tileWidth = 16;
    tiles.tileHeight = 4;
    add("tiled, ZIPS, one level", tiles);

    ExrPart chroma;
    chroma.displayWindow = box(0, 0, 15, 11);
    chroma.channels = {ExrChannel("Y"), ExrChannel("RY", Imf::HALF, 2, 2), ExrChannel("BY", Imf::HALF, 2, 2)};
    chroma.compression = Imf::ZIPS_COMPRESSION;
    add("luminance/chroma, subsampled", chroma);

    ExrPart deep;
    deep.displayWindow = box(0, 0, 11, 7);
    deep.compression = Imf::ZIPS_COMPRESSION;
    deep.channels = {{"A"}, {"B"}, {"G"}, {"R"}, {"Z", Imf::FLOAT}};  // depth lets OpenEXR flatten the samples
    deep.deepSamples = [](int x, int y) { return (x + y) % 3; };
    add("deep scan lines, ZIPS", deep);

    ExrPart first = zip;
    first.name = "beauty";
    ExrPart second = tiles;
    second.name = "depth";
    second.compression = Imf::NO_COMPRESSION;
    second.displayWindow = first.displayWindow;  // shared by all parts
    second.dataWindow = box(0, 0, 20, 9);
    files.push_back({"multi-part, scan lines and tiles", makeMultiPartExr({first, second})});
    return files;
}

}  // namespace kt::robust
