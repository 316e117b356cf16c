// The Event Manager: dispatch order and propagation, handler removal, closes, the main
// queue, and the main thread's rule.
#include "support.h"

using namespace ptest;

namespace {

class EventsTest : public UiTest {
  protected:
    // Sends an event of the given type about object (of type objectType) to target.
    template <typename T>
    OSStatus Send(EventTypeSpec type, EventParamType objectType, T object, EventTargetRef target) {
        EventRef event = nullptr;
        CreateEvent(nullptr, type.eventClass, type.eventKind, 0, 0, &event);
        SetEventParameter(event, kEventParamDirectObject, objectType, sizeof object, &object);
        OSStatus status = SendEventToEventTarget(event, target);
        ReleaseEvent(event);
        return status;
    }
    HandlerFn Step(char name, OSStatus answer) {
        return [this, name, answer](EventHandlerCallRef, EventRef) {
            order_ += name;
            return answer;
        };
    }
    std::string order_;
};

// Newest first; eventNotHandledErr passes the event on from the control to its window
// to the application; the first other answer ends the dispatch.
TEST_F(EventsTest, HandlersRunNewestFirstAndUnhandledEventsTravelUp) {
    WindowRef window = NewWindow("Box");
    ControlRef yes = Control(window, 'YES1', 1);
    Install(GetApplicationEventTarget(), kHit, Step('D', eventNotHandledErr));
    EventHandlerRef windowHandler = Install(GetWindowEventTarget(window), kHit, Step('C', noErr));
    Install(GetControlEventTarget(yes), kHit, Step('A', eventNotHandledErr));
    Install(GetControlEventTarget(yes), kHit, Step('B', eventNotHandledErr));
    Install(GetControlEventTarget(yes), kClose, Step('X', noErr));
    EXPECT_EQ(Send(kHit, typeControlRef, yes, GetControlEventTarget(yes)), noErr);
    EXPECT_EQ(order_, "BAC");

    // A removed handler is passed over; sent to the window, the control is not involved.
    EXPECT_EQ(RemoveEventHandler(windowHandler), noErr);
    EXPECT_NE(RemoveEventHandler(windowHandler), noErr) << "removed twice";
    EXPECT_EQ(Send(kHit, typeControlRef, yes, GetControlEventTarget(yes)), eventNotHandledErr);
    EXPECT_EQ(Send(kHit, typeControlRef, yes, GetWindowEventTarget(window)), eventNotHandledErr);
    EXPECT_EQ(order_, "BACBADD");
}

// A close event nobody takes disposes of the window; one a handler takes does not. The main
// queue goes highest priority first, each event to its post target or else to the
// application, and only once a loop runs; an event already queued is refused.
TEST_F(EventsTest, ClosesAndPostedEvents) {
    WindowRef kept = NewWindow("Other"), closed = NewWindow("Progress");
    Install(GetWindowEventTarget(kept), kClose, Step('k', noErr));
    Install(GetWindowEventTarget(closed), kClose, Step('c', eventNotHandledErr));
    for (WindowRef w : {kept, closed}) {
        EXPECT_EQ(Send(kClose, typeWindowRef, w, GetWindowEventTarget(w)), noErr);
    }
    EXPECT_TRUE(IsValidWindowPtr(kept));
    EXPECT_FALSE(IsValidWindowPtr(closed));

    Install(GetApplicationEventTarget(), kCommand, [this](EventHandlerCallRef, EventRef e) {
        HICommand hi = {};
        GetEventParameter(e, kEventParamDirectObject, typeHICommand, nullptr, sizeof hi, nullptr, &hi);
        order_ += static_cast<char>(hi.commandID);
        return noErr;
    });
    Install(GetWindowEventTarget(kept), kCommand, Step('w', noErr));
    EventTargetRef windowTarget = GetWindowEventTarget(kept);
    EventRef events[4];
    const EventPriority priorities[4] = {kEventPriorityLow, kEventPriorityStandard, kEventPriorityHigh,
                                         kEventPriorityStandard};
    for (int i = 0; i < 4; i++) {
        events[i] = NewCommandEvent("LSHw"[i]);
    }
    SetEventParameter(events[3], kEventParamPostTarget, typeEventTargetRef, sizeof windowTarget,
                      &windowTarget);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(PostEventToQueue(GetMainEventQueue(), events[i], priorities[i]), noErr);
    }
    EXPECT_EQ(PostEventToQueue(GetMainEventQueue(), events[0], kEventPriorityHigh), eventAlreadyPostedErr);
    EXPECT_EQ(order_, "kc");
    PlatDrainEvents();
    EXPECT_EQ(order_, "kcHSwL");
    for (EventRef event : events) {
        ReleaseEvent(event);
    }
}

// SendEventToEventTarget runs the handlers on the calling thread. Window, nib and loop calls
// from another thread are refused with a line naming the call and touch nothing; with the
// switch the tests set, such a call aborts.
TEST_F(EventsTest, OffTheMainThreadHandlersRunThereAndWindowCallsAreRefused) {
    WindowRef window = NewWindow("Box");
    Install(GetApplicationEventTarget(), kCommand, [this](EventHandlerCallRef, EventRef) {
        order_ += pthread_main_np() ? 'm' : 'w';
        return noErr;
    });
    unsetenv("PLAT_ABORT_ON_THREAD_MISUSE"); // the tests' setting, put back below
    testing::internal::CaptureStderr();
    std::thread([&] {
        EventRef event = NewCommandEvent('test');
        EXPECT_EQ(SendEventToEventTarget(event, GetApplicationEventTarget()), noErr);
        ReleaseEvent(event);
        ShowWindow(window);
        DisposeWindow(window);
        EXPECT_EQ(RunAppModalLoopForWindow(window), eventInternalErr);
    }).join();
    std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_EQ(order_, "w");
    EXPECT_TRUE(IsValidWindowPtr(window));
    EXPECT_FALSE(IsWindowVisible(window));
    EXPECT_EQ(lines, "platform: ShowWindow called off the main thread: refused\n"
                     "platform: DisposeWindow called off the main thread: refused\n"
                     "platform: RunAppModalLoopForWindow called off the main thread: refused\n");
    setenv("PLAT_ABORT_ON_THREAD_MISUSE", "1", 1);
    EXPECT_DEATH(std::thread([&] { ShowWindow(window); }).join(),
                 "ShowWindow called off the main thread: aborting");
}

} // namespace
