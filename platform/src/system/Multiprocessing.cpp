/* Multiprocessing Services semaphores. Identifiers are numbers looked up in a
 * registry of live semaphores, so a stale or made-up identifier is answered with
 * kMPInvalidIDErr instead of being dereferenced. */
#include <CoreServices/CoreServices.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace {

struct Semaphore {
    std::mutex lock;
    std::condition_variable changed;
    MPSemaphoreCount count;
    MPSemaphoreCount maximum;
    bool deleted = false;
};

std::mutex gRegistryLock;
std::unordered_map<uintptr_t, std::shared_ptr<Semaphore>>& Registry() {
    static auto* registry = new std::unordered_map<uintptr_t, std::shared_ptr<Semaphore>>;
    return *registry;
}
uintptr_t gLastID; /* identifiers are never reused within a process */

std::shared_ptr<Semaphore> Find(MPSemaphoreID semaphore) {
    std::lock_guard<std::mutex> guard(gRegistryLock);
    auto found = Registry().find(reinterpret_cast<uintptr_t>(semaphore));
    return found == Registry().end() ? nullptr : found->second;
}

} // namespace

OSStatus MPCreateSemaphore(MPSemaphoreCount maximumValue, MPSemaphoreCount initialValue,
                           MPSemaphoreID* semaphore) {
    if (semaphore == nullptr || maximumValue == 0 || initialValue > maximumValue) {
        return paramErr;
    }
    auto created = std::make_shared<Semaphore>();
    created->count = initialValue;
    created->maximum = maximumValue;
    std::lock_guard<std::mutex> guard(gRegistryLock);
    uintptr_t id = ++gLastID;
    Registry()[id] = std::move(created);
    *semaphore = reinterpret_cast<MPSemaphoreID>(id);
    return noErr;
}

OSStatus MPDeleteSemaphore(MPSemaphoreID semaphore) {
    std::shared_ptr<Semaphore> found;
    {
        std::lock_guard<std::mutex> guard(gRegistryLock);
        auto entry = Registry().find(reinterpret_cast<uintptr_t>(semaphore));
        if (entry == Registry().end()) {
            return kMPInvalidIDErr;
        }
        found = std::move(entry->second);
        Registry().erase(entry);
    }
    {
        std::lock_guard<std::mutex> guard(found->lock);
        found->deleted = true;
    }
    found->changed.notify_all();
    return noErr;
}

OSStatus MPSignalSemaphore(MPSemaphoreID semaphore) {
    std::shared_ptr<Semaphore> found = Find(semaphore);
    if (found == nullptr) {
        return kMPInvalidIDErr;
    }
    {
        std::lock_guard<std::mutex> guard(found->lock);
        if (found->deleted) {
            return kMPInvalidIDErr;
        }
        if (found->count >= found->maximum) {
            return kMPInsufficientResourcesErr;
        }
        ++found->count;
    }
    found->changed.notify_one();
    return noErr;
}

OSStatus MPWaitOnSemaphore(MPSemaphoreID semaphore, Duration timeout) {
    std::shared_ptr<Semaphore> found = Find(semaphore);
    if (found == nullptr) {
        return kMPInvalidIDErr;
    }
    std::unique_lock<std::mutex> guard(found->lock);
    auto ready = [&] { return found->deleted || found->count > 0; };
    if (timeout == kDurationForever) {
        found->changed.wait(guard, ready);
    } else if (timeout != kDurationImmediate) {
        /* Positive durations count milliseconds, negative ones microseconds. */
        auto limit = timeout > 0 ? std::chrono::microseconds(static_cast<int64_t>(timeout) * 1000)
                                 : std::chrono::microseconds(-static_cast<int64_t>(timeout));
        found->changed.wait_until(guard, std::chrono::steady_clock::now() + limit, ready);
    }
    if (found->deleted) {
        return kMPDeletedErr;
    }
    if (found->count == 0) {
        return kMPTimeoutErr;
    }
    --found->count;
    return noErr;
}

void MPYield(void) {
    std::this_thread::yield();
}
