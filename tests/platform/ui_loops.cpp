// The application and modal loops: what ends them, how they nest, and events from
// a worker thread ending a modal loop on the main thread.
#include "ui_support.h"

#include <thread>

using namespace uitest;

namespace {

class LoopsTest : public UiTest {};

// The progress window's exchange: the worker's "clos" ends the modal loop on the
// main thread, whether it comes while the loop runs or before it starts.
TEST_F(LoopsTest, WorkerCommandEndsModalLoop) {
    for (bool beforeLoop : {false, true}) {
        SCOPED_TRACE(beforeLoop ? "command before the loop" : "command during the loop");
        WindowRef window = NewWindow("Progress");
        ShowWindow(window);
        bool handledOnMain = false;
        EventHandlerRef handler =
            Install(GetApplicationEventTarget(), {kCommand}, [&](EventHandlerCallRef, EventRef e) {
                if (CommandOf(e) == 'clos') {
                    handledOnMain = OnMainThread();
                    QuitAppModalLoopForWindow(window);
                    DisposeWindow(window);
                }
                return noErr;
            });
        std::atomic<bool> sent{false};
        std::thread worker([&] {
            if (!beforeLoop) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            SendCommand('clos');
            sent = true;
        });
        if (beforeLoop) {
            worker.join();
        }
        {
            Watchdog watchdog(10, {window});
            EXPECT_EQ(RunAppModalLoopForWindow(window), noErr);
        }
        if (!beforeLoop) {
            worker.join();
        }
        EXPECT_TRUE(sent);
        EXPECT_TRUE(handledOnMain);
        EXPECT_FALSE(IsValidWindowPtr(window));
        RemoveEventHandler(handler);
    }
}

// A loop for a window that is not there ends at once with an error; disposing of the
// window a modal loop runs for ends that loop too.
TEST_F(LoopsTest, ModalLoopNeedsItsWindow) {
    Watchdog watchdog(10);
    EXPECT_EQ(RunAppModalLoopForWindow(nullptr), errInvalidWindowRef);
    WindowRef gone = NewWindow("Other");
    DisposeWindow(gone);
    EXPECT_EQ(RunAppModalLoopForWindow(gone), errInvalidWindowRef);
    EXPECT_EQ(QuitAppModalLoopForWindow(gone), errInvalidWindowRef);

    WindowRef window = NewWindow("Progress");
    Install(GetApplicationEventTarget(), {kCommand}, [&](EventHandlerCallRef, EventRef) {
        DisposeWindow(window);
        return noErr;
    });
    std::thread worker([] { SendCommand('disp'); });
    EXPECT_EQ(RunAppModalLoopForWindow(window), noErr);
    worker.join();
    EXPECT_FALSE(IsValidWindowPtr(window));
}

// Modal loops nest: quitting the outer window's loop from inside the inner one
// leaves the inner loop running until its own quit, then the outer ends too.
TEST_F(LoopsTest, NestedModalLoopsEndInnermostFirst) {
    WindowRef outer = NewWindow("Box");
    WindowRef inner = NewWindow("Other");
    std::vector<std::string> trace;
    Install(GetApplicationEventTarget(), {kCommand}, [&](EventHandlerCallRef, EventRef e) {
        switch (CommandOf(e)) {
        case 'open':
            trace.push_back("inner loop");
            EXPECT_EQ(RunAppModalLoopForWindow(inner), noErr);
            trace.push_back("inner loop ended");
            break;
        case 'qout':
            trace.push_back("quit outer");
            QuitAppModalLoopForWindow(outer);
            break;
        case 'qinn':
            trace.push_back("quit inner");
            QuitAppModalLoopForWindow(inner);
            break;
        }
        return noErr;
    });
    // All three are queued before any loop runs: only the loops decide the order.
    std::thread worker([] {
        SendCommand('open');
        SendCommand('qout');
        SendCommand('qinn');
    });
    worker.join();
    Watchdog watchdog(10, {outer, inner});
    EXPECT_EQ(RunAppModalLoopForWindow(outer), noErr);
    EXPECT_EQ(trace,
              (std::vector<std::string>{"inner loop", "quit outer", "quit inner", "inner loop ended"}));
}

// The message box's "Yes": its handler asks the application loop to quit, then runs a
// modal loop for the progress window. That modal loop is not ended by the quit; the
// application loop returns only after the handler has returned.
TEST_F(LoopsTest, ApplicationQuitWaitsForTheHandlerAndItsModalLoop) {
    WindowRef box = NewWindow("Box");
    WindowRef progress = NewWindow("Progress");
    PlatScriptSetAction("Box", kPlatScriptPressControl, 'YES1', 1);
    std::vector<std::string> trace;
    std::thread worker;
    Install(GetApplicationEventTarget(), {kHit}, [&](EventHandlerCallRef, EventRef) {
        trace.push_back("yes");
        QuitApplicationEventLoop();
        DisposeWindow(box);
        worker = std::thread([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            SendCommand('clos');
        });
        ShowWindow(progress);
        RunAppModalLoopForWindow(progress);
        trace.push_back("modal ended");
        return noErr;
    });
    Install(GetApplicationEventTarget(), {kCommand}, [&](EventHandlerCallRef, EventRef e) {
        if (CommandOf(e) == 'clos') {
            trace.push_back("clos");
            QuitAppModalLoopForWindow(progress);
            DisposeWindow(progress);
        }
        return noErr;
    });
    ShowWindow(box);
    {
        Watchdog watchdog(10, {progress});
        RunApplicationEventLoop();
    }
    trace.push_back("application loop ended");
    if (worker.joinable()) {
        worker.join();
    }
    EXPECT_EQ(trace, (std::vector<std::string>{"yes", "clos", "modal ended", "application loop ended"}));
}

// A quit asked while no application loop runs is kept for the next loop, which ends
// at once; it is used up by that loop and does not end the one after.
TEST_F(LoopsTest, QuitWithoutLoopIsKeptForTheNextLoop) {
    QuitApplicationEventLoop();
    {
        Watchdog watchdog(10);
        RunApplicationEventLoop();
        EXPECT_FALSE(watchdog.Fired());
    }
    std::atomic<bool> quitSent{false};
    std::thread worker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        quitSent = true;
        QuitApplicationEventLoop();
    });
    {
        Watchdog watchdog(10);
        RunApplicationEventLoop();
    }
    EXPECT_TRUE(quitSent) << "the kept quit ended a second loop";
    worker.join();
}

} // namespace
