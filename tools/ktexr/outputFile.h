// Output files, written so that nothing the user did not name is lost.
//
// A regular file (new, or one that exists) is written beside its final
// place and renamed there only once complete, so a failed or interrupted
// run never leaves a half-written file or loses the file it replaces; the
// new file keeps the permissions, owner, group and extended attributes of
// the one it replaces. Standard output ("-"), a pipe and a character device
// are written straight through: they are never renamed over. Sockets, block
// devices and directories are refused.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace ktexr {

// A file being written. Until commit() the target, if it exists, is
// untouched; the destructor (and a terminating signal, see
// installSignalCleanup) removes the temporary file of an unfinished write.
// A new file gets 0666 less the umask. A symbolic link to a regular file is
// followed: the file it names is replaced, the link stays. Failures are
// Failures with exitUnwritable.
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
    // Written straight through (standard output, a pipe, a device): there
    // is no temporary file to read back and nothing to rename.
    bool direct() const { return direct_; }
    const std::string& temporaryPath() const { return temporary_; }
    // The open file written to, for writers that need more than write():
    // the temporary file (which can also be sought in) or, when direct(),
    // what is written through. -1 once finished.
    int descriptor() const { return fd_; }

private:
    void discard();
    void openDirect(int fd, bool owned);
    void keepOwnerAndAttributes(const std::string& original, unsigned uid, unsigned gid);

    std::string path_;       // as given, for messages
    std::string target_;     // where the file goes (links followed)
    std::string temporary_;
    int fd_ = -1;
    int slot_ = -1;          // in the signal-cleanup table
    bool committed_ = false;
    bool direct_ = false;
    bool ownsFd_ = true;
};

// Writes a whole output file through OutputFile.
void writeFileAtomically(const std::string& path, const void* data, std::size_t count);

// Whether the output goes to the program's standard output: "-", or a path
// that leads to what standard output is (/dev/stdout, say).
bool isStandardOutput(const std::string& path);

// Where a command's own report lines go when it writes `output`: standard
// error when the data itself goes to standard output, else standard output.
std::FILE* reportStream(const std::string& output);

// Refuses (a Failure with exitRefused naming the output) an output that is,
// after links are followed, the same file as one of the inputs.
void refuseInputAsOutput(const std::string& output, const std::vector<std::string>& inputs);

// Makes SIGINT, SIGTERM, SIGHUP and SIGQUIT remove the temporary files of
// unfinished writes before the program ends by the signal, and makes a
// write beyond the file-size limit fail with an error instead of killing
// the program. Call once, early in main.
void installSignalCleanup();

}  // namespace ktexr
