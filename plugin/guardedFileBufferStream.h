// The decoders' input stream: zero-copy like _imgFileBufferStream, but no
// pointer it hands out can lead the EXR library past the loaded data.
//
// OpenEXR takes a chunk's stated size from the file, asks readMemoryMapped
// for that many bytes, and may then read up to the chunk's full expected
// size from the pointer (an uncompressed chunk is read for all of its
// lines, however short the file says it is). Near the end of the loaded
// data such a read would leave the host's buffer. Once told the largest
// number of bytes a chunk can take (guardBytes), the stream answers requests
// that end closer than that to the end of the data with a pointer into a
// private copy of the buffer's tail followed by zeros. Everywhere else it
// returns pointers straight into the buffer, so valid files read exactly the
// bytes they always did.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "plugin/exrLimits.h"
#include "plugin/fileBufferStream.h"

namespace kt {

class _imgGuardedFileBufferStream : public _imgFileBufferStream {
public:
    // As _imgFileBufferStream: not owned, rewound; no guard until setGuard.
    explicit _imgGuardedFileBufferStream(ktP::_imgFileBuffer* source);
    ~_imgGuardedFileBufferStream() override;

    // The most bytes the library may read behind any pointer handed out
    // from now on; 0 turns the guard off. Set it once the header is known,
    // before any pixel data is read.
    void setGuard(std::uint64_t guardBytes);

    // With `copy` set, the stream stops declaring itself memory-mapped, so
    // that OpenEXR reads every chunk into a buffer of its own (for
    // decompressors that write into their input). Set it before the input
    // file is opened: OpenEXR sizes its buffers by the answer then.
    void readByCopy(bool copy) { copying = copy; }
    bool isMemoryMapped() const override { return !copying; }

    // As the base (same checks, same exception, same cursor), except that
    // the pointer lies in the zero-padded tail copy where fewer than the
    // guard's bytes of loaded data follow the request's start. Throws
    // std::bad_alloc when the copy cannot be had.
    char* readMemoryMapped(int n) override;

    // Whether the tail copy has been made (for tests and measurements).
    bool servedFromCopy() const { return tailCopy != nullptr; }

private:
    ktP::_imgFileBuffer* source;
    std::uint64_t guard = 0;
    bool copying = false;
    long long tailStart = 0;  // buffer offset of tailCopy[0]
    struct FreeDeleter {
        void operator()(char* p) const;
    };
    std::unique_ptr<char, FreeDeleter> tailCopy;
};

}  // namespace kt
