// ktTimer: a millisecond stopwatch on the wall clock.
//
// One field, the clock reading at the last start. A stopwatch belongs to
// one thread; the clock itself has no shared state. Elapsed times are kept
// in 31 bits, so they wrap after about 24.8 days and never turn negative,
// not even when the wall clock is set back.
#pragma once

#include <cstddef>

#include "strings/ktString8.h"

class ktTimer {
public:
    unsigned long long startMs;  // wall-clock milliseconds at the last start

    // Wall-clock time in milliseconds (seconds * 1000 + microseconds / 1000).
    static unsigned long long currentMillSeconds();

    ktTimer();  // starts the stopwatch
    void start();
    // Milliseconds since the last start, masked to 31 bits.
    unsigned int elapsed();
    // The same as elapsed(), and the stopwatch starts again from that reading.
    unsigned int restart();
    // The elapsed time as text: "3.25s.ms", and ".25s.ms" up to one second.
    _ktString8_allSize<50> elapsedString8();
    _ktString8_allSize<50> restartAndString8();
};

static_assert(sizeof(ktTimer) == 8 && offsetof(ktTimer, startMs) == 0, "ktTimer is one 64-bit reading");

namespace kt {
// Milliseconds from startMs to nowMs, taken in 32 bits and masked to 31.
unsigned int elapsedMs(unsigned long long nowMs, unsigned long long startMs);
// The stopwatch's text for ms milliseconds.
_ktString8_allSize<50> elapsedText(unsigned int ms);
}  // namespace kt
