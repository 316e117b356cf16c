/* The built launcher under a real X server: its bundle copied into temporary disc
 * folders, its windows found by title, answered with the keyboard, the pointer and
 * the close box, photographed, and what it then did read back from the log, the
 * recorded "open" and the installed application. */
#include "DisplayTest.h"

#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace display;
using Clock = std::chrono::steady_clock;

const std::string kLogFile = "/var/tmp/Kestrun.log";
const std::string kStagedPackage = "/tmp/qv_tmp_vantorel.mpkg";
const std::string kStagedAutoSetup = "/tmp/AutoSetup";
const std::string kBoxTitle = "Vantorel Installer";
const std::string kProgressTitle = "Installing Vantorel";
constexpr int kWindowWaitMs = 30000;
constexpr int kRunLimitMs = 90000;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void WriteFile(const std::string& path, const std::string& text, bool executable = false) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    if (executable)
        chmod(path.c_str(), 0755);
}

std::string SysConfig(int vr, int major, const std::string& appPath = "", bool showProgress = false) {
    std::ostringstream text;
    text << "[System]\nVRVersion=" << vr
         << "\nBuildVersion=1\nDebugVersion=0\nSPVersion=0\nCustomizeVersion=0\n"
         << "MajorVersion=" << major << "\n";
    if (!appPath.empty())
        text << "[APP_PATH]\nVALUE=" << appPath << "\nRUN_PROCESS_DLG=" << (showProgress ? "yes" : "no")
             << "\n";
    return text.str();
}

// The messages of the log file, in order ("... --- message").
std::vector<std::string> LogMessages() {
    std::vector<std::string> messages;
    std::istringstream in(ReadFile(kLogFile));
    std::string line;
    while (std::getline(in, line)) {
        size_t separator = line.find(" --- ");
        if (separator != std::string::npos)
            messages.push_back(line.substr(separator + 5));
    }
    return messages;
}

// Whether the messages appear in this order (others may stand between them).
testing::AssertionResult LogHasInOrder(const std::vector<std::string>& expected) {
    std::vector<std::string> messages = LogMessages();
    size_t at = 0;
    for (const std::string& message : expected) {
        while (at < messages.size() && messages[at] != message)
            ++at;
        if (at == messages.size()) {
            std::string all;
            for (const std::string& m : messages)
                all += "\n  " + m;
            return testing::AssertionFailure() << "\"" << message << "\" missing or out of order in:" << all;
        }
        ++at;
    }
    return testing::AssertionSuccess();
}

bool LogHas(const std::string& message) {
    for (const std::string& m : LogMessages())
        if (m == message)
            return true;
    return false;
}

// A fixed path of the system moved out of the way for one test and put back after.
class FixedPathGuard {
  public:
    explicit FixedPathGuard(const std::string& path) : path_(path), aside_(path + ".kestrun-gtk-aside") {
        std::error_code ignored;
        fs::remove_all(aside_, ignored);
        if (fs::exists(fs::symlink_status(path_))) {
            fs::rename(path_, aside_, ignored);
            moved_ = !ignored;
        }
    }
    ~FixedPathGuard() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
        if (moved_)
            fs::rename(aside_, path_, ignored);
    }

  private:
    std::string path_, aside_;
    bool moved_ = false;
};

// A control's frame in the launcher's nib.
struct Frame {
    int x = 0, y = 0, width = 0, height = 0;
    int CentreX() const { return x + width / 2; }
    int CentreY() const { return y + height / 2; }
};

Frame NibFrame(const std::string& window, const std::string& signature) {
    pugi::xml_document nib;
    nib.load_file((std::string(KESTRUN_SOURCE_DIR) + "/resources/main.nib").c_str());
    pugi::xml_node node =
        nib.select_node(("/nib/window[@name='" + window + "']/*[@signature='" + signature + "']").c_str())
            .node();
    return Frame{node.attribute("x").as_int(), node.attribute("y").as_int(), node.attribute("width").as_int(),
                 node.attribute("height").as_int()};
}

// The logo's most frequent opaque colour, and how many pixels have it.
void LogoColour(unsigned char rgb[3], int* count) {
    Picture logo;
    *count = 0;
    if (!ReadPng(std::string(KESTRUN_SOURCE_DIR) + "/resources/Installer.png", &logo))
        return;
    std::map<unsigned long, int> histogram;
    for (int y = 0; y < logo.height; ++y)
        for (int x = 0; x < logo.width; ++x) {
            const unsigned char* p = logo.At(x, y);
            bool grey = std::abs(p[0] - p[1]) < 16 && std::abs(p[1] - p[2]) < 16;
            if (p[3] == 255 && !grey)
                ++histogram[(p[0] << 16) | (p[1] << 8) | p[2]];
        }
    for (const auto& [colour, n] : histogram)
        if (n > *count) {
            *count = n;
            rgb[0] = colour >> 16;
            rgb[1] = (colour >> 8) & 0xFF;
            rgb[2] = colour & 0xFF;
        }
}

class LauncherWindowTest : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/kestrun-gtk-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        bundle = root + "/Volumes/Kestrun/Launcher.app";
        app = root + "/Applications/Vantorel.app";
        fs::create_directories(fs::path(bundle).parent_path());
        std::string built = std::string(KESTRUN_BUILD_DIR) + "/Launcher.app";
        ASSERT_TRUE(fs::exists(built + "/Contents/MacOS/Launcher")) << built;
        fs::copy(built, bundle, fs::copy_options::recursive);

        // What the bundle carries on a disc: AutoSetup and the installer script, which
        // installs the staged package's record as the application.
        WriteFile(bundle + "/Contents/AutoSetup", "#!/bin/sh\nexit 0\n", true);
        WriteFile(bundle + "/Contents/run_local_kestrun",
                  "#!/bin/sh\nmkdir -p " + Quote(app) + " && cp " + kStagedPackage +
                      "/Contents/Resources/SysConfig.dat " + Quote(app + "/SysConfig.dat") +
                      " && echo installed > " + Quote(root + "/installed.txt") + "\n",
                  true);
        // An "open" that only records how it was asked to start the application.
        WriteFile(root + "/bin/open", "#!/bin/sh\necho \"$*\" >> " + Quote(root + "/open.log") + "\n", true);
        // A "cp" that holds the package copy until the test lets it go, so that the
        // progress window stays up for as long as the test looks at it, however
        // slowly the first window came up.
        WriteFile(root + "/bin/cp",
                  "#!/bin/sh\ncase \"$*\" in *Vantorel.mpkg*)\n  i=0\n  while [ ! -e " +
                      Quote(root + "/release-copy") +
                      " ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i+1)); done;;\nesac\nexec /bin/cp \"$@\"\n",
                  true);
    }

    void TearDown() override {
        if (launcher > 0) {
            kill(-launcher, SIGKILL);
            waitpid(launcher, nullptr, 0);
        }
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    void Package(int vr, int major, bool showProgress) {
        WriteFile(bundle + "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat",
                  SysConfig(vr, major, app, showProgress));
    }
    void Installed(int vr, int major) { WriteFile(app + "/SysConfig.dat", SysConfig(vr, major)); }

    // Starts the launcher from the disc with standard input from /dev/null.
    void Start(const std::vector<std::string>& extraEnvironment = {}) {
        std::string out = root + "/out.txt";
        launcher = fork();
        ASSERT_GE(launcher, 0);
        if (launcher == 0) {
            setpgid(0, 0);
            int in = open("/dev/null", O_RDONLY);
            int output = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(in, 0);
            dup2(output, 1);
            dup2(output, 2);
            setenv("PATH", (root + "/bin:" + getenv("PATH")).c_str(), 1);
            for (const std::string& assignment : extraEnvironment)
                putenv(const_cast<char*>(assignment.c_str()));
            std::string executable = bundle + "/Contents/MacOS/Launcher";
            execl(executable.c_str(), executable.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        setpgid(launcher, launcher);
    }

    // Waits for the launcher to end by itself; its exit status, or -1 on the time limit.
    int Finish(int limitMs = kRunLimitMs) {
        auto end = Clock::now() + std::chrono::milliseconds(limitMs);
        int status = 0;
        while (Clock::now() < end) {
            pid_t done = waitpid(launcher, &status, WNOHANG);
            if (done == launcher) {
                launcher = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }

    std::string Output() const { return ReadFile(root + "/out.txt"); }
    void ReleaseCopy() const { WriteFile(root + "/release-copy", ""); }
    std::string OpenLog() const { return ReadFile(root + "/open.log"); }

    // A screenshot of the window about 0.3 s after it mapped, in the build tree.
    static std::string Photograph(unsigned long window, const std::string& name, Picture* picture) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::string dir = std::string(KESTRUN_BUILD_DIR) + "/gtk-shots";
        fs::create_directories(dir);
        std::string path = dir + "/" + name;
        EXPECT_TRUE(Screenshot(window, path)) << path;
        EXPECT_TRUE(ReadPng(path, picture)) << path;
        return path;
    }

    // A real picture of a nib window: its size, the logo in its image view, ink in its
    // static text.
    static void ExpectDrawn(const Picture& shot, const std::string& window, const std::string& logoView,
                            const std::string& textView) {
        pugi::xml_document nib;
        nib.load_file((std::string(KESTRUN_SOURCE_DIR) + "/resources/main.nib").c_str());
        pugi::xml_node node = nib.select_node(("/nib/window[@name='" + window + "']").c_str()).node();
        EXPECT_EQ(shot.width, node.attribute("width").as_int());
        EXPECT_EQ(shot.height, node.attribute("height").as_int());
        unsigned char colour[3] = {0, 0, 0};
        int inLogo = 0;
        LogoColour(colour, &inLogo);
        ASSERT_GT(inLogo, 0);
        Frame logo = NibFrame(window, logoView);
        EXPECT_GE(CountColour(shot, logo.x, logo.y, logo.width, logo.height, colour, 8), inLogo * 8 / 10)
            << window << ": the logo is missing from its image view";
        Frame text = NibFrame(window, textView);
        EXPECT_GT(CountDark(shot, text.x, text.y, text.width, text.height, 110), 30)
            << window << ": the message text is missing";
    }

    std::string root, bundle, app;
    pid_t launcher = -1;
    FixedPathGuard logGuard{kLogFile}, packageGuard{kStagedPackage}, autoSetupGuard{kStagedAutoSetup};
};

TEST_F(LauncherWindowTest, QuestionBoxYesInstallsThroughTheProgressWindow) {
    Package(5, 2, true);
    Installed(4, 2); // older: "NEW_VERSION_CONFIRM" in the question box
    Start();

    unsigned long box = WaitForWindow(kBoxTitle, kWindowWaitMs);
    ASSERT_NE(box, 0u) << Output();
    Picture shot;
    Photograph(box, "question-box.png", &shot);
    ExpectDrawn(shot, "MessageBox_Installed", "logo", "MSG1");

    // Return is Yes: the box goes at once, and the progress window runs its modal
    // loop inside the button's handler, the application loop still under it.
    PressReturn(box);
    EXPECT_TRUE(WaitForNoWindow(kBoxTitle, 5000));
    unsigned long progress = WaitForWindow(kProgressTitle, kWindowWaitMs);
    EXPECT_NE(progress, 0u) << Output();
    EXPECT_FALSE(LogHas("copy mpkg to local end ...."));
    ReleaseCopy();
    EXPECT_TRUE(WaitForNoWindow(kProgressTitle, kWindowWaitMs)) << "\"clos\" must close the progress window";

    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_TRUE(LogHasInOrder(
        {"AutoInstallPkg Enter", "**Install from dashboard path**", "copy mpkg to local begin...",
         "Now we show send the close order to showProcess", "RunAppModalLoopForWindow exit.....",
         "Run Script,path: \"" + bundle + "/Contents/run_local_kestrun\""}));
    EXPECT_EQ(ReadFile(app + "/SysConfig.dat"), SysConfig(5, 2, app, true))
        << "the package was not installed";
    EXPECT_EQ(OpenLog(), "") << "Yes on a disc hands over to the installer script, not to the application";
    EXPECT_NE(Output().find("ProgressWindowHandler: event handled!"), std::string::npos) << Output();
}

TEST_F(LauncherWindowTest, QuestionBoxNoByPointerStartsTheApplication) {
    Package(5, 2, true);
    Installed(4, 2);
    Start();

    unsigned long box = WaitForWindow(kBoxTitle, kWindowWaitMs);
    ASSERT_NE(box, 0u) << Output();
    Frame no = NibFrame("MessageBox_Installed", "NO11");
    ASSERT_GT(no.width, 0);
    Click(box, no.CentreX(), no.CentreY());

    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_EQ(OpenLog(), "-a " + app + "\n");
    EXPECT_TRUE(LogHas("AutoRunApplication end......"));
    EXPECT_FALSE(LogHas("AutoInstallPkg Enter"));
    EXPECT_FALSE(fs::exists(root + "/installed.txt"));
}

TEST_F(LauncherWindowTest, WarningBoxCloseBoxStartsTheApplication) {
    Package(5, 2, false);
    Installed(5, 2); // the same version: the warning box
    Start();

    unsigned long box = WaitForWindow(kBoxTitle, kWindowWaitMs);
    ASSERT_NE(box, 0u) << Output();
    Picture shot;
    Photograph(box, "warning-box.png", &shot);
    ExpectDrawn(shot, "WarnningBox_Installed", "logo", "MSG1");
    // Nothing happens before the user answers.
    EXPECT_EQ(OpenLog(), "");

    PressCloseBox(box);
    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_EQ(OpenLog(), "-a " + app + "\n");
    EXPECT_TRUE(LogHasInOrder({"AutoRunApplication end......", "Close messageBox window"}));
}

TEST_F(LauncherWindowTest, InstallShowsTheProgressWindowWhileTheCopyRuns) {
    Package(5, 2, true); // nothing installed: the launcher installs at once
    Start();

    unsigned long progress = WaitForWindow(kProgressTitle, kWindowWaitMs);
    ASSERT_NE(progress, 0u) << Output();
    Picture shot;
    Photograph(progress, "progress-window.png", &shot);
    ExpectDrawn(shot, "ProgressWindow", "copy", "TXT1");
    // The bar moves while the window is up.
    Frame bar = NibFrame("ProgressWindow", "prog");
    Picture later;
    Photograph(progress, "progress-window-later.png", &later);
    bool moved = false;
    if (later.width == shot.width && later.height == shot.height)
        for (int y = bar.y; y < bar.y + bar.height && !moved; ++y)
            for (int x = bar.x; x < bar.x + bar.width && !moved; ++x)
                moved = std::memcmp(shot.At(x, y), later.At(x, y), 3) != 0;
    EXPECT_TRUE(moved) << "the indeterminate progress bar stood still";
    // Up while the copy runs; gone once the worker has sent "clos" after it.
    EXPECT_FALSE(LogHas("copy mpkg to local end ...."));
    ReleaseCopy();
    EXPECT_TRUE(WaitForNoWindow(kProgressTitle, kWindowWaitMs));

    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_TRUE(LogHasInOrder({"Application isn't Exist,then install", "**Install from dashboard path**",
                               "copy mpkg to local end ....", "RunAppModalLoopForWindow exit.....",
                               "Run Script,path: \"" + bundle + "/Contents/run_local_kestrun\""}));
    EXPECT_TRUE(fs::exists(root + "/installed.txt"));
    EXPECT_TRUE(fs::exists(kStagedPackage + "/Contents/Resources/SysConfig.dat"));
}

TEST_F(LauncherWindowTest, RunsWithoutAWindowNeverLoadGtk) {
    // Table B, the installed copy as new as the package: the application is started
    // straight away, under a display. With both version fields 0 the application
    // path names the installed record itself.
    app = root + "/Vantorel.cfg";
    Package(5, 0, true);
    WriteFile(app, SysConfig(5, 0));
    Start({"LD_DEBUG=files"});
    EXPECT_EQ(Finish(), 0) << Output();
    EXPECT_EQ(OpenLog(), "-a " + app + "\n");
    std::string loaded = Output();
    EXPECT_NE(loaded.find("libc.so"), std::string::npos) << "the loader's trace is missing: " << loaded;
    EXPECT_EQ(loaded.find("libgtk-3"), std::string::npos);
    EXPECT_EQ(loaded.find("PlatformGtk"), std::string::npos);
}

class ServerEnvironment : public testing::Environment {
    void SetUp() override { StartServer(); }
    void TearDown() override { StopServer(); }
};
[[maybe_unused]] const auto* const kServer = testing::AddGlobalTestEnvironment(new ServerEnvironment);

} // namespace
