/* The Event Manager's private side: the object registry shared with the window
 * model, event targets, the main thread's queue and its wake-up.
 *
 * Every reference the layer hands out for events, handlers, targets, windows,
 * controls and nibs is an identifier from one counter, never a pointer, and is
 * never reused: a stale or foreign reference is simply not found. */
#ifndef PLATFORM_EVENTINTERNAL_H
#define PLATFORM_EVENTINTERNAL_H

#include <Carbon/Carbon.h>

#include <cstdint>
#include <mutex>

namespace plat {

/* Guards every registry of the layer. Never held while a handler, a backend
 * entry point or a wait runs. */
std::recursive_mutex& ModelLock();

/* A fresh identifier, usable as any of the layer's references. */
uintptr_t NewObjectId();

/* The thread whose thread id is the process id: handlers and loops run there. */
bool IsMainThread();

/* ---- Targets ---- */
enum class TargetKind { Application, Window, Control };

/* A target for a window or a control; events it does not handle go on to parent. */
EventTargetRef CreateTarget(TargetKind kind, uintptr_t owner, EventTargetRef parent);
/* Forgets the target and every handler installed on it. */
void DestroyTarget(EventTargetRef target);

/* Dispatches the event at once on the calling (main) thread: its target's
 * handlers, newest first, then those of the targets above it. */
OSStatus DispatchNow(EventRef event, EventTargetRef target);

/* ---- The main thread's queue ---- */
/* Queues the event (retained) for target, to be dispatched by the next loop on
 * the main thread, and wakes that loop. */
void PostToMainThread(EventRef event, EventTargetRef target);
/* Dispatches the oldest queued event; false when the queue was empty. Main thread. */
bool DispatchOneQueued();
/* Makes a waiting loop look again: the backend's wake(), and the layer's own. */
void WakeMainThread();
/* Only the layer's own wake-up: the wake() of backends that wait in WaitForWake. */
void SignalWake();
/* The layer's own wait, used before a backend is chosen and by backends without
 * input of their own: returns after a wake-up (also one that came before the call)
 * or after timeoutMs (-1: no limit). */
void WaitForWake(int timeoutMs);

} // namespace plat

#endif
