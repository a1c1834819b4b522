#include "fileIo.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
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

// Temporary files of unfinished writes, for the signal handler. Slots are
// claimed and released by OutputFile; the handler only reads them.
constexpr int kCleanupSlots = 8;
char cleanupPaths[kCleanupSlots][PATH_MAX];
volatile sig_atomic_t cleanupUsed[kCleanupSlots];

int claimCleanupSlot(const std::string& path)
{
    if (path.size() >= PATH_MAX) return -1;
    for (int i = 0; i < kCleanupSlots; ++i) {
        if (cleanupUsed[i]) continue;
        std::memcpy(cleanupPaths[i], path.c_str(), path.size() + 1);
        cleanupUsed[i] = 1;
        return i;
    }
    return -1;
}

void releaseCleanupSlot(int slot)
{
    if (slot >= 0) cleanupUsed[slot] = 0;
}

extern "C" void removeTemporariesAndDie(int signalNumber)
{
    for (int i = 0; i < kCleanupSlots; ++i)
        if (cleanupUsed[i]) unlink(cleanupPaths[i]);
    signal(signalNumber, SIG_DFL);
    raise(signalNumber);
}

std::string directoryOf(const std::string& path)
{
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string baseNameOf(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file a symbolic link leads to, or the path itself.
std::string followLinks(const std::string& path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
    char* real = realpath(path.c_str(), nullptr);
    if (!real) return path;
    std::string resolved(real);
    std::free(real);
    return resolved;
}

mode_t newFileMode()
{
    mode_t mask = umask(0);
    umask(mask);
    return static_cast<mode_t>(0666 & ~mask);
}

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

OutputFile::OutputFile(const std::string& path) : path_(path), target_(followLinks(path))
{
    struct stat existing;
    bool replaces = stat(target_.c_str(), &existing) == 0;
    if (replaces && S_ISDIR(existing.st_mode)) throw Failure(exitUnwritable, path, "is a directory");

    std::string pattern = directoryOf(target_) + "/." + baseNameOf(target_) + ".ktexr-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fd_ = mkostemp(name.data(), O_CLOEXEC);
    if (fd_ < 0) throw Failure(exitUnwritable, path, "cannot create a file beside it: " + errorText(errno));
    temporary_ = name.data();
    slot_ = claimCleanupSlot(temporary_);

    mode_t mode = replaces ? static_cast<mode_t>(existing.st_mode & 07777) : newFileMode();
    if (fchmod(fd_, mode) != 0) {
        int error = errno;
        discard();
        throw Failure(exitUnwritable, path, "cannot set permissions: " + errorText(error));
    }
}

OutputFile::~OutputFile()
{
    if (!committed_) discard();
}

void OutputFile::discard()
{
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    if (!temporary_.empty()) unlink(temporary_.c_str());
    releaseCleanupSlot(slot_);
    slot_ = -1;
}

void OutputFile::write(const void* data, std::size_t count)
{
    if (fd_ < 0) throw Failure(exitUnwritable, path_, "written after it was closed");
    const auto* in = static_cast<const unsigned char*>(data);
    while (count > 0) {
        ssize_t n = ::write(fd_, in, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw Failure(exitUnwritable, path_, "cannot write: " + errorText(errno));
        }
        in += n;
        count -= static_cast<std::size_t>(n);
    }
}

void OutputFile::finish()
{
    if (fd_ < 0) return;
    if (fsync(fd_) != 0) throw Failure(exitUnwritable, path_, "cannot flush to disk: " + errorText(errno));
    int result = close(fd_);
    fd_ = -1;
    if (result != 0) throw Failure(exitUnwritable, path_, "cannot close: " + errorText(errno));
}

void OutputFile::commit()
{
    finish();
    if (rename(temporary_.c_str(), target_.c_str()) != 0)
        throw Failure(exitUnwritable, path_, "cannot put the new file in place: " + errorText(errno));
    committed_ = true;
    releaseCleanupSlot(slot_);
    slot_ = -1;
    // The rename itself reaches the disk with the directory.
    int dir = open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
}

void writeFileAtomically(const std::string& path, const void* data, std::size_t count)
{
    OutputFile out(path);
    out.write(data, count);
    out.commit();
}

void installSignalCleanup()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = removeTemporariesAndDie;
    sigemptyset(&action.sa_mask);
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(s, &action, nullptr);
    signal(SIGXFSZ, SIG_IGN);
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
