// Runs a program as a user would, from a test: arguments, exit status,
// standard output and error, and optionally a limit on the size of the
// files it may write (to make its writes fail part-way).
#pragma once

#include <string>
#include <vector>

namespace kt::test {

struct ProgramRun {
    int exitCode = -1;   // -1 when ended by a signal
    int signal = 0;      // the signal that ended it, or 0
    std::string out;
    std::string err;
};

struct ProgramLimits {
    long long fileSizeLimit = -1;  // bytes; negative: none
};

// Runs `program` with `arguments` (argv[1..]) and waits for it.
ProgramRun runProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const ProgramLimits& limits = {});

// Whether an executable of that name is on the PATH.
bool onPath(const std::string& name);

// A fresh directory under the temporary folder, removed with everything in
// it when the object goes.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // The names of the entries in it, sorted.
    std::vector<std::string> entries() const;

private:
    std::string path_;
};

}  // namespace kt::test
