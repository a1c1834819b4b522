// The encoders' quick writer against OpenEXR's output file: for every image of
// the table, at every depth and with 0, 1 and 2 worker threads, the same
// status, infoText, console output and painted image, the same header bytes,
// and files that OpenEXR and oiiotool read as the same pixels.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrChunkReader.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"
#include "tests/support/programRun.h"

#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfStringAttribute.h>

using namespace kt::test;

namespace {

template <class B, int (*Export)(imgCallRecord*)>
struct Depth {
    using Buffer = B;
    static int encode(imgCallRecord* call) { return Export(call); }
};
using Depths = ::testing::Types<Depth<ktP::_imgRGBABuffer8, imgEncode8>, Depth<ktP::_imgRGBABuffer16, imgEncode16>,
                                Depth<ktP::_imgRGBABufferf, imgEncodef>>;

enum class Content { noise, blob, empty, specials };

struct Case {
    const char* name;
    int width, height;
    Content content;
    const char* appName = "";
    bool verbose = false;
    unsigned fileCapacity = 0;  // 0: room enough
    bool longAttribute = false;
};

const Case kCases[] = {
    {"noise", 67, 45, Content::noise},
    {"blob", 120, 80, Content::blob},
    {"empty", 40, 30, Content::empty},
    {"special values", 33, 17, Content::specials},
    {"one row", 200, 1, Content::noise},
    {"region report", 60, 50, Content::blob, "ktExrCropRegion", true},
    {"no crop", 60, 50, Content::blob, "ktExrCropRegion_UNDO", true},
    {"client and long names", 50, 40, Content::blob, "ktClient", false, 0, true},
    {"file buffer too small", 64, 64, Content::noise, "", false, 3000},
};

// Fills the image's values: noise over everything, one smooth blob in an
// otherwise empty image, nothing, or (float only) infinities, NaNs and -0.
template <class Buffer>
void fill(Buffer& image, Content content)
{
    const int w = static_cast<int>(image.width), h = static_cast<int>(image.height);
    const std::size_t values = std::size_t(w) * h * 4;
    std::mt19937 random(7);
    auto* bytes = reinterpret_cast<unsigned char*>(image.pixels);
    std::memset(bytes, 0, values * image.bytesPerPixel / 4);
    for (std::size_t i = 0; i < values; ++i) {
        const int x = static_cast<int>(i / 4) % w, y = static_cast<int>(i / 4) / w;
        double v = 0;  // in [0, 1]
        if (content == Content::noise) v = std::uniform_real_distribution<double>(0, 1)(random);
        if (content == Content::blob || content == Content::specials) {
            const double dx = x - w * 0.6, dy = y - h * 0.4, r2 = dx * dx + dy * dy;
            v = r2 < (w * w) / 16.0 ? 1.0 - r2 / (w * w / 16.0) : 0.0;
        }
        if (image.bytesPerPixel == 4) bytes[i] = static_cast<unsigned char>(v * 255);
        if (image.bytesPerPixel == 8) reinterpret_cast<unsigned short*>(bytes)[i] = static_cast<unsigned short>(v * 65535);
        if (image.bytesPerPixel == 16) {
            float f = static_cast<float>(v * 3.0);
            if (content == Content::specials && i % 7 == 3) {
                const float special[] = {std::numeric_limits<float>::infinity(), std::nanf(""), -0.0f, 70000.0f,
                                         -1e-8f, std::numeric_limits<float>::signaling_NaN()};
                f = special[(i / 7) % 6];
            }
            reinterpret_cast<float*>(bytes)[i] = f;
        }
    }
}

struct Result {
    int status = 0;
    std::string infoText, console;
    std::vector<unsigned char> image;  // the buffer after the call (the float encoder paints it)
    Bytes file;
};

template <class D>
Result encodeOnce(const Case& c, bool reference)
{
    typename D::Buffer image(static_cast<unsigned>(c.width * c.height));
    image.setWidth(c.width);
    image.setHeight(c.height);
    fill(image, c.content);
    auto file = emptyFileBuffer(c.fileCapacity ? c.fileCapacity : unsigned(c.width * c.height * 8 + 65536));
    auto metadata = std::make_unique<ktExrHeaderData>();
    imgJobSettings settings{};
    settings.verbose = c.verbose ? 1 : 0;
    settings.appName = c.appName;
    std::snprintf(settings.clientName, sizeof settings.clientName, "%s", "ACME Films");
    if (c.longAttribute) {
        Imf::Header extra;
        extra.insert("a name of more than thirty-one characters", Imf::StringAttribute("long"));
        extra.insert("frame", Imf::IntAttribute(42));
        metadata->magic = ktExrHeaderMagic;
        metadata->count = 0;
        bool unused = false;
        headerGetData(extra, *metadata, unused);
    }
    imgCallRecord call{file.get(), &image, metadata.get(), &settings};

    kt::exrForceReferencePath(reference);
    Result r;
    ::testing::internal::CaptureStdout();
    r.status = D::encode(&call);
    r.console = ::testing::internal::GetCapturedStdout();
    kt::exrForceReferencePath(false);

    r.infoText = textOf(image.imageInfo.infoText);
    const auto* first = reinterpret_cast<const unsigned char*>(image.pixels);
    r.image.assign(first, first + std::size_t(image.maxPixels) * std::size_t(image.bytesPerPixel));
    r.file = contentOf(*file);
    return r;
}

std::string dateOf(const Bytes& file)
{
    const Imf::Header h = readExr(file, 0, false).header;
    const auto* date = h.findTypedAttribute<Imf::StringAttribute>("KT/dateWritten");
    return date ? date->value() : std::string();
}

template <class D>
class EncodePaths : public ::testing::Test {};
TYPED_TEST_SUITE(EncodePaths, Depths);

TYPED_TEST(EncodePaths, SameOutcomeHeaderAndPixelsAsOpenExrsOutputFile)
{
    const int savedThreads = Imf::globalThreadCount();
    for (int threads = 0; threads <= 2; ++threads) {
        Imf::setGlobalThreadCount(threads);
        for (const Case& c : kCases) {
            SCOPED_TRACE(::testing::Message() << c.name << ", " << threads << " threads");
            // Both within one second, so that their date stamps agree.
            Result want, got;
            for (int attempt = 0; attempt < 3; ++attempt) {
                want = encodeOnce<TypeParam>(c, true);
                got = encodeOnce<TypeParam>(c, false);
                if (want.status != 1 || got.status != 1 ||
                    dateOf(want.file) == dateOf(got.file))
                    break;
            }
            EXPECT_EQ(got.status, want.status);
            EXPECT_EQ(got.infoText, want.infoText);
            EXPECT_EQ(got.console, want.console);
            EXPECT_TRUE(got.image == want.image) << "the buffer after the call differs";
            if (want.status != 1) continue;
            // The header and the offset table's length are OpenEXR's own, attributes and all.
            const std::size_t header = headerEnd(want.file);
            ASSERT_EQ(headerEnd(got.file), header);
            EXPECT_TRUE(std::equal(want.file.begin(), want.file.begin() + long(header), got.file.begin()));
            EXPECT_EQ(chunkCount(got.file), chunkCount(want.file));
            const DecodedExr a = readExr(want.file), b = readExr(got.file);
            EXPECT_TRUE(b.complete);
            ASSERT_EQ(a.channels.size(), b.channels.size());
            for (std::size_t k = 0; k < a.channels.size(); ++k) {
                EXPECT_EQ(b.channels[k].name, a.channels[k].name);
                // Compared as bits: NaNs must match too.
                EXPECT_EQ(0, std::memcmp(a.channels[k].values.data(), b.channels[k].values.data(),
                                         a.channels[k].values.size() * sizeof(double)))
                    << a.channels[k].name;
            }
        }
    }
    Imf::setGlobalThreadCount(savedThreads);
}

// oiiotool, reading independently of OpenEXR's C++ reader: the same
// attributes and no pixel difference.
TEST(EncodePathsOiio, OiiotoolSeesTheSameImage)
{
    if (run({"oiiotool", "--help"}).status != 0) GTEST_SKIP() << "oiiotool is not installed";
    const std::string dir = ::testing::TempDir();
    for (const Case& c : {kCases[3], kCases[7]}) {
        SCOPED_TRACE(c.name);
        const std::string paths[2] = {dir + "/encoded0.exr", dir + "/encoded1.exr"};
        std::string info[2];
        for (int quick = 0; quick < 2; ++quick) {
            const Result r = encodeOnce<Depth<ktP::_imgRGBABufferf, imgEncodef>>(c, quick == 0);
            ASSERT_EQ(r.status, 1);
            std::ofstream(paths[quick], std::ios::binary).write(r.file.data(), long(r.file.size()));
            const ProgramRun oiio = run({"oiiotool", "--info", "-v", paths[quick]});
            info[quick] = oiio.out + oiio.err;
            for (std::size_t name; (name = info[quick].find(paths[quick])) != std::string::npos;)
                info[quick].erase(name, paths[quick].size());
            // The date stamp may have ticked between the two encodes.
            const std::size_t date = info[quick].find("KT/dateWritten");
            ASSERT_NE(date, std::string::npos);
            info[quick].erase(date, info[quick].find('\n', date) - date);
        }
        EXPECT_EQ(info[1], info[0]);
        EXPECT_EQ(run({"oiiotool", paths[0], paths[1], "--diff"}).status, 0);
    }
}

}  // namespace
