#include "plugin/guardedFileBufferStream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kt {

namespace {

// Beyond this a tail copy is refused outright: no chunk OpenEXR can read is
// anywhere near as large, and the allocator need not be asked.
constexpr std::uint64_t kLargestCopy = std::uint64_t{1} << 38;

}  // namespace

_imgGuardedFileBufferStream::_imgGuardedFileBufferStream(ktP::_imgFileBuffer* buffer)
    : _imgFileBufferStream(buffer), source(buffer)
{
}

_imgGuardedFileBufferStream::~_imgGuardedFileBufferStream() = default;

void _imgGuardedFileBufferStream::FreeDeleter::operator()(char* p) const { std::free(p); }

void _imgGuardedFileBufferStream::setGuard(std::uint64_t guardBytes) { guard = guardBytes; }

char* _imgGuardedFileBufferStream::readMemoryMapped(int n)
{
    char* direct = _imgFileBufferStream::readMemoryMapped(n);
    if (guard == 0) return direct;

    const long long start = direct - reinterpret_cast<char*>(source->buffer);
    const long long end = source->sizeLoaded;
    const std::uint64_t behind = static_cast<std::uint64_t>(end - start);
    if (behind >= guard) return direct;

    if (!tailCopy) {
        // The last `guard` loaded bytes (or all of them), then `guard` zeros:
        // every request starting in that tail has its guard's bytes behind it.
        // calloc leaves large blocks to the system's zero pages, so the
        // padding costs address space, not memory.
        const std::uint64_t tail = std::min(static_cast<std::uint64_t>(end), guard);
        if (guard > kLargestCopy) throw std::bad_alloc();
        void* block = std::calloc(static_cast<std::size_t>(tail + guard), 1);
        if (!block) throw std::bad_alloc();
        tailCopy.reset(static_cast<char*>(block));
        tailStart = end - static_cast<long long>(tail);
        std::memcpy(tailCopy.get(), source->buffer + tailStart, static_cast<std::size_t>(tail));
    }
    return tailCopy.get() + (start - tailStart);
}

}  // namespace kt
