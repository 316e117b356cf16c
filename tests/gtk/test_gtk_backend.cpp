/* The GTK backend module on its own: loaded as the layer loads it and driven through
 * its ops against a small window model that this program keeps (the layer's
 * functions the module looks up are this program's), with xdotool on Xvfb as the
 * user. */
#include "PlatBackend.h"

#include "DisplayTest.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

/* ---- The window model the module reads ---- */
struct FakeControl {
    PlatControlKind kind;
    PlatRect frame;
    std::string text;
    bool isDefault = false;
    bool indeterminate = false;
    std::vector<unsigned char> rgba;
    size_t imageWidth = 0, imageHeight = 0;
};

struct FakeWindow {
    std::string title;
    int width, height;
    bool closeBox;
    std::vector<std::unique_ptr<FakeControl>> controls;
};

std::set<FakeWindow*> gLiveWindows;

WindowRef RefOf(FakeWindow* window) {
    return reinterpret_cast<WindowRef>(window);
}
ControlRef RefOf(FakeControl* control) {
    return reinterpret_cast<ControlRef>(control);
}

FakeWindow* Live(WindowRef window) {
    auto* fake = reinterpret_cast<FakeWindow*>(window);
    return gLiveWindows.count(fake) ? fake : nullptr;
}

/* ---- What the user did, as the module reported it ---- */
struct Input {
    enum Kind { Hit, Close } kind;
    void* target;
    bool onMainThread;
};

std::thread::id gMainThread;
std::vector<Input> gInputs;
std::atomic<int> gInputCount{0};
std::function<void(const Input&)> gReaction; // runs inside the module's callback

void Record(Input::Kind kind, void* target) {
    Input input{kind, target, std::this_thread::get_id() == gMainThread};
    gInputs.push_back(input);
    if (gReaction)
        gReaction(input);
    ++gInputCount;
}

} // namespace

/* The layer's functions, as the module finds them in the loading program. */
extern "C" {
Boolean PlatGetWindowInfo(WindowRef window, PlatWindowInfo* info) {
    FakeWindow* fake = Live(window);
    if (!fake || !info)
        return false;
    *info = PlatWindowInfo{window,       "Fake",         fake->title.c_str(),  fake->width,
                           fake->height, fake->closeBox, fake->controls.size()};
    return true;
}

Boolean PlatGetControlInfo(WindowRef window, size_t index, PlatControlInfo* info) {
    FakeWindow* fake = Live(window);
    if (!fake || !info || index >= fake->controls.size())
        return false;
    FakeControl* c = fake->controls[index].get();
    *info = PlatControlInfo{
        RefOf(c),        c->kind,       c->frame,         ControlID{'fake', static_cast<SInt32>(index)},
        c->text.c_str(), c->isDefault,  c->indeterminate, c->rgba.empty() ? nullptr : c->rgba.data(),
        c->imageWidth,   c->imageHeight};
    return true;
}

void PlatPostControlHit(ControlRef control) {
    Record(Input::Hit, control);
}
void PlatPostWindowClose(WindowRef window) {
    Record(Input::Close, window);
}
}

namespace {

using namespace display;
using Clock = std::chrono::steady_clock;

// A fresh process asked only whether the module starts without a display.
[[maybe_unused]] const bool kProbeRun = [] {
    if (!std::getenv("GTK_BACKEND_PROBE"))
        return false;
    if (!dlsym(RTLD_DEFAULT, "PlatGetWindowInfo"))
        _exit(4);
    void* module = dlopen(PLAT_GTK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    auto entry = module ? reinterpret_cast<PlatBackendEntry>(dlsym(module, PLAT_GTK_MODULE_ENTRY)) : nullptr;
    _exit(!entry ? 3 : entry() ? 1 : 0);
}();

class GtkBackendTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        gMainThread = std::this_thread::get_id();
        void* module = dlopen(PLAT_GTK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(module, nullptr) << dlerror();
        auto entry = reinterpret_cast<PlatBackendEntry>(dlsym(module, PLAT_GTK_MODULE_ENTRY));
        ASSERT_NE(entry, nullptr);
        ops = entry();
        ASSERT_NE(ops, nullptr) << "GTK did not start on " << std::getenv("DISPLAY");
    }

    void SetUp() override {
        ASSERT_NE(ops, nullptr);
        gInputs.clear();
        gInputCount = 0;
        gReaction = nullptr;
    }

    void TearDown() override {
        if (driver.joinable())
            driver.join();
        for (auto& window : windows)
            if (Live(RefOf(window.get()))) {
                ops->disposeWindow(RefOf(window.get()));
                gLiveWindows.erase(window.get());
            }
        gReaction = nullptr;
    }

    FakeWindow* NewWindow(const std::string& title, int width, int height, bool closeBox = true) {
        windows.push_back(std::make_unique<FakeWindow>(FakeWindow{title, width, height, closeBox, {}}));
        gLiveWindows.insert(windows.back().get());
        return windows.back().get();
    }

    static FakeControl* Add(FakeWindow* window, PlatControlKind kind, PlatRect frame,
                            const std::string& text = "", bool isDefault = false) {
        auto control = std::make_unique<FakeControl>();
        control->kind = kind;
        control->frame = frame;
        control->text = text;
        control->isDefault = isDefault;
        window->controls.push_back(std::move(control));
        return window->controls.back().get();
    }

    void Create(FakeWindow* window) { ASSERT_EQ(ops->createWindow(RefOf(window)), noErr); }

    void Dispose(FakeWindow* window) {
        ops->disposeWindow(RefOf(window));
        gLiveWindows.erase(window);
    }

    // Runs the module's loop on this (main) thread until done or the limit.
    bool PumpUntil(const std::function<bool()>& done, int limitMs = 15000) {
        auto end = Clock::now() + std::chrono::milliseconds(limitMs);
        while (!done() && Clock::now() < end)
            ops->pump(50);
        return done();
    }

    static void WaitForInputs(int count, int limitMs = 5000) {
        auto end = Clock::now() + std::chrono::milliseconds(limitMs);
        while (gInputCount < count && Clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    static std::string ShotPath(const std::string& name) {
        std::string dir = std::string(KESTRUN_BUILD_DIR) + "/gtk-shots";
        Capture("mkdir -p " + Quote(dir));
        return dir + "/" + name;
    }

    static const PlatBackendOps* ops;
    std::vector<std::unique_ptr<FakeWindow>> windows;
    std::thread driver;
};

const PlatBackendOps* GtkBackendTest::ops = nullptr;

TEST_F(GtkBackendTest, WindowFollowsTheModelFromShowToDispose) {
    FakeWindow* box = NewWindow("Backend Box", 440, 180);
    Add(box, kPlatControlStaticText, {20, 20, 400, 90}, "Install the package?");
    Add(box, kPlatControlPushButton, {230, 130, 90, 28}, "Yes", true);
    Create(box);

    // Created is not shown.
    EXPECT_FALSE(WaitForWindow("Backend Box", 200));

    ops->showWindow(RefOf(box));
    unsigned long x = WaitForWindow("Backend Box", 5000);
    ASSERT_NE(x, 0u);
    int width = 0, height = 0;
    ASSERT_TRUE(WindowSize(x, &width, &height));
    EXPECT_EQ(width, 440);
    EXPECT_EQ(height, 180);

    ops->hideWindow(RefOf(box));
    EXPECT_TRUE(WaitForNoWindow("Backend Box", 2000));
    ops->showWindow(RefOf(box));
    x = WaitForWindow("Backend Box", 5000);
    ASSERT_NE(x, 0u);

    // Disposal reaches the X server at once, without another round of the loop.
    Dispose(box);
    EXPECT_FALSE(WindowExists(x));
    // A window the backend does not know is ignored.
    ops->showWindow(RefOf(box));
    ops->disposeWindow(RefOf(box));
    EXPECT_FALSE(WaitForWindow("Backend Box", 100));
}

TEST_F(GtkBackendTest, ClicksReturnAndCloseBoxBecomeEventsOnTheMainThread) {
    FakeWindow* box = NewWindow("Backend Input", 440, 180);
    Add(box, kPlatControlStaticText, {20, 20, 400, 90}, "Which one?");
    FakeControl* yes = Add(box, kPlatControlPushButton, {230, 130, 90, 28}, "Yes", true);
    FakeControl* no = Add(box, kPlatControlPushButton, {330, 130, 90, 28}, "No");
    FakeWindow* busy = NewWindow("Backend No Close Box", 300, 100, false);
    Create(box);
    Create(busy);
    ops->showWindow(RefOf(box));
    ops->showWindow(RefOf(busy));

    std::atomic<unsigned long> x{0};
    std::atomic<bool> stillThere{false};
    driver = std::thread([&] {
        x = WaitForWindow("Backend Input", 5000);
        unsigned long noCloseBox = WaitForWindow("Backend No Close Box", 5000);
        if (!x || !noCloseBox)
            return;
        // A window without a close box ignores a close request; the click after it
        // must be the first input.
        PressCloseBox(noCloseBox);
        Click(x, 330 + 45, 130 + 14);
        WaitForInputs(1);
        PressReturn(x);
        WaitForInputs(2);
        PressCloseBox(x);
        WaitForInputs(3);
        // The close box only asks: the window stays until someone disposes of it.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        stillThere = WaitForWindow("Backend Input", 1000) != 0;
    });
    PumpUntil([] { return gInputCount >= 3; });
    driver.join();

    ASSERT_NE(x, 0u);
    ASSERT_EQ(gInputs.size(), 3u);
    EXPECT_EQ(gInputs[0].kind, Input::Hit);
    EXPECT_EQ(gInputs[0].target, no);
    EXPECT_EQ(gInputs[1].kind, Input::Hit);
    EXPECT_EQ(gInputs[1].target, yes) << "Return must press the default button";
    EXPECT_EQ(gInputs[2].kind, Input::Close);
    EXPECT_EQ(gInputs[2].target, RefOf(box));
    for (const Input& input : gInputs)
        EXPECT_TRUE(input.onMainThread);
    EXPECT_TRUE(stillThere);
}

TEST_F(GtkBackendTest, WindowDisposedFromInsideItsOwnInput) {
    // An unhandled close box, and a button whose handler disposes of its window, both
    // destroy the GTK window while GTK is still delivering that input.
    FakeWindow* closing = NewWindow("Backend Closing", 300, 120);
    Add(closing, kPlatControlPushButton, {20, 70, 90, 28}, "OK", true);
    FakeWindow* clicked = NewWindow("Backend Clicked", 300, 120);
    Add(clicked, kPlatControlPushButton, {20, 70, 90, 28}, "OK", true);
    Create(closing);
    Create(clicked);
    gReaction = [&](const Input& input) {
        if (input.kind == Input::Close)
            Dispose(closing);
        else
            Dispose(clicked);
    };
    ops->showWindow(RefOf(closing));
    ops->showWindow(RefOf(clicked));

    std::atomic<bool> closingGone{false}, clickedGone{false};
    driver = std::thread([&] {
        unsigned long first = WaitForWindow("Backend Closing", 5000);
        unsigned long second = WaitForWindow("Backend Clicked", 5000);
        if (!first || !second)
            return;
        PressCloseBox(first);
        WaitForInputs(1);
        closingGone = WaitForNoWindow("Backend Closing", 2000) && !WindowExists(first);
        Click(second, 20 + 45, 70 + 14);
        WaitForInputs(2);
        clickedGone = WaitForNoWindow("Backend Clicked", 2000) && !WindowExists(second);
    });
    PumpUntil([] { return gInputCount >= 2; });
    driver.join();
    // The loop goes on normally afterwards.
    ops->pump(0);

    EXPECT_EQ(gInputCount, 2);
    EXPECT_TRUE(closingGone);
    EXPECT_TRUE(clickedGone);
}

TEST_F(GtkBackendTest, NestedLoopInsideAClickShowsAMovingProgressWindow) {
    FakeWindow* box = NewWindow("Backend Outer", 440, 180);
    FakeControl* install = Add(box, kPlatControlPushButton, {230, 130, 90, 28}, "Install", true);
    FakeWindow* progress = NewWindow("Backend Progress", 440, 160, false);
    Add(progress, kPlatControlProgressIndicator, {20, 60, 400, 20})->indeterminate = true;
    FakeControl* done = Add(progress, kPlatControlPushButton, {330, 110, 90, 28}, "Done", true);
    Create(box);

    bool nestedEnded = false;
    int inputsSeenNested = 0;
    gReaction = [&](const Input& input) {
        if (input.target != install)
            return;
        // What a modal loop inside the button's handler does: its own window and loop.
        Create(progress);
        ops->showWindow(RefOf(progress));
        PumpUntil([&] {
            for (const Input& seen : gInputs)
                if (seen.target == done)
                    return true;
            return false;
        });
        inputsSeenNested = static_cast<int>(gInputs.size());
        Dispose(progress);
        nestedEnded = true;
    };
    ops->showWindow(RefOf(box));

    std::atomic<bool> barMoved{false}, progressGone{false};
    driver = std::thread([&] {
        unsigned long outer = WaitForWindow("Backend Outer", 5000);
        if (!outer)
            return;
        PressReturn(outer);
        unsigned long inner = WaitForWindow("Backend Progress", 5000);
        if (!inner)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        Picture before, after;
        std::string first = ShotPath("backend-progress-1.png"), second = ShotPath("backend-progress-2.png");
        bool shot = Screenshot(inner, first);
        std::this_thread::sleep_for(std::chrono::milliseconds(350));
        shot = Screenshot(inner, second) && shot && ReadPng(first, &before) && ReadPng(second, &after);
        if (shot && before.width == after.width && before.height == after.height) {
            // The bar's strip, not the whole window: only the bar may change.
            for (int y = 60; y < 80 && !barMoved; ++y)
                for (int xPos = 20; xPos < 420; ++xPos)
                    if (std::memcmp(before.At(xPos, y), after.At(xPos, y), 3) != 0) {
                        barMoved = true;
                        break;
                    }
        }
        PressReturn(inner);
        progressGone = WaitForNoWindow("Backend Progress", 5000);
        PressCloseBox(outer);
    });
    PumpUntil([] {
        for (const Input& seen : gInputs)
            if (seen.kind == Input::Close)
                return true;
        return false;
    });
    driver.join();

    EXPECT_TRUE(nestedEnded);
    EXPECT_EQ(inputsSeenNested, 2) << "the nested loop ends on its own window's button";
    EXPECT_TRUE(barMoved) << "the indeterminate bar must move while the nested loop runs";
    EXPECT_TRUE(progressGone);
    ASSERT_EQ(gInputs.size(), 3u);
    EXPECT_EQ(gInputs[2].target, RefOf(box));
}

TEST_F(GtkBackendTest, WakeEndsAWaitWithoutInputAndIsNotLost) {
    // A shown window gives the watchdog something to poke if wake() fails, so that a
    // broken wake ends this test instead of hanging it.
    FakeWindow* box = NewWindow("Backend Wake", 200, 100);
    Create(box);
    ops->showWindow(RefOf(box));
    unsigned long x = WaitForWindow("Backend Wake", 5000);
    ASSERT_NE(x, 0u);
    ops->pump(0);

    std::atomic<bool> finished{false}, poked{false};
    std::thread watchdog([&] {
        auto end = Clock::now() + std::chrono::seconds(5);
        while (!finished && Clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        while (!finished) {
            poked = true;
            PressCloseBox(x);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });

    // A wake that comes while the main thread waits.
    std::atomic<bool> woken{false};
    std::thread waker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        woken = true;
        ops->wake();
    });
    while (!woken)
        ops->pump(-1);
    waker.join();

    // A wake that comes before the wait is kept for it.
    std::thread early([&] { ops->wake(); });
    early.join();
    ops->pump(-1);

    finished = true;
    watchdog.join();
    EXPECT_FALSE(poked) << "pump(-1) only returned because of the watchdog's input";
}

TEST_F(GtkBackendTest, PictureWrappedTextAndCaptionsAreDrawn) {
    FakeWindow* box = NewWindow("Backend Drawing", 440, 200);
    FakeControl* picture = Add(box, kPlatControlImageView, {20, 20, 64, 64});
    // A 200 x 100 picture of one colour, shrunk into the 64-pixel frame as 64 x 32.
    picture->imageWidth = 200;
    picture->imageHeight = 100;
    for (int i = 0; i < 200 * 100; ++i)
        picture->rgba.insert(picture->rgba.end(), {0xD0, 0x20, 0xB0, 0xFF});
    FakeControl* text = Add(box, kPlatControlStaticText, {100, 20, 150, 150}, "");
    Add(box, kPlatControlPushButton, {330, 160, 90, 28}, "Yes", true);
    Create(box);
    // Text set after creation, as SetControlData does before ShowWindow.
    text->text = "A long message that cannot fit on one line of a narrow frame and so wraps "
                 "over several lines.";
    ops->controlChanged(RefOf(box), RefOf(text));
    ops->showWindow(RefOf(box));

    std::atomic<bool> shot{false}, driverDone{false};
    std::string path = ShotPath("backend-drawing.png");
    driver = std::thread([&] {
        unsigned long x = WaitForWindow("Backend Drawing", 5000);
        // Drawn about 0.3 s after it maps.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        shot = x && Screenshot(x, path);
        driverDone = true;
    });
    PumpUntil([&] { return driverDone.load(); }, 8000);
    driver.join();
    ASSERT_TRUE(shot);

    Picture image;
    ASSERT_TRUE(ReadPng(path, &image));
    ASSERT_EQ(image.width, 440);
    const unsigned char magenta[3] = {0xD0, 0x20, 0xB0};
    int inFrame = CountColour(image, 20, 20, 64, 64, magenta, 12);
    EXPECT_GT(inFrame, 64 * 32 * 8 / 10) << "the picture, scaled to its frame";
    EXPECT_LE(inFrame, 64 * 33);
    EXPECT_EQ(CountColour(image, 0, 0, image.width, image.height, magenta, 12), inFrame);
    // Wrapped text: ink in the frame, on several lines, none right of the frame.
    EXPECT_GT(CountDark(image, 100, 20, 150, 20, 100), 20);
    EXPECT_GT(CountDark(image, 100, 60, 150, 40, 100), 20) << "text must wrap onto later lines";
    EXPECT_EQ(CountDark(image, 252, 20, 70, 130, 100), 0) << "text must stay inside its frame";
    // The caption is drawn on the button.
    EXPECT_GT(CountDark(image, 330, 160, 90, 28, 100), 10);
}

TEST_F(GtkBackendTest, NoBackendWithoutADisplay) {
    std::string command =
        "env -u DISPLAY -u WAYLAND_DISPLAY GTK_BACKEND_PROBE=1 /proc/" + std::to_string(getpid()) + "/exe";
    int status = -1;
    Capture(command + " >/dev/null 2>&1", &status);
    EXPECT_EQ(status, 0) << "1: the module started without a display; 3: it could not be loaded; "
                            "4: this program does not export the layer's functions";
}

class ServerEnvironment : public testing::Environment {
    void SetUp() override { StartServer(); }
    void TearDown() override { StopServer(); }
};
[[maybe_unused]] const auto* const kServer = testing::AddGlobalTestEnvironment(new ServerEnvironment);

} // namespace
