// Semaphores, the process queries against /proc, the kernel release, and PNG pictures.
#include "support.h"

#include "system/PlatProc.h"

#include <sys/sysctl.h>

#include <cerrno>
#include <cstddef>
#include <type_traits>
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

// What the launcher takes from the Mac's headers: codes, records as the 64-bit Mac lays
// them out, and prototypes. The same lines hold against the Mac OS X 10.6 SDK.
struct MacFact {
    const char* expression;
    long long value, expected;
};
#define FACT(expression, expected)                                                                           \
    { #expression, (expression) + 0LL, (expected) }
const MacFact kMacFacts[] = {
    FACT(kEventClassCommand, 'cmds'),
    FACT(kEventClassControl, 'cntl'),
    FACT(kEventClassWindow, 'wind'),
    FACT(kEventCommandProcess, 1),
    FACT(kEventControlHit, 1),
    FACT(kEventWindowClose, 72),
    FACT(kEventParamDirectObject, '----'),
    FACT(kEventParamPostTarget, 'ptrg'),
    FACT(typeHICommand, 'hcmd'),
    FACT(typeControlRef, 'ctrl'),
    FACT(typeWindowRef, 'wind'),
    FACT(typeEventTargetRef, 'etrg'),
    FACT(typeWildCard, '****'),
    FACT(kEventAttributeUserEvent, 1),
    FACT(kHICommandClose, 'clos'),
    FACT(kControlStaticTextCFStringTag, 'cfst'),
    FACT(kControlEditTextPart, 5),
    FACT(kEventPriorityLow, 0),
    FACT(kEventPriorityStandard, 1),
    FACT(kEventPriorityHigh, 2),
    FACT(paramErr, -50),
    FACT(procNotFound, -600),
    FACT(errInvalidWindowPtr, -5600),
    FACT(eventAlreadyPostedErr, -9860),
    FACT(eventClassInvalidErr, -9862),
    FACT(eventClassIncorrectErr, -9864),
    FACT(eventHandlerAlreadyInstalledErr, -9866),
    FACT(eventInternalErr, -9868),
    FACT(eventParameterNotFoundErr, -9870),
    FACT(eventNotHandledErr, -9874),
    FACT(errDataSizeMismatch, -30591),
    FACT(errUnknownControl, -30584),
    FACT(kIBCarbonRuntimeCantFindNibFile, -10960),
    FACT(kIBCarbonRuntimeObjectNotOfRequestedType, -10961),
    FACT(kIBCarbonRuntimeCantFindObject, -10962),
    FACT(kMPDeletedErr, -29295),
    FACT(kMPTimeoutErr, -29296),
    FACT(kMPInvalidIDErr, -29299),
    FACT(kDurationForever, 0x7FFFFFFF),
    FACT(kCurrentProcess, 2),
    FACT(kCFStringEncodingMacRoman, 0),
    FACT(kCFStringEncodingUTF8, 0x08000100),
    FACT(kCFURLPOSIXPathStyle, 0),
    FACT(CTL_KERN, 1),
    FACT(KERN_PROC, 14),
    FACT(KERN_PROC_ALL, 0),
    FACT(KERN_OSRELEASE, 2),
    FACT(MAXCOMLEN, 16),
    FACT(sizeof(HICommand), 18),
    FACT(sizeof(EventTypeSpec), 8),
    FACT(alignof(EventTypeSpec), 2),
    FACT(alignof(ControlID), 2),
    FACT(sizeof(ProcessInfoRec), 72),
    FACT(offsetof(ProcessInfoRec, processName), 4),
    FACT(offsetof(ProcessInfoRec, processNumber), 12),
    FACT(offsetof(ProcessInfoRec, processLauncher), 48),
    FACT(offsetof(ProcessInfoRec, processAppRef), 64),
    FACT(sizeof(struct kinfo_proc), 648),
    FACT(offsetof(struct kinfo_proc, kp_proc.p_pid), 40),
    FACT(offsetof(struct kinfo_proc, kp_proc.p_comm), 243),
    FACT(offsetof(struct kinfo_proc, kp_eproc), 296),
    FACT(offsetof(struct kinfo_proc, kp_eproc.e_ucred), 416),
    FACT(offsetof(struct kinfo_proc, kp_eproc.e_vm), 496),
    FACT(offsetof(struct kinfo_proc, kp_eproc.e_ppid), 560),
};
#undef FACT

template <typename A, typename B> constexpr bool kSame = std::is_same_v<A, B>;
static_assert(kSame<UInt64, unsigned long long> && kSame<SInt64, long long> &&
              kSame<CFURLPathStyle, CFIndex>);
static_assert(kSame<decltype(kCFAllocatorDefault), const CFAllocatorRef> &&
              kSame<decltype(&pthread_main_np), int (*)()>);
static_assert(kSame<decltype(&SendEventToEventTarget), OSStatus (*)(EventRef, EventTargetRef)>);
static_assert(kSame<decltype(&PostEventToQueue), OSStatus (*)(EventQueueRef, EventRef, EventPriority)>);
static_assert(kSame<decltype(&GetMainEventQueue), EventQueueRef (*)()> && kSame<EventPriority, SInt16>);
static_assert(
    kSame<decltype(&InstallEventHandler), OSStatus (*)(EventTargetRef, EventHandlerUPP, ItemCount,
                                                       const EventTypeSpec*, void*, EventHandlerRef*)>);
static_assert(
    kSame<decltype(&GetEventParameter), OSStatus (*)(EventRef, EventParamName, EventParamType,
                                                     EventParamType*, ByteCount, ByteCount*, void*)>);
static_assert(kSame<decltype(&RunAppModalLoopForWindow), OSStatus (*)(WindowRef)>);
static_assert(
    kSame<decltype(&SetControlData), OSErr (*)(ControlRef, ControlPartCode, ResType, Size, const void*)>);
static_assert(kSame<decltype(&MPWaitOnSemaphore), OSStatus (*)(MPSemaphoreID, Duration)>);

TEST(MacFacts, AsTheMacDeclaresThem) {
    for (const MacFact& fact : kMacFacts) {
        EXPECT_EQ(fact.value, fact.expected) << fact.expression;
    }
}

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
    for (int i = 0; i < 1000 && !(PlatProcCommandName(pid, name) && name == "KestrunWalker"); ++i) {
        usleep(5000);
    }

    std::string command = "<absent>", walked = "<absent>";
    for (const auto& record : ProcessTable()) {
        if (record.kp_proc.p_pid == pid) {
            command =
                std::string(record.kp_proc.p_comm) + " child of " + std::to_string(record.kp_eproc.e_ppid);
        }
    }
    ProcessSerialNumber psn = {0, kNoProcess};
    OSErr err;
    while ((err = GetNextProcess(&psn)) == noErr) {
        if (psn.lowLongOfPSN == static_cast<UInt32>(pid)) {
            walked = ProcessName(psn);
        }
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
    if (provider == nullptr) {
        return "no file";
    }
    CGImageRef image = CGImageCreateWithPNGDataProvider(provider, nullptr, false, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    if (image == nullptr) {
        return "no image";
    }
    size_t width = CGImageGetWidth(image), height = CGImageGetHeight(image);
    if (rgba) {
        rgba->assign(PlatCGImageGetRGBA(image), PlatCGImageGetRGBA(image) + width * height * 4);
    }
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
