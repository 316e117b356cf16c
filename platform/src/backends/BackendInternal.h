/* The choice of the window backend, for the window model. */
#ifndef PLATFORM_BACKENDINTERNAL_H
#define PLATFORM_BACKENDINTERNAL_H

#include "backends/PlatBackend.h"

/* The backend in use; null until the first window is created. Any thread. */
const PlatBackendOps* PlatCurrentBackend();

/* The backend for a new window, chosen now if this is the first window, and the
 * end of a window (main thread). While windows are alive the choice stays. */
const PlatBackendOps* PlatAcquireBackend();
void PlatReleaseBackend();

#endif
