// Running a program as a test sees it: its exit status and what it printed.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace kt::test {

struct ProgramRun {
    int status = -1;  // -1 when ended by a signal
    std::string out;
    std::string err;
};

// Runs a program (looked up on the PATH) and waits for it. A file size limit
// >= 0 makes its writes fail part-way.
// Standard output goes to `stdoutTo` when named; a user ID >= 0 runs the program as that user.
inline ProgramRun run(const std::vector<std::string>& args, long long fileSizeLimit = -1, const std::string& stdoutTo = "", int asUser = -1)
{
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    const pid_t child = fork();
    if (child == 0) {
        const int named = stdoutTo.empty() ? -1 : open(stdoutTo.c_str(), O_WRONLY);
        dup2(named >= 0 ? named : fileno(out), 1);
        dup2(fileno(err), 2);
        const rlimit limit{static_cast<rlim_t>(fileSizeLimit), static_cast<rlim_t>(fileSizeLimit)};
        if (fileSizeLimit >= 0) setrlimit(RLIMIT_FSIZE, &limit);
        if (asUser >= 0 && (setgid(static_cast<gid_t>(asUser)) != 0 || setuid(static_cast<uid_t>(asUser)) != 0)) _exit(126);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ProgramRun result;
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    for (auto [file, text] : {std::pair{out, &result.out}, std::pair{err, &result.err}}) {
        std::rewind(file);
        for (int c; (c = std::fgetc(file)) != EOF;) text->push_back(static_cast<char>(c));
        std::fclose(file);
    }
    return result;
}

}  // namespace kt::test
