// Semaphores, the process queries against /proc, the kernel release, and PNG pictures.
#include "support.h"

#include "system/PlatProc.h"

#include <sys/sysctl.h>

#include <cerrno>
#include <cstddef>
#include <png.h>
#include <spawn.h>

extern char** environ;

using namespace ptest;

namespace {

long MillisecondsOfWait(MPSemaphoreID semaphore, Duration duration, OSStatus expected) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, duration), expected);
    auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

TEST(MPSemaphore, CountsTimeOutsAndIdentifiers) {
    MPSemaphoreID semaphore = nullptr;
    ASSERT_EQ(MPCreateSemaphore(2, 1, &semaphore), noErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), noErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), kMPInsufficientResourcesErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), noErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), noErr);
    EXPECT_EQ(MPWaitOnSemaphore(semaphore, kDurationImmediate), kMPTimeoutErr);
    EXPECT_EQ(MPSignalSemaphore(semaphore), noErr) << "room again after the waits";
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);
    EXPECT_EQ(MPCreateSemaphore(1, 2, &semaphore), paramErr) << "initial count above the maximum";

    // Never created, or deleted with a signal pending: an error, and no wait.
    MPSemaphoreID madeUp = reinterpret_cast<MPSemaphoreID>(static_cast<uintptr_t>(0xDEADBEEF));
    ASSERT_EQ(MPCreateSemaphore(5, 3, &semaphore), noErr);
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);
    for (MPSemaphoreID id : {madeUp, static_cast<MPSemaphoreID>(nullptr), semaphore}) {
        EXPECT_EQ(MPSignalSemaphore(id), kMPInvalidIDErr);
        EXPECT_EQ(MPWaitOnSemaphore(id, kDurationForever), kMPInvalidIDErr);
        EXPECT_EQ(MPDeleteSemaphore(id), kMPInvalidIDErr);
    }

    // Time-outs, and signals from another thread that end a wait early.
    Watchdog watchdog;
    ASSERT_EQ(MPCreateSemaphore(0x7FFFFFFF, 0, &semaphore), noErr);
    EXPECT_GE(MillisecondsOfWait(semaphore, 100 * kDurationMillisecond, kMPTimeoutErr), 95);
    // Negative durations are microseconds: 50 ms, not 50 s.
    long elapsed = MillisecondsOfWait(semaphore, 50000 * kDurationMicrosecond, kMPTimeoutErr);
    EXPECT_GE(elapsed, 45);
    EXPECT_LT(elapsed, 10000);
    for (Duration duration : {Duration(60000 * kDurationMillisecond), Duration(kDurationForever)}) {
        std::thread signaller = After(50, [semaphore] { MPSignalSemaphore(semaphore); });
        EXPECT_LT(MillisecondsOfWait(semaphore, duration, noErr), 30000);
        signaller.join();
    }
    EXPECT_EQ(MPDeleteSemaphore(semaphore), noErr);
}

// The records as the 64-bit Mac lays them out.
static_assert(sizeof(ProcessInfoRec) == 72 && offsetof(ProcessInfoRec, processName) == 4);
static_assert(offsetof(ProcessInfoRec, processNumber) == 12 &&
              offsetof(ProcessInfoRec, processLauncher) == 48);
static_assert(offsetof(ProcessInfoRec, processAppRef) == 64 && sizeof(struct kinfo_proc) == 648);
static_assert(offsetof(struct kinfo_proc, kp_proc.p_comm) == 243);

std::vector<struct kinfo_proc> ProcessTable() {
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    size_t size = 0;
    EXPECT_EQ(sysctl(name, 3, nullptr, &size, nullptr, 0), 0);
    std::vector<struct kinfo_proc> table(size / sizeof(struct kinfo_proc));
    EXPECT_EQ(sysctl(name, 3, table.data(), &size, nullptr, 0), 0) << strerror(errno);
    table.resize(size / sizeof(struct kinfo_proc));
    return table;
}

// The Process Manager's name of a process: the length-prefixed file name of its executable.
std::string ProcessName(ProcessSerialNumber psn) {
    Str255 text = {};
    ProcessInfoRec info = {};
    info.processInfoLength = sizeof info;
    info.processName = text;
    OSErr err = GetProcessInformation(&psn, &info);
    return err ? "error " + std::to_string(err) : std::string(reinterpret_cast<char*>(text) + 1, text[0]);
}

// A copy of sleep started under a name of its own shows in both process tables.
TEST(ProcessQueries, ChildShowsUnderItsName) {
    TempBundle folder;
    std::string path = folder.Resources() + "/KestrunWalker";
    std::filesystem::copy_file("/bin/sleep", path);
    char* argv[] = {const_cast<char*>("KestrunWalker"), const_cast<char*>("60"), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ), 0);
    std::string name; // before its exec the child still carries our name
    for (int i = 0; i < 1000 && !(PlatProcCommandName(pid, name) && name == "KestrunWalker"); ++i)
        usleep(5000);

    std::string command = "<absent>", walked = "<absent>";
    for (const auto& record : ProcessTable())
        if (record.kp_proc.p_pid == pid)
            command =
                std::string(record.kp_proc.p_comm) + " child of " + std::to_string(record.kp_eproc.e_ppid);
    ProcessSerialNumber psn = {0, kNoProcess};
    OSErr err;
    while ((err = GetNextProcess(&psn)) == noErr) {
        if (psn.lowLongOfPSN == static_cast<UInt32>(pid))
            walked = ProcessName(psn);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(command, "KestrunWalker child of " + std::to_string(getpid()));
    EXPECT_EQ(walked, "KestrunWalker");
    EXPECT_EQ(err, procNotFound);
    EXPECT_EQ(ProcessName({0, static_cast<UInt32>(pid)}), "error -600") << "procNotFound once it has ended";
}

std::string OSRelease() {
    int name[] = {CTL_KERN, KERN_OSRELEASE};
    char buffer[64];
    size_t size = sizeof buffer;
    return sysctl(name, 2, buffer, &size, nullptr, 0) == 0 ? std::string(buffer, size - 1) : "<failed>";
}

TEST(Sysctl, ShortBuffersReleaseAndOtherNames) {
    // The size query leaves room for growth; one record of room gives ENOMEM and that record.
    int all[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    size_t size = 0;
    ASSERT_EQ(sysctl(all, 3, nullptr, &size, nullptr, 0), 0);
    EXPECT_GT(size, PlatProcListPids().size() * sizeof(struct kinfo_proc));
    std::vector<unsigned char> buffer(2 * sizeof(struct kinfo_proc), 0xAB);
    size = sizeof(struct kinfo_proc);
    EXPECT_EQ(sysctl(all, 3, buffer.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(size, sizeof(struct kinfo_proc));
    EXPECT_EQ(buffer[sizeof(struct kinfo_proc)], 0xAB) << "wrote past the given size";

    EXPECT_EQ(OSRelease(), "10.8.0");
    PlatSetOSRelease("8.11.1");
    EXPECT_EQ(OSRelease(), "8.11.1");
    int release[] = {CTL_KERN, KERN_OSRELEASE};
    size = 6; // one short of "8.11.1" and its terminator
    EXPECT_EQ(sysctl(release, 2, buffer.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    PlatSetOSRelease(nullptr);

    int unknown[] = {CTL_KERN, 999};
    size = buffer.size();
    EXPECT_EQ(sysctl(unknown, 2, buffer.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

// The size of the picture in the file at path, and its pixels as RGBA rows; else "no file" or "no image".
std::string Decode(const std::string& path, std::vector<unsigned char>* rgba = nullptr) {
    CFStringRef text = Str(path.c_str());
    CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, text, kCFURLPOSIXPathStyle, false);
    CGDataProviderRef provider = CGDataProviderCreateWithURL(url);
    Release({text, url});
    if (provider == nullptr)
        return "no file";
    CGImageRef image = CGImageCreateWithPNGDataProvider(provider, nullptr, false, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    if (image == nullptr)
        return "no image";
    size_t width = CGImageGetWidth(image), height = CGImageGetHeight(image);
    if (rgba)
        rgba->assign(PlatCGImageGetRGBA(image), PlatCGImageGetRGBA(image) + width * height * 4);
    CGImageRelease(image);
    return std::to_string(width) + "x" + std::to_string(height);
}

TEST(PNGImage, PicturesDecodeOtherFilesDoNot) {
    TempBundle folder;
    // Three by two, every pixel different, with partial transparency, written by libpng.
    std::vector<unsigned char> pixels = {255, 0,  0,  255, 0,   255, 0,  128, 0, 0, 255, 0,
                                         10,  20, 30, 40,  200, 100, 50, 255, 1, 2, 3,   4};
    png_image image = {nullptr, PNG_IMAGE_VERSION, 3, 2, PNG_FORMAT_RGBA, 0, 0, 0, {}};
    std::string png(1024, '\0');
    png_alloc_size_t size = png.size();
    ASSERT_TRUE(png_image_write_to_memory(&image, png.data(), &size, 0, pixels.data(), 0, nullptr));
    png.resize(size);
    folder.Put("rgba.png", png);
    std::vector<unsigned char> rgba;
    EXPECT_EQ(Decode(folder.Resources() + "/rgba.png", &rgba), "3x2");
    EXPECT_EQ(rgba, pixels);

    std::string corrupt = png;
    corrupt[corrupt.find("IDAT") + 8] ^= 0x55;
    for (const std::string& bad : {std::string("This is not a picture.\n"), std::string(), png.substr(0, 33),
                                   png.substr(0, png.size() - 13), corrupt}) {
        folder.Put("bad.png", bad);
        EXPECT_EQ(Decode(folder.Resources() + "/bad.png"), "no image") << bad.size();
    }
    EXPECT_EQ(Decode(folder.Resources() + "/absent.png"), "no file");
    EXPECT_EQ(Decode(folder.Resources()), "no file");
}

} // namespace
