/* The built launcher under a real X server (one Xvfb per run): its windows found by
 * title with xdotool, answered by keyboard, pointer and close box, photographed, and
 * what it then did read back from the log, the recorded "open" and the installed copy. */
#include <gtest/gtest.h>
#include <png.h>
#include <pugixml.hpp>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <algorithm>
#include <memory>

#include "launcher/support.h"

#include <X11/Xlib.h> // after GoogleTest: its macros (None, Bool) clash with it

namespace {

using namespace launcher_test;

const std::string kBoxTitle = "Vantorel Installer";
const std::string kGermanBoxTitle = "Vantorel-Installationsprogramm";
const std::string kProgressTitle = "Installing Vantorel";
constexpr int kWindowWaitMs = 30000;

void Sleep(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// A shell command's standard output; *status its exit status.
std::string Shell(const std::string& command, int* status = nullptr) {
    std::string output;
    FILE* pipe = popen(("{ " + command + "; } 2>/dev/null").c_str(), "r");
    if (!pipe)
        return output;
    char buffer[256];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    int result = pclose(pipe);
    if (status)
        *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    return output;
}

// A program beside the test, quiet but for its output into out if given, after setup in its
// process; it goes with the test process however that ends.
pid_t Spawn(std::vector<const char*> argv, int out = -1, const std::function<void()>& setup = nullptr) {
    pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        int quiet = open("/dev/null", O_WRONLY);
        dup2(out >= 0 ? out : quiet, 1);
        dup2(quiet, 2);
        if (setup)
            setup();
        argv.push_back(nullptr);
        execvp(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    return child;
}

void Stop(pid_t child, int signal = SIGKILL) {
    if (child > 0 && kill(child, signal) == 0)
        waitpid(child, nullptr, 0);
}

std::string StartServer(pid_t* server);

/* ---- The user at the X server ---- */
// A shown window by its title, or by its class ("--class").
unsigned long FindWindow(const std::string& name, const std::string& by = "--name") {
    return std::strtoul(Shell("xdotool search --onlyvisible " + by + " '^" + name + "$'").c_str(), nullptr,
                        10);
}

unsigned long WaitForWindow(const std::string& name, const std::string& by = "--name") {
    unsigned long window = 0;
    Within(kWindowWaitMs, [&] { return (window = FindWindow(name, by)) != 0; });
    return window;
}

// Keys typed into the window, as xdotool names them ("Tab Tab Return", "ctrl+period").
void PressKeys(unsigned long window, const std::string& keys) {
    Shell("xdotool windowfocus --sync " + std::to_string(window) + "; xdotool key " + keys);
}

// A property of the window as xprop prints it.
std::string Property(unsigned long window, const std::string& name) {
    return Shell("xprop -id " + std::to_string(window) + " " + name);
}

// A box as a Mac dialog: of the dialog type, of one size, offering (by its Motif hints) only to
// move and close.
enum { kMotifMove = 4, kMotifClose = 32 };
void ExpectDialog(unsigned long window, bool closeBox) {
    EXPECT_NE(Property(window, "_NET_WM_WINDOW_TYPE").find("_NET_WM_WINDOW_TYPE_DIALOG"), std::string::npos);
    std::string hints = Property(window, "WM_NORMAL_HINTS");
    int minW = 0, minH = 0, maxW = -1, maxH = -1;
    size_t min = hints.find("minimum size:"), max = hints.find("maximum size:");
    ASSERT_TRUE(min != std::string::npos && max != std::string::npos) << hints;
    sscanf(hints.c_str() + min, "minimum size: %d by %d", &minW, &minH);
    sscanf(hints.c_str() + max, "maximum size: %d by %d", &maxW, &maxH);
    EXPECT_TRUE(minW == maxW && minH == maxH) << "resizable: " << hints;
    long flags = 0, functions = -1;
    std::string motif = Property(window, "_MOTIF_WM_HINTS");
    size_t at = motif.find(" = ");
    ASSERT_TRUE(at != std::string::npos && sscanf(motif.c_str() + at, " = %li, %li", &flags, &functions) == 2)
        << motif;
    EXPECT_TRUE(flags & 1) << motif;
    EXPECT_EQ(functions, kMotifMove | (closeBox ? kMotifClose : 0));
}

// The close box as a window manager presses it: WM_DELETE_WINDOW.
void PressCloseBox(unsigned long window) {
    Display* display = XOpenDisplay(nullptr);
    ASSERT_NE(display, nullptr);
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(display, window, False, NoEventMask, &event);
    XSync(display, False);
    XCloseDisplay(display);
}

/* ---- Pictures ---- */
struct Picture {
    int width = 0, height = 0;
    std::vector<unsigned char> rgba;
    const unsigned char* At(int x, int y) const { return &rgba[(static_cast<size_t>(y) * width + x) * 4]; }
};

bool ReadPng(const std::string& path, Picture* picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return false;
    image.format = PNG_FORMAT_RGBA;
    picture->width = static_cast<int>(image.width);
    picture->height = static_cast<int>(image.height);
    picture->rgba.assign(PNG_IMAGE_SIZE(image), 0);
    return png_image_finish_read(&image, nullptr, picture->rgba.data(), 0, nullptr) != 0;
}

// The window's content: the rectangle of the dialog background below the title bar, found
// down a column near the left edge and along a row just inside the content; the border
// is as wide at the bottom and on the right as on the left.
Picture Content(const Picture& window, int* contentLeft = nullptr, int* contentTop = nullptr) {
    auto background = [&](int x, int y) {
        const unsigned char* p = window.At(x, y);
        return p[0] == 0xF6 && p[1] == 0xF5 && p[2] == 0xF4;
    };
    int top = 0, left = 0;
    while (top < window.height && !(window.width > 12 && background(12, top)))
        top++;
    while (top + 2 < window.height && left < window.width / 2 && !background(left, top + 2))
        left++;
    if (contentLeft && contentTop) {
        *contentLeft = left;
        *contentTop = top;
    }
    Picture content;
    content.width = std::max(0, window.width - 2 * left);
    content.height = std::max(0, window.height - top - left);
    for (int y = top; y < top + content.height; ++y)
        content.rgba.insert(content.rgba.end(), window.At(left, y), window.At(left, y) + content.width * 4);
    return content;
}

// A control's frame (or a window's size) in the launcher's nib.
struct Frame {
    int x, y, width, height;
};

Frame NibFrame(const std::string& window, const std::string& signature = "") {
    static pugi::xml_document nib;
    if (!nib.first_child())
        nib.load_file(KESTRUN_SOURCE_DIR "/resources/en.lproj/main.nib/objects.xib");
    // The window through the name table, then its view of that signature; rectangles are
    // "top left bottom right ".
    std::string id = nib.select_node(("/object/dictionary[@name='nameTable']/string[.='" + window +
                                      "']/following-sibling::reference[1]/@idRef")
                                         .c_str())
                         .attribute()
                         .value();
    pugi::xml_node node = nib.select_node(("//object[@id='" + id + "']").c_str()).node();
    if (!signature.empty())
        node = node.select_node((".//object[ostype[@name='controlSignature']='" + signature + "']").c_str())
                   .node();
    int top = 0, left = 0, bottom = 0, right = 0;
    const char* rect =
        node.select_node(signature.empty() ? "string[@name='windowRect']" : "string[@name='bounds']")
            .node()
            .child_value();
    std::sscanf(rect, "%d %d %d %d", &top, &left, &bottom, &right);
    return signature.empty() ? Frame{0, 0, right - left, bottom - top}
                             : Frame{left, top, right - left, bottom - top};
}

bool Ink(const unsigned char* p) {
    return p[0] < 110 && p[1] < 110 && p[2] < 110;
}

// Pixels inside the frame for which matches(rgb) holds.
int Count(const Picture& picture, Frame frame, const std::function<bool(const unsigned char*)>& matches) {
    int count = 0;
    for (int y = frame.y; y < std::min(frame.y + frame.height, picture.height); ++y)
        for (int x = frame.x; x < std::min(frame.x + frame.width, picture.width); ++x)
            count += matches(picture.At(x, y));
    return count;
}

/* ---- The launcher run from temporary disc folders ---- */
std::string Config(int vr, int major, const std::string& appPath = "") {
    return SysConfig(vr, 1, 0, 0, 0, major, appPath, appPath.empty() ? "no" : "yes");
}

class LauncherWindowTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(fs::is_directory(root));
        bundle = root + "/Volumes/Kestrun/Launcher.app";
        app = root + "/Applications/Vantorel.app";
        fs::create_directories(fs::path(bundle).parent_path());
        fs::copy(KESTRUN_BUILD_DIR "/Launcher.app", bundle, fs::copy_options::recursive);
        ASSERT_TRUE(fs::exists(bundle + "/Contents/Linux/Launcher"));
        WriteFile(bundle + "/Contents/AutoSetup", "#!/bin/sh\nexit 0\n", true);
        // The installer script installs the staged package's record as the application.
        WriteFile(bundle + "/Contents/run_local_kestrun",
                  "#!/bin/sh\nmkdir -p '" + app + "' && cp " + kStaged +
                      "/Contents/Resources/SysConfig.dat '" + app + "/SysConfig.dat'\n",
                  true);
        // An "open" that records how it was asked to start the application.
        WriteFile(root + "/bin/open", "#!/bin/sh\necho \"$*\" >> '" + root + "/open.log'\n", true);
        // A "cp" that holds the package copy until the test lets it go (at most 30 s),
        // so the progress window stays up while the test looks at it.
        WriteFile(root + "/bin/cp",
                  "#!/bin/sh\ncase \"$*\" in *Vantorel.mpkg*)\n  i=0\n  while [ ! -e '" + root +
                      "/release-copy' ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i+1)); done;;\n"
                      "esac\nexec /bin/cp \"$@\"\n",
                  true);
    }

    void TearDown() override { FinishLauncher(launcher, 0); }

    // The question box's two messages in the table of a language.
    void Messages(const std::string& language, const std::string& text) {
        WriteFile(bundle + "/Contents/Resources/" + language + ".lproj/custom.strings",
                  "\"NEW_VERSION_CONFIRM\" = \"" + text + "\";\n\"DIFFERENT_VERSION_CONFIRM\" = \"" + text +
                      "\";\n");
    }

    // The package on the disc and, when vr > 0, an installed copy.
    void Versions(int packageVr, int installedVr) {
        WriteFile(bundle + "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat",
                  Config(packageVr, 2, app));
        if (installedVr > 0)
            WriteFile(app + "/SysConfig.dat", Config(installedVr, 2));
    }

    // A run of its own: the log and the recorded "open" of the last run cleared first.
    void Start(const std::function<void()>& setup = nullptr) {
        fs::remove(root + "/open.log");
        fs::remove(kLogFile);
        launcher = StartLauncher(bundle, root + "/bin", root + "/out.txt", nullptr, setup);
        ASSERT_GT(launcher, 0);
    }

    // A run until the window of this title shows (0 when it does not).
    unsigned long Show(const std::string& title = kBoxTitle) {
        Start();
        unsigned long window = WaitForWindow(title);
        EXPECT_NE(window, 0u) << Output();
        return window;
    }

    int Finish() { return FinishLauncher(std::exchange(launcher, -1), 90); }

    std::string Output() const { return ReadFile(root + "/out.txt"); }
    std::string OpenLog() const { return ReadFile(root + "/open.log"); }

    // Whether the log has these messages in this order (others may stand between).
    static testing::AssertionResult LogHas(const std::vector<std::string>& messages) {
        std::string log = ReadFile(kLogFile);
        size_t at = 0;
        for (const std::string& message : messages)
            if ((at = log.find(" --- " + message + "\n", at)) == std::string::npos)
                return testing::AssertionFailure() << "\"" << message << "\" missing or out of order in:\n"
                                                   << log;
        return testing::AssertionSuccess();
    }

    // A screenshot into the build tree about 0.3 s after the window mapped, and the window's
    // content without its title bar and border: what the nib lays out.
    static Picture Photograph(unsigned long window, const std::string& name, int* left = nullptr,
                              int* top = nullptr) {
        Sleep(300);
        std::string path = KESTRUN_BUILD_DIR "/gtk-shots/" + name;
        fs::create_directories(fs::path(path).parent_path());
        int status = -1;
        Shell("import -window " + std::to_string(window) + " '" + path + "'", &status);
        Picture picture;
        EXPECT_TRUE(status == 0 && ReadPng(path, &picture)) << path;
        return Content(picture, left, top);
    }

    TempDir dir_;
    std::string root = dir_.path, bundle, app;
    pid_t launcher = -1;
    FixedPathGuard guards[3]{FixedPathGuard(kLogFile), FixedPathGuard(kStaged),
                             FixedPathGuard("/tmp/AutoSetup")};
};

// The default button drawn as the suggested action: its frame is mostly blue.
int BluePixels(const Picture& shot, Frame frame) {
    return Count(shot, frame, [](const unsigned char* p) { return p[2] > 150 && p[2] > p[0] + 60; });
}

// Return is Yes once Tab Tab brought the focus round to it again: the box goes, the progress window's
// modal loop runs inside the button's handler while the copy runs, and "clos" from
// the worker takes it down.
TEST_F(LauncherWindowTest, QuestionBoxYesInstallsThroughTheProgressWindow) {
    Versions(5, 4);
    unsigned long box = Show();
    ASSERT_NE(box, 0u);
    ExpectDialog(box, true);
    Picture boxShot = Photograph(box, "question-box.png");
    EXPECT_EQ(boxShot.width, NibFrame("MessageBox_Installed").width);
    Frame yes = NibFrame("MessageBox_Installed", "YES1");
    EXPECT_GT(BluePixels(boxShot, yes), yes.width * yes.height / 2) << "Yes is not drawn as the default";
    EXPECT_EQ(BluePixels(boxShot, NibFrame("MessageBox_Installed", "NO11")), 0);
    PressKeys(box, "Tab Tab Return");
    EXPECT_TRUE(Within(kWindowWaitMs, [&] { return FindWindow(kBoxTitle) == 0; }));

    unsigned long progress = WaitForWindow(kProgressTitle);
    ASSERT_NE(progress, 0u) << Output();
    ExpectDialog(progress, false);
    Photograph(progress, "progress-window.png");
    PressCloseBox(progress);
    PressKeys(progress, "Escape");
    Sleep(300);
    EXPECT_NE(FindWindow(kProgressTitle), 0u) << "the progress window has no close box";
    EXPECT_FALSE(LogHas({"copy mpkg to local end ...."}));
    WriteFile(root + "/release-copy", "");
    EXPECT_TRUE(Within(kWindowWaitMs, [&] { return FindWindow(kProgressTitle) == 0; }))
        << "\"clos\" must close the progress window";

    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_TRUE(
        LogHas({"AutoInstallPkg Enter", "**Install from dashboard path**", "copy mpkg to local begin...",
                "copy mpkg to local end ....", "Now we show send the close order to showProcess",
                "RunAppModalLoopForWindow exit.....",
                "Run Script,path: \"" + bundle + "/Contents/run_local_kestrun\""}));
    EXPECT_EQ(ReadFile(app + "/SysConfig.dat"), Config(5, 2, app)) << "the package was not installed";
    EXPECT_EQ(OpenLog(), "") << "Yes on a disc hands over to the installer script";
}

// No by pointer, Escape and Ctrl-. (the cancel button), and Return once Tab moved the focus to
// it, start the installed copy; so does Escape in the German box.
TEST_F(LauncherWindowTest, QuestionBoxNoStartsTheApplication) {
    Versions(5, 4);
    for (const auto& [answer, keys] :
         std::vector<std::pair<std::string, std::string>>{{"pointer", ""},
                                                          {"Escape", "Escape"},
                                                          {"Ctrl-.", "ctrl+period"},
                                                          {"Tab to No, Return", "Tab Return"},
                                                          {"German Escape", "Escape"}}) {
        SCOPED_TRACE(answer);
        setenv("LANG", answer == "German Escape" ? "de_DE.UTF-8" : "C.UTF-8", 1);
        unsigned long box = Show(answer == "German Escape" ? kGermanBoxTitle : kBoxTitle);
        ASSERT_NE(box, 0u);
        Frame no = NibFrame("MessageBox_Installed", "NO11");
        int left = 0, top = 0;
        if (keys.empty()) {
            Photograph(box, "question-box-pointer.png", &left, &top);
            Shell("xdotool mousemove --window " + std::to_string(box) + " " +
                  std::to_string(left + no.x + no.width / 2) + " " +
                  std::to_string(top + no.y + no.height / 2) + " click 1");
        } else {
            PressKeys(box, keys);
        }

        EXPECT_EQ(Finish(), 0) << Output();
        EXPECT_EQ(OpenLog(), "-a " + app + "\n");
        EXPECT_TRUE(LogHas({"AutoRunApplication end......"}));
        EXPECT_FALSE(LogHas({"AutoInstallPkg Enter"}));
    }
}

// The same version installed: the warning box. It has no cancel button, so Escape does
// nothing; Space presses Yes, which has the focus, and the close box is as Yes: both
// start the application.
TEST_F(LauncherWindowTest, WarningBoxYesAndCloseBoxStartTheApplication) {
    Versions(5, 5);
    for (bool closeBox : {false, true}) {
        SCOPED_TRACE(closeBox ? "close box" : "space");
        unsigned long box = Show();
        ASSERT_NE(box, 0u);
        Photograph(box, "warning-box.png");
        PressKeys(box, "Escape");
        Sleep(500);
        EXPECT_NE(FindWindow(kBoxTitle), 0u) << "Escape closed a box without a cancel button";
        EXPECT_EQ(OpenLog(), "") << "nothing starts before the user answers";

        if (closeBox)
            PressCloseBox(box);
        else
            PressKeys(box, "space");
        EXPECT_EQ(Finish(), 0) << Output();
        EXPECT_EQ(OpenLog(), "-a " + app + "\n");
        EXPECT_TRUE(LogHas({"AutoRunApplication end......"}));
        EXPECT_EQ(closeBox, LogHas({"Close messageBox window"}));
    }
}

// Under openbox, which offers minimise and close whatever Motif's functions say, the
// window manager draws no title bar with buttons of its own: GTK draws the title and the
// close box alone, none on the progress window. A box minimised anyway comes back.
TEST_F(LauncherWindowTest, OpenboxOffersNoMinimiseMaximiseOrProgressClose) {
    pid_t openbox = Spawn({"openbox", "--sm-disable"});
    ASSERT_GT(openbox, 0);
    std::shared_ptr<void> stop(nullptr, [openbox](void*) { Stop(openbox, SIGTERM); });
    if (!Within(10000, [] {
            return Shell("xprop -root _NET_SUPPORTING_WM_CHECK").find("window id") != std::string::npos;
        }))
        GTEST_SKIP() << "openbox did not start here (is the package openbox installed?)";

    Versions(5, 4);
    unsigned long box = Show();
    ASSERT_NE(box, 0u);
    auto managedWithoutFrame = [](unsigned long window) {
        return Within(5000, [&] {
            return Property(window, "_NET_FRAME_EXTENTS").find("= 0, 0, 0, 0") != std::string::npos;
        });
    };
    EXPECT_TRUE(managedWithoutFrame(box)) << Property(box, "_NET_FRAME_EXTENTS");
    Picture shot = Photograph(box, "question-box-openbox.png");
    EXPECT_EQ(shot.width, NibFrame("MessageBox_Installed").width);
    Shell("xdotool windowminimize " + std::to_string(box));
    Sleep(500);
    EXPECT_TRUE(Within(5000, [&] { return FindWindow(kBoxTitle) == box; }))
        << "the minimised box stayed hidden";

    PressKeys(box, "Return");
    unsigned long progress = WaitForWindow(kProgressTitle);
    ASSERT_NE(progress, 0u) << Output();
    EXPECT_TRUE(managedWithoutFrame(progress)) << Property(progress, "_NET_FRAME_EXTENTS");
    WriteFile(root + "/release-copy", "");
    EXPECT_EQ(Finish(), 0) << Output();
}

// A message longer than its frame grows the box, moving the buttons down: no line is cut.
TEST_F(LauncherWindowTest, LongMessageGrowsTheBox) {
    std::string text;
    for (int i = 1; i <= 12; ++i)
        text += "Sentence " + std::to_string(i) + " of a message that needs more room than its frame. ";
    Messages("en", text);
    Versions(5, 4);
    unsigned long box = Show();
    ASSERT_NE(box, 0u);
    ExpectDialog(box, true);
    Picture shot = Photograph(box, "question-box-long.png");
    Frame size = NibFrame("MessageBox_Installed"), message = NibFrame("MessageBox_Installed", "MSG1");
    EXPECT_EQ(shot.width, size.width);
    ASSERT_GT(shot.height, size.height + 40) << "the box did not grow for its text";
    // The rows the box grew by, between the message's frame and the buttons, hold text.
    int grown = shot.height - size.height;
    Frame added{message.x, message.y + message.height, message.width, grown};
    EXPECT_GT(Count(shot, added, Ink), 30);
    Frame yes = NibFrame("MessageBox_Installed", "YES1");
    yes.y += grown;
    EXPECT_GT(BluePixels(shot, yes), yes.width * yes.height / 2) << "Yes did not move down with the text";
    PressKeys(box, "Escape");
    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_EQ(OpenLog(), "-a " + app + "\n");
}

// A caption longer than its button grows the box: the button keeps the nib's distance to
// the right edge, and the message widens with the box, keeping its own margin.
TEST_F(LauncherWindowTest, LongCaptionWidensTheBoxAndKeepsItsMargins) {
    const std::string nib = bundle + "/Contents/Resources/en.lproj/main.nib/objects.xib";
    std::string text = ReadFile(nib);
    const std::string from = "<string name=\"title\">Install</string>";
    for (size_t at; (at = text.find(from)) != std::string::npos;)
        text.replace(at, from.size(),
                     "<string name=\"title\">Install the new version over the old one now</string>");
    WriteFile(nib, text);
    Versions(5, 4);
    unsigned long box = Show();
    ASSERT_NE(box, 0u);
    Picture shot = Photograph(box, "question-box-long-caption.png");
    Frame size = NibFrame("MessageBox_Installed"), yes = NibFrame("MessageBox_Installed", "YES1"),
          message = NibFrame("MessageBox_Installed", "MSG1");
    ASSERT_GT(shot.width, size.width + 40) << "the box did not grow for the caption";
    int rightmostBlue = -1;
    for (int y = yes.y; y < yes.y + yes.height && y < shot.height; ++y)
        for (int x = 0; x < shot.width; ++x)
            if (BluePixels(shot, Frame{x, y, 1, 1}) > 0)
                rightmostBlue = std::max(rightmostBlue, x);
    EXPECT_NEAR(shot.width - 1 - rightmostBlue, size.width - (yes.x + yes.width), 2)
        << "the default button lost its margin to the right edge";
    int textRight = message.x + message.width, margin = size.width - textRight;
    EXPECT_GT(Count(shot, Frame{textRight, message.y, shot.width - margin - textRight, message.height}, Ink),
              30)
        << "the message did not widen with the box";
    EXPECT_EQ(Count(shot, Frame{shot.width - margin + 2, message.y, margin - 2, message.height}, Ink), 0)
        << "the message runs into its right margin";
    PressKeys(box, "Escape");
    EXPECT_EQ(Finish(), 0) << Output();
}

// Chinese breaks between any two characters: whatever the number of characters per line,
// the message never ends with one character alone on its last line. The lengths tried
// make the last of three lines hold one character for 20 to 36 characters a line.
TEST_F(LauncherWindowTest, ChineseLeavesNoLoneCharacter) {
    if (Shell("fc-list :lang=zh family").empty())
        GTEST_SKIP() << "no Chinese font here (Debian package fonts-wqy-microhei)";
    Versions(5, 4);
    Frame message = NibFrame("MessageBox_Installed", "MSG1"), yes = NibFrame("MessageBox_Installed", "YES1");
    for (int length = 41; length <= 73; length += 2) {
        std::string text;
        for (int i = 0; i < length; ++i)
            text += "\xE5\xAE\x89"; // a character of "install"
        Messages("zh_CN", text);
        setenv("LANG", "zh_CN.UTF-8", 1);
        Start();
        setenv("LANG", "C.UTF-8", 1);
        // Found by its class: the Chinese title is in _NET_WM_NAME alone, which xdotool does not search.
        unsigned long box = WaitForWindow("Launcher", "--class");
        ASSERT_NE(box, 0u) << Output();
        Picture shot = Photograph(box, "question-box-chinese.png");
        // The last line's ink: a lone character is about as wide as it is high.
        int last = -1, first = -1, left = shot.width, right = -1;
        for (int y = yes.y + shot.height - NibFrame("MessageBox_Installed").height - 1; y >= message.y; --y) {
            bool ink = Count(shot, Frame{message.x, y, shot.width - message.x, 1}, Ink) > 0;
            if (ink && last < 0)
                last = y;
            if (!ink && last >= 0) {
                first = y + 1;
                break;
            }
        }
        ASSERT_GE(last, 0) << length;
        for (int y = first; y <= last; ++y)
            for (int x = message.x; x < shot.width; ++x)
                if (Ink(shot.At(x, y))) {
                    left = std::min(left, x);
                    right = std::max(right, x);
                }
        EXPECT_GT(right - left + 1, 3 * (last - first + 1) / 2)
            << length << " characters end with a lone one";
        PressKeys(box, "Escape");
        EXPECT_EQ(Finish(), 0) << Output();
    }
}

// A display that goes away: the question box answers as its close box; behind the
// progress window the copy and the install go on. The launcher ends with 0 either way.
TEST_F(LauncherWindowTest, LostDisplayIsTheCloseBoxAndTheLauncherGoesOn) {
    Versions(5, 4);
    std::string shared = getenv("DISPLAY");
    for (bool progressUp : {false, true}) {
        SCOPED_TRACE(progressUp ? "progress window" : "question box");
        pid_t server = -1;
        std::string display = StartServer(&server);
        ASSERT_FALSE(display.empty());
        setenv("DISPLAY", display.c_str(), 1);
        unsigned long window = Show();
        if (progressUp) {
            PressKeys(window, "Return");
            window = WaitForWindow(kProgressTitle);
            EXPECT_NE(window, 0u) << Output();
        }
        Stop(server);
        setenv("DISPLAY", shared.c_str(), 1);
        Sleep(300);
        WriteFile(root + "/release-copy", "");
        EXPECT_EQ(Finish(), 0) << Output();
        EXPECT_EQ(Output().find("Gdk"), std::string::npos) << Output();
        if (progressUp) {
            EXPECT_TRUE(LogHas({"copy mpkg to local end ....", "RunAppModalLoopForWindow exit.....",
                                "Run Script,path: \"" + bundle + "/Contents/run_local_kestrun\""}));
            EXPECT_EQ(ReadFile(app + "/SysConfig.dat"), Config(5, 2, app)) << "the package was not installed";
        } else {
            EXPECT_EQ(OpenLog(), "-a " + app + "\n");
            EXPECT_TRUE(LogHas({"AutoRunApplication end......", "Close messageBox window"}));
        }
    }
}

// A listening socket that takes connections and never answers, at path; its descriptor.
int SilentServer(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 8) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

// A display that takes the connection and never answers, X server or compositor: after
// the first contact's time limit the windows fall back as when none can be made, and the
// question box counts as its close box.
TEST_F(LauncherWindowTest, SilentDisplayIsNoDisplay) {
    Versions(5, 4);
    int number = 500;
    while (fs::exists("/tmp/.X11-unix/X" + std::to_string(number)))
        number++;
    const std::string xSocket = "/tmp/.X11-unix/X" + std::to_string(number),
                      compositor = root + "/wayland-silent";
    fs::create_directories("/tmp/.X11-unix");
    for (const auto& [name, socketPath, display, waylandDisplay] :
         std::vector<std::tuple<std::string, std::string, std::string, std::string>>{
             {"X server", xSocket, ":" + std::to_string(number), ""},
             {"compositor", compositor, "", compositor}}) {
        SCOPED_TRACE(name);
        int server = SilentServer(socketPath);
        ASSERT_GE(server, 0) << socketPath;
        Start([&] {
            setenv("DISPLAY", display.c_str(), 1);
            setenv("WAYLAND_DISPLAY", waylandDisplay.c_str(), 1);
        });
        EXPECT_EQ(Finish(), 0) << "the launcher waited for the silent display\n" << Output();
        close(server);
        fs::remove(socketPath);
        EXPECT_TRUE(LogHas({"CreateWindowFromNib failed", "AutoRunApplication end......"}));
        EXPECT_EQ(OpenLog(), "-a " + app + "\n");
    }
}

// Under a Wayland compositor (weston, headless) the box is a Wayland window; a compositor
// that goes away is its close box, and the launcher goes on to start the installed copy.
TEST_F(LauncherWindowTest, WaylandWindowAndLostCompositor) {
    Versions(5, 4);
    const std::string runtime = root + "/runtime", socket = runtime + "/wayland-kestrun";
    fs::create_directories(runtime);
    fs::permissions(runtime, fs::perms::owner_all, fs::perm_options::replace);
    pid_t weston = Spawn({"weston", "--backend=headless-backend.so", "--socket=wayland-kestrun",
                          "--idle-time=0", "--shell=desktop-shell.so"},
                         -1, [&] { setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1); });
    ASSERT_GT(weston, 0);
    if (!Within(10000, [&] { return fs::exists(socket); })) {
        Stop(weston);
        GTEST_SKIP() << "weston's headless backend did not start here (is the package weston installed?)";
    }
    Start([&] {
        unsetenv("DISPLAY");
        setenv("WAYLAND_DISPLAY", socket.c_str(), 1);
        setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
        setenv("WAYLAND_DEBUG", "client", 1); // the protocol on standard error: the window's title
    });
    EXPECT_TRUE(Within(kWindowWaitMs, [&] {
        return Output().find("set_title(\"" + kBoxTitle + "\")") != std::string::npos;
    })) << "no Wayland window for the box";
    Sleep(300);
    Stop(weston);
    EXPECT_EQ(Finish(), 0) << Output().substr(0, 2000);
    EXPECT_EQ(OpenLog(), "-a " + app + "\n");
    EXPECT_TRUE(LogHas({"AutoRunApplication end......", "Close messageBox window"}));
    EXPECT_FALSE(LogHas({"CreateWindowFromNib failed"}));
}

// A run that shows no window never loads GTK, even under a display. With both
// version fields 0 the application path names the installed record itself.
TEST_F(LauncherWindowTest, RunsWithoutAWindowNeverLoadGtk) {
    app = root + "/Vantorel.cfg";
    WriteFile(bundle + "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat",
              Config(5, 0, app));
    WriteFile(app, Config(5, 0));
    Start([] { setenv("LD_DEBUG", "files", 1); });
    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_EQ(OpenLog(), "-a " + app + "\n");
    std::string loaded = Output();
    EXPECT_NE(loaded.find("libc.so"), std::string::npos) << "the loader's trace is missing: " << loaded;
    // Every library the loader mapped ("file=<name> [...]" in its trace): the C library
    // alone, but for a launcher on the shared C++ runtime (sanitizer builds), which brings
    // its own along. The nib and picture readers are linked in, GTK is never opened.
    bool sharedRuntime = loaded.find("libstdc++.so") != std::string::npos;
    for (size_t at = loaded.find("file="); at != std::string::npos; at = loaded.find("file=", at + 1)) {
        std::string library = loaded.substr(at + 5, loaded.find_first_of(" \t\n", at) - at - 5);
        EXPECT_TRUE(library == "libc.so.6" ||
                    (sharedRuntime && library.find("PlatformGtk") == std::string::npos &&
                     library.find("gtk") == std::string::npos))
            << library << " was loaded: " << loaded;
    }
}

// An Xvfb of its own; its display name, or empty when it did not start.
std::string StartServer(pid_t* server) {
    int fds[2];
    if (pipe(fds) != 0)
        return "";
    *server = Spawn({"Xvfb", "-displayfd", "1", "-noreset", "-screen", "0", "1280x1024x24", "-nolisten",
                     "tcp", "-extension", "GLX"},
                    fds[1]);
    close(fds[1]);
    std::string number;
    for (char c; *server > 0 && read(fds[0], &c, 1) == 1 && c != '\n';)
        number += c;
    close(fds[0]);
    return number.empty() ? "" : ":" + number;
}

// One Xvfb for the whole run, named by DISPLAY; it goes with this program however it ends.
class ServerEnvironment : public testing::Environment {
    void SetUp() override {
        std::string display = StartServer(&server);
        ASSERT_FALSE(display.empty()) << "Xvfb did not start";
        setenv("DISPLAY", display.c_str(), 1);
        unsetenv("WAYLAND_DISPLAY");
        setenv("NO_AT_BRIDGE", "1", 1); // no accessibility bus here; GTK would only warn
    }
    void TearDown() override { Stop(server, SIGTERM); }
    pid_t server = -1;
};
[[maybe_unused]] const auto* const kServer = testing::AddGlobalTestEnvironment(new ServerEnvironment);

} // namespace
