/* The window module's table. Compiled with the module's sources, where the calls below
 * carry the module's own names, so that the table points at the module's code. */
#include "windows/WindowModule.h"

#include "backends/BackendInternal.h"

#include <PlatformTesting.h>

namespace {

const PlatWindowModule kModule = {
    CreateNibReference,    DisposeNibReference,
    CreateWindowFromNib,   CGDataProviderCreateWithURL,
    CGDataProviderRelease, CGImageCreateWithPNGDataProvider,
    CGImageGetWidth,       CGImageGetHeight,
    PlatCGImageGetRGBA,    CGImageRelease,
    PlatAcquireBackend,    PlatReleaseBackend,
    PlatCurrentBackend,    PlatSetBackend,
    PlatGetBackendName,
};

} // namespace

extern "C" __attribute__((visibility("default"))) const PlatWindowModule* PlatWindowModuleEntry(void) {
    return &kModule;
}
