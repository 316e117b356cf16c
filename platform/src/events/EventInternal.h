/* The Event Manager's private side, for the layers built on it: the lock and the
 * identifiers shared with the window model, targets, the main thread's rule, and
 * the idle wait of the loops.
 *
 * Every reference the layer hands out for events, queues, handlers, targets,
 * windows, controls and nibs is an identifier from one counter, never a pointer,
 * and is never reused: a stale or foreign reference is simply not found. */
#ifndef PLATFORM_EVENTINTERNAL_H
#define PLATFORM_EVENTINTERNAL_H

#include <Carbon/Carbon.h>

#include <cstdint>
#include <mutex>

/* Guards every registry of the layer. Never held while a handler, a backend
 * entry point or a wait runs. */
std::recursive_mutex& PlatModelLock();

/* A fresh identifier, usable as any of the layer's references. */
uintptr_t PlatNewObjectId();
/* The identifier a reference stands for. */
inline uintptr_t PlatIdOf(const void* ref) {
    return reinterpret_cast<uintptr_t>(ref);
}

/* Windows, controls, nibs and loops belong to the main thread. Called elsewhere,
 * this writes one line naming the call to standard error and answers true: the
 * caller refuses. With PLAT_ABORT_ON_THREAD_MISUSE=1 in the environment it aborts
 * instead. */
bool PlatRefusedOffMainThread(const char* call);

/* A target for a window or a control; events it does not handle go on to parent. */
EventTargetRef PlatCreateTarget(EventTargetRef parent);
/* Forgets the target and every handler installed on it. */
void PlatDestroyTarget(EventTargetRef target);

/* Called by SendEventToEventTarget with an event that no handler took, its answer then
 * that of the send. The windows set it: a close nobody took disposes of its window. */
typedef OSStatus (*PlatUnhandledEventHook)(EventRef event, EventTargetRef target);
void PlatSetUnhandledEventHook(PlatUnhandledEventHook hook);

/* Runs the main thread's loop until done(context) is true: dispatches posted
 * events one at a time and, with none, waits for input. Main thread only. */
void PlatRunLoopUntil(bool (*done)(void* context), void* context);

/* How an idle loop waits and how another thread wakes it. A layer that has input
 * of its own (the windows, through their backend) sets both; until then, and
 * with null, the loops use PlatWaitForWake and are woken by PlatSignalWake alone. */
void PlatSetLoopWaiter(void (*wait)(void), void (*wake)(void));

/* The layer's own wait, for backends without input of their own: returns after a
 * PlatSignalWake (also one that came before the call) or after timeoutMs (-1: no
 * limit). */
void PlatWaitForWake(int timeoutMs);
void PlatSignalWake();

#endif
