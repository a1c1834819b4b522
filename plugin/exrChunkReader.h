// The decoders' quick way to the pixel data of the files a farm writes most:
// single-part scan-line files without compression, with RLE, or with ZIP of
// one or sixteen lines. OpenEXR's core library locates and checks every
// chunk in the host's buffer (nothing of the file is copied); libdeflate
// inflates the zip chunks; the chunks are spread over OpenEXR's global
// thread pool. Everything else is declined and left to OpenEXR's C++
// reader, which stays the reference: for every file the quick way takes,
// the planes it fills hold exactly the bytes the C++ reader would put there.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <OpenEXR/ImfHeader.h>

#include "image/fileBuffer.h"

namespace kt {

// A plane of one channel of the data window, rows top to bottom, values of
// the channel's own type in the machine's byte order.
struct ExrPlaneTarget {
    const char* channelName = nullptr;
    char* values = nullptr;
};

// Fills every target plane with the pixel data of the file in `file`, whose
// header (read by OpenEXR's C++ reader from the same bytes) is `header`.
// `threads` is OpenEXR's global thread count: that many pool tasks help the
// calling thread; 0 keeps all the work on it.
//
// Returns false when the file is not one this reader takes, when the
// reference path is forced, or when anything in the data is not exactly as
// a valid file has it; the planes may then hold anything, and the caller
// reads them the reference way. Never throws.
bool exrReadPlanesQuickly(const ktP::_imgFileBuffer& file, const OPENEXR_IMF_NAMESPACE::Header& header,
                          const std::vector<ExrPlaneTarget>& targets, int threads) noexcept;

// For tests only: forces every decoder through OpenEXR's C++ reader while
// set. Process-wide; not part of the library's exports.
void exrForceReferencePath(bool forced);
bool exrReferencePathForced();
// How many reads the quick way has completed in this process (tests and
// measurements: proof that it ran).
std::uint64_t exrQuickReadCount();

// Runs `work` on the calling thread and at once on `helpers` tasks of
// OpenEXR's global thread pool, and returns when every run has returned.
// `work` shares itself out (an atomic counter of items, say); an exception
// it throws in a task is swallowed, so it must record failures itself.
// Helpers that cannot be handed to the pool are simply not started.
void exrRunShared(int helpers, const std::function<void()>& work);

// As exrRunShared, but the calling thread runs `own` while the helpers run
// `helper`. `own` may throw: the helpers are still waited for, then the
// exception passes on.
void exrRunBeside(int helpers, const std::function<void()>& helper, const std::function<void()>& own);

}  // namespace kt
