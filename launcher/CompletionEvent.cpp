/* The completion event: one counting semaphore per process on which the entry point
 * waits for an installation to finish. */

#include "Launcher.h"

MPSemaphoreID m_semaphore = nullptr;

namespace {
constexpr MPSemaphoreCount kMaximumCount = 0x7FFFFFFF;
constexpr uint32_t kWaitForever = 0xFFFFFFFF; // -1 from the callers
} // namespace

void SetEvent(const char* /*name: the event is private to this process*/) {
    MPCreateSemaphore(kMaximumCount, 0, &m_semaphore);
}

bool Wait(uint32_t timeout) {
    // Every value but -1 is passed on as it stands; values from 0x80000000 up are
    // negative durations, which the semaphore reads as microseconds.
    Duration duration = timeout == kWaitForever ? kDurationForever : static_cast<Duration>(timeout);
    return MPWaitOnSemaphore(m_semaphore, duration) == noErr;
}

bool Notify() {
    if (MPSignalSemaphore(m_semaphore) != noErr) {
        return false;
    }
    MPYield();
    return true;
}

void StopEvent() {
    MPDeleteSemaphore(m_semaphore);
    MPYield();
}
