// The application and modal loops: what ends them, and what a worker's event does.
#include "support.h"

using namespace ptest;

namespace {

class LoopsTest : public UiTest {};

// The progress window's exchange: the worker posts "clos" to the main queue and the modal
// loop dispatches it on the main thread. (Posted before the loop, and the box's "Yes" whose
// quit of the application loop waits for the progress window's modal loop: the launcher's tests.)
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
