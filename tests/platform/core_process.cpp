/* The Process Manager and sysctl against what /proc shows: a child process the
 * test starts under a name of its own, and a fixture tree. */
#include <CoreServices/CoreServices.h>
#include <PlatformTesting.h>
#include <sys/sysctl.h>

#include "PlatProc.h"
#include "core_testutil.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

TEST(Layouts, RecordsHaveTheMacLayout) {
    // ProcessInfoRec, 64-bit layout with two-byte packing.
    EXPECT_EQ(sizeof(ProcessInfoRec), 72u);
    EXPECT_EQ(offsetof(ProcessInfoRec, processName), 4u);
    EXPECT_EQ(offsetof(ProcessInfoRec, processNumber), 12u);
    EXPECT_EQ(offsetof(ProcessInfoRec, processLocation), 32u);
    EXPECT_EQ(offsetof(ProcessInfoRec, processLauncher), 48u);
    EXPECT_EQ(offsetof(ProcessInfoRec, processAppRef), 64u);
    EXPECT_EQ(sizeof(ProcessSerialNumber), 8u);
    // struct kinfo_proc as the 64-bit Darwin kernel returns it.
    EXPECT_EQ(sizeof(struct kinfo_proc), 648u);
    EXPECT_EQ(offsetof(struct kinfo_proc, kp_proc.p_comm), 243u);
}

/* A copy of sleep running under a chosen name, ended and reaped at the end. */
class NamedChild {
  public:
    explicit NamedChild(const std::string& name) {
        path_ = folder_.path() + "/" + name;
        std::filesystem::copy_file("/bin/sleep", path_);
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
        char* argv[] = {const_cast<char*>(name.c_str()), const_cast<char*>("60"), nullptr};
        if (posix_spawn(&pid_, path_.c_str(), nullptr, nullptr, argv, environ) != 0)
            pid_ = 0;
        // Wait until the new image runs: before the exec the child still has our name.
        std::string command;
        for (int i = 0; i < 1000 && pid_ > 0; ++i) {
            if (PlatProcCommandName(pid_, command) && command == name.substr(0, 15))
                break;
            usleep(5000);
        }
    }
    ~NamedChild() { End(); }
    void End() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid() const { return pid_; }

  private:
    ScratchFolder folder_;
    std::string path_;
    pid_t pid_ = 0;
};

std::vector<struct kinfo_proc> ProcessTable() {
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    size_t size = 0;
    EXPECT_EQ(sysctl(name, 3, nullptr, &size, nullptr, 0), 0);
    std::vector<struct kinfo_proc> table(size / sizeof(struct kinfo_proc) + 1);
    size = table.size() * sizeof(struct kinfo_proc);
    EXPECT_EQ(sysctl(name, 3, table.data(), &size, nullptr, 0), 0) << strerror(errno);
    EXPECT_EQ(size % sizeof(struct kinfo_proc), 0u);
    table.resize(size / sizeof(struct kinfo_proc));
    return table;
}

TEST(Sysctl, ProcessTableShowsTheChild) {
    NamedChild child("KestrunProbe");
    ASSERT_GT(child.pid(), 0);
    std::vector<struct kinfo_proc> table = ProcessTable();
    const struct kinfo_proc* found = nullptr;
    for (const auto& record : table) {
        EXPECT_NE(memchr(record.kp_proc.p_comm, '\0', sizeof record.kp_proc.p_comm), nullptr);
        if (record.kp_proc.p_pid == child.pid())
            found = &record;
    }
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->kp_proc.p_comm, "KestrunProbe");
    EXPECT_EQ(found->kp_eproc.e_ppid, getpid());
}

TEST(Sysctl, ProcessTableSizeQueryAndShortBuffers) {
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    size_t processes = PlatProcListPids().size();
    size_t needed = 0;
    ASSERT_EQ(sysctl(name, 3, nullptr, &needed, nullptr, 0), 0);
    EXPECT_GT(needed, processes * sizeof(struct kinfo_proc)) << "room for growth";

    // One record of room: ENOMEM, one record written, its size reported.
    std::vector<unsigned char> buffer(2 * sizeof(struct kinfo_proc), 0xAB);
    size_t size = sizeof(struct kinfo_proc);
    errno = 0;
    EXPECT_EQ(sysctl(name, 3, buffer.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(size, sizeof(struct kinfo_proc));
    EXPECT_EQ(buffer[sizeof(struct kinfo_proc)], 0xAB) << "wrote past the given size";
    size = sizeof(struct kinfo_proc) - 1;
    EXPECT_EQ(sysctl(name, 3, buffer.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(size, 0u);
}

std::string Release(int* result, int* error, size_t bufferSize = 64) {
    int name[] = {CTL_KERN, KERN_OSRELEASE};
    size_t length = 0;
    errno = 0;
    *result = sysctl(name, 2, nullptr, &length, nullptr, 0);
    *error = errno;
    if (*result != 0)
        return "<failed>";
    std::string buffer(bufferSize, '\0');
    size_t size = buffer.size();
    *result = sysctl(name, 2, buffer.data(), &size, nullptr, 0);
    *error = errno;
    if (*result != 0)
        return "<failed>";
    EXPECT_EQ(size, length) << "the answer's length counts its terminator";
    EXPECT_EQ(buffer[size - 1], '\0');
    return buffer.substr(0, size - 1);
}

TEST(Sysctl, KernelRelease) {
    int result, error;
    EXPECT_EQ(Release(&result, &error), "10.8.0");
    PlatSetOSRelease("8.11.1");
    EXPECT_EQ(Release(&result, &error), "8.11.1");
    PlatSetOSRelease("");
    EXPECT_EQ(Release(&result, &error), "");

    PlatSetOSRelease("9.8.0");
    char buffer[6];
    memset(buffer, 'x', sizeof buffer);
    int name[] = {CTL_KERN, KERN_OSRELEASE};
    size_t size = sizeof buffer; // one short of "9.8.0" and its terminator
    EXPECT_EQ(sysctl(name, 2, buffer, &size, nullptr, 0), 0);
    size = 5;
    EXPECT_EQ(sysctl(name, 2, buffer, &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(buffer[0], '9') << "the earlier answer stays";

    PlatSetOSReleaseQueryFails(true);
    EXPECT_EQ(Release(&result, &error), "<failed>");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOENT);
    PlatSetOSReleaseQueryFails(false);
    PlatSetOSRelease(nullptr);
    EXPECT_EQ(Release(&result, &error), "10.8.0");
}

TEST(Sysctl, OtherNamesAndBadArguments) {
    char buffer[64];
    size_t size = sizeof buffer;
    int unknown[] = {CTL_KERN, 999};
    EXPECT_EQ(sysctl(unknown, 2, buffer, &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    int byPid[] = {CTL_KERN, KERN_PROC, 1, 1};
    EXPECT_EQ(sysctl(byPid, 4, buffer, &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    int release[] = {CTL_KERN, KERN_OSRELEASE};
    EXPECT_EQ(sysctl(release, 1, buffer, &size, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sysctl(release, 2, buffer, nullptr, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

std::string PascalName(const Str255 name) {
    return std::string(reinterpret_cast<const char*>(name) + 1, name[0]);
}

TEST(ProcessManager, WalkFindsTheChildByName) {
    NamedChild child("KestrunWalker");
    ASSERT_GT(child.pid(), 0);
    ProcessSerialNumber psn = {0, kNoProcess};
    UInt32 previous = 0;
    bool found = false;
    int steps = 0;
    OSErr err;
    while ((err = GetNextProcess(&psn)) == noErr && steps++ < 100000) {
        EXPECT_GT(psn.lowLongOfPSN, previous) << "pid order";
        previous = psn.lowLongOfPSN;
        if (psn.lowLongOfPSN != static_cast<UInt32>(child.pid()))
            continue;
        Str255 name;
        memset(name, 0xFF, sizeof name);
        ProcessInfoRec info;
        memset(&info, 0, sizeof info);
        info.processInfoLength = sizeof info;
        info.processName = name;
        ASSERT_EQ(GetProcessInformation(&psn, &info), noErr);
        EXPECT_EQ(PascalName(name), "KestrunWalker");
        EXPECT_EQ(info.processNumber.lowLongOfPSN, psn.lowLongOfPSN);
        EXPECT_EQ(info.processNumber.highLongOfPSN, psn.highLongOfPSN);
        EXPECT_EQ(info.processLauncher.lowLongOfPSN, static_cast<UInt32>(getpid()));
        found = true;
    }
    EXPECT_EQ(err, procNotFound);
    EXPECT_TRUE(found);

    // Once ended and reaped, the child is gone.
    ProcessSerialNumber gone = {0, kNoProcess};
    ASSERT_EQ(GetCurrentProcess(&gone), noErr);
    gone.lowLongOfPSN = static_cast<UInt32>(child.pid());
    child.End();
    ProcessInfoRec info;
    memset(&info, 0, sizeof info);
    info.processInfoLength = sizeof info;
    EXPECT_EQ(GetProcessInformation(&gone, &info), procNotFound);
}

TEST(ProcessManager, InformationArguments) {
    ProcessSerialNumber current = {0, kCurrentProcess};
    Str255 name;
    ProcessInfoRec info;
    memset(&info, 0, sizeof info);
    info.processName = name;
    info.processInfoLength = sizeof info - 4;
    EXPECT_EQ(GetProcessInformation(&current, &info), paramErr) << "wrong record length";
    info.processInfoLength = sizeof info;
    EXPECT_EQ(GetProcessInformation(&current, &info), noErr);
    EXPECT_EQ(PascalName(name), "platform_core_tests");
    EXPECT_EQ(info.processNumber.lowLongOfPSN, static_cast<UInt32>(getpid()));
    ProcessSerialNumber bogus = {0x7777, 1};
    EXPECT_EQ(GetNextProcess(&bogus), paramErr);
}

/* A /proc of our own making: processes with and without executables. */
class FixtureProc {
  public:
    FixtureProc() { PlatSetProcRoot(folder_.path().c_str()); }
    ~FixtureProc() { PlatSetProcRoot(nullptr); }
    void Add(pid_t pid, const std::string& comm, const std::string& exe, const std::string& cmdline,
             pid_t ppid) {
        std::string base = folder_.path() + "/" + std::to_string(pid);
        WriteFile(base + "/comm", comm + "\n");
        WriteFile(base + "/cmdline", cmdline);
        WriteFile(base + "/stat", std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
                                      " 1 1 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 1 0 500 1234567 0 0\n");
        if (!exe.empty())
            std::filesystem::create_symlink(exe, base + "/exe");
    }
    const std::string& path() const { return folder_.path(); }

  private:
    ScratchFolder folder_;
};

TEST(ProcessManager, FixtureTreeNamesAndSkips) {
    FixtureProc proc;
    proc.Add(5, "fake", "/usr/bin/fake", std::string("fake\0", 5), 1);
    proc.Add(7, "kworker/0:1", "", "", 2); // kernel thread: no executable
    proc.Add(12, "Upd) (x", "/Apps/UpdateWizard (deleted)", "UpdateWizard", 5); // replaced while running
    proc.Add(30, "thing", "", std::string("/usr/lib/thing\0--flag\0", 22), 12); // another user's: no exe link
    WriteFile(proc.path() + "/self/stat", "not a process");
    WriteFile(proc.path() + "/0x1/stat", "not a process");

    std::vector<std::pair<UInt32, std::string>> walk;
    ProcessSerialNumber psn = {0, kNoProcess};
    while (GetNextProcess(&psn) == noErr && walk.size() < 10) {
        Str255 name = {};
        ProcessInfoRec info;
        memset(&info, 0, sizeof info);
        info.processInfoLength = sizeof info;
        info.processName = name;
        EXPECT_EQ(GetProcessInformation(&psn, &info), noErr);
        walk.emplace_back(psn.lowLongOfPSN, PascalName(name));
    }
    std::vector<std::pair<UInt32, std::string>> expected = {{5, "fake"}, {12, "UpdateWizard"}, {30, "thing"}};
    EXPECT_EQ(walk, expected);

    std::vector<struct kinfo_proc> table = ProcessTable();
    ASSERT_EQ(table.size(), 4u);
    EXPECT_EQ(table[1].kp_proc.p_pid, 7);
    EXPECT_STREQ(table[1].kp_proc.p_comm, "kworker/0:1");
    EXPECT_EQ(table[2].kp_proc.p_pid, 12);
    EXPECT_STREQ(table[2].kp_proc.p_comm, "Upd) (x");
    EXPECT_EQ(table[2].kp_eproc.e_ppid, 5) << "fields after the last parenthesis";
    EXPECT_EQ(table[3].kp_eproc.e_ppid, 12);
}

} // namespace
