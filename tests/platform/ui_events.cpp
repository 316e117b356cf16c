// The Event Manager: closes, the main queue's priorities, and the main thread's rule.
#include "support.h"

using namespace ptest;

namespace {

class EventsTest : public UiTest {
  protected:
    OSStatus SendClose(WindowRef window) {
        EventRef event = nullptr;
        CreateEvent(nullptr, kEventClassWindow, kEventWindowClose, 0, 0, &event);
        SetEventParameter(event, kEventParamDirectObject, typeWindowRef, sizeof window, &window);
        OSStatus status = SendEventToEventTarget(event, GetWindowEventTarget(window));
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

// A close event nobody takes disposes of the window; one a handler takes, as the message
// box's does, leaves it. (How hits travel up to the application, and handlers removed, the
// launcher's box tests prove.)
TEST_F(EventsTest, OnlyUnhandledClosesDisposeOfTheWindow) {
    WindowRef kept = NewWindow("Other"), closed = NewWindow("Progress");
    Install(GetWindowEventTarget(kept), kClose, Step('k', noErr));
    Install(GetWindowEventTarget(closed), kClose, Step('c', eventNotHandledErr));
    for (WindowRef w : {kept, closed}) {
        EXPECT_EQ(SendClose(w), noErr);
    }
    EXPECT_TRUE(IsValidWindowPtr(kept));
    EXPECT_FALSE(IsValidWindowPtr(closed));
    EXPECT_EQ(order_, "kc");
}

// The main queue hands out high before standard before low, each in order of posting, and
// refuses what it cannot take: a priority out of range, a foreign queue, an event posted twice.
TEST_F(EventsTest, PostedEventsGoByPriorityThenByOrder) {
    Install(GetApplicationEventTarget(), kCommand, [this](EventHandlerCallRef, EventRef event) {
        HICommand command = {};
        GetEventParameter(event, kEventParamDirectObject, typeHICommand, nullptr, sizeof command, nullptr,
                          &command);
        order_ += static_cast<char>(command.commandID);
        return noErr;
    });
    const std::pair<char, EventPriority> posts[] = {{'a', kEventPriorityLow},  {'b', kEventPriorityStandard},
                                                    {'c', kEventPriorityHigh}, {'d', kEventPriorityLow},
                                                    {'e', kEventPriorityHigh}, {'f', kEventPriorityStandard}};
    for (const auto& [name, priority] : posts) {
        EventRef event = NewCommandEvent(static_cast<UInt32>(name));
        EXPECT_EQ(PostEventToQueue(GetMainEventQueue(), event, priority), noErr);
        if (name == 'a') {
            EXPECT_EQ(PostEventToQueue(GetMainEventQueue(), event, kEventPriorityHigh),
                      eventAlreadyPostedErr);
        }
        ReleaseEvent(event);
    }
    EventRef extra = NewCommandEvent('x');
    for (EventPriority wrong : {EventPriority(-1), EventPriority(kEventPriorityHigh + 1)}) {
        EXPECT_EQ(PostEventToQueue(GetMainEventQueue(), extra, wrong), paramErr);
    }
    EXPECT_EQ(PostEventToQueue(reinterpret_cast<EventQueueRef>(extra), extra, kEventPriorityHigh), paramErr);
    ReleaseEvent(extra);
    PlatDrainEvents();
    EXPECT_EQ(order_, "cebfad");
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
