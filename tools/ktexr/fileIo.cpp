#include "fileIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exitStatus.h"

namespace ktexr {

namespace {

std::string errorText(int error) { return std::strerror(error); }

}  // namespace

InputFile::InputFile(const std::string& path) : path_(path)
{
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw Failure(exitUnreadable, path, "cannot open: " + errorText(errno));
    struct stat st;
    if (fstat(fd_, &st) != 0) {
        int error = errno;
        close(fd_);
        throw Failure(exitUnreadable, path, "cannot read: " + errorText(error));
    }
    if (S_ISDIR(st.st_mode)) {
        close(fd_);
        throw Failure(exitUnreadable, path, "is a directory");
    }
    size_ = static_cast<unsigned long long>(st.st_size);
}

InputFile::~InputFile()
{
    if (fd_ >= 0) close(fd_);
}

void InputFile::readAt(unsigned long long offset, void* destination, std::size_t count) const
{
    auto* out = static_cast<unsigned char*>(destination);
    while (count > 0) {
        ssize_t n = pread(fd_, out, count, static_cast<off_t>(offset));
        if (n < 0) {
            if (errno == EINTR) continue;
            throw Failure(exitUnreadable, path_, "cannot read: " + errorText(errno));
        }
        if (n == 0) throw Failure(exitUnreadable, path_, "the file became shorter while it was read");
        out += n;
        count -= static_cast<std::size_t>(n);
        offset += static_cast<unsigned long long>(n);
    }
}

long long InputFile::readUpTo(unsigned long long offset, void* destination, std::size_t count) const noexcept
{
    auto* out = static_cast<unsigned char*>(destination);
    std::size_t done = 0;
    while (done < count) {
        ssize_t n = pread(fd_, out + done, count - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<long long>(done);
}

std::vector<unsigned char> readWholeFile(const std::string& path)
{
    InputFile file(path);
    if (file.size() > static_cast<unsigned long long>(SIZE_MAX / 2))
        throw Failure(exitUnreadable, path, "too large to hold in memory");
    std::vector<unsigned char> bytes;
    try {
        bytes.resize(static_cast<std::size_t>(file.size()));
    } catch (const std::bad_alloc&) {
        throw Failure(exitUnreadable, path, "not enough memory to hold " + humanSize(file.size()));
    }
    file.readAt(0, bytes.data(), bytes.size());
    return bytes;
}

std::string humanSize(unsigned long long bytes)
{
    char text[64];
    if (bytes < 1024) {
        std::snprintf(text, sizeof text, "%llu bytes", bytes);
    } else {
        const char* units[] = {"KiB", "MiB", "GiB", "TiB"};
        double value = static_cast<double>(bytes) / 1024.0;
        int unit = 0;
        while (value >= 1024.0 && unit < 3) {
            value /= 1024.0;
            ++unit;
        }
        std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    }
    return text;
}

}  // namespace ktexr
