/* The Process Manager over /proc. A process's serial number is {1, pid}; the walk
 * shows the calling user's processes that have an executable, in pid order, as a Mac
 * shows the processes of the user's session: another user cannot plant one in it. */
#include <CoreServices/CoreServices.h>

#include "system/PlatProc.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

/* High word of every serial number made from a pid, so that none of them can be
 * taken for {0, kSystemProcess} or {0, kCurrentProcess}. */
constexpr UInt32 kPidSerialHigh = 1;

void SetSerial(ProcessSerialNumber* serial, pid_t pid) {
    serial->highLongOfPSN = kPidSerialHigh;
    serial->lowLongOfPSN = static_cast<UInt32>(pid);
}

/* The process a walk has just stepped to, and its name: the information asked for it
 * next needs no second look at its executable. */
struct LastStep {
    pid_t pid = 0;
    std::string name;
};

LastStep& LastStepOfThisThread() {
    static thread_local LastStep last;
    return last;
}

} // namespace

OSErr GetNextProcess(ProcessSerialNumber* PSN) {
    if (PSN == nullptr) {
        return paramErr;
    }
    pid_t after;
    if (PSN->highLongOfPSN == 0 && PSN->lowLongOfPSN == kNoProcess) {
        after = 0;
    } else if (PSN->highLongOfPSN == kPidSerialHigh && PSN->lowLongOfPSN <= INT_MAX) {
        after = static_cast<pid_t>(PSN->lowLongOfPSN);
    } else {
        return paramErr;
    }
    /* One listing of /proc per walk: a walk from kNoProcess takes a fresh snapshot and
     * each later step goes on in it, instead of listing every process at every step. */
    static thread_local std::vector<pid_t> snapshot;
    LastStep& last = LastStepOfThisThread();
    if (after == 0 || !std::binary_search(snapshot.begin(), snapshot.end(), after)) {
        snapshot = PlatProcListPids();
    }
    std::string name;
    for (auto next = std::upper_bound(snapshot.begin(), snapshot.end(), after); next != snapshot.end();
         ++next) {
        if (PlatProcIsTheUsers(*next) && PlatProcExecutableName(*next, name)) {
            SetSerial(PSN, *next);
            last.pid = *next;
            last.name = name;
            return noErr;
        }
    }
    last.pid = 0;
    PSN->highLongOfPSN = 0;
    PSN->lowLongOfPSN = kNoProcess;
    return procNotFound;
}

OSErr GetProcessInformation(const ProcessSerialNumber* PSN, ProcessInfoRec* info) {
    if (PSN == nullptr || info == nullptr || info->processInfoLength != sizeof(ProcessInfoRec)) {
        return paramErr;
    }
    pid_t pid;
    if (PSN->highLongOfPSN == 0 && PSN->lowLongOfPSN == kCurrentProcess) {
        pid = getpid();
    } else if (PSN->highLongOfPSN == kPidSerialHigh && PSN->lowLongOfPSN > 0 &&
               PSN->lowLongOfPSN <= INT_MAX) {
        pid = static_cast<pid_t>(PSN->lowLongOfPSN);
    } else {
        return procNotFound;
    }

    std::string name;
    const LastStep& last = LastStepOfThisThread();
    /* The walk has just looked at the process it stepped to. */
    if (pid == last.pid) {
        name = last.name;
    } else if (!PlatProcIsTheUsers(pid) || !PlatProcExecutableName(pid, name)) {
        return procNotFound;
    }

    if (info->processName != nullptr) {
        size_t length = name.size() > 255 ? 255 : name.size();
        info->processName[0] = static_cast<unsigned char>(length);
        memcpy(info->processName + 1, name.data(), length);
    }
    SetSerial(&info->processNumber, pid);
    info->processType = 'APPL';
    info->processSignature = 0x3F3F3F3F; /* '????', no creator code */
    /* What Linux has no answer for (memory partitions, launch dates) or the launcher never
     * asks (the parent) is zero: the walk reads one link per process and nothing more. */
    info->processMode = 0;
    info->processLocation = nullptr;
    info->processSize = 0;
    info->processFreeMem = 0;
    info->processLauncher.highLongOfPSN = 0;
    info->processLauncher.lowLongOfPSN = kNoProcess;
    info->processLaunchDate = 0;
    info->processActiveTime = 0;
    /* processAppRef is left as it is: there are no FSRefs to give. */
    return noErr;
}
