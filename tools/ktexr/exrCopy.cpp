#include "exrCopy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <OpenEXR/ImfInputPart.h>
#include <OpenEXR/ImfMultiPartOutputFile.h>
#include <OpenEXR/ImfOutputPart.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfTiledOutputPart.h>

#include "exitStatus.h"
#include "exrBands.h"

namespace ktexr {

namespace {

// The band height of an output part: whole chunks (scan-line blocks or rows
// of tiles), about kBandBytes of samples.
int outputBandLines(const PartLayout& part)
{
    const Imf::Header& h = part.header;
    const int chunk = h.hasTileDescription() ? static_cast<int>(h.tileDescription().ySize)
                                             : linesPerChunk(h.compression());
    Imf::Header wide = h;
    wide.dataWindow() = Imath::Box2i({part.bandMinX, 0}, {part.bandMaxX, 0});
    return bandHeight(wide, chunk);
}

void writePart(Imf::MultiPartOutputFile& out, int index, const PartLayout& part, const BandFiller& fill)
{
    const Imath::Box2i window = part.header.dataWindow();
    const int lines = outputBandLines(part);
    ChannelBand band(part.header.channels(), part.bandMinX, part.bandMaxX, true);
    const bool tiled = part.header.hasTileDescription();
    const bool decreasing = !tiled && part.header.lineOrder() == Imf::DECREASING_Y;
    std::unique_ptr<Imf::OutputPart> lineOut;
    std::unique_ptr<Imf::TiledOutputPart> tileOut;
    if (tiled)
        tileOut = std::make_unique<Imf::TiledOutputPart>(out, index);
    else
        lineOut = std::make_unique<Imf::OutputPart>(out, index);
    const int height = window.max.y - window.min.y + 1;
    const int bands = (height + lines - 1) / lines;
    for (int b = 0; b < bands; ++b) {
        // Scan lines go out in the file's line order; bands follow it.
        const int k = decreasing ? bands - 1 - b : b;
        const int y0 = window.min.y + k * lines;
        const int y1 = std::min(window.max.y, y0 + lines - 1);
        const Imf::FrameBuffer buffer = band.frameBuffer(y0, y1);
        fill(index, buffer, y0, y1);
        if (tiled) {
            tileOut->setFrameBuffer(buffer);
            const int tileHeight = static_cast<int>(part.header.tileDescription().ySize);
            const int firstRow = (y0 - window.min.y) / tileHeight;
            const int lastRow = (y1 - window.min.y) / tileHeight;
            tileOut->writeTiles(0, tileOut->numXTiles(0) - 1, firstRow, lastRow);
        } else {
            lineOut->setFrameBuffer(buffer);
            lineOut->writePixels(y1 - y0 + 1);
        }
    }
}

}  // namespace

void NonZeroBounds::extend(int x0, int y0, int x1, int y1)
{
    box.extendBy(Imath::V2i(x0, y0));
    box.extendBy(Imath::V2i(x1, y1));
}

Imf::Header copyableHeader(const Imf::Header& header, const std::string& file, int part)
{
    const std::string where = "part " + std::to_string(part) + (header.hasName() ? " (" + header.name() + ")" : "");
    if (header.hasType() && Imf::isDeepData(header.type()))
        throw Failure(exitNotExr, file,
                      where + " holds deep data, which crop and assemble do not handle; nothing was written");
    if (header.hasTileDescription() && header.tileDescription().mode != Imf::ONE_LEVEL)
        throw Failure(exitNotExr, file,
                      where + " is mip- or rip-mapped, which crop and assemble do not handle; nothing was written");
    // Built up rather than copied and erased from: erasing leaks the
    // attribute in the OpenEXR this is built against.
    Imf::Header copy;
    for (auto a = header.begin(); a != header.end(); ++a)
        if (std::string(a.name()) != "chunkCount") copy.insert(a.name(), a.attribute());
    return copy;
}

void readLines(Imf::MultiPartInputFile& file, int part, const Imf::FrameBuffer& buffer, int y0, int y1)
{
    const Imath::Box2i window = file.header(part).dataWindow();
    const int a = std::max(y0, window.min.y), b = std::min(y1, window.max.y);
    if (a > b) return;
    Imf::InputPart input(file, part);
    input.setFrameBuffer(buffer);
    input.readPixels(a, b);
}

void writeBanded(const std::string& path, const std::vector<PartLayout>& parts, const BandFiller& fill)
{
    const std::string temporary = path + ".ktexr-partial-" + std::to_string(::getpid());
    try {
        std::vector<Imf::Header> headers;
        for (const PartLayout& part : parts) headers.push_back(part.header);
        if (headers.size() > 1)
            for (std::size_t i = 0; i < headers.size(); ++i) {
                if (!headers[i].hasName()) headers[i].setName("part" + std::to_string(i));
                if (!headers[i].hasType())
                    headers[i].setType(headers[i].hasTileDescription() ? Imf::TILEDIMAGE : Imf::SCANLINEIMAGE);
            }
        {
            Imf::MultiPartOutputFile out(temporary.c_str(), headers.data(), static_cast<int>(headers.size()));
            for (std::size_t i = 0; i < parts.size(); ++i) writePart(out, static_cast<int>(i), parts[i], fill);
        }
        // A file replaced keeps its permissions and, where allowed, its owner.
        struct stat existing {};
        if (::stat(path.c_str(), &existing) == 0) {
            ::chmod(temporary.c_str(), existing.st_mode & 07777);
            if (::chown(temporary.c_str(), existing.st_uid, existing.st_gid) != 0) {
                // Not the owner: the new file is the user's, as any file they write.
            }
        }
        std::error_code error;
        std::filesystem::rename(temporary, path, error);
        if (error) throw Failure(exitUnwritable, path, "cannot be written: " + error.message());
    } catch (const Failure&) {
        std::remove(temporary.c_str());
        throw;
    } catch (const std::exception& e) {
        std::remove(temporary.c_str());
        throw Failure(exitUnwritable, path, std::string("cannot be written: ") + e.what());
    }
}

}  // namespace ktexr
