// The backends: the scripted user, the none backend, how the backend is chosen,
// and the terminal backend driven through a pseudo-terminal.
#include "ui_support.h"

#include <PlatBackend.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>

#include <cstring>
#include <set>
#include <thread>

using namespace uitest;

namespace {

class BackendsTest : public UiTest {};

// The scripted answer is queued when the window is shown and handled by the next
// loop, like a user's click: a press reaches the handlers with its control, a close
// nobody handles disposes of the window, "nothing" leaves the window up.
TEST_F(BackendsTest, ScriptedUserAnswersOnceTheWindowIsShown) {
    WindowRef box = NewWindow("Box");
    WindowRef other = NewWindow("Other");
    WindowRef progress = NewWindow("Progress");
    EXPECT_STREQ(PlatGetBackendName(), "scripted");
    PlatScriptSetAction("Box", kPlatScriptPressControl, 'NO11', 1);
    PlatScriptSetAction("Other", kPlatScriptClose, 0, 0);
    PlatScriptSetAction("Progress", kPlatScriptPressControl, 'gone', 1); // no such control
    std::vector<ControlRef> hits;
    Install(GetApplicationEventTarget(), {kHit}, [&](EventHandlerCallRef, EventRef event) {
        ControlRef control = nullptr;
        EXPECT_EQ(GetEventParameter(event, kEventParamDirectObject, typeControlRef, nullptr, sizeof control,
                                    nullptr, &control),
                  noErr);
        hits.push_back(control);
        if (hits.size() == 1) {
            QuitApplicationEventLoop(); // later hits come without a loop: no quit to keep
        }
        return noErr;
    });
    ShowWindow(progress);
    ShowWindow(other);
    ShowWindow(box);
    EXPECT_TRUE(hits.empty()) << "answered before any loop ran";
    EXPECT_TRUE(IsValidWindowPtr(other));
    {
        Watchdog watchdog(10);
        RunApplicationEventLoop();
    }
    EXPECT_EQ(hits, (std::vector<ControlRef>{Control(box, 'NO11', 1)}));
    EXPECT_FALSE(IsValidWindowPtr(other));
    EXPECT_TRUE(PlatScriptIsVisible("Progress"));
    EXPECT_TRUE(PlatScriptIsVisible("Box"));
    EXPECT_EQ(PlatScriptShowCount("Other"), 1);

    // Each showing answers again; after a reset nothing answers.
    HideWindow(box);
    ShowWindow(box);
    PlatDrainEvents();
    EXPECT_EQ(hits.size(), 2u);
    PlatScriptReset();
    HideWindow(box);
    ShowWindow(box);
    PlatDrainEvents();
    EXPECT_EQ(hits.size(), 2u);
    EXPECT_EQ(PlatScriptShowCount("Box"), 1);
}

// With nothing to show windows on, creating one fails, so nobody waits for an
// answer; the loops still run and take events from other threads.
TEST_F(BackendsTest, NoneBackendRefusesWindows) {
    PlatSetBackend("none");
    WindowRef window = reinterpret_cast<WindowRef>(1);
    EXPECT_EQ(CreateWindowFromNib(nib_, CFSTR("Box"), &window), errInvalidWindowPtr);
    EXPECT_EQ(window, nullptr);
    EXPECT_STREQ(PlatGetBackendName(), "none");
    std::thread worker([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        QuitApplicationEventLoop();
    });
    {
        Watchdog watchdog(10);
        RunApplicationEventLoop();
    }
    worker.join();
}

// Runs fn in a child process with standard input from /dev/null; its exit code.
int RunInChild(const std::function<int()>& fn) {
    pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, STDIN_FILENO);
        int code = fn();
        fflush(stderr);
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The backend name chosen for the first window, in a fresh choice.
int Choose(IBNibRef nib, const char* expected) {
    PlatSetBackend(nullptr);
    WindowRef window = nullptr;
    OSStatus status = CreateWindowFromNib(nib, CFSTR("Box"), &window);
    const char* name = PlatGetBackendName();
    if (name == nullptr || std::strcmp(name, expected) != 0) {
        fprintf(stderr, "chose %s, expected %s\n", name ? name : "nothing", expected);
        return 1;
    }
    if ((status == noErr) != (std::strcmp(expected, "none") != 0)) {
        fprintf(stderr, "CreateWindowFromNib gave %d with %s\n", static_cast<int>(status), expected);
        return 2;
    }
    DisposeWindow(window);
    return 0;
}

// No display and no terminal: none. A display: the gtk module from the bundle's
// PlugIns folder; when GTK cannot start there, on as if there were no display.
TEST_F(BackendsTest, BackendIsChosenFromDisplayModuleAndTerminal) {
    bundle_.CopyIn(UI_FAKE_GTK_MODULE, "Contents/PlugIns/PlatformGtk.so");
    EXPECT_EQ(RunInChild([&] {
                  unsetenv("DISPLAY");
                  unsetenv("WAYLAND_DISPLAY");
                  return Choose(nib_, "none");
              }),
              0);
    EXPECT_EQ(RunInChild([&] {
                  unsetenv("DISPLAY");
                  setenv("WAYLAND_DISPLAY", "wayland-test", 1);
                  return Choose(nib_, "fake-gtk");
              }),
              0);
    EXPECT_EQ(RunInChild([&] {
                  setenv("DISPLAY", ":4242", 1);
                  setenv("UI_FAKE_GTK_FAILS", "1", 1);
                  return Choose(nib_, "none");
              }),
              0);
    // A choice is made once: a window already made keeps its backend.
    EXPECT_EQ(RunInChild([&] {
                  setenv("DISPLAY", ":4242", 1);
                  PlatSetBackend("scripted");
                  WindowRef window = nullptr;
                  CreateWindowFromNib(nib_, CFSTR("Box"), &window);
                  PlatSetBackend("none");
                  return std::strcmp(PlatGetBackendName(), "scripted") == 0 ? 0 : 1;
              }),
              0);
}

// ---- The terminal backend, through a pseudo-terminal ----

// The parent's side of a child running on a pseudo-terminal.
class Pty {
  public:
    // Starts fn in a child whose standard input, output and error are the terminal.
    explicit Pty(const std::function<int()>& fn) {
        struct winsize size = {24, 80, 0, 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            alarm(20);
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            PlatSetBackend(nullptr);
            int code = fn();
            fflush(stdout);
            _exit(code);
        }
    }
    ~Pty() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(master_);
    }
    bool Started() const { return pid_ > 0; }

    // Reads until the output holds text (after what earlier calls consumed).
    bool Expect(const std::string& text, int timeoutMs = 5000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            size_t at = output_.find(text, consumed_);
            if (at != std::string::npos) {
                consumed_ = at + text.size();
                return true;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count()))) {
                ADD_FAILURE() << "expected \"" << text << "\" in:\n" << output_.substr(consumed_);
                return false;
            }
        }
    }
    void Send(const std::string& text) {
        ASSERT_EQ(write(master_, text.data(), text.size()), (ssize_t)text.size());
    }

    // The child's exit code, once it has ended (reading what is left meanwhile).
    int Wait() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                while (ReadSome(50)) {
                }
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            if (!ReadSome(20)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
        return -1;
    }
    const std::string& Output() const { return output_; }

  private:
    bool ReadSome(int timeoutMs) {
        struct pollfd p = {master_, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) {
            return false;
        }
        char buffer[4096];
        ssize_t n = read(master_, buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        output_.append(buffer, static_cast<size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int master_ = -1;
    std::string output_;
    size_t consumed_ = 0;
};

OSStatus PrintHit(EventHandlerCallRef, EventRef event, void* userData) {
    ControlRef control = nullptr;
    GetEventParameter(event, kEventParamDirectObject, typeControlRef, nullptr, sizeof control, nullptr,
                      &control);
    PlatControlInfo info;
    WindowRef window = GetControlOwner(control);
    for (size_t i = 0; window != nullptr && PlatGetControlInfo(window, i, &info); i++) {
        if (info.control == control) {
            char sig[5] = {char(info.id.signature >> 24), char(info.id.signature >> 16),
                           char(info.id.signature >> 8), char(info.id.signature), 0};
            printf("HIT %s\n", sig);
            fflush(stdout);
        }
    }
    int* hits = static_cast<int*>(userData);
    if (--*hits == 0) {
        QuitApplicationEventLoop();
    }
    return noErr;
}

OSStatus PrintClose(EventHandlerCallRef, EventRef, void*) {
    printf("CLOSED\n");
    fflush(stdout);
    QuitApplicationEventLoop();
    return noErr;
}

// The window drawn as text; a typed caption (any case) or first letter presses
// its button, anything else asks again; end of input is the close box.
TEST_F(BackendsTest, TerminalDrawsWindowsAndTakesTypedAnswers) {
    IBNibRef nib = nib_;
    Pty pty([nib] {
        WindowRef box = nullptr;
        WindowRef other = nullptr;
        if (CreateWindowFromNib(nib, CFSTR("Box"), &box) != noErr ||
            CreateWindowFromNib(nib, CFSTR("Other"), &other) != noErr) {
            return 10;
        }
        int hits = 2;
        InstallEventHandler(GetApplicationEventTarget(), PrintHit, 1, &kHit, &hits, nullptr);
        ShowWindow(box);
        RunApplicationEventLoop();
        DisposeWindow(box);
        InstallEventHandler(GetWindowEventTarget(other), PrintClose, 1, &kClose, nullptr, nullptr);
        ShowWindow(other);
        RunApplicationEventLoop();
        printf("DONE with %s\n", PlatGetBackendName());
        return 0;
    });
    ASSERT_TRUE(pty.Started());
    pty.Expect("=== Question ===");
    pty.Expect("Install the new version?");
    pty.Expect("[ No ]  [ Yes ]");
    pty.Expect("Type No or Yes (or its first letter), Return for Yes, Ctrl-D to close: ");
    pty.Send("maybe\n");
    pty.Expect("No button is called \"maybe\".");
    pty.Send("n\n");
    pty.Expect("HIT NO11");
    pty.Send("  yEs \n");
    pty.Expect("HIT YES1");
    pty.Expect("=== Second ===");
    pty.Expect("[ OK ]");
    pty.Send("\x04");
    pty.Expect("CLOSED");
    pty.Expect("DONE with terminal");
    EXPECT_EQ(pty.Wait(), 0);
}

// A progress indicator is a line that moves while its window is up.
TEST_F(BackendsTest, TerminalProgressLineMoves) {
    IBNibRef nib = nib_;
    Pty pty([nib] {
        WindowRef window = nullptr;
        if (CreateWindowFromNib(nib, CFSTR("Progress"), &window) != noErr) {
            return 10;
        }
        InstallEventHandler(
            GetApplicationEventTarget(),
            [](EventHandlerCallRef, EventRef, void* w) -> OSStatus {
                QuitAppModalLoopForWindow(static_cast<WindowRef>(w));
                DisposeWindow(static_cast<WindowRef>(w));
                return noErr;
            },
            1, &kCommand, window, nullptr);
        ShowWindow(window);
        std::thread worker([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            SendCommand('clos');
        });
        OSStatus status = RunAppModalLoopForWindow(window);
        worker.join();
        printf("MODAL DONE %d\n", static_cast<int>(status));
        return 0;
    });
    ASSERT_TRUE(pty.Started());
    pty.Expect("=== Copying ===");
    pty.Expect("Copying files");
    pty.Expect("MODAL DONE 0");
    EXPECT_EQ(pty.Wait(), 0);
    // Each frame draws "[", blanks, the block "======", blanks, "]": collect where the block stands.
    std::set<size_t> positions;
    const std::string& out = pty.Output();
    for (size_t open = out.find('['); open != std::string::npos; open = out.find('[', open + 1)) {
        size_t block = out.find_first_not_of(' ', open + 1);
        if (block != std::string::npos && out.compare(block, 6, "======") == 0) {
            size_t end = out.find_first_not_of(' ', out.find_first_not_of('=', block));
            if (end != std::string::npos && out[end] == ']') {
                positions.insert(block - open);
            }
        }
    }
    EXPECT_GE(positions.size(), 4u) << out;
}

} // namespace
