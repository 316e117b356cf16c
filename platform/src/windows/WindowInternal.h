/* The window model's private side: what the nib reader hands the model to build a
 * window from. */
#ifndef PLATFORM_WINDOWINTERNAL_H
#define PLATFORM_WINDOWINTERNAL_H

#include "backends/PlatBackend.h"

#include <string>
#include <vector>

struct PlatControlDef {
    PlatControlKind kind;
    PlatRect frame;
    ControlID id; /* {0, 0}: a control nobody looks up */
    std::string text;
    bool isDefault = false;
    bool isCancel = false; /* push button: the nib marks it as the window's cancel button */
    OSType command = 0;    /* push button: the command it stands for, 0 for none */
    bool indeterminate = false;
    std::string picture; /* image view: a resource of the main bundle */
};

struct PlatWindowDef {
    std::string name;
    std::string title;
    int width = 0;
    int height = 0;
    bool closeBox = false;
    std::vector<PlatControlDef> controls;
};

/* Builds an invisible window from its description and has the backend (chosen
 * now if this is the first window) build its native side. */
OSStatus PlatCreateWindowFromDef(const PlatWindowDef& def, WindowRef* outWindow);

#endif
