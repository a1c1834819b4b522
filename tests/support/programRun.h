// Running a program as a test sees it: its exit status and what it printed;
// and a test folder of its own for the files it reads and writes.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

#ifdef KTEXR_PATH
inline ProgramRun runKtexr(std::vector<std::string> args, long long fileSizeLimit = -1, const std::string& stdoutTo = "",
                           int asUser = -1)
{
    args.insert(args.begin(), KTEXR_PATH);
    return run(args, fileSizeLimit, stdoutTo, asUser);
}
#endif

// The kind of file at `path` (S_IFREG, S_IFLNK, ...), links not followed; 0 when there is none.
inline mode_t fileKind(const std::string& path)
{
    struct stat st{};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

// A fresh folder per test, removed with everything in it afterwards.
class InTestFolder : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(dir.data()), nullptr); }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::string at(const std::string& name) const { return dir + "/" + name; }
    std::string write(const std::string& name, const std::vector<char>& bytes)
    {
        std::ofstream(at(name), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return at(name);
    }
    // The names in the folder, sorted.
    std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string dir = (std::filesystem::temp_directory_path() / "ktexr-test-XXXXXX").string();
};

}  // namespace kt::test
