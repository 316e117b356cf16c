// The Event Manager: dispatch order and propagation, handlers that change the
// handler lists or dispose of windows while an event travels, event parameters,
// and events sent from other threads.
#include "ui_support.h"

#include <cstring>
#include <thread>

using namespace uitest;

namespace {

class EventsTest : public UiTest {};

// Newest handler first; eventNotHandledErr passes the event on, from the control to
// its window to the application; the first other answer ends the dispatch.
TEST_F(EventsTest, HandlersRunNewestFirstAndUnhandledEventsTravelUp) {
    WindowRef window = NewWindow("Box");
    ControlRef yes = Control(window, 'YES1', 1);
    std::string order;
    auto step = [&order](char name, OSStatus answer) {
        return [&order, name, answer](EventHandlerCallRef, EventRef) {
            order += name;
            return answer;
        };
    };
    Install(GetApplicationEventTarget(), {kHit}, step('D', eventNotHandledErr));
    Install(GetWindowEventTarget(window), {kHit}, step('C', noErr));
    Install(GetControlEventTarget(yes), {kHit}, step('A', eventNotHandledErr));
    Install(GetControlEventTarget(yes), {kHit}, step('B', eventNotHandledErr));
    Install(GetControlEventTarget(yes), {kClose}, step('X', noErr)); // another kind of event

    EventRef hit = nullptr;
    ASSERT_EQ(CreateEvent(nullptr, kEventClassControl, kEventControlHit, 0, 0, &hit), noErr);
    SetEventParameter(hit, kEventParamDirectObject, typeControlRef, sizeof yes, &yes);
    EXPECT_EQ(SendEventToEventTarget(hit, GetControlEventTarget(yes)), noErr);
    EXPECT_EQ(order, "BAC");

    // Without the window's handler the event reaches the application, and a hit
    // nobody takes changes nothing.
    RemoveEventHandler(handlers_[1]);
    order.clear();
    EXPECT_EQ(SendEventToEventTarget(hit, GetControlEventTarget(yes)), eventNotHandledErr);
    EXPECT_EQ(order, "BAD");
    EXPECT_TRUE(IsValidWindowPtr(window));

    // Sent to the window, the control's handlers are not involved.
    order.clear();
    EXPECT_EQ(SendEventToEventTarget(hit, GetWindowEventTarget(window)), eventNotHandledErr);
    EXPECT_EQ(order, "D");
    ReleaseEvent(hit);
}

// A close event nobody takes disposes of the window; one a handler takes does not.
TEST_F(EventsTest, UnhandledCloseDisposesOfTheWindow) {
    WindowRef kept = NewWindow("Box");
    WindowRef closed = NewWindow("Other");
    int calls = 0;
    Install(GetWindowEventTarget(kept), {kClose}, [&](EventHandlerCallRef, EventRef) {
        calls++;
        return noErr;
    });
    Install(GetWindowEventTarget(closed), {kClose}, [&](EventHandlerCallRef, EventRef) {
        calls++;
        return eventNotHandledErr;
    });
    for (WindowRef w : {kept, closed}) {
        EventRef close = nullptr;
        CreateEvent(nullptr, kEventClassWindow, kEventWindowClose, 0, 0, &close);
        SetEventParameter(close, kEventParamDirectObject, typeWindowRef, sizeof w, &w);
        EXPECT_EQ(SendEventToEventTarget(close, GetWindowEventTarget(w)), noErr);
        ReleaseEvent(close);
    }
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(IsValidWindowPtr(kept));
    EXPECT_FALSE(IsValidWindowPtr(closed));
    EXPECT_EQ(GetWindowEventTarget(closed), nullptr);
}

// Handlers that remove themselves or others, or install new ones, while the event
// travels: removed ones are not called, new ones only for the next event.
TEST_F(EventsTest, HandlerListsMayChangeDuringDispatch) {
    EventTargetRef app = GetApplicationEventTarget();
    std::string order;
    EventHandlerRef older = Install(app, {kCommand}, [&](EventHandlerCallRef, EventRef) {
        order += 'O';
        return eventNotHandledErr;
    });
    EventHandlerRef self = nullptr;
    EventHandlerRef added = nullptr;
    self = Install(app, {kCommand}, [&](EventHandlerCallRef, EventRef) {
        order += 'S';
        EXPECT_EQ(RemoveEventHandler(self), noErr);
        EXPECT_EQ(RemoveEventHandler(older), noErr);
        added = Install(app, {kCommand}, [&](EventHandlerCallRef, EventRef) {
            order += 'N';
            return noErr;
        });
        return eventNotHandledErr;
    });
    EXPECT_EQ(SendCommand('test'), eventNotHandledErr);
    EXPECT_EQ(order, "S");
    order.clear();
    EXPECT_EQ(SendCommand('test'), noErr);
    EXPECT_EQ(order, "N");

    // Removing what is gone, or was never there, is an error and nothing more.
    EXPECT_NE(RemoveEventHandler(self), noErr);
    EXPECT_NE(RemoveEventHandler(older), noErr);
    EXPECT_NE(RemoveEventHandler(nullptr), noErr);
    int local = 0;
    EXPECT_NE(RemoveEventHandler(reinterpret_cast<EventHandlerRef>(&local)), noErr);
    EXPECT_NE(added, nullptr);
}

// A handler may dispose of the window whose event it handles: the event goes on to
// the application, and later events for the window's objects are dropped.
TEST_F(EventsTest, HandlerMayDisposeOfTheWindowItHandles) {
    WindowRef window = NewWindow("Box");
    ControlRef yes = Control(window, 'YES1', 1);
    EventTargetRef controlTarget = GetControlEventTarget(yes);
    EventTargetRef windowTarget = GetWindowEventTarget(window);
    std::string order;
    Install(controlTarget, {kHit}, [&](EventHandlerCallRef, EventRef) {
        order += 'c';
        DisposeWindow(window);
        return eventNotHandledErr;
    });
    Install(windowTarget, {kHit}, [&](EventHandlerCallRef, EventRef) {
        order += 'w';
        return eventNotHandledErr;
    });
    Install(GetApplicationEventTarget(), {kHit}, [&](EventHandlerCallRef, EventRef) {
        order += 'a';
        return noErr;
    });
    EventRef hit = nullptr;
    CreateEvent(nullptr, kEventClassControl, kEventControlHit, 0, 0, &hit);
    EXPECT_EQ(SendEventToEventTarget(hit, controlTarget), noErr);
    EXPECT_EQ(order, "ca");
    EXPECT_FALSE(IsValidWindowPtr(window));
    EXPECT_EQ(GetControlEventTarget(yes), nullptr);

    order.clear();
    EXPECT_NE(SendEventToEventTarget(hit, controlTarget), noErr);
    EXPECT_NE(SendEventToEventTarget(hit, windowTarget), noErr);
    EXPECT_EQ(order, "");
    ReleaseEvent(hit);

    // References that are not windows are never taken for one.
    int local = 0;
    EXPECT_FALSE(IsValidWindowPtr(reinterpret_cast<WindowRef>(&local)));
    DisposeWindow(window); // twice: nothing happens
}

// CallNextEventHandler runs the rest of the chain at once and gives its answer.
TEST_F(EventsTest, CallNextEventHandlerRunsTheRestOfTheChain) {
    WindowRef window = NewWindow("Box");
    std::string order;
    Install(GetApplicationEventTarget(), {kCommand}, [&](EventHandlerCallRef, EventRef) {
        order += 'a';
        return OSStatus(42);
    });
    Install(GetWindowEventTarget(window), {kCommand}, [&](EventHandlerCallRef call, EventRef event) {
        order += '[';
        OSStatus next = CallNextEventHandler(call, event);
        order += ']';
        EXPECT_EQ(next, 42);
        return eventNotHandledErr; // the rest has run already: it must not run twice
    });
    EventRef event = NewCommandEvent('next');
    EXPECT_EQ(SendEventToEventTarget(event, GetWindowEventTarget(window)), eventNotHandledErr);
    EXPECT_EQ(order, "[a]");
    ReleaseEvent(event);
}

TEST(EventParameters, TypedSizedAndOptionalOutputs) {
    EventRef event = nullptr;
    ASSERT_EQ(CreateEvent(nullptr, kEventClassCommand, kEventCommandProcess, 12.5, kEventAttributeUserEvent,
                          &event),
              noErr);
    EXPECT_EQ(GetEventClass(event), static_cast<UInt32>(kEventClassCommand));
    EXPECT_EQ(GetEventKind(event), static_cast<UInt32>(kEventCommandProcess));

    HICommand command = {};
    command.commandID = 'clos';
    ASSERT_EQ(sizeof command, 18u);
    ASSERT_EQ(SetEventParameter(event, kEventParamDirectObject, typeHICommand, sizeof command, &command),
              noErr);

    // Exact size, typed and wildcard, with and without the optional outputs.
    HICommand got = {};
    EventParamType type = 0;
    ByteCount size = 0;
    EXPECT_EQ(
        GetEventParameter(event, kEventParamDirectObject, typeHICommand, &type, sizeof got, &size, &got),
        noErr);
    EXPECT_EQ(got.commandID, static_cast<UInt32>('clos'));
    EXPECT_EQ(type, static_cast<EventParamType>(typeHICommand));
    EXPECT_EQ(size, 18u);
    EXPECT_EQ(
        GetEventParameter(event, kEventParamDirectObject, typeWildCard, nullptr, sizeof got, nullptr, &got),
        noErr);

    // Too small a buffer: an error, and not a byte written (guard bytes stay).
    unsigned char small[17 + 4];
    std::memset(small, 0xAB, sizeof small);
    EXPECT_NE(GetEventParameter(event, kEventParamDirectObject, typeHICommand, nullptr, 17, nullptr, small),
              noErr);
    for (unsigned char c : small) {
        EXPECT_EQ(c, 0xAB);
    }

    // Wrong type, absent name, unknown event.
    WindowRef window = nullptr;
    EXPECT_NE(GetEventParameter(event, kEventParamDirectObject, typeWindowRef, nullptr, sizeof window,
                                nullptr, &window),
              noErr);
    EXPECT_EQ(window, nullptr);
    EXPECT_EQ(GetEventParameter(event, kEventParamKeyModifiers, typeUInt32, nullptr, 4, nullptr, small),
              eventParameterNotFoundErr);
    int local = 0;
    EventRef bogus = reinterpret_cast<EventRef>(&local);
    EXPECT_NE(
        GetEventParameter(bogus, kEventParamDirectObject, typeWildCard, nullptr, sizeof got, nullptr, &got),
        noErr);
    EXPECT_NE(SendEventToEventTarget(bogus, GetApplicationEventTarget()), noErr);

    // Retained events outlive one release.
    EXPECT_EQ(RetainEvent(event), event);
    ReleaseEvent(event);
    EXPECT_EQ(GetEventClass(event), static_cast<UInt32>(kEventClassCommand));
    ReleaseEvent(event);
    EXPECT_EQ(GetEventClass(event), 0u);
}

// From another thread an event is queued; it runs on the main thread, when drained;
// one for a window disposed of meanwhile is dropped.
TEST_F(EventsTest, EventsFromOtherThreadsRunOnTheMainThread) {
    WindowRef window = NewWindow("Box");
    EventTargetRef windowTarget = GetWindowEventTarget(window);
    std::vector<bool> onMain;
    std::vector<UInt32> commands;
    Install(GetApplicationEventTarget(), {kCommand}, [&](EventHandlerCallRef, EventRef event) {
        onMain.push_back(OnMainThread());
        commands.push_back(CommandOf(event));
        return noErr;
    });
    OSStatus fromWorker = -1;
    OSStatus toWindow = -1;
    std::thread worker([&] {
        fromWorker = SendCommand('wrk1');
        EventRef event = NewCommandEvent('wrk2');
        toWindow = SendEventToEventTarget(event, windowTarget);
        ReleaseEvent(event); // the queue holds its own reference
        SendCommand('wrk3');
    });
    worker.join();
    EXPECT_EQ(fromWorker, noErr);
    EXPECT_EQ(toWindow, noErr);
    EXPECT_TRUE(commands.empty()); // nothing ran on the worker
    DisposeWindow(window);
    PlatDrainEvents();
    EXPECT_EQ(commands, (std::vector<UInt32>{'wrk1', 'wrk3'}));
    EXPECT_EQ(onMain, (std::vector<bool>{true, true}));
}

} // namespace
