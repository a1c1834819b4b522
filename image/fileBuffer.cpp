#include "image/fileBuffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

namespace ktP {
namespace {

// Bytes past the capacity, so that a four-byte load at the last byte stays inside.
constexpr unsigned int kSpareBytes = 4;

// Whether the n bytes at `at` lie in the loaded data. The capacity test only
// matters when a caller has set the fields by hand; the positioning calls
// cannot get past it.
bool inData(const _imgFileBuffer& b, long long at, long long n)
{
    long long end = 0;
    if (at < 0 || n < 0 || __builtin_add_overflow(at, n, &end)) return false;
    return end <= b.sizeLoaded && end <= b.bufferSize;
}

// The bound rule for a write of n bytes: the data as a whole (fileSize) must
// stay below the capacity, wherever the cursor stands. Together with the
// clamp of setSizeLoaded this keeps the capacity's last byte free of data.
// The cursor itself is only kept inside the allocation: a cursor parked at
// the capacity may still use the spare bytes behind it, never more.
bool roomFor(const _imgFileBuffer& b, long long n)
{
    long long highWater = 0;
    long long end = 0;
    if (n < 0 || b.bufPosition < 0 || b.buffer == nullptr) return false;
    if (__builtin_add_overflow(b.fileSize, n, &highWater) || highWater >= b.bufferSize) return false;
    if (__builtin_add_overflow(b.bufPosition, n, &end) || end > b.bufferSize + kSpareBytes) return false;
    return true;
}

// Stores n checked bytes at the cursor and moves the data's end along.
void put(_imgFileBuffer& b, const void* src, long long n)
{
    if (n > 0) std::memcpy(b.buffer + b.bufPosition, src, static_cast<std::size_t>(n));
    b.bufPosition += n;
    if (b.bufPosition > b.sizeLoaded) {
        b.fileSize = b.bufPosition;
        b.sizeLoaded = b.bufPosition;
    }
}

// A value of T from its bytes at `at`, reversed first when asked.
template <class T>
T load(const unsigned char* at, bool reverse)
{
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, at, sizeof bytes);
    if (reverse) std::reverse(bytes, bytes + sizeof bytes);
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

// Reads T at `at` if it lies in the data; value is untouched otherwise.
template <class T>
bool loadAt(const _imgFileBuffer& b, long long at, T& value, bool reverse)
{
    if (!inData(b, at, sizeof(T))) return false;
    value = load<T>(b.buffer + at, reverse);
    return true;
}

// Reads T at the cursor and advances past it.
template <class T>
bool loadNext(_imgFileBuffer& b, T& value, bool reverse)
{
    if (!loadAt(b, b.bufPosition, value, reverse)) return false;
    b.bufPosition += static_cast<long long>(sizeof(T));
    return true;
}

// Writes T at the cursor, its bytes reversed first when asked.
template <class T>
bool storeNext(_imgFileBuffer& b, const T& value, bool reverse)
{
    if (!roomFor(b, sizeof(T))) return false;
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof bytes);
    if (reverse) std::reverse(bytes, bytes + sizeof bytes);
    put(b, bytes, sizeof bytes);
    return true;
}

}  // namespace

_imgFileBuffer::_imgFileBuffer(unsigned int size)
    : buffer(nullptr), bufferSize(size), sizeLoaded(0), fileSize(0), bufPosition(0), isBigEndian(false)
{
    name.clear();
    const unsigned int total = size + kSpareBytes;
    // A capacity whose sum wraps around 32 bits could never be honoured.
    if (total >= size) buffer = new (std::nothrow) unsigned char[total];
    if (buffer == nullptr) {
        bufferSize = 0;
        return;
    }
    // The data bytes stay as they came; the spare ones are zeroed so that a
    // load reaching into them is deterministic.
    std::memset(buffer + size, 0, kSpareBytes);
}

_imgFileBuffer::~_imgFileBuffer()
{
    delete[] buffer;
    buffer = nullptr;
}

bool _imgFileBuffer::setFileSize(const long long& size)
{
    fileSize = size;
    return size <= bufferSize;
}

long long _imgFileBuffer::setSizeLoaded(long long size)
{
    if (size >= bufferSize)
        sizeLoaded = bufferSize - 1;
    else
        sizeLoaded = size < 0 ? 0 : size;
    return sizeLoaded;
}

bool _imgFileBuffer::setBufPosition(const long long& pos)
{
    if (pos < 0 || pos > sizeLoaded) return false;
    bufPosition = pos;
    return true;
}

bool _imgFileBuffer::offsetBufPosition(long long delta)
{
    if (delta == 0) return true;
    long long target = 0;
    const bool overflow = __builtin_add_overflow(bufPosition, delta, &target);
    if (delta > 0) {
        // Reaching the end exactly counts as running out, too.
        if (overflow || target >= sizeLoaded) {
            bufPosition = sizeLoaded;
            return false;
        }
    } else if (overflow || target < 0) {
        return false;
    }
    bufPosition = target;
    return true;
}

bool _imgFileBuffer::setBufPositionWrite(const long long& pos, bool extend)
{
    if (pos < 0) return false;
    if (static_cast<long long>(static_cast<std::uint32_t>(pos)) > bufferSize) return false;
    bufPosition = pos;
    if (extend && pos > sizeLoaded) {
        fileSize = pos;
        sizeLoaded = pos;
    }
    return true;
}

bool _imgFileBuffer::readUint8(unsigned char& value) { return loadNext(*this, value, false); }

bool _imgFileBuffer::readSint8(signed char& value) { return loadNext(*this, value, false); }

bool _imgFileBuffer::readdouble(double& value) { return loadNext(*this, value, false); }

bool _imgFileBuffer::readfloat(float& value, const bool& bigEndian)
{
    return loadNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readUint16(unsigned short& value, const bool& bigEndian)
{
    if (loadNext(*this, value, bigEndian != isBigEndian)) return true;
    value = 0;
    return false;
}

bool _imgFileBuffer::readSint16(short& value, const bool& bigEndian)
{
    return loadNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readUint24(unsigned int& value, const bool& bigEndian)
{
    if (!inData(*this, bufPosition, 3)) return false;
    // The fourth byte is at most one past the data, inside the spare bytes.
    const unsigned char* b = buffer + bufPosition;
    if (bigEndian == isBigEndian)
        value = b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<unsigned int>(b[3]) << 24);
    else
        value = (b[0] << 16) | (b[1] << 8) | b[2];
    bufPosition += 3;
    return true;
}

bool _imgFileBuffer::readUint32(unsigned int& value, const bool& bigEndian)
{
    return loadNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readSint32(int& value, const bool& bigEndian)
{
    return loadNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readBuffer(unsigned char* dst, const int& count)
{
    if (dst == nullptr || !inData(*this, bufPosition, count)) return false;
    if (count > 0) std::memcpy(dst, buffer + bufPosition, static_cast<std::size_t>(count));
    bufPosition += count;
    return true;
}

bool _imgFileBuffer::readUint8P(unsigned char& value, const int& pos) { return loadAt(*this, pos, value, false); }

bool _imgFileBuffer::readSint8P(signed char& value, const int& pos) { return loadAt(*this, pos, value, false); }

bool _imgFileBuffer::readdoubleP(double& value, const int& pos) { return loadAt(*this, pos, value, false); }

bool _imgFileBuffer::readfloatP(float& value, const int& pos, const bool& bigEndian)
{
    return loadAt(*this, pos, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readUint16P(unsigned short& value, const int& pos, const bool& bigEndian)
{
    return loadAt(*this, pos, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readSint16P(short& value, const int& pos, const bool& bigEndian)
{
    return loadAt(*this, pos, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readUint32P(unsigned int& value, const int& pos, const bool& bigEndian)
{
    return loadAt(*this, pos, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readSint32P(int& value, const int& pos, const bool& bigEndian)
{
    return loadAt(*this, pos, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::readBufferP(unsigned char* dst, const int& count, const int& pos)
{
    if (dst == nullptr || !inData(*this, pos, count)) return false;
    if (count > 0) std::memcpy(dst, buffer + pos, static_cast<std::size_t>(count));
    return true;
}

bool _imgFileBuffer::writeUint8(const unsigned char& value) { return storeNext(*this, value, false); }

bool _imgFileBuffer::writeSint8(const signed char& value) { return storeNext(*this, value, false); }

bool _imgFileBuffer::writeUint16(unsigned short value, const bool& bigEndian)
{
    return storeNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::writeSint16(short value, const bool& bigEndian)
{
    return storeNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::writeUint24(unsigned int value, const bool& bigEndian)
{
    if (!roomFor(*this, 3)) return false;
    unsigned char bytes[3] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                              static_cast<unsigned char>(value >> 16)};
    if (bigEndian != isBigEndian) std::swap(bytes[0], bytes[2]);
    put(*this, bytes, 3);
    return true;
}

bool _imgFileBuffer::writeUint32(unsigned int value, const bool& bigEndian)
{
    return storeNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::writeSint32(int value, const bool& bigEndian)
{
    return storeNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::writefloat(float value, const bool& bigEndian)
{
    return storeNext(*this, value, bigEndian != isBigEndian);
}

bool _imgFileBuffer::writedouble(const double& value) { return storeNext(*this, value, false); }

bool _imgFileBuffer::writeBuffer(unsigned char* src, const int& count)
{
    // Nothing to copy from a null source: refused rather than dereferenced.
    if (!roomFor(*this, count) || (src == nullptr && count > 0)) return false;
    put(*this, src, count);
    return true;
}

bool _imgFileBuffer::writeString(const char* text)
{
    if (text == nullptr) return false;
    const long long length = static_cast<long long>(std::strlen(text));
    if (!roomFor(*this, length)) return false;
    put(*this, text, length);
    return true;
}

bool _imgPluginBuffer::readfromFileBuffer(ktP::_imgFileBuffer* source, const short& count)
{
    if (count < 1 || source == nullptr) return false;
    return source->readBuffer(reinterpret_cast<unsigned char*>(this), count);
}

}  // namespace ktP
