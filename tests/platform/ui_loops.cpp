// The application and modal loops: what ends them, and what a worker's event does.
#include "support.h"

using namespace ptest;

namespace {

class LoopsTest : public UiTest {};

// The progress window's exchange: the worker posts "clos" to the main queue and the modal
// loop dispatches it on the main thread. (Posted before the loop: the launcher's own test.)
TEST_F(LoopsTest, WorkerCommandEndsModalLoop) {
    WindowRef window = NewWindow("Progress");
    ShowWindow(window);
    std::string seen;
    Install(GetApplicationEventTarget(), kCommand, [&](EventHandlerCallRef, EventRef) {
        seen += gettid() == getpid() ? "main" : "worker";
        QuitAppModalLoopForWindow(window);
        DisposeWindow(window);
        return noErr;
    });
    std::thread worker = After(100, [] { SendCommand('clos'); });
    EXPECT_EQ(RunAppModalLoopForWindow(window), noErr);
    worker.join();
    EXPECT_EQ(seen, "main");
    EXPECT_FALSE(IsValidWindowPtr(window));
    // A window that is not there, or no longer: an error at once.
    EXPECT_EQ(RunAppModalLoopForWindow(nullptr), errInvalidWindowRef);
    EXPECT_EQ(RunAppModalLoopForWindow(window), errInvalidWindowRef);
}

// The message box's "Yes": its handler asks the application loop to quit, then runs a
// modal loop for the progress window, which that quit does not end; the application
// loop returns once the handler has returned.
TEST_F(LoopsTest, ApplicationQuitWaitsForTheHandlerAndItsModalLoop) {
    WindowRef box = NewWindow("Box");
    WindowRef progress = NewWindow("Progress");
    PlatScriptSetAction("Box", kPlatScriptPressControl, 'YES1', 1);
    std::vector<std::string> trace;
    std::thread worker;
    Install(GetApplicationEventTarget(), kHit, [&](EventHandlerCallRef, EventRef) {
        trace.push_back("yes");
        QuitApplicationEventLoop();
        DisposeWindow(box);
        worker = After(100, [] { SendCommand('clos'); });
        ShowWindow(progress);
        RunAppModalLoopForWindow(progress);
        trace.push_back("modal ended");
        return noErr;
    });
    Install(GetApplicationEventTarget(), kCommand, [&](EventHandlerCallRef, EventRef) {
        trace.push_back("clos");
        QuitAppModalLoopForWindow(progress);
        DisposeWindow(progress);
        return noErr;
    });
    ShowWindow(box);
    RunApplicationEventLoop();
    trace.push_back("application loop ended");
    worker.join();
    EXPECT_EQ(trace, (std::vector<std::string>{"yes", "clos", "modal ended", "application loop ended"}));
}

// A quit asked while no application loop runs is ignored: the next loop runs until a
// handler asks again.
TEST_F(LoopsTest, QuitOutsideALoopIsIgnored) {
    QuitApplicationEventLoop();
    Install(GetApplicationEventTarget(), kCommand, [](EventHandlerCallRef, EventRef) {
        QuitApplicationEventLoop();
        return noErr;
    });
    std::atomic<bool> posted{false};
    std::thread worker = After(100, [&] {
        posted = true;
        SendCommand('quit');
    });
    RunApplicationEventLoop();
    EXPECT_TRUE(posted) << "the quit asked before the loop ended it";
    worker.join();
}

} // namespace
