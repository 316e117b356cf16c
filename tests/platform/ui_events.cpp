// The Event Manager: dispatch order and propagation, handler removal, handlers that
// change what the event travels through, and event parameters.
#include "support.h"

#include <cstring>

using namespace ptest;

namespace {

class EventsTest : public UiTest {
  protected:
    // Sends a control hit for control to target.
    OSStatus Hit(ControlRef control, EventTargetRef target) {
        EventRef hit = nullptr;
        CreateEvent(nullptr, kEventClassControl, kEventControlHit, 0, 0, &hit);
        SetEventParameter(hit, kEventParamDirectObject, typeControlRef, sizeof control, &control);
        OSStatus status = SendEventToEventTarget(hit, target);
        ReleaseEvent(hit);
        return status;
    }
    HandlerFn Step(std::string& order, char name, OSStatus answer) {
        return [&order, name, answer](EventHandlerCallRef, EventRef) {
            order += name;
            return answer;
        };
    }
};

// Newest first; eventNotHandledErr passes the event on from the control to its
// window to the application; the first other answer ends the dispatch.
TEST_F(EventsTest, HandlersRunNewestFirstAndUnhandledEventsTravelUp) {
    WindowRef window = NewWindow("Box");
    ControlRef yes = Control(window, 'YES1', 1);
    std::string order;
    Install(GetApplicationEventTarget(), kHit, Step(order, 'D', eventNotHandledErr));
    EventHandlerRef windowHandler = Install(GetWindowEventTarget(window), kHit, Step(order, 'C', noErr));
    Install(GetControlEventTarget(yes), kHit, Step(order, 'A', eventNotHandledErr));
    Install(GetControlEventTarget(yes), kHit, Step(order, 'B', eventNotHandledErr));
    Install(GetControlEventTarget(yes), kClose, Step(order, 'X', noErr));
    EXPECT_EQ(Hit(yes, GetControlEventTarget(yes)), noErr);
    EXPECT_EQ(order, "BAC");

    // A removed handler is passed over; sent to the window, the control is not involved.
    EXPECT_EQ(RemoveEventHandler(windowHandler), noErr);
    EXPECT_NE(RemoveEventHandler(windowHandler), noErr) << "removed twice";
    order.clear();
    EXPECT_EQ(Hit(yes, GetControlEventTarget(yes)), eventNotHandledErr);
    EXPECT_EQ(Hit(yes, GetWindowEventTarget(window)), eventNotHandledErr);
    EXPECT_EQ(order, "BADD");
    EXPECT_TRUE(IsValidWindowPtr(window));
}

// A close event nobody takes disposes of the window; one a handler takes does not.
TEST_F(EventsTest, UnhandledCloseDisposesOfTheWindow) {
    WindowRef kept = NewWindow("Box");
    WindowRef closed = NewWindow("Other");
    std::string order;
    Install(GetWindowEventTarget(kept), kClose, Step(order, 'k', noErr));
    Install(GetWindowEventTarget(closed), kClose, Step(order, 'c', eventNotHandledErr));
    for (WindowRef w : {kept, closed}) {
        EventRef close = nullptr;
        CreateEvent(nullptr, kEventClassWindow, kEventWindowClose, 0, 0, &close);
        SetEventParameter(close, kEventParamDirectObject, typeWindowRef, sizeof w, &w);
        EXPECT_EQ(SendEventToEventTarget(close, GetWindowEventTarget(w)), noErr);
        ReleaseEvent(close);
    }
    EXPECT_EQ(order, "kc");
    EXPECT_TRUE(IsValidWindowPtr(kept));
    EXPECT_FALSE(IsValidWindowPtr(closed));
}

// Handlers removed while an event travels are not called, new ones only for the next
// event; a window disposed of on the way sends the event on to the application.
TEST_F(EventsTest, HandlersAndWindowsMayGoDuringDispatch) {
    EventTargetRef app = GetApplicationEventTarget();
    std::string order;
    EventHandlerRef older = Install(app, kCommand, Step(order, 'O', eventNotHandledErr));
    EventHandlerRef self = nullptr;
    self = Install(app, kCommand, [&](EventHandlerCallRef, EventRef) {
        order += 'S';
        EXPECT_EQ(RemoveEventHandler(self), noErr);
        EXPECT_EQ(RemoveEventHandler(older), noErr);
        Install(app, kCommand, Step(order, 'N', noErr));
        return eventNotHandledErr;
    });
    EXPECT_EQ(SendCommand('test'), eventNotHandledErr);
    EXPECT_EQ(SendCommand('test'), noErr);
    EXPECT_EQ(order, "SN");

    WindowRef window = NewWindow("Box");
    ControlRef yes = Control(window, 'YES1', 1);
    EventTargetRef controlTarget = GetControlEventTarget(yes);
    order.clear();
    Install(controlTarget, kHit, [&](EventHandlerCallRef, EventRef) {
        order += 'c';
        DisposeWindow(window);
        return eventNotHandledErr;
    });
    Install(GetWindowEventTarget(window), kHit, Step(order, 'w', eventNotHandledErr));
    Install(app, kHit, Step(order, 'a', noErr));
    EXPECT_EQ(Hit(yes, controlTarget), noErr);
    EXPECT_EQ(order, "ca");
    EXPECT_FALSE(IsValidWindowPtr(window));
    EXPECT_NE(Hit(yes, controlTarget), noErr) << "the control went with its window";
    EXPECT_EQ(order, "ca");
}

TEST(EventParameters, TypedAndSizeChecked) {
    EventRef event = NewCommandEvent('clos');
    EXPECT_EQ(GetEventClass(event), static_cast<UInt32>(kEventClassCommand));
    EXPECT_EQ(GetEventKind(event), static_cast<UInt32>(kEventCommandProcess));
    HICommand got = {};
    EventParamType type = 0;
    ByteCount size = 0;
    EXPECT_EQ(GetEventParameter(event, kEventParamDirectObject, typeWildCard, &type, sizeof got, &size, &got),
              noErr);
    EXPECT_EQ(got.commandID, static_cast<UInt32>('clos'));
    EXPECT_EQ(type, static_cast<EventParamType>(typeHICommand));
    EXPECT_EQ(size, sizeof(HICommand));

    // Too small a buffer or the wrong type: an error and not a byte written.
    unsigned char guard[sizeof(HICommand) + 4];
    memset(guard, 0xAB, sizeof guard);
    EXPECT_NE(GetEventParameter(event, kEventParamDirectObject, typeHICommand, nullptr, sizeof(HICommand) - 1,
                                nullptr, guard),
              noErr);
    EXPECT_NE(GetEventParameter(event, kEventParamDirectObject, typeWindowRef, nullptr, sizeof guard, nullptr,
                                guard),
              noErr);
    for (unsigned char c : guard)
        EXPECT_EQ(c, 0xAB);
    EXPECT_EQ(GetEventParameter(event, kEventParamKeyModifiers, typeUInt32, nullptr, 4, nullptr, guard),
              eventParameterNotFoundErr);

    // A retained event outlives one release.
    EXPECT_EQ(RetainEvent(event), event);
    ReleaseEvent(event);
    EXPECT_EQ(CommandOf(event), static_cast<UInt32>('clos'));
    ReleaseEvent(event);
}

} // namespace
