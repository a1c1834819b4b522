// Files on disk, the host's side of the job: the plug-in itself only ever
// sees memory. Inputs are read exactly or not at all; outputs are written
// beside their final place and renamed there only once complete, so a
// failed or interrupted run never leaves a half-written file or loses the
// file it replaces.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

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

private:
    std::string path_;
    int fd_ = -1;
    unsigned long long size_ = 0;
};

// The whole of a file.
std::vector<unsigned char> readWholeFile(const std::string& path);

// A file being written: a temporary file in the target's directory that
// becomes the target only with commit(). Until then the target, if it
// exists, is untouched; the destructor (and a terminating signal, see
// installSignalCleanup) removes the temporary file of an unfinished write.
// A target that exists keeps its permissions; a new one gets 0666 less the
// umask. A symbolic link as target is followed: the file it names is
// replaced, the link stays. Failures are Failures with exitUnwritable.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const void* data, std::size_t count);
    // Flushes the data to the disk and closes the temporary file; after
    // this it can be read back (temporaryPath) before commit.
    void finish();
    // finish() if not done, then renames the temporary file over the target
    // and flushes the directory.
    void commit();

    const std::string& path() const { return path_; }
    const std::string& temporaryPath() const { return temporary_; }

private:
    void discard();

    std::string path_;       // as given, for messages
    std::string target_;     // where the file goes (links followed)
    std::string temporary_;
    int fd_ = -1;
    int slot_ = -1;          // in the signal-cleanup table
    bool committed_ = false;
};

// Writes a whole output file through OutputFile.
void writeFileAtomically(const std::string& path, const void* data, std::size_t count);

// Makes SIGINT, SIGTERM, SIGHUP and SIGQUIT remove the temporary files of
// unfinished writes before the program ends by the signal, and makes a
// write beyond the file-size limit fail with an error instead of killing
// the program. Call once, early in main.
void installSignalCleanup();

// "1.5 MiB" style sizes for reports; exact bytes below 1 KiB.
std::string humanSize(unsigned long long bytes);

}  // namespace ktexr
