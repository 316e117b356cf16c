// Windows from nibs: bad nibs give an error and no window; a good window is built
// as described, invisible until shown, with controls found by ID and texts set.
#include "ui_support.h"

#include <PlatBackend.h>

#include <cstring>
#include <string>

using namespace uitest;

namespace {

class NibTest : public UiTest {};

OSStatus CreateFrom(const std::string& nibText, const char* windowName, WindowRef* window) {
    TempBundle bundle;
    bundle.WriteResource("bad.nib", nibText);
    IBNibRef nib = nullptr;
    *window = nullptr;
    OSStatus status = CreateNibReference(CFSTR("bad"), &nib);
    if (status != noErr) {
        EXPECT_EQ(nib, nullptr);
        return status;
    }
    CFStringRef name = CFStringCreateWithCString(nullptr, windowName, kCFStringEncodingUTF8);
    status = CreateWindowFromNib(nib, name, window);
    CFRelease(name);
    DisposeNibReference(nib);
    return status;
}

std::string Nib(const std::string& windowXml) {
    return "<nib>" + windowXml + "</nib>";
}

TEST(BadNibs, GiveAnErrorAndNoWindow) {
    PlatSetBackend("scripted");
    {
        TempBundle empty;
        IBNibRef nib = reinterpret_cast<IBNibRef>(1);
        EXPECT_EQ(CreateNibReference(CFSTR("main"), &nib), kIBCarbonRuntimeCantFindNibFile);
        EXPECT_EQ(nib, nullptr);
        EXPECT_NE(CreateNibReference(nullptr, &nib), noErr);
    }
    const std::string ok = R"(<window name="W" width="10" height="10">)";
    struct Case {
        const char* what;
        std::string nib;
        OSStatus expected;
    } cases[] = {
        // not a nib at all
        {"malformed XML", "<nib><window name=\"W\" width=\"10\" height=\"10\"></nib>",
         kIBCarbonRuntimeCantFindNibFile},
        {"other root", "<nob/>", kIBCarbonRuntimeCantFindNibFile},
        {"not a window at top", "<nib><button/></nib>", kIBCarbonRuntimeCantFindNibFile},
        // no such window
        {"unknown window", Nib(R"(<window name="Other" width="10" height="10"/>)"),
         kIBCarbonRuntimeCantFindObject},
        // a window that cannot be built
        {"duplicate ControlID",
         Nib(ok +
             R"(<pushbutton signature="YES1" id="1">a</pushbutton><statictext signature="YES1" id="1"/></window>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"unknown element", Nib(ok + "<slider/></window>"), kIBCarbonRuntimeObjectNotOfRequestedType},
        {"element in a control", Nib(ok + "<statictext><b>x</b></statictext></window>"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"unknown attribute", Nib(ok + R"(<pushbutton signature="YES1" id="1" colour="red"/></window>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"attribute of another kind", Nib(ok + R"(<statictext default="true"/></window>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"three-character signature", Nib(ok + R"(<pushbutton signature="YES" id="1"/></window>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"id past 32 bits", Nib(ok + R"(<pushbutton signature="YES1" id="2147483648"/></window>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"negative width", Nib(ok + R"(<pushbutton width="-1"/></window>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"window without size", Nib(R"(<window name="W" width="10"/>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        {"closebox not a boolean", Nib(R"(<window name="W" width="10" height="10" closebox="yes"/>)"),
         kIBCarbonRuntimeObjectNotOfRequestedType},
        // and the smallest good ones, for contrast
        {"good",
         Nib(ok + R"(<pushbutton signature="YES1" id="-2147483648"/><statictext/><statictext/></window>)"),
         noErr},
    };
    for (const Case& c : cases) {
        WindowRef window = reinterpret_cast<WindowRef>(1);
        EXPECT_EQ(CreateFrom(c.nib, "W", &window), c.expected) << c.what;
        if (c.expected != noErr) {
            EXPECT_EQ(window, nullptr) << c.what;
        } else {
            EXPECT_TRUE(IsValidWindowPtr(window)) << c.what;
            DisposeWindow(window);
        }
    }
}

// The window as the nib describes it, for the backends; hidden until shown.
TEST_F(NibTest, WindowIsBuiltAsDescribedAndHiddenUntilShown) {
    WindowRef window = NewWindow("Box");
    PlatWindowInfo info;
    ASSERT_TRUE(PlatGetWindowInfo(window, &info));
    EXPECT_STREQ(info.title, "Question");
    EXPECT_EQ(info.height, 150);
    EXPECT_TRUE(info.hasCloseBox);
    ASSERT_EQ(info.controlCount, 3u);
    PlatControlInfo yes;
    ASSERT_TRUE(PlatGetControlInfo(window, 2, &yes));
    EXPECT_EQ(yes.kind, kPlatControlPushButton);
    EXPECT_STREQ(yes.text, "Yes");
    EXPECT_TRUE(yes.isDefault);
    EXPECT_FALSE(PlatGetControlInfo(window, 3, &yes));

    EXPECT_FALSE(IsWindowVisible(window));
    EXPECT_FALSE(PlatScriptIsVisible("Box"));
    EXPECT_EQ(PlatScriptShowCount("Box"), 0);
    ShowWindow(window);
    ShowWindow(window); // already visible: not counted again
    EXPECT_TRUE(IsWindowVisible(window));
    EXPECT_EQ(PlatScriptShowCount("Box"), 1);
    HideWindow(window);
    EXPECT_FALSE(PlatScriptIsVisible("Box"));
    ShowWindow(window);
    EXPECT_EQ(PlatScriptShowCount("Box"), 2);
    DisposeWindow(window);
    EXPECT_FALSE(PlatScriptIsVisible("Box"));
    EXPECT_EQ(PlatScriptShowCount("Box"), 2);
}

// Controls by ID, from the window or its root view; absent ones give errUnknownControl.
TEST_F(NibTest, ControlsAreFoundByTheirID) {
    WindowRef window = NewWindow("Box");
    WindowRef other = NewWindow("Other");
    ControlRef yes = Control(window, 'YES1', 1);
    ASSERT_NE(yes, nullptr);
    EXPECT_EQ(GetControlOwner(yes), window);

    ControlID wrongId = {'YES1', 2};
    ControlID elsewhere = {'OK  ', 7};
    ControlRef control = reinterpret_cast<ControlRef>(1);
    EXPECT_EQ(GetControlByID(window, &wrongId, &control), errUnknownControl);
    EXPECT_EQ(control, nullptr);
    EXPECT_EQ(GetControlByID(window, &elsewhere, &control), errUnknownControl);

    HIViewRef root = HIViewGetRoot(window);
    ASSERT_NE(root, nullptr);
    HIViewRef view = nullptr;
    EXPECT_EQ(HIViewFindByID(root, HIViewID{'YES1', 1}, &view), noErr);
    EXPECT_EQ(view, yes);
    EXPECT_EQ(HIViewFindByID(root, HIViewID{'OK  ', 7}, &view), errUnknownControl);
    EXPECT_EQ(view, nullptr);
    EXPECT_EQ(HIViewFindByID(HIViewGetRoot(other), HIViewID{'OK  ', 7}, &view), noErr);

    DisposeWindow(window);
    EXPECT_EQ(HIViewGetRoot(window), nullptr);
    EXPECT_NE(HIViewFindByID(root, HIViewID{'YES1', 1}, &view), noErr);
    EXPECT_EQ(GetControlOwner(yes), nullptr);
}

// SetControlData with the CFString tag: the layer keeps its own reference, so the
// caller may release the string at once; other sizes and tags are refused.
TEST_F(NibTest, StaticTextTakesACFString) {
    WindowRef window = NewWindow("Box");
    ControlRef text = Control(window, 'MSG1', 1);
    char buffer[64];
    ASSERT_TRUE(PlatScriptGetControlText("Box", 'MSG1', 1, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "Install the new version?");

    CFStringRef string = CFStringCreateWithCString(nullptr,
                                                   "Gr\xc3\xbc\xc3\x9f"
                                                   "e, \xe2\x82\xac 5",
                                                   kCFStringEncodingUTF8);
    ASSERT_EQ(
        SetControlData(text, kControlEditTextPart, kControlStaticTextCFStringTag, sizeof string, &string),
        noErr);
    CFRelease(string);
    ASSERT_TRUE(PlatScriptGetControlText("Box", 'MSG1', 1, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "Gr\xc3\xbc\xc3\x9f"
                         "e, \xe2\x82\xac 5");

    // A text that does not fit the caller's buffer is cut and reported.
    char tiny[4];
    EXPECT_FALSE(PlatScriptGetControlText("Box", 'MSG1', 1, tiny, sizeof tiny));
    EXPECT_LT(strlen(tiny), sizeof tiny);

    CFStringRef other = CFSTR("ignored");
    EXPECT_EQ(SetControlData(text, 0, kControlStaticTextCFStringTag, 4, &other), errDataSizeMismatch);
    EXPECT_NE(SetControlData(text, 0, 'what', sizeof other, &other), noErr);
    ControlRef progress = Control(NewWindow("Progress"), 'prog', 1);
    EXPECT_NE(SetControlData(progress, 0, kControlStaticTextCFStringTag, sizeof other, &other), noErr);
    ASSERT_TRUE(PlatScriptGetControlText("Box", 'MSG1', 1, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "Gr\xc3\xbc\xc3\x9f"
                         "e, \xe2\x82\xac 5");
}

// An image view shows its picture from the bundle's resources; a missing or broken
// picture leaves it empty and the window is built all the same.
TEST_F(NibTest, ImageViewsDecodeTheirPicture) {
    WindowRef window = NewWindow("Progress");
    PlatControlInfo image;
    ASSERT_TRUE(PlatGetControlInfo(window, 0, &image));
    ASSERT_EQ(image.kind, kPlatControlImageView);
    ASSERT_NE(image.rgba, nullptr);
    EXPECT_GT(image.imageWidth, 0u);
    EXPECT_GT(image.imageHeight, 0u);
    bool opaque = false; // a real picture, not a buffer of zeros
    for (size_t i = 3; i < image.imageWidth * image.imageHeight * 4; i += 4) {
        opaque = opaque || image.rgba[i] != 0;
    }
    EXPECT_TRUE(opaque);

    // Clearing it through HIImageViewSetImage, and the picture gone from the bundle.
    EXPECT_EQ(HIImageViewSetImage(image.control, nullptr), noErr);
    ASSERT_TRUE(PlatGetControlInfo(window, 0, &image));
    EXPECT_EQ(image.rgba, nullptr);
    bundle_.WriteResource("Installer.png", "not a picture");
    WindowRef broken = NewWindow("Progress");
    ASSERT_NE(broken, nullptr);
    ASSERT_TRUE(PlatGetControlInfo(broken, 0, &image));
    EXPECT_EQ(image.rgba, nullptr);
}

} // namespace
