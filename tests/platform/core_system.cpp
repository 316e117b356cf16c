// The Mac facts, the process table's short buffer, and PNG pictures. (The semaphores are
// proven by the launcher's completion event.)
#include "support.h"

#include "system/PlatProc.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <cmath>
#include <algorithm>
#include <cstddef>
#include <map>
#include <type_traits>
#include <png.h>

using namespace ptest;

namespace {

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

// The process table's size leaves room for growth; a buffer one record short gets ENOMEM
// and no more than its size, and the launcher asks again.
TEST(Sysctl, ShortBufferForTheProcessTable) {
    int all[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    size_t size = 0;
    ASSERT_EQ(sysctl(all, 3, nullptr, &size, nullptr, 0), 0);
    EXPECT_GT(size, PlatProcListPids().size() * sizeof(struct kinfo_proc));
    std::vector<unsigned char> buffer(2 * sizeof(struct kinfo_proc), 0xAB);
    size = sizeof(struct kinfo_proc);
    EXPECT_EQ(sysctl(all, 3, buffer.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(buffer[sizeof(struct kinfo_proc)], 0xAB) << "wrote past the given size";
}

// A sleeping process named by its first argument, run as uid (-1: as the test), or -1; it
// has started once /proc shows its executable under that owner.
pid_t Sleeper(const char* name, uid_t uid = static_cast<uid_t>(-1), gid_t gid = 0) {
    pid_t child = fork();
    if (child == 0) {
        if (uid != static_cast<uid_t>(-1) &&
            (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0))
            _exit(127);
        execl("/bin/sleep", name, "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    const std::string folder = "/proc/" + std::to_string(child);
    bool started = child > 0 && kestrun_test::Within(5000, [&] {
                       struct stat info;
                       char target[256] = {};
                       bool execd = readlink((folder + "/exe").c_str(), target, sizeof target - 1) > 0 &&
                                    std::string(target).find("sleep") != std::string::npos;
                       return stat(folder.c_str(), &info) == 0 &&
                              (uid == static_cast<uid_t>(-1) ? execd : info.st_uid == uid);
                   });
    return started ? child : -1;
}

// The pids the Process Manager walks, each with the name GetProcessInformation gives it.
std::map<pid_t, std::string> Walk() {
    std::map<pid_t, std::string> seen;
    ProcessSerialNumber psn = {0, kNoProcess};
    while (GetNextProcess(&psn) == noErr) {
        unsigned char name[256] = {};
        ProcessInfoRec info = {};
        info.processInfoLength = sizeof info;
        info.processName = name;
        seen[static_cast<pid_t>(psn.lowLongOfPSN)] =
            GetProcessInformation(&psn, &info) == noErr ? std::string(name + 1, name + 1 + name[0]) : "?";
    }
    return seen;
}

// The walk lists the calling user's processes alone: another user's process named like one
// the launcher looks for (by its first argument, its executable being unreadable) is not
// there, nor can it be asked about, while the kernel's table of every process still has it.
TEST(ProcessManager, WalkShowsTheCallersProcessesOnly) {
    pid_t own = Sleeper("KestrunOwnSleeper");
    ASSERT_GT(own, 0);
    std::map<pid_t, std::string> seen = Walk();
    EXPECT_EQ(seen[own], "sleep");
    EXPECT_EQ(seen[getpid()], "platform_core_tests");
    kill(own, SIGKILL);
    waitpid(own, nullptr, 0);

    if (geteuid() != 0)
        GTEST_SKIP() << "a process of another user takes a second account, which takes root to make";
    const std::string account = "kestrun-t" + std::to_string(getpid());
    ASSERT_EQ(std::system(("useradd --system --no-create-home --shell /usr/sbin/nologin " + account).c_str()),
              0);
    struct passwd* entry = getpwnam(account.c_str());
    ASSERT_NE(entry, nullptr);
    pid_t other = Sleeper("UpdateWizard", entry->pw_uid, entry->pw_gid);
    EXPECT_GT(other, 0);
    seen = Walk();
    EXPECT_EQ(seen.count(other), 0u) << seen[other];
    ProcessSerialNumber otherPsn = {1, static_cast<UInt32>(other)};
    ProcessInfoRec info = {};
    info.processInfoLength = sizeof info;
    EXPECT_EQ(GetProcessInformation(&otherPsn, &info), procNotFound);
    int all[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
    size_t size = 0;
    ASSERT_EQ(sysctl(all, 3, nullptr, &size, nullptr, 0), 0);
    std::vector<struct kinfo_proc> table(size / sizeof(struct kinfo_proc));
    ASSERT_EQ(sysctl(all, 3, table.data(), &size, nullptr, 0), 0);
    table.resize(size / sizeof(struct kinfo_proc));
    EXPECT_TRUE(std::any_of(table.begin(), table.end(),
                            [other](const kinfo_proc& p) { return p.kp_proc.p_pid == other; }));
    if (other > 0) {
        kill(other, SIGKILL);
        waitpid(other, nullptr, 0);
    }
    EXPECT_EQ(std::system(("userdel " + account).c_str()), 0);
}

// The size of the picture at path, and its pixels as RGBA rows; else "no file" or "no image".
std::string Decode(const std::string& path, std::vector<unsigned char>* rgba = nullptr) {
    CFStringRef text = Str(path.c_str());
    CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, text, kCFURLPOSIXPathStyle, false);
    CGDataProviderRef provider = CGDataProviderCreateWithURL(url);
    Release({text, url});
    CGImageRef image =
        provider ? CGImageCreateWithPNGDataProvider(provider, nullptr, false, kCGRenderingIntentDefault)
                 : nullptr;
    CGDataProviderRelease(provider);
    if (image == nullptr) {
        return provider ? "no image" : "no file";
    }
    size_t width = CGImageGetWidth(image), height = CGImageGetHeight(image);
    if (rgba) {
        rgba->assign(PlatCGImageGetRGBA(image), PlatCGImageGetRGBA(image) + width * height * 4);
    }
    CGImageRelease(image);
    return std::to_string(width) + "x" + std::to_string(height);
}

// The picture and nib readers' few calls of libm reach libm, opened at the first one.
TEST(LibmOnDemand, CallsGiveLibmsAnswers) {
    volatile double two = 2.0, ten = 10.0, seven = 7.5;
    int exponent = 0;
    double whole = 0;
    EXPECT_EQ(pow(two, ten), 1024.0);
    EXPECT_EQ(fmod(seven, two), 1.5);
    EXPECT_EQ(floor(-seven), -8.0);
    EXPECT_EQ(frexp(seven, &exponent), 0.9375);
    EXPECT_EQ(exponent, 3);
    EXPECT_EQ(modf(-seven, &whole), -0.5);
    EXPECT_EQ(whole, -7.0);
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
    for (const std::string& bad : {std::string("This is not a picture.\n"), png.substr(0, 33),
                                   png.substr(0, png.size() - 13), corrupt}) {
        folder.Put("bad.png", bad);
        EXPECT_EQ(Decode(folder.Resources() + "/bad.png"), "no image") << bad.size();
    }
    EXPECT_EQ(Decode(folder.Resources() + "/absent.png"), "no file");
}

} // namespace
