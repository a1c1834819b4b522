// Running one job per frame on several threads, with the results handed
// back in frame order (so that --jobs N prints exactly what a serial run
// prints), and progress for long runs on standard error.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

namespace ktexr {

// Progress of a batch on standard error: a bar redrawn in place on a
// terminal (done, rate, time left), a plain line per tenth of the work
// otherwise, nothing when quiet.
class Progress {
public:
    Progress(std::size_t total, const char* unit, bool quiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void advance();  // one more item done
    void finish();   // clears the bar

private:
    std::size_t total_;
    std::size_t done_ = 0;
    std::size_t nextLine_ = 0;
    const char* unit_;
    bool quiet_;
    bool terminal_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
};

// The default for --jobs: one per core.
unsigned defaultJobs();

// Calls work(i) for i in [0, count) on up to `jobs` threads, and emit(i) for
// every i in increasing order, on the calling thread, as soon as work(i) and
// all earlier ones are done. Exceptions from work end the program's run of
// it and are rethrown after the threads are joined.
void runInOrder(std::size_t count, unsigned jobs, const std::function<void(std::size_t)>& work,
                const std::function<void(std::size_t)>& emit);

}  // namespace ktexr
