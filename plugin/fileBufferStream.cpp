#include "plugin/fileBufferStream.h"

#include <OpenEXR/Iex.h>

namespace {

// The name the EXR library shows in its messages for these streams.
constexpr char kStreamName[] = "noFile";
// Callers look for this text to tell a short buffer from a damaged file.
constexpr char kShortBuffer[] = "File size smaller than requested";

}  // namespace

_imgFileBufferStream::_imgFileBufferStream(ktP::_imgFileBuffer* source)
    : OPENEXR_IMF_NAMESPACE::IStream(kStreamName), fileBuffer(source)
{
    fileBuffer->setBufPosition(0);
}

_imgFileBufferStream::~_imgFileBufferStream() = default;

bool _imgFileBufferStream::isMemoryMapped() const { return true; }

bool _imgFileBufferStream::read(char dst[], int n)
{
    if (!fileBuffer->readBuffer(reinterpret_cast<unsigned char*>(dst), n)) throw IEX_NAMESPACE::IoExc(kShortBuffer);
    return fileBuffer->bufPosition + 1 < fileBuffer->sizeLoaded;
}

char* _imgFileBufferStream::readMemoryMapped(int n)
{
    const long long start = fileBuffer->bufPosition;
    // The capacity test only matters for sizes set by hand beyond the block.
    if (n < 0 || start < 0 || start + n > fileBuffer->sizeLoaded || start + n > fileBuffer->bufferSize)
        throw IEX_NAMESPACE::IoExc(kShortBuffer);
    fileBuffer->bufPosition = start + n;
    return reinterpret_cast<char*>(fileBuffer->buffer + start);
}

uint64_t _imgFileBufferStream::tellg() { return static_cast<uint64_t>(fileBuffer->bufPosition); }

void _imgFileBufferStream::seekg(uint64_t pos)
{
    fileBuffer->setBufPosition(static_cast<long long>(static_cast<uint32_t>(pos)));
}

void _imgFileBufferStream::clear() {}

_imgFileBufferStreamOut::_imgFileBufferStreamOut(ktP::_imgFileBuffer* target)
    : OPENEXR_IMF_NAMESPACE::OStream(kStreamName), fileBuffer(target)
{
    fileBuffer->setBufPosition(0);
    fileBuffer->sizeLoaded = 0;
    fileBuffer->fileSize = 0;
}

_imgFileBufferStreamOut::~_imgFileBufferStreamOut() = default;

void _imgFileBufferStreamOut::write(const char src[], int n)
{
    // writeBuffer only reads from src; its signature predates const.
    fileBuffer->writeBuffer(reinterpret_cast<unsigned char*>(const_cast<char*>(src)), n);
}

uint64_t _imgFileBufferStreamOut::tellp() { return static_cast<uint64_t>(fileBuffer->bufPosition); }

void _imgFileBufferStreamOut::seekp(uint64_t pos)
{
    fileBuffer->setBufPositionWrite(static_cast<long long>(static_cast<uint32_t>(pos)), false);
}
