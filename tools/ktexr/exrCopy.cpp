#include "exrCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <OpenEXR/ImfInputPart.h>
#include <OpenEXR/ImfMultiPartOutputFile.h>
#include <OpenEXR/ImfOutputPart.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfTiledOutputPart.h>

#include "exitStatus.h"
#include "exrBands.h"
#include "outputFile.h"

namespace ktexr {

namespace {

// The band height of an output part: whole chunks (scan-line blocks or rows
// of tiles), about kBandBytes of samples.
int outputBandLines(const BandedPart& part)
{
    const Imf::Header& h = part.header;
    const int chunk = h.hasTileDescription() ? static_cast<int>(h.tileDescription().ySize)
                                             : linesPerChunk(h.compression());
    Imf::Header wide = h;
    wide.dataWindow() = Imath::Box2i({part.bandMinX, 0}, {part.bandMaxX, 0});
    return bandHeight(wide, chunk);
}

void writePart(Imf::MultiPartOutputFile& out, int index, const BandedPart& part, const BandFiller& fill)
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

namespace {

// An OpenEXR output stream over a file descriptor, at its own position so
// that OpenEXR can go back to fill in the offset tables.
class DescriptorStream : public Imf::OStream {
public:
    DescriptorStream(int fd, const std::string& name) : Imf::OStream(name.c_str()), fd_(fd), name_(name) {}

    void write(const char c[], int n) override
    {
        while (n > 0) {
            const ssize_t done = ::pwrite(fd_, c, static_cast<std::size_t>(n), static_cast<off_t>(at_));
            if (done < 0) {
                if (errno == EINTR) continue;
                throw Failure(exitUnwritable, name_, std::string("cannot write: ") + std::strerror(errno));
            }
            c += done;
            n -= static_cast<int>(done);
            at_ += static_cast<std::uint64_t>(done);
        }
        end_ = std::max(end_, at_);
    }
    std::uint64_t tellp() override { return at_; }
    void seekp(std::uint64_t at) override { at_ = at; }
    std::uint64_t size() const { return end_; }

private:
    int fd_;
    std::string name_;
    std::uint64_t at_ = 0, end_ = 0;
};

// Counts what would be written and keeps none of it.
class CountingStream : public Imf::OStream {
public:
    CountingStream() : Imf::OStream("(size only)") {}
    void write(const char[], int n) override
    {
        at_ += static_cast<std::uint64_t>(n);
        end_ = std::max(end_, at_);
    }
    std::uint64_t tellp() override { return at_; }
    void seekp(std::uint64_t at) override { at_ = at; }
    std::uint64_t size() const { return end_; }

private:
    std::uint64_t at_ = 0, end_ = 0;
};

void writeParts(Imf::OStream& stream, const std::vector<BandedPart>& parts, const BandFiller& fill)
{
    std::vector<Imf::Header> headers;
    for (const BandedPart& part : parts) headers.push_back(part.header);
    if (headers.size() > 1)
        for (std::size_t i = 0; i < headers.size(); ++i) {
            if (!headers[i].hasName()) headers[i].setName("part" + std::to_string(i));
            if (!headers[i].hasType())
                headers[i].setType(headers[i].hasTileDescription() ? Imf::TILEDIMAGE : Imf::SCANLINEIMAGE);
        }
    Imf::MultiPartOutputFile out(stream, headers.data(), static_cast<int>(headers.size()));
    for (std::size_t i = 0; i < parts.size(); ++i) writePart(out, static_cast<int>(i), parts[i], fill);
}

// A file of our own in TMPDIR, already unlinked: nothing is left behind,
// however the program ends.
int privateTemporary(const std::string& forWhom)
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ktexr-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0)
        throw Failure(exitUnwritable, forWhom,
                      "cannot make a temporary file in " + pattern.substr(0, pattern.rfind('/')) + ": " +
                          std::strerror(errno));
    ::unlink(name.data());
    return fd;
}

// Copies the first `size` bytes of `fd` to `out`.
void copyThrough(int fd, std::uint64_t size, OutputFile& out)
{
    std::vector<char> block(1 << 20);
    for (std::uint64_t at = 0; at < size;) {
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - at));
        const ssize_t got = ::pread(fd, block.data(), want, static_cast<off_t>(at));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0)
            throw Failure(exitUnwritable, out.path(),
                          std::string("cannot read back the temporary file: ") +
                              (got < 0 ? std::strerror(errno) : "it is shorter than written"));
        out.write(block.data(), static_cast<std::size_t>(got));
        at += static_cast<std::uint64_t>(got);
    }
}

}  // namespace

std::uint64_t writeBanded(const std::string& path, const std::vector<BandedPart>& parts, const BandFiller& fill)
{
    try {
        OutputFile out(path);
        std::uint64_t size = 0;
        if (out.direct()) {
            const int fd = privateTemporary(path);
            try {
                DescriptorStream stream(fd, path);
                writeParts(stream, parts, fill);
                size = stream.size();
                copyThrough(fd, size, out);
            } catch (...) {
                ::close(fd);
                throw;
            }
            ::close(fd);
        } else {
            DescriptorStream stream(out.descriptor(), path);
            writeParts(stream, parts, fill);
            size = stream.size();
        }
        out.commit();
        return size;
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(exitUnwritable, path, std::string("cannot be written: ") + e.what());
    }
}

std::uint64_t bandedSize(const std::vector<BandedPart>& parts, const BandFiller& fill)
{
    CountingStream stream;
    writeParts(stream, parts, fill);
    return stream.size();
}

}  // namespace ktexr
