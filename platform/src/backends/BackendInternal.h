/* The choice of the window backend, shared by the window model and the loops. */
#ifndef PLATFORM_BACKENDINTERNAL_H
#define PLATFORM_BACKENDINTERNAL_H

#include "backends/PlatBackend.h"

namespace plat {

/* The backend in use; null until the first window is created. Any thread. */
const PlatBackendOps* CurrentBackend();

/* The backend in use, chosen now if this is the first window (main thread). */
const PlatBackendOps* ChooseBackend();

/* Whether a window exists that a backend has built. */
bool AnyWindowAlive();

} // namespace plat

#endif
