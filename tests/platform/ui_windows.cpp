// Windows from nibs, and the backends for no display: none, and the terminal through a pseudo-terminal.
#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>

#include <regex>
#include <set>

using namespace ptest;

namespace {

class WindowsTest : public UiTest {};

// The window "W" from a nib of the given text (empty: no nib at all), in a bundle of its own.
OSStatus CreateFrom(const std::string& nibText, WindowRef* window) {
    TempBundle bundle;
    if (!nibText.empty())
        bundle.Put("main.nib", nibText);
    IBNibRef nib = nullptr;
    *window = nullptr;
    OSStatus status = CreateNibReference(CFSTR("main"), &nib);
    if (status == noErr) {
        status = CreateWindowFromNib(nib, CFSTR("W"), window);
        DisposeNibReference(nib);
    }
    return status;
}

TEST(Nibs, BadNibsGiveAnErrorAndNoWindow) {
    PlatSetBackend("scripted");
    const std::string w = R"(<nib><window name="W" width="10" height="10">)";
    const std::string bad[] = {
        "",
        w + "</nib>", // malformed XML
        R"(<nib><window name="V" width="10" height="10"/></nib>)",
        w + R"(<pushbutton signature="YES1" id="1"/><statictext signature="YES1" id="1"/></window></nib>)",
        w + "<slider/></window></nib>",
        w + R"(<pushbutton signature="YES" id="1"/></window></nib>)",
        R"(<nib><window name="W" width="10"/></nib>)",
    };
    WindowRef window = nullptr;
    for (const std::string& nib : bad) {
        EXPECT_NE(CreateFrom(nib, &window), noErr) << nib;
        EXPECT_EQ(window, nullptr) << nib;
    }
    EXPECT_EQ(CreateFrom(w + "<statictext/><statictext/></window></nib>", &window), noErr);
    DisposeWindow(window);
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
    WindowRef other = NewWindow("Other");
    EXPECT_EQ(GetControlByID(window, &elsewhere, &control), errUnknownControl);

    // The default and cancel buttons are controls of the window itself; null clears.
    ControlRef chosen = nullptr;
    EXPECT_EQ(SetWindowDefaultButton(window, yes), noErr);
    EXPECT_EQ(SetWindowCancelButton(window, Control(other, 'OK  ', 7)), errUnknownControl);
    EXPECT_EQ(GetWindowCancelButton(window, &chosen), noErr);
    EXPECT_EQ(chosen, nullptr);
    EXPECT_EQ(GetWindowDefaultButton(window, &chosen), noErr);
    EXPECT_EQ(chosen, yes);
    EXPECT_EQ(SetWindowDefaultButton(window, nullptr), noErr);
    EXPECT_EQ(GetWindowDefaultButton(window, &chosen), noErr);
    EXPECT_EQ(chosen, nullptr);

    ControlRef text = Control(window, 'MSG1', 1);
    CFStringRef string = Str("\xE2\x82\xAC 5");
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
    setvbuf(stdout, nullptr, _IONBF, 0);
}

// Neither a display that works nor a terminal: no window can be made, so nobody waits
// for an answer that cannot come.
TEST_F(WindowsTest, NoneBackendWithoutDisplayOrTerminal) {
    for (const char* display : {static_cast<const char*>(nullptr), ":4242"}) { // ":4242": no server there
        pid_t pid = fork();
        if (pid == 0) {
            BecomeChild();
            dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
            if (display)
                setenv("DISPLAY", display, 1);
            WindowRef window = nullptr;
            bool refused = CreateWindowFromNib(nib_, CFSTR("Box"), &window) != noErr && window == nullptr;
            _exit(refused && strcmp(PlatGetBackendName(), "none") == 0 ? 0 : 1);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << (display ? display : "no display");
    }
}

// A child running fn on a pseudo-terminal, and what it wrote there.
struct Pty {
    explicit Pty(const std::function<int()>& fn) {
        struct winsize size = {24, 80, 0, 0};
        if ((pid = forkpty(&master, nullptr, nullptr, &size)) == 0) {
            BecomeChild();
            _exit(fn());
        }
    }
    ~Pty() {
        if (pid > 0 && kill(pid, SIGKILL) == 0)
            waitpid(pid, nullptr, 0);
        close(master);
    }
    // Reads until the output holds text, after what earlier calls consumed.
    void Expect(const std::string& text) {
        size_t at;
        while ((at = output.find(text, consumed)) == std::string::npos) {
            struct pollfd p = {master, POLLIN, 0};
            char buffer[4096];
            ssize_t n = poll(&p, 1, 5000) > 0 ? read(master, buffer, sizeof buffer) : 0;
            if (n <= 0) {
                ADD_FAILURE() << "expected \"" << text << "\" in:\n" << output.substr(consumed);
                return;
            }
            output.append(buffer, static_cast<size_t>(n));
        }
        consumed = at + text.size();
    }
    void Send(const std::string& text) {
        EXPECT_EQ(write(master, text.data(), text.size()), ssize_t(text.size()));
    }

    pid_t pid = -1;
    int master = -1;
    std::string output;
    size_t consumed = 0;
};

// Prints which button a hit pressed, or that the close box was used, and ends the loop.
OSStatus ReportAnswer(EventRef event, ControlRef yes, ControlRef no) {
    ControlRef hit = nullptr;
    GetEventParameter(event, kEventParamDirectObject, typeControlRef, nullptr, sizeof hit, nullptr, &hit);
    bool close = GetEventClass(event) == kEventClassWindow;
    printf("%s\n", close ? "CLOSED" : hit == yes ? "HIT Yes" : hit == no ? "HIT No" : "HIT other");
    QuitApplicationEventLoop();
    return noErr;
}

// The window drawn as text; a typed caption (any case) or first letter presses its
// button, Return alone the default button and Escape the cancel button; a line of
// blanks or anything else asks again; end of input is the close box; a progress
// indicator is a line that moves while its window is up.
TEST_F(WindowsTest, TerminalDrawsWindowsAndTakesTypedAnswers) {
    Pty pty([this] {
        WindowRef box = NewWindow("Box"), other = NewWindow("Other"), progress = NewWindow("Progress");
        ControlRef yes = Control(box, 'YES1', 1), no = Control(box, 'NO11', 1);
        SetWindowDefaultButton(box, yes);
        SetWindowCancelButton(box, no);
        auto report = [yes, no](EventHandlerCallRef, EventRef event) { return ReportAnswer(event, yes, no); };
        Install(GetApplicationEventTarget(), kHit, report);
        Install(GetApplicationEventTarget(), kClose, report);
        Install(GetApplicationEventTarget(), kCommand,
                [progress](EventHandlerCallRef, EventRef) { return QuitAppModalLoopForWindow(progress); });
        ShowWindow(box);
        for (int answers = 0; answers < 4; answers++)
            RunApplicationEventLoop();
        DisposeWindow(box);
        ShowWindow(other);
        RunApplicationEventLoop();
        DisposeWindow(other);
        ShowWindow(progress);
        std::thread worker = After(700, [] { SendCommand('clos'); });
        OSStatus status = RunAppModalLoopForWindow(progress);
        worker.join();
        printf("DONE %d with %s\n", static_cast<int>(status), PlatGetBackendName());
        return 0;
    });
    pty.Expect("=== Question ===");
    pty.Expect("Install the new version?");
    pty.Expect("[ No ]  [ Yes ]");
    pty.Expect("Return: Yes; Esc: No; Ctrl-D: close");
    const std::string prompt = "Type the name of a button or its first letter: ";
    pty.Expect(prompt);
    pty.Send("maybe\n");
    pty.Expect("\"maybe\" is not one of the answers (No, Yes).");
    pty.Expect(prompt);
    pty.Send("   \n");
    pty.Expect(prompt);
    pty.Send("n\n");
    pty.Expect("HIT No");
    pty.Send("\x1b");
    pty.Expect("HIT No");
    pty.Send("  yEs \n");
    pty.Expect("HIT Yes");
    pty.Send("\n");
    pty.Expect("HIT Yes");
    pty.Expect("=== Second ===");
    size_t second = pty.consumed;
    pty.Send("\x1b\n"); // no cancel button, no default button: neither key answers
    pty.Expect("Ctrl-D: close\r\nType the name of a button or its first letter: ");
    pty.Send("\x04");
    pty.Expect("CLOSED");
    EXPECT_EQ(pty.output.find("HIT", second), std::string::npos) << pty.output.substr(second);
    pty.Expect("=== Copying ===");
    pty.Expect("DONE 0 with terminal");

    std::set<size_t> positions; // where the block "======" stands in each frame of the progress line
    std::regex bar("\\[( *)======");
    for (std::sregex_iterator m(pty.output.begin(), pty.output.end(), bar), end; m != end; ++m)
        positions.insert(static_cast<size_t>((*m)[1].length()));
    EXPECT_GE(positions.size(), 4u) << pty.output;
}

// In the user's language: the terminal's own words, and captions with letters beyond
// ASCII taken in any case, whole or by their first letter. A hang-up is the close box.
TEST_F(WindowsTest, TerminalSpeaksTheUsersLanguage) {
    Pty pty([this] {
        setenv("LANG", "de_DE.UTF-8", 1);
        unsetenv("LC_ALL");
        unsetenv("LC_MESSAGES");
        WindowRef box = NewWindow("Box");
        ControlRef yes = Control(box, 'YES1', 1), no = Control(box, 'NO11', 1);
        for (const auto& [control, caption] : {std::pair{yes, "Installieren"}, std::pair{no, "\xC3\x96"
                                                                                             "ffnen"}}) {
            CFStringRef text = Str(caption);
            SetControlData(control, 0, kControlStaticTextCFStringTag, sizeof text, &text);
            CFRelease(text);
        }
        SetWindowDefaultButton(box, yes);
        SetWindowCancelButton(box, no);
        auto report = [yes, no](EventHandlerCallRef, EventRef event) { return ReportAnswer(event, yes, no); };
        Install(GetApplicationEventTarget(), kHit, report);
        Install(GetApplicationEventTarget(), kClose, report);
        ShowWindow(box);
        for (int answers = 0; answers < 3; answers++)
            RunApplicationEventLoop();
        printf("DONE\n");
        return 0;
    });
    pty.Expect("[ \xC3\x96"
               "ffnen ]  [ Installieren ]");
    pty.Expect("Eingabetaste: Installieren; Esc: \xC3\x96"
               "ffnen; Strg-D: schlie\xC3\x9F"
               "en\r\nGeben Sie den Namen einer Schaltfl\xC3\xA4"
               "che oder ihren Anfangsbuchstaben ein: ");
    pty.Send("ja\n");
    pty.Expect("\xE2\x80\x9E"
               "ja\xE2\x80\x9C ist keine der m\xC3\xB6glichen Antworten (\xC3\x96"
               "ffnen, Installieren).");
    pty.Send("\xC3\xB6\n");
    pty.Expect("HIT No");
    pty.Send("INSTALLIEREN\n");
    pty.Expect("HIT Yes");
    close(pty.master);
    pty.master = -1;
    int status = -1;
    for (int i = 0; i < 100 && waitpid(pty.pid, &status, WNOHANG) != pty.pid; i++)
        usleep(50000);
    pty.pid = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a hang-up ended the program: " << status;
}

} // namespace
