#include "programRunner.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace kt::test {

ProgramRun runProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const ProgramLimits& limits)
{
    int outPipe[2], errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("pipe failed");
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(errPipe[0]);
        close(outPipe[1]);
        close(errPipe[1]);
        if (limits.fileSizeLimit >= 0) {
            struct rlimit limit;
            limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(limits.fileSizeLimit);
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);

    ProgramRun run;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&run.out, &run.err};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char chunk[65536];
            ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
            if (n > 0) {
                sinks[i]->append(chunk, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
    return run;
}

bool onPath(const std::string& name)
{
    const char* path = std::getenv("PATH");
    if (!path) return false;
    std::string all(path);
    std::size_t from = 0;
    while (from <= all.size()) {
        std::size_t colon = all.find(':', from);
        if (colon == std::string::npos) colon = all.size();
        std::string candidate = all.substr(from, colon - from) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return true;
        from = colon + 1;
    }
    return false;
}

ScratchDirectory::ScratchDirectory()
{
    std::string pattern = std::filesystem::temp_directory_path().string() + "/ktexr-test-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (!mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed");
    path_ = name.data();
}

ScratchDirectory::~ScratchDirectory()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::vector<std::string> ScratchDirectory::entries() const
{
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(path_)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kt::test
