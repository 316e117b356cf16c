/* sysctl for the process table and the kernel release, answered from /proc and
 * from the emulated system's release text. */
#include <sys/sysctl.h>

#include <PlatformTesting.h>

#include "system/PlatProc.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/utsname.h>

static_assert(sizeof(struct kinfo_proc) == 648, "64-bit Darwin record size");
static_assert(offsetof(struct kinfo_proc, kp_proc.p_comm) == 243, "64-bit Darwin command name offset");

namespace {

/* ---- Kernel release ---- */
constexpr const char* kEmulatedRelease = "10.8.0";

std::mutex gReleaseLock;

bool gReleaseOverridden;

std::string gReleaseOverride;

bool gReleaseQueryFails;

} // namespace

void PlatSetOSRelease(const char* release) {
    std::lock_guard<std::mutex> guard(gReleaseLock);
    gReleaseOverridden = release != nullptr;
    gReleaseOverride = release == nullptr ? std::string() : std::string(release);
}

void PlatSetOSReleaseQueryFails(Boolean fails) {
    std::lock_guard<std::mutex> guard(gReleaseLock);
    gReleaseQueryFails = fails;
}

namespace {

int Fail(int error) {
    errno = error;
    return -1;
}

int QueryRelease(void* oldp, size_t* oldlenp) {
    std::string release;
    {
        std::lock_guard<std::mutex> guard(gReleaseLock);
        if (gReleaseQueryFails) {
            return Fail(ENOENT);
        }
        if (gReleaseOverridden) {
            release = gReleaseOverride;
        } else {
            struct utsname host;
            bool darwin = uname(&host) == 0 && strcmp(host.sysname, "Darwin") == 0;
            release = darwin ? host.release : kEmulatedRelease;
        }
    }
    size_t needed = release.size() + 1;
    if (oldp == nullptr) {
        *oldlenp = needed;
        return 0;
    }
    if (*oldlenp < needed) {
        /* Nothing is written, so a caller that goes on reads its own buffer. */
        *oldlenp = 0;
        return Fail(ENOMEM);
    }
    memcpy(oldp, release.c_str(), needed);
    *oldlenp = needed;
    return 0;
}

/* ---- Process table ---- */
char DarwinState(char linuxState) {
    enum { SIDL = 1, SRUN, SSLEEP, SSTOP, SZOMB };
    switch (linuxState) {
    case 'R':
        return SRUN;
    case 'T':
    case 't':
        return SSTOP;
    case 'Z':
    case 'X':
    case 'x':
        return SZOMB;
    default:
        return SSLEEP;
    }
}

bool FillRecord(pid_t pid, struct kinfo_proc& record) {
    PlatProcStat stat;
    std::string command;
    if (!PlatProcReadStat(pid, stat) || !PlatProcCommandName(pid, command)) {
        return false;
    }
    memset(&record, 0, sizeof record);
    record.kp_proc.p_pid = pid;
    record.kp_proc.p_stat = DarwinState(stat.state);
    record.kp_proc.p_nice = static_cast<char>(stat.nice);
    strncpy(record.kp_proc.p_comm, command.c_str(), MAXCOMLEN);
    record.kp_eproc.e_ppid = stat.ppid;
    record.kp_eproc.e_pgid = stat.pgrp;
    record.kp_eproc.e_tdev = stat.ttyNumber;
    record.kp_eproc.e_tpgid = stat.ttyProcessGroup;
    return true;
}

int QueryProcessTable(void* oldp, size_t* oldlenp) {
    std::vector<pid_t> pids = PlatProcListPids();
    if (oldp == nullptr) {
        /* Room for processes started before the caller's second call. */
        *oldlenp = (pids.size() + pids.size() / 8 + 16) * sizeof(struct kinfo_proc);
        return 0;
    }
    size_t capacity = *oldlenp / sizeof(struct kinfo_proc);
    size_t written = 0;
    struct kinfo_proc record;
    for (pid_t pid : pids) {
        if (!FillRecord(pid, record)) {
            continue; /* ended meanwhile */
        }
        if (written == capacity) {
            *oldlenp = written * sizeof record;
            return Fail(ENOMEM);
        }
        memcpy(static_cast<char*>(oldp) + written * sizeof record, &record, sizeof record);
        ++written;
    }
    *oldlenp = written * sizeof record;
    return 0;
}

} // namespace

int sysctl(int* name, unsigned int namelen, void* oldp, size_t* oldlenp, void* newp, size_t newlen) {
    if (name == nullptr || namelen < 2 || namelen > 12 || oldlenp == nullptr) {
        return Fail(EINVAL);
    }
    if (name[0] != CTL_KERN) {
        return Fail(ENOENT);
    }
    bool isRelease = name[1] == KERN_OSRELEASE && namelen == 2;
    bool isTable = name[1] == KERN_PROC && namelen >= 3 && namelen <= 4 && name[2] == KERN_PROC_ALL;
    if (!isRelease && !isTable) {
        return Fail(ENOENT);
    }
    if (newp != nullptr || newlen != 0) {
        return Fail(EPERM); /* both are read-only */
    }
    return isRelease ? QueryRelease(oldp, oldlenp) : QueryProcessTable(oldp, oldlenp);
}
