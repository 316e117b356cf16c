// Windows from nibs and the backends that show them: the scripted user, none, how the
// backend is chosen, and the terminal driven through a pseudo-terminal.
#include "support.h"

#include <PlatBackend.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <set>
#include <thread>

using namespace ptest;

namespace {

class WindowsTest : public UiTest {};

OSStatus CreateFrom(const std::string& nibText, WindowRef* window) {
    TempBundle bundle;
    bundle.Put("bad.nib", nibText);
    IBNibRef nib = nullptr;
    *window = nullptr;
    OSStatus status = CreateNibReference(CFSTR("bad"), &nib);
    if (status == noErr) {
        status = CreateWindowFromNib(nib, CFSTR("W"), window);
        DisposeNibReference(nib);
    }
    return status;
}

TEST(Nibs, BadNibsGiveAnErrorAndNoWindow) {
    PlatSetBackend("scripted");
    const std::string w = R"(<nib><window name="W" width="10" height="10">)";
    struct {
        const char* what;
        std::string nib;
        OSStatus expected;
    } cases[] = {
        {"malformed XML", w + "</nib>", kIBCarbonRuntimeCantFindNibFile},
        {"unknown window", R"(<nib><window name="V" width="10" height="10"/></nib>)",
         kIBCarbonRuntimeCantFindObject},
        {"duplicate ControlID",
         w + R"(<pushbutton signature="YES1" id="1"/><statictext signature="YES1" id="1"/></window></nib>)",
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"unknown element", w + "<slider/></window></nib>", kIBCarbonRuntimeObjectNotOfRequestedType},
        {"three-character signature", w + R"(<pushbutton signature="YES" id="1"/></window></nib>)",
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"window without size", R"(<nib><window name="W" width="10"/></nib>)",
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"good", w + R"(<pushbutton signature="YES1" id="1"/><statictext/><statictext/></window></nib>)",
         noErr},
    };
    for (const auto& c : cases) {
        WindowRef window = nullptr;
        EXPECT_EQ(CreateFrom(c.nib, &window), c.expected) << c.what;
        EXPECT_EQ(IsValidWindowPtr(window), c.expected == noErr) << c.what;
        DisposeWindow(window);
    }
    TempBundle empty;
    IBNibRef nib = nullptr;
    EXPECT_EQ(CreateNibReference(CFSTR("main"), &nib), kIBCarbonRuntimeCantFindNibFile);
}

// A window as the nib describes it: hidden until shown, controls found by ID from the
// window or its root view, static text set from a CFString the caller may release.
TEST_F(WindowsTest, WindowsAreBuiltAsDescribed) {
    WindowRef window = NewWindow("Box");
    EXPECT_FALSE(PlatScriptIsVisible("Box"));
    ShowWindow(window);
    EXPECT_TRUE(PlatScriptIsVisible("Box"));

    ControlRef yes = Control(window, 'YES1', 1);
    HIViewRef view = nullptr;
    EXPECT_EQ(HIViewFindByID(HIViewGetRoot(window), HIViewID{'YES1', 1}, &view), noErr);
    EXPECT_EQ(view, yes);
    ControlID elsewhere = {'OK  ', 7};
    ControlRef control = nullptr;
    NewWindow("Other");
    EXPECT_EQ(GetControlByID(window, &elsewhere, &control), errUnknownControl);

    ControlRef text = Control(window, 'MSG1', 1);
    CFStringRef string = CFStringCreateWithCString(nullptr, "\xE2\x82\xAC 5", kCFStringEncodingUTF8);
    EXPECT_EQ(
        SetControlData(text, kControlEditTextPart, kControlStaticTextCFStringTag, sizeof string, &string),
        noErr);
    CFRelease(string);
    EXPECT_EQ(SetControlData(text, 0, kControlStaticTextCFStringTag, 4, &string), errDataSizeMismatch);
    char buffer[64];
    ASSERT_TRUE(PlatScriptGetControlText("Box", 'MSG1', 1, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "\xE2\x82\xAC 5");

    // The progress window's picture comes from the bundle; a broken one leaves it empty.
    PlatControlInfo image;
    ASSERT_TRUE(PlatGetControlInfo(NewWindow("Progress"), 0, &image));
    EXPECT_NE(image.rgba, nullptr);
    bundle_.Put("Installer.png", "not a picture");
    ASSERT_TRUE(PlatGetControlInfo(NewWindow("Progress"), 0, &image));
    EXPECT_EQ(image.rgba, nullptr);
}

// In a child: no display, and the backend chosen afresh for the first window.
void BecomeChild() {
    alarm(20);
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    PlatSetBackend(nullptr);
}

// Runs fn in a child with standard input from /dev/null; its exit code.
int InChild(const std::function<bool()>& fn) {
    pid_t pid = fork();
    if (pid == 0) {
        BecomeChild();
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        _exit(fn() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Neither a display that works nor a terminal: no window can be made, so nobody waits
// for an answer that cannot come.
TEST_F(WindowsTest, NoneBackendWithoutDisplayOrTerminal) {
    IBNibRef nib = nib_;
    auto refused = [nib] {
        WindowRef window = nullptr;
        return CreateWindowFromNib(nib, CFSTR("Box"), &window) != noErr && window == nullptr &&
               strcmp(PlatGetBackendName(), "none") == 0;
    };
    EXPECT_EQ(InChild(refused), 0);
    EXPECT_EQ(InChild([&] {
                  setenv("DISPLAY", ":4242", 1); // no server there
                  return refused();
              }),
              0);
}

// The parent's side of a child running fn on a pseudo-terminal.
class Pty {
  public:
    explicit Pty(const std::function<int()>& fn) {
        struct winsize size = {24, 80, 0, 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            BecomeChild();
            int code = fn();
            fflush(stdout);
            _exit(code);
        }
    }
    ~Pty() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            close(master_);
        }
    }
    // Reads until the output holds text, after what earlier calls consumed.
    bool Expect(const std::string& text) {
        for (;;) {
            size_t at = output_.find(text, consumed_);
            if (at != std::string::npos) {
                consumed_ = at + text.size();
                return true;
            }
            struct pollfd p = {master_, POLLIN, 0};
            char buffer[4096];
            ssize_t n = poll(&p, 1, 5000) > 0 ? read(master_, buffer, sizeof buffer) : 0;
            if (n <= 0) {
                ADD_FAILURE() << "expected \"" << text << "\" in:\n" << output_.substr(consumed_);
                return false;
            }
            output_.append(buffer, static_cast<size_t>(n));
        }
    }
    void Send(const std::string& text) {
        EXPECT_EQ(write(master_, text.data(), text.size()), ssize_t(text.size()));
    }
    const std::string& Output() const { return output_; }

  private:
    pid_t pid_ = -1;
    int master_ = -1;
    std::string output_;
    size_t consumed_ = 0;
};

OSStatus QuitModal(EventHandlerCallRef, EventRef, void* window) {
    QuitAppModalLoopForWindow(static_cast<WindowRef>(window));
    return noErr;
}

OSStatus PrintAnswer(EventHandlerCallRef, EventRef event, void* yes) {
    ControlRef control = nullptr;
    GetEventParameter(event, kEventParamDirectObject, typeControlRef, nullptr, sizeof control, nullptr,
                      &control);
    bool close = GetEventClass(event) == kEventClassWindow;
    fputs(close ? "CLOSED\n" : control == yes ? "HIT Yes\n" : "HIT not Yes\n", stdout);
    fflush(stdout);
    QuitApplicationEventLoop();
    return noErr;
}

// The window drawn as text; a typed caption (any case) or first letter presses its
// button, anything else asks again; end of input is the close box; a progress
// indicator is a line that moves while its window is up.
TEST_F(WindowsTest, TerminalDrawsWindowsAndTakesTypedAnswers) {
    IBNibRef nib = nib_;
    Pty pty([nib] {
        WindowRef box = nullptr, other = nullptr, progress = nullptr;
        CreateWindowFromNib(nib, CFSTR("Box"), &box);
        CreateWindowFromNib(nib, CFSTR("Other"), &other);
        CreateWindowFromNib(nib, CFSTR("Progress"), &progress);
        const EventTypeSpec types[] = {kHit, kClose};
        ControlID yesID = {'YES1', 1};
        ControlRef yes = nullptr;
        GetControlByID(box, &yesID, &yes);
        InstallEventHandler(GetApplicationEventTarget(), PrintAnswer, 2, types, yes, nullptr);
        ShowWindow(box);
        RunApplicationEventLoop();
        RunApplicationEventLoop();
        DisposeWindow(box);
        ShowWindow(other);
        RunApplicationEventLoop();
        DisposeWindow(other);
        ShowWindow(progress);
        InstallEventHandler(GetApplicationEventTarget(), QuitModal, 1, &kCommand, progress, nullptr);
        std::thread worker([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            SendCommand('clos');
        });
        OSStatus status = RunAppModalLoopForWindow(progress);
        worker.join();
        printf("DONE %d with %s\n", static_cast<int>(status), PlatGetBackendName());
        return 0;
    });
    pty.Expect("=== Question ===");
    pty.Expect("Install the new version?");
    pty.Expect("[ No ]  [ Yes ]");
    pty.Expect("Type No or Yes (or its first letter), Return for Yes, Ctrl-D to close: ");
    pty.Send("maybe\n");
    pty.Expect("No button is called \"maybe\".");
    pty.Send("n\n");
    pty.Expect("HIT not Yes");
    pty.Send("  yEs \n");
    pty.Expect("HIT Yes");
    pty.Expect("=== Second ===");
    pty.Send("\x04");
    pty.Expect("CLOSED");
    pty.Expect("=== Copying ===");
    pty.Expect("DONE 0 with terminal");

    // Each frame draws "[", blanks, the block "======", blanks, "]": where the block stands.
    std::set<size_t> positions;
    const std::string& out = pty.Output();
    for (size_t open = out.find('['); open != std::string::npos; open = out.find('[', open + 1)) {
        size_t block = out.find_first_not_of(' ', open + 1);
        if (block != std::string::npos && out.compare(block, 6, "======") == 0)
            positions.insert(block - open);
    }
    EXPECT_GE(positions.size(), 4u) << out;
}

} // namespace
