// The Event Manager: dispatch order and propagation, handler removal, event parameters.
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

// A close event nobody takes disposes of the window; one a handler takes does not. A handler
// may, as the message box's does, remove itself and dispose of the window whose control was
// hit: the event goes on to the application, and no later one reaches the window.
TEST_F(EventsTest, WindowsGoWithUnhandledClosesAndWithinHandlers) {
    WindowRef kept = NewWindow("Other"), closed = NewWindow("Progress"), window = NewWindow("Box");
    Install(GetWindowEventTarget(kept), kClose, Step('k', noErr));
    Install(GetWindowEventTarget(closed), kClose, Step('c', eventNotHandledErr));
    for (WindowRef w : {kept, closed})
        EXPECT_EQ(Send(kClose, typeWindowRef, w, GetWindowEventTarget(w)), noErr);
    EXPECT_TRUE(IsValidWindowPtr(kept));
    EXPECT_FALSE(IsValidWindowPtr(closed));

    ControlRef yes = Control(window, 'YES1', 1);
    EventTargetRef controlTarget = GetControlEventTarget(yes);
    EventHandlerRef self = nullptr;
    self = Install(controlTarget, kHit, [&](EventHandlerCallRef, EventRef) {
        order_ += 'h';
        EXPECT_EQ(RemoveEventHandler(self), noErr);
        DisposeWindow(window);
        return eventNotHandledErr;
    });
    Install(GetWindowEventTarget(window), kHit, Step('w', eventNotHandledErr));
    Install(GetApplicationEventTarget(), kHit, Step('a', noErr));
    EXPECT_EQ(Send(kHit, typeControlRef, yes, controlTarget), noErr);
    EXPECT_FALSE(IsValidWindowPtr(window));
    EXPECT_NE(Send(kHit, typeControlRef, yes, controlTarget), noErr) << "the control went with its window";
    EXPECT_EQ(order_, "kcha");
}

// A wrong type, too small a buffer or an absent parameter: an error, and nothing written.
TEST(EventParameters, TypedAndSizeChecked) {
    EventRef event = NewCommandEvent('clos');
    unsigned char guard[sizeof(HICommand)];
    memset(guard, 0xAB, sizeof guard);
    EventParamName direct = kEventParamDirectObject;
    EXPECT_NE(GetEventParameter(event, direct, typeHICommand, nullptr, sizeof guard - 1, nullptr, guard),
              noErr);
    EXPECT_NE(GetEventParameter(event, direct, typeWindowRef, nullptr, sizeof guard, nullptr, guard), noErr);
    EXPECT_EQ(GetEventParameter(event, kEventParamKeyModifiers, typeUInt32, nullptr, 4, nullptr, guard),
              eventParameterNotFoundErr);
    EXPECT_EQ(std::string(guard, guard + sizeof guard), std::string(sizeof guard, '\xAB'));
    ReleaseEvent(event);
}

} // namespace
