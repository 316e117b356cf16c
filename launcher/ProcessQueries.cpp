/* Queries of the running system: the kernel's process table, the Process Manager's
 * process names and the kernel release. */

// The preconditions of GetProcessList guard the launcher's own use of it and stay in
// every build, release builds included.
#undef NDEBUG
#include <assert.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "Common/Log.h"
#include "Launcher.h"
#include "bounded/bounded.h"

struct kinfo_proc* pprocesslist = nullptr;
size_t processcount = 0;

namespace {
constexpr int kMacOS105Major = 9; // Darwin 9 is Mac OS X 10.5
constexpr size_t kCompareNameSize = 34;
} // namespace

int GetProcessList(struct kinfo_proc** procList, size_t* procCount) {
    assert(procList != nullptr);
    assert(*procList == nullptr);
    assert(procCount != nullptr);

    int name[3] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    int err = 0;
    *procCount = 0;

    for (;;) {
        size_t length = 0;
        err = sysctl(name, 3, nullptr, &length, nullptr, 0);
        if (err == -1) {
            err = errno;
        }
        if (err != 0) {
            break;
        }

        struct kinfo_proc* result = static_cast<struct kinfo_proc*>(calloc(length, 1));
        if (result == nullptr) {
            *procList = nullptr;
            return ENOMEM;
        }

        err = sysctl(name, 3, result, &length, nullptr, 0);
        if (err == -1) {
            err = errno;
        }
        if (err == ENOMEM) {
            // The table grew between the two calls: ask for its size again.
            free(result);
            continue;
        }
        if (err != 0) {
            free(result);
            break;
        }

        *procList = result;
        *procCount = length / sizeof(struct kinfo_proc);
        return 0;
    }

    *procList = nullptr;
    return err;
}

bool CheckProcessExists(const char* name) {
    GetProcessList(&pprocesslist, &processcount);
    if (name == nullptr) {
        return false;
    }
    for (size_t i = 0; i < processcount; i++) {
        const char* command = pprocesslist[i].kp_proc.p_comm;
        if (strcmp(command, name) == 0) {
            Log(kMainSource, "CheckProcessExists", "%s", command);
            Log(kMainSource, "CheckProcessExists", "-----------------");
            return true;
        }
    }
    return false;
}

bool IsProcessExists(const char* name) {
    if (name == nullptr) {
        return false;
    }

    ProcessSerialNumber psn = {0, kNoProcess};
    if (GetNextProcess(&psn) == procNotFound) {
        return false;
    }
    for (;;) {
        Str255 processName = {};
        char compareName[kCompareNameSize] = {};
        ProcessInfoRec info = {};
        info.processInfoLength = sizeof(ProcessInfoRec);
        info.processName = processName;

        if (GetProcessInformation(&psn, &info) == noErr) {
            size_t length = processName[0];
            memcpy_s(compareName, sizeof(compareName), processName + 1, length);
            // A name that leaves no room for the terminator compares as the empty name.
            compareName[length < sizeof(compareName) ? length : 0] = '\0';
            if (strcmp(name, compareName) == 0) {
                return true;
            }
        }

        if (GetNextProcess(&psn) == procNotFound) {
            return false;
        }
    }
}

bool IsOldThanMacOS105() {
    int name[2] = {CTL_KERN, KERN_OSRELEASE};
    size_t length = 0;
    if (sysctl(name, 2, nullptr, &length, nullptr, 0) == -1) {
        Log(kMainSource, "IsOldThanMacOS105", "sysctl1 failed");
    }
    if (length == 0) {
        Log(kMainSource, "IsOldThanMacOS105", "len invalid");
        return false;
    }

    // One byte beyond the kernel's answer keeps the text terminated whatever it holds.
    char* release = static_cast<char*>(calloc(length + 1, 1));
    if (release == nullptr) {
        Log(kMainSource, "IsOldThanMacOS105", "kernelVersion malloc failed");
        return false;
    }
    if (sysctl(name, 2, release, &length, nullptr, 0) == -1) {
        Log(kMainSource, "IsOldThanMacOS105", "sysctl2 failed");
    }

    char* save = nullptr;
    const char* major = strtok_r(release, ".", &save);
    if (major == nullptr) {
        Log(kMainSource, "IsOldThanMacOS105", "get kernelVersion failed");
        free(release);
        return false;
    }
    int number = atoi(major);
    free(release);
    return number < kMacOS105Major;
}
