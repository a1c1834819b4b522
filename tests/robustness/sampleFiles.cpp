#include "tests/robustness/sampleFiles.h"

#include <Imath/ImathMatrix.h>
#include <Imath/ImathVec.h>

using namespace kt::test;

namespace kt::robust {

std::vector<SampleFile> sampleFiles()
{
    std::vector<SampleFile> files;
    // A part of the given display window and compression, with every other setting at its default.
    auto part = [](const Imath::Box2i& display, Imf::Compression compression, bool tiled = false) {
        ExrPart p;
        p.displayWindow = display;
        p.compression = compression;
        p.tiled = tiled;
        return p;
    };
    auto add = [&files](const std::string& name, const ExrPart& p) { files.push_back({name, makeExr(p)}); };

    ExrPart zip = part(box(0, 0, 23, 15), Imf::ZIP_COMPRESSION);
    zip.attribute("KT/jobID", std::string("JOB12")).attribute("KT/clientname", std::string("client"));
    zip.attribute("exposure", 1.5f).attribute("frame", 42).attribute("offset", Imath::V2f(0.5f, -2.0f));
    zip.attribute("camera", Imath::M44f()).attribute("weights", std::vector<float>{0.25f, 0.5f});
    zip.attribute("passes", std::vector<std::string>{"beauty", "depth"});
    add("scan lines, ZIP, attributes", zip);

    ExrPart window = part(box(0, 0, 23, 15), Imf::NO_COMPRESSION);
    window.dataWindow = box(4, 2, 19, 13);
    window.channels = channelList({"B", "G", "R"}, Imf::FLOAT);
    add("scan lines, uncompressed float, data window inside", window);

    ExrPart mip = part(box(0, 0, 19, 11), Imf::PIZ_COMPRESSION, true);
    mip.levelMode = Imf::MIPMAP_LEVELS;
    mip.roundingMode = Imf::ROUND_UP;
    add("tiled, PIZ, mip-mapped", mip);

    ExrPart rip = part(box(0, 0, 15, 15), Imf::RLE_COMPRESSION, true);
    rip.dataWindow = box(-3, -2, 12, 13);
    rip.levelMode = Imf::RIPMAP_LEVELS;
    add("tiled, RLE, rip-mapped, data window across", rip);

    ExrPart b44 = part(box(0, 0, 15, 15), Imf::B44A_COMPRESSION);
    b44.lineOrder = Imf::DECREASING_Y;
    add("scan lines, B44A, decreasing y", b44);

    ExrPart dwa = part(box(0, 0, 31, 15), Imf::DWAA_COMPRESSION);
    dwa.channels = channelList({"B", "G", "R"});
    add("scan lines, DWAA", dwa);

    ExrPart mixed = part(box(0, 0, 15, 7), Imf::PXR24_COMPRESSION);
    mixed.channels = {{"A", Imf::FLOAT}, {"B"}, {"G"}, {"R"}, {"Z", Imf::UINT}};
    add("scan lines, PXR24, half, float and unsigned", mixed);

    ExrPart tiles = part(box(0, 0, 20, 9), Imf::ZIPS_COMPRESSION, true);
    tiles.tileWidth = 16;
    tiles.tileHeight = 4;
    add("tiled, ZIPS, one level", tiles);

    ExrPart chroma = part(box(0, 0, 15, 11), Imf::ZIPS_COMPRESSION);
    chroma.channels = {ExrChannel("Y"), ExrChannel("RY", Imf::HALF, 2, 2), ExrChannel("BY", Imf::HALF, 2, 2)};
    add("luminance/chroma, subsampled", chroma);

    ExrPart deep = part(box(0, 0, 11, 7), Imf::ZIPS_COMPRESSION);
    deep.channels = {{"A"}, {"B"}, {"G"}, {"R"}, {"Z", Imf::FLOAT}};  // depth lets OpenEXR flatten the samples
    deep.deepSamples = [](int x, int y) { return (x + y) % 3; };
    add("deep scan lines, ZIPS", deep);

    ExrPart first = zip, second = tiles;
    first.name = "beauty";
    second.name = "depth";
    second.compression = Imf::NO_COMPRESSION;
    second.displayWindow = first.displayWindow;  // shared by all parts
    second.dataWindow = box(0, 0, 20, 9);
    files.push_back({"multi-part, scan lines and tiles", makeMultiPartExr({first, second})});
    return files;
}

}  // namespace kt::robust
