// The application and modal loops: what ends them, how they nest, what a worker's event does.
#include "support.h"

using namespace ptest;

namespace {

class LoopsTest : public UiTest {};

// The progress window's exchange: the worker posts "clos" to the main queue; the modal
// loop dispatches it on the main thread, also when it was posted before the loop.
TEST_F(LoopsTest, WorkerCommandEndsModalLoop) {
    for (bool beforeLoop : {false, true}) {
        SCOPED_TRACE(beforeLoop ? "command before the loop" : "command during the loop");
        WindowRef window = NewWindow("Progress");
        ShowWindow(window);
        std::string seen;
        EventHandlerRef handler =
            Install(GetApplicationEventTarget(), kCommand, [&](EventHandlerCallRef, EventRef) {
                seen += gettid() == getpid() ? "main" : "worker";
                QuitAppModalLoopForWindow(window);
                DisposeWindow(window);
                return noErr;
            });
        std::thread worker = After(beforeLoop ? 0 : 100, [] { SendCommand('clos'); });
        if (beforeLoop) {
            worker.join();
        }
        EXPECT_EQ(seen, "") << "ran before any loop";
        EXPECT_EQ(RunAppModalLoopForWindow(window), noErr);
        if (worker.joinable()) {
            worker.join();
        }
        EXPECT_EQ(seen, "main");
        EXPECT_FALSE(IsValidWindowPtr(window));
        RemoveEventHandler(handler);
    }
    // A window that is not there, or no longer: an error at once.
    EXPECT_EQ(RunAppModalLoopForWindow(nullptr), errInvalidWindowRef);
    EXPECT_EQ(RunAppModalLoopForWindow(windows_[0]), errInvalidWindowRef);
}

// Quitting the outer window's loop from inside the inner one leaves the inner loop
// running until its own quit; then the outer ends too.
TEST_F(LoopsTest, NestedModalLoopsEndInnermostFirst) {
    WindowRef outer = NewWindow("Box");
    WindowRef inner = NewWindow("Other");
    std::string trace; // "[" and "]": the inner loop runs; "o", "i": the quits of outer and inner
    Install(GetApplicationEventTarget(), kCommand, [&](EventHandlerCallRef, EventRef e) {
        HICommand hi = {};
        GetEventParameter(e, kEventParamDirectObject, typeHICommand, nullptr, sizeof hi, nullptr, &hi);
        UInt32 command = hi.commandID;
        trace += command == 'open' ? '[' : command == 'qout' ? 'o' : 'i';
        if (command == 'open') {
            EXPECT_EQ(RunAppModalLoopForWindow(inner), noErr);
            trace += ']';
        } else {
            QuitAppModalLoopForWindow(command == 'qout' ? outer : inner);
        }
        return noErr;
    });
    // All three are queued before any loop runs: only the loops decide the order.
    std::thread([] {
        for (UInt32 command : {'open', 'qout', 'qinn'}) {
            SendCommand(command);
        }
    }).join();
    EXPECT_EQ(RunAppModalLoopForWindow(outer), noErr);
    EXPECT_EQ(trace, "[oi]");
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
    if (worker.joinable()) {
        worker.join();
    }
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
