#include "batchRun.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <thread>
#include <vector>

namespace ktexr {

namespace {

std::string clockText(double seconds)
{
    const long long s = static_cast<long long>(seconds + 0.5);
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    return text;
}

}  // namespace

Progress::Progress(std::size_t total, const char* unit, bool quiet)
    : total_(total), unit_(unit), quiet_(quiet), terminal_(::isatty(2) == 1),
      start_(std::chrono::steady_clock::now()), lastDraw_(start_)
{
}

Progress::~Progress() { finish(); }

void Progress::advance()
{
    ++done_;
    if (quiet_ || total_ < 2) return;
    const auto now = std::chrono::steady_clock::now();
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const double rate = elapsed > 0 ? static_cast<double>(done_) / elapsed : 0.0;
    const double left = rate > 0 ? static_cast<double>(total_ - done_) / rate : 0.0;
    if (terminal_) {
        if (done_ < total_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
        lastDraw_ = now;
        constexpr std::size_t kWidth = 30;
        const std::size_t filled = done_ * kWidth / total_;
        std::fprintf(stderr, "\r[%s%s] %zu/%zu %s, %.1f/s, %s left \x1b[K", std::string(filled, '#').c_str(),
                     std::string(kWidth - filled, '.').c_str(), done_, total_, unit_, rate, clockText(left).c_str());
        drawn_ = true;
    } else if (done_ * 10 >= nextLine_ * total_ || done_ == total_) {
        std::fprintf(stderr, "ktexr: %zu/%zu %s done, %.1f/s, %s left\n", done_, total_, unit_, rate,
                     clockText(left).c_str());
        nextLine_ = done_ * 10 / total_ + 1;
    }
    std::fflush(stderr);
}

void Progress::finish()
{
    if (drawn_) std::fprintf(stderr, "\r\x1b[K");
    drawn_ = false;
}

unsigned defaultJobs()
{
    const unsigned cores = std::thread::hardware_concurrency();
    return cores > 0 ? cores : 1;
}

void runInOrder(std::size_t count, unsigned jobs, const std::function<void(std::size_t)>& work,
                const std::function<void(std::size_t)>& emit)
{
    jobs = static_cast<unsigned>(std::clamp<std::size_t>(jobs, 1, std::max<std::size_t>(count, 1)));
    if (jobs == 1) {
        for (std::size_t i = 0; i < count; ++i) {
            work(i);
            emit(i);
        }
        return;
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<char> done(count, 0);
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    std::exception_ptr failure;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < jobs; ++t)
        threads.emplace_back([&] {
            for (std::size_t i; !stop && (i = next++) < count;) {
                try {
                    work(i);
                } catch (...) {
                    std::lock_guard<std::mutex> lock(mutex);
                    if (!failure) failure = std::current_exception();
                    stop = true;
                }
                std::lock_guard<std::mutex> lock(mutex);
                done[i] = 1;
                changed.notify_all();
            }
        });
    for (std::size_t i = 0; i < count; ++i) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return done[i] != 0 || stop; });
        if (stop) break;
        lock.unlock();
        emit(i);
    }
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace ktexr
