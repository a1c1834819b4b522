// OpenEXR's stream interfaces over the host's file buffer, so that the EXR
// library reads and writes the host's memory instead of the disk.
#pragma once

#include <cstdint>

#include <OpenEXR/ImfIO.h>

#include "image/fileBuffer.h"

// Reads an EXR file out of a file buffer, zero-copy: it declares itself
// memory-mapped and hands out pointers into the buffer's block.
//
// The buffer is not owned and must outlive the stream; the stream's whole
// state is the buffer's cursor. Constructing the stream rewinds the buffer.
// Reading past the loaded data throws Iex::IoExc "File size smaller than
// requested" and leaves the cursor where it was; a refused seek is ignored.
class _imgFileBufferStream : public OPENEXR_IMF_NAMESPACE::IStream {
public:
    explicit _imgFileBufferStream(ktP::_imgFileBuffer* source);
    ~_imgFileBufferStream() override;

    bool isMemoryMapped() const override;
    // Copies n bytes; false once at most one unread byte remains.
    bool read(char dst[], int n) override;
    // A pointer to the next n bytes inside the buffer, valid while the buffer lives.
    char* readMemoryMapped(int n) override;
    uint64_t tellg() override;
    // Only the low 32 bits of pos count.
    void seekg(uint64_t pos) override;
    void clear() override;

private:
    ktP::_imgFileBuffer* fileBuffer;
};

// Writes an EXR file into a file buffer, which it empties first.
//
// The buffer is not owned and must outlive the stream. Bytes that do not fit
// are dropped without an error (the buffer then holds a truncated file), and
// a refused seek is ignored: the host sizes the buffer, the encoder does not
// check it. Seeking never makes the file longer.
class _imgFileBufferStreamOut : public OPENEXR_IMF_NAMESPACE::OStream {
public:
    explicit _imgFileBufferStreamOut(ktP::_imgFileBuffer* target);
    ~_imgFileBufferStreamOut() override;

    void write(const char src[], int n) override;
    uint64_t tellp() override;
    // Only the low 32 bits of pos count.
    void seekp(uint64_t pos) override;

private:
    ktP::_imgFileBuffer* fileBuffer;
};
