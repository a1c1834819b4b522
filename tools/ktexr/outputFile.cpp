#include "outputFile.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "exitStatus.h"

namespace ktexr {

namespace {

std::string errorText(int error) { return std::strerror(error); }

// Temporary files of unfinished writes, for the signal handler. Files are
// written from several threads at once (crop --jobs), so a slot is claimed
// with a compare-and-swap: free -> being filled -> ready. The handler only
// reads ready slots; lock-free atomics are safe to read in a handler. A write
// that finds no free slot is still made, only not cleaned up on a signal.
constexpr int kCleanupSlots = 256;
enum : int { slotFree, slotFilling, slotReady };
char cleanupPaths[kCleanupSlots][PATH_MAX];
std::atomic<int> cleanupState[kCleanupSlots];
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler reads the slots");

int claimCleanupSlot(const std::string& path)
{
    if (path.size() >= PATH_MAX) return -1;
    for (int i = 0; i < kCleanupSlots; ++i) {
        int expected = slotFree;
        if (!cleanupState[i].compare_exchange_strong(expected, slotFilling)) continue;
        std::memcpy(cleanupPaths[i], path.c_str(), path.size() + 1);
        cleanupState[i].store(slotReady);
        return i;
    }
    return -1;
}

void releaseCleanupSlot(int slot)
{
    if (slot >= 0) cleanupState[slot].store(slotFree);
}

extern "C" void removeTemporariesAndDie(int signalNumber)
{
    for (int i = 0; i < kCleanupSlots; ++i)
        if (cleanupState[i].load() == slotReady) unlink(cleanupPaths[i]);
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

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

const char* kindOf(mode_t mode)
{
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISBLK(mode)) return "a block device";
    return "not a regular file";
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : path_(path), target_(followLinks(path))
{
    if (path == "-") {
        openDirect(STDOUT_FILENO, false);
        return;
    }
    struct stat existing;
    bool replaces = stat(target_.c_str(), &existing) == 0;
    if (replaces && !S_ISREG(existing.st_mode)) {
        // A pipe or a device is written through; it is never replaced by a
        // file, whoever runs the program.
        if (S_ISFIFO(existing.st_mode) || S_ISCHR(existing.st_mode)) {
            if (isStandardOutput(path)) {
                openDirect(STDOUT_FILENO, false);
                return;
            }
            int fd = open(target_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
            if (fd < 0) throw Failure(exitUnwritable, path, "cannot open: " + errorText(errno));
            openDirect(fd, true);
            return;
        }
        throw Failure(exitUnwritable, path,
                      std::string("is ") + kindOf(existing.st_mode) +
                          ": outputs are regular files, standard output (-), pipes or character devices");
    }

    std::string pattern = directoryOf(target_) + "/." + baseNameOf(target_) + ".ktexr-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fd_ = mkostemp(name.data(), O_CLOEXEC);
    if (fd_ < 0) throw Failure(exitUnwritable, path, "cannot create a file beside it: " + errorText(errno));
    temporary_ = name.data();
    slot_ = claimCleanupSlot(temporary_);

    try {
        if (replaces) keepOwnerAndAttributes(target_, existing.st_uid, existing.st_gid);
        // After the owner: changing it may clear the set-id bits.
        mode_t mode = replaces ? static_cast<mode_t>(existing.st_mode & 07777) : newFileMode();
        if (fchmod(fd_, mode) != 0) throw Failure(exitUnwritable, path, "cannot set permissions: " + errorText(errno));
    } catch (...) {
        discard();
        throw;
    }
}

void OutputFile::openDirect(int fd, bool owned)
{
    fd_ = fd;
    ownsFd_ = owned;
    direct_ = true;
}

void OutputFile::keepOwnerAndAttributes(const std::string& original, unsigned uid, unsigned gid)
{
    struct stat fresh;
    if (fstat(fd_, &fresh) != 0) throw Failure(exitUnwritable, path_, "cannot inspect: " + errorText(errno));
    if ((fresh.st_uid != uid || fresh.st_gid != gid) && fchown(fd_, uid, gid) != 0)
        throw Failure(exitUnwritable, path_,
                      "cannot give the new file the owner and group of the one it replaces (" + std::to_string(uid) +
                          ":" + std::to_string(gid) + "): " + errorText(errno) + "; the file is left as it was");

    ssize_t listSize = listxattr(original.c_str(), nullptr, 0);
    if (listSize < 0) {
        if (errno == ENOTSUP) return;  // a file system without extended attributes
        throw Failure(exitUnwritable, path_, "cannot list its extended attributes: " + errorText(errno));
    }
    std::vector<char> names(static_cast<std::size_t>(listSize) + 1, '\0');
    listSize = listxattr(original.c_str(), names.data(), names.size() - 1);
    if (listSize < 0) throw Failure(exitUnwritable, path_, "cannot list its extended attributes: " + errorText(errno));
    for (std::size_t at = 0; at < static_cast<std::size_t>(listSize);) {
        const char* name = names.data() + at;
        at += std::strlen(name) + 1;
        ssize_t valueSize = getxattr(original.c_str(), name, nullptr, 0);
        std::vector<char> value(valueSize > 0 ? static_cast<std::size_t>(valueSize) : 0);
        if (valueSize > 0) valueSize = getxattr(original.c_str(), name, value.data(), value.size());
        if (valueSize < 0 || fsetxattr(fd_, name, value.data(), static_cast<std::size_t>(valueSize), 0) != 0)
            throw Failure(exitUnwritable, path_,
                          std::string("cannot carry the extended attribute '") + name + "' over: " + errorText(errno) +
                              "; the file is left as it was");
    }
}

OutputFile::~OutputFile()
{
    if (!committed_) discard();
}

void OutputFile::discard()
{
    if (fd_ >= 0 && ownsFd_) close(fd_);
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
    if (direct_) {
        int result = ownsFd_ ? close(fd_) : 0;
        fd_ = -1;
        if (result != 0) throw Failure(exitUnwritable, path_, "cannot close: " + errorText(errno));
        return;
    }
    if (fsync(fd_) != 0) throw Failure(exitUnwritable, path_, "cannot flush to disk: " + errorText(errno));
    int result = close(fd_);
    fd_ = -1;
    if (result != 0) throw Failure(exitUnwritable, path_, "cannot close: " + errorText(errno));
}

void OutputFile::commit()
{
    finish();
    if (direct_) {
        committed_ = true;
        return;
    }
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

bool isStandardOutput(const std::string& path)
{
    if (path == "-") return true;
    struct stat named, standard;
    return stat(path.c_str(), &named) == 0 && fstat(STDOUT_FILENO, &standard) == 0 && sameFile(named, standard);
}

std::FILE* reportStream(const std::string& output) { return isStandardOutput(output) ? stderr : stdout; }

void refuseInputAsOutput(const std::string& output, const std::vector<std::string>& inputs)
{
    struct stat out;
    if (output == "-" || stat(output.c_str(), &out) != 0) return;  // a new file is no input
    for (const std::string& input : inputs) {
        struct stat in;
        if (stat(input.c_str(), &in) == 0 && sameFile(in, out))
            throw Failure(exitRefused, output,
                          input == output ? "is also an input; it would be overwritten by its own result"
                                          : "is the same file as the input " + input +
                                                "; it would be overwritten by its own result");
    }
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

}  // namespace ktexr
