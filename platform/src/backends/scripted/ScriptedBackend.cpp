/* The scripted backend, for tests: shows nothing, and answers for the user as a
 * test has set per nib window name. The answer is queued when the window is
 * shown, so the next loop on the main thread handles it like a user's click. */
#include "events/EventInternal.h"
#include "backends/PlatBackend.h"

#include <PlatformTesting.h>

#include <map>
#include <mutex>
#include <string>

namespace {

struct ScriptedAnswer {
    PlatScriptAction action;
    ControlID control;
};

struct Script {
    std::mutex lock;
    std::map<std::string, ScriptedAnswer> answers; /* by nib window name */
    std::map<std::string, int> showCounts;         /* by nib window name */
};

Script& TheScript() {
    static Script* script = new Script;
    return *script;
}

OSStatus ScriptedCreateWindow(WindowRef) {
    return noErr;
}

void ScriptedShowWindow(WindowRef window) {
    PlatWindowInfo info;
    if (!PlatGetWindowInfo(window, &info)) {
        return;
    }
    ScriptedAnswer answer{kPlatScriptNothing, {0, 0}};
    {
        std::lock_guard<std::mutex> lock(TheScript().lock);
        TheScript().showCounts[info.nibName]++;
        auto it = TheScript().answers.find(info.nibName);
        if (it != TheScript().answers.end()) {
            answer = it->second;
        }
    }
    if (answer.action == kPlatScriptPressControl) {
        PlatControlInfo control;
        for (size_t i = 0; PlatGetControlInfo(window, i, &control); i++) {
            if (control.id.signature == answer.control.signature && control.id.id == answer.control.id) {
                PlatPostControlHit(control.control);
                break;
            }
        }
    } else if (answer.action == kPlatScriptClose) {
        PlatPostWindowClose(window);
    } else if (answer.action == kPlatScriptReturn || answer.action == kPlatScriptEscape) {
        ControlRef control = nullptr;
        OSStatus found = answer.action == kPlatScriptReturn ? GetWindowDefaultButton(window, &control)
                                                            : GetWindowCancelButton(window, &control);
        if (found == noErr && control != nullptr) {
            PlatPostControlHit(control);
        }
    }
}

} // namespace

const PlatBackendOps gPlatScriptedBackend = {
    "scripted", ScriptedCreateWindow, ScriptedShowWindow, nullptr, nullptr, PlatWaitForWake, PlatSignalWake,
};

void PlatScriptSetAction(const char* windowName, PlatScriptAction action, OSType signature, SInt32 id) {
    if (windowName == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(TheScript().lock);
    TheScript().answers[windowName] = ScriptedAnswer{action, {signature, id}};
}

void PlatScriptReset(void) {
    std::lock_guard<std::mutex> lock(TheScript().lock);
    TheScript().answers.clear();
    TheScript().showCounts.clear();
}

int PlatScriptShowCount(const char* windowName) {
    if (windowName == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(TheScript().lock);
    auto it = TheScript().showCounts.find(windowName);
    return it == TheScript().showCounts.end() ? 0 : it->second;
}
