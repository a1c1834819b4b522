// Files on disk, the host's side of the job: the plug-in itself only ever
// sees memory. Inputs are read exactly or not at all; outputs are written by
// OutputFile (outputFile.h).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "outputFile.h"

namespace ktexr {

// A file opened for reading; closed by the destructor. Every failure is a
// Failure with exitUnreadable naming the file.
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    const std::string& path() const { return path_; }
    unsigned long long size() const { return size_; }

    // Exactly `count` bytes from `offset` on; a file that ends sooner fails.
    void readAt(unsigned long long offset, void* destination, std::size_t count) const;
    // Up to `count` bytes from `offset` on: the number read (fewer at the
    // end of the file), or -1 on an error. Never throws.
    long long readUpTo(unsigned long long offset, void* destination, std::size_t count) const noexcept;

private:
    std::string path_;
    int fd_ = -1;
    unsigned long long size_ = 0;
};

// The whole of a file.
std::vector<unsigned char> readWholeFile(const std::string& path);

// "1.5 MiB" style sizes for reports; exact bytes below 1 KiB.
std::string humanSize(unsigned long long bytes);

}  // namespace ktexr
