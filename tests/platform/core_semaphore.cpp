/* Multiprocessing Services semaphores: counts, time-outs and identifiers. */
#include <CoreServices/CoreServices.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

long MillisecondsSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

TEST(MPSemaphore, CountsUpToTheMaximum) {
    MPSemaphoreID semaphore = nullptr;
    ASSERT_EQ(MPCreateSemaphore(2, 1, &semaphore), noErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), noErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), kMPInsufficientResourcesErr) << "already at the maximum";
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), noErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), noErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), kMPTimeoutErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), noErr) << "room again after the waits";
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);

    // The completion event's shape: pending signals add up and are taken one by one.
    ASSERT_EQ(MPCreateSemaphore(0x7FFFFFFF, 0, &semaphore), noErr);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(MPSignalSemaphore(semaphore), noErr);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationForever), noErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), kMPTimeoutErr);
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);

    MPSemaphoreID other = nullptr;
    EXPECT_EQ(MPCreateSemaphore(1, 2, &other), paramErr) << "initial count above the maximum";
    EXPECT_EQ(MPCreateSemaphore(1, 0, nullptr), paramErr);
}

TEST(MPSemaphore, TimeOuts) {
    MPSemaphoreID semaphore = nullptr;
    ASSERT_EQ(MPCreateSemaphore(1, 0, &semaphore), noErr);

    auto start = Clock::now();
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, 100 * kDurationMillisecond), kMPTimeoutErr);
    long elapsed = MillisecondsSince(start);
    EXPECT_GE(elapsed, 95);
    EXPECT_LT(elapsed, 10000);

    // Negative durations are microseconds: -50000 is 50 ms, not 50 s.
    start = Clock::now();
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, 50000 * kDurationMicrosecond), kMPTimeoutErr);
    elapsed = MillisecondsSince(start);
    EXPECT_GE(elapsed, 45);
    EXPECT_LT(elapsed, 10000);

    // A signal that arrives within the time-out ends the wait early.
    std::thread signaller([semaphore] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        MPSignalSemaphore(semaphore);
    });
    start = Clock::now();
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, 60000 * kDurationMillisecond), noErr);
    EXPECT_LT(MillisecondsSince(start), 30000);
    signaller.join();

    // Without a limit, until another thread signals.
    signaller = std::thread([semaphore] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        MPSignalSemaphore(semaphore);
    });
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationForever), noErr);
    signaller.join();
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);
}

TEST(MPSemaphore, UnknownAndDeletedIdentifiers) {
    MPSemaphoreID made_up = reinterpret_cast<MPSemaphoreID>(static_cast<uintptr_t>(0xDEADBEEF));
    for (MPSemaphoreID id : {made_up, static_cast<MPSemaphoreID>(nullptr)}) {
        EXPECT_EQ(MPSignalSemaphore(id), kMPInvalidIDErr);
        EXPECT_EQ(MPWaitOnSemaphore(id, kDurationForever), kMPInvalidIDErr) << "must not wait";
        EXPECT_EQ(MPDeleteSemaphore(id), kMPInvalidIDErr);
    }

    MPSemaphoreID semaphore = nullptr;
    ASSERT_EQ(MPCreateSemaphore(5, 3, &semaphore), noErr);
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), kMPInvalidIDErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationForever), kMPInvalidIDErr)
        << "pending signals went with it";
    EXPECT_EQ(MPDeleteSemaphore(semaphore), kMPInvalidIDErr);

    // Each semaphore is its own: a new one does not answer to the old identifier.
    MPSemaphoreID fresh = nullptr;
    ASSERT_EQ(MPCreateSemaphore(1, 1, &fresh), noErr);
    EXPECT_NE(fresh, semaphore);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), kMPInvalidIDErr);
    EXPECT_EQ(MPDeleteSemaphore(fresh), noErr);
}

/* The scheduler state of a thread of this process ('S' while it sleeps). */
char ThreadState(long tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    return paren == std::string::npos || paren + 2 >= text.size() ? '?' : text[paren + 2];
}

TEST(MPSemaphore, DeletingWakesItsWaiters) {
    MPSemaphoreID semaphore = nullptr;
    ASSERT_EQ(MPCreateSemaphore(1, 0, &semaphore), noErr);
    std::atomic<long> tid{0};
    OSStatus result = 1;
    std::thread waiter([&] {
        tid = syscall(SYS_gettid);
        result = MPWaitOnSemaphore(semaphore, kDurationForever);
    });
    // Delete only once the waiter sleeps in its wait.
    auto start = Clock::now();
    while ((tid == 0 || ThreadState(tid) != 'S') && MillisecondsSince(start) < 10000)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);
    waiter.join();
    EXPECT_EQ(result, kMPDeletedErr);
}

} // namespace
