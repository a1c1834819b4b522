#include "time/ktTimer.h"

#include <sys/time.h>

#include <cstdio>

unsigned int kt::elapsedMs(unsigned long long nowMs, unsigned long long startMs)
{
    return static_cast<unsigned int>(nowMs - startMs) & 0x7FFFFFFFu;
}

_ktString8_allSize<50> kt::elapsedText(unsigned int ms)
{
    // Whole seconds only above one second: 1000 ms reads ".00s.ms". Hosts
    // parse this text, so the missing leading zero stays.
    char buffer[64];
    if (ms > 1000)
        std::snprintf(buffer, sizeof buffer, "%u.%02us.ms", ms / 1000, ms % 1000 / 10);
    else
        std::snprintf(buffer, sizeof buffer, ".%02us.ms", ms % 1000 / 10);
    return _ktString8_allSize<50>(buffer);
}

unsigned long long ktTimer::currentMillSeconds()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000ULL + static_cast<unsigned long long>(now.tv_usec) / 1000ULL;
}

ktTimer::ktTimer() { start(); }

void ktTimer::start() { startMs = currentMillSeconds(); }

unsigned int ktTimer::elapsed() { return kt::elapsedMs(currentMillSeconds(), startMs); }

unsigned int ktTimer::restart()
{
    const unsigned long long now = currentMillSeconds();
    const unsigned int ms = kt::elapsedMs(now, startMs);
    startMs = now;
    return ms;
}

_ktString8_allSize<50> ktTimer::elapsedString8() { return kt::elapsedText(elapsed()); }

_ktString8_allSize<50> ktTimer::restartAndString8() { return kt::elapsedText(restart()); }
