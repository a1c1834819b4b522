// ktP::_imgFileBuffer: a whole image file in memory, read and written
// through one cursor.
//
// The host allocates and fills this object in its own build and hands it to
// the plug-in, so the field order, the field types and the object's size are
// a binary contract (pinned below). No virtual functions, ever.
#pragma once

#include <cstddef>

#include "strings/ktString16.h"

namespace ktP {

// A byte block of fixed capacity, owned by the object, with a cursor.
//
// Reads stop at sizeLoaded (what the host put there); writes stop short of the
// capacity, measured against the written high-water mark fileSize wherever
// the cursor stands, so data written in order never reaches the capacity's
// last byte. Every operation reports success
// as a bool and never throws; a failed operation changes nothing, except that
// readUint16 zeroes its out-value and offsetBufPosition past the end leaves
// the cursor at the end.
//
// Multi-byte values take `bigEndian`, the byte order of the value in the data;
// when it differs from isBigEndian the bytes are reversed. Doubles are always
// copied in machine order.
class _imgFileBuffer {
public:
    unsigned char* buffer;  // bufferSize + 4 bytes; the 4 spare bytes serve readUint24
    long long bufferSize;   // capacity; 0 when the block could not be allocated
    long long sizeLoaded;   // valid bytes at the start of buffer
    long long fileSize;     // the whole file's size; while writing, the high-water mark
    long long bufPosition;  // where the next sequential read or write begins
    bool isBigEndian;       // the byte order taken as the machine's own; stays false
    _ktString<500> name;    // kept empty; nothing reads it

    // Allocates size + 4 bytes (not cleared). A block that cannot be had leaves
    // a usable buffer of capacity 0 on which every read and write fails.
    explicit _imgFileBuffer(unsigned int size);
    ~_imgFileBuffer();

    _imgFileBuffer(const _imgFileBuffer&) = delete;
    _imgFileBuffer& operator=(const _imgFileBuffer&) = delete;

    // Stores size unconditionally; false when it exceeds the capacity.
    bool setFileSize(const long long& size);
    // Clamps to [0, bufferSize - 1] and returns the value stored.
    long long setSizeLoaded(long long size);
    // Any position from 0 to sizeLoaded (the end included).
    bool setBufPosition(const long long& pos);
    // Forward past or onto the end: the cursor stops at sizeLoaded and the
    // call fails. Backward before 0: fails, cursor unchanged.
    bool offsetBufPosition(long long delta);
    // Places the cursor for writing anywhere up to the capacity (judged by the
    // low 32 bits of pos). With extend, a position past the data makes the
    // gap count as written.
    bool setBufPositionWrite(const long long& pos, bool extend);

    // Sequential reads: at the cursor, advancing it by the width on success.
    bool readUint8(unsigned char& value);
    bool readSint8(signed char& value);
    bool readdouble(double& value);
    bool readfloat(float& value, const bool& bigEndian);
    // On failure value becomes 0.
    bool readUint16(unsigned short& value, const bool& bigEndian);
    bool readSint16(short& value, const bool& bigEndian);
    // Loads four bytes and consumes three. In the buffer's own order the top
    // 8 bits of value hold the following byte (mask with 0xFFFFFF); in the
    // other order value is the three bytes, most significant first.
    bool readUint24(unsigned int& value, const bool& bigEndian);
    bool readUint32(unsigned int& value, const bool& bigEndian);
    bool readSint32(int& value, const bool& bigEndian);
    // Fails on a null dst.
    bool readBuffer(unsigned char* dst, const int& count);

    // Reads at pos; the cursor does not move and a failed read leaves value as it was.
    bool readUint8P(unsigned char& value, const int& pos);
    bool readSint8P(signed char& value, const int& pos);
    bool readdoubleP(double& value, const int& pos);
    bool readfloatP(float& value, const int& pos, const bool& bigEndian);
    bool readUint16P(unsigned short& value, const int& pos, const bool& bigEndian);
    bool readSint16P(short& value, const int& pos, const bool& bigEndian);
    bool readUint32P(unsigned int& value, const int& pos, const bool& bigEndian);
    bool readSint32P(int& value, const int& pos, const bool& bigEndian);
    bool readBufferP(unsigned char* dst, const int& count, const int& pos);

    // Sequential writes at the cursor. A write of n bytes fails, writing
    // nothing, when fileSize + n would reach the capacity, or when the bytes
    // would leave the allocation (a cursor parked at the capacity still has
    // the four spare bytes). Writing past the data raises fileSize and
    // sizeLoaded to the new end.
    bool writeUint8(const unsigned char& value);
    bool writeSint8(const signed char& value);
    bool writeUint16(unsigned short value, const bool& bigEndian);
    bool writeSint16(short value, const bool& bigEndian);
    // The low 24 bits, least significant byte first in the buffer's own order.
    bool writeUint24(unsigned int value, const bool& bigEndian);
    bool writeUint32(unsigned int value, const bool& bigEndian);
    bool writeSint32(int value, const bool& bigEndian);
    bool writefloat(float value, const bool& bigEndian);
    bool writedouble(const double& value);
    bool writeBuffer(unsigned char* src, const int& count);
    // The characters without the terminating zero; fails on null.
    bool writeString(const char* text);
};

static_assert(offsetof(_imgFileBuffer, buffer) == 0);
static_assert(offsetof(_imgFileBuffer, bufferSize) == 8);
static_assert(offsetof(_imgFileBuffer, sizeLoaded) == 16);
static_assert(offsetof(_imgFileBuffer, fileSize) == 24);
static_assert(offsetof(_imgFileBuffer, bufPosition) == 32);
static_assert(offsetof(_imgFileBuffer, isBigEndian) == 40);
static_assert(offsetof(_imgFileBuffer, name) == 42);
static_assert(sizeof(_ktString<500>) == 1006);
static_assert(sizeof(_imgFileBuffer) == 1048);

// A host-side plug-in record that the host keeps raw in a file buffer and
// takes back byte for byte. Its layout and size are the host's own: this
// library declares no field of it and only ever copies into it, from its
// first byte, as many bytes as the host asks for.
class _imgPluginBuffer {
public:
    // Reads count bytes at source's cursor into the record from its first
    // byte; the host's record must hold them. Fails, reading nothing, when
    // count < 1, source is null or the data holds fewer than count bytes.
    bool readfromFileBuffer(ktP::_imgFileBuffer* source, const short& count);
};

}  // namespace ktP
