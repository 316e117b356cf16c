// Windows from nibs: the Carbon errors, the nibs Interface Builder writes, and the languages.
#include "support.h"

#include "backends/BackendInternal.h"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <tuple>

using namespace ptest;

namespace {

// The window name from a nib of the given text (none: no nib at all), in a bundle of its own.
OSStatus CreateFrom(const std::string* nibText, WindowRef* window, const char* name = "W") {
    TempBundle bundle;
    if (nibText != nullptr)
        bundle.Put(kNibPath, *nibText);
    IBNibRef nib = nullptr;
    *window = nullptr;
    OSStatus status = CreateNibReference(CFSTR("main"), &nib);
    if (status == noErr) {
        CFStringRef cfName = Str(name);
        status = CreateWindowFromNib(nib, cfName, window);
        CFRelease(cfName);
        DisposeNibReference(nib);
    }
    return status;
}

// The user's language (each test runs in a process of its own).
void UseLanguage(const char* lang) {
    unsetenv("LC_ALL");
    unsetenv("LC_MESSAGES");
    setenv("LANG", lang, 1);
}

const std::string kButton = NibView("Button", "60 100 80 190", "YES1", 1, "");
const std::string kGoodNib = NibArchive(
    NibWindow(10, "40 40 140 240", "", kButton + NibView("StaticText", "10 10 50 190", "MSG1", 1, "")) +
        "<object class=\"IBCarbonMenu\" id=\"20\"/>",
    {{"W", 10}, {"Menu", 20}});

std::string Nested(int depth) {
    std::string nib = kGoodNib;
    std::string open, close;
    for (int i = 0; i < depth; i++) {
        open += R"(<object class="IBCarbonUserPane"><array name="subviews">)";
        close += "</array></object>";
    }
    return nib.replace(nib.find(kButton), kButton.size(), open + kButton + close);
}

// A nib that is not Carbon's, or a window it cannot describe, gives the Carbon error and no window.
TEST(Nibs, BadNibsGiveTheirErrorAndNoWindow) {
    PlatSetBackend("scripted");
    const OSStatus noFile = kIBCarbonRuntimeCantFindNibFile,
                   notWindow = kIBCarbonRuntimeObjectNotOfRequestedType,
                   noObject = kIBCarbonRuntimeCantFindObject;
    struct Case {
        const char* what;
        std::string from, to; // the change to kGoodNib; from empty: to is the whole file
        OSStatus expected;
        const char* name;
    };
    const std::string binary("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff\xfe", 18);
    const Case cases[] = {
        {"a well-formed window", "", kGoodNib, noErr, "W"},
        {"a hidden control outside", "60 100 80 190 </string>",
         R"(60 100 80 900 </string><boolean name="hidden">TRUE</boolean>)", noErr, "W"},
        {"views nested 30 deep", "", Nested(30), noErr, "W"},
        {"a cut file", "</dictionary>", "", noFile, "W"},
        {"a binary file", "", binary, noFile, "W"},
        {"a well-formed file past the size limit", "", kGoodNib + std::string(3 << 20, ' '), noFile, "W"},
        {"another framework", "IBCarbonFramework", "IBCocoaFramework", noFile, "W"},
        {"a name nobody has", "", kGoodNib, noObject, "V"},
        {"a name for an object not in the file", R"(<string>W</string><reference idRef="10"/>)",
         R"(<string>W</string><reference idRef="99"/>)", noObject, "W"},
        {"a name for a menu", "", kGoodNib, notWindow, "Menu"},
        {"a windowRect of three numbers", "40 40 140 240 ", "40 40 140 ", notWindow, "W"},
        {"an empty window", "40 40 140 240 ", "40 40 40 240 ", notWindow, "W"},
        {"no windowRect", "<string name=\"windowRect\">40 40 140 240 </string>", "", notWindow, "W"},
        {"a duplicate ControlID", ">MSG1<", ">YES1<", notWindow, "W"},
        {"a control past the right edge", "60 100 80 190 ", "60 100 80 201 ", notWindow, "W"},
        {"a control without bounds", "<string name=\"bounds\">60 100 80 190 </string>", "", notWindow, "W"},
        {"views nested 40 deep", "", Nested(40), notWindow, "W"},
    };
    for (const Case& c : cases) {
        std::string nib = c.to;
        if (!c.from.empty()) {
            nib = kGoodNib;
            size_t at = nib.find(c.from);
            ASSERT_NE(at, std::string::npos) << c.what;
            nib.replace(at, c.from.size(), c.to);
        }
        WindowRef window = nullptr;
        EXPECT_EQ(CreateFrom(&nib, &window, c.name), c.expected) << c.what;
        EXPECT_EQ(window != nullptr, c.expected == noErr) << c.what;
        DisposeWindow(window);
    }
    WindowRef window = nullptr;
    EXPECT_EQ(CreateFrom(nullptr, &window), noFile);
    EXPECT_EQ(window, nullptr);
}

// A nib as Interface Builder writes it, with all it holds that the launcher never
// uses: menus, a tab with nested panes, layout info, unknown views and keys.
const char kBuilderNib[] = R"(<?xml version="1.0" standalone="yes"?>
<object class="NSIBObjectData">
  <string name="targetFramework">IBCarbonFramework</string>
  <object name="rootObject" class="NSCustomObject" id="1"><string name="customClass">NSApplication</string></object>
  <array count="12" name="allObjects">
    <object class="IBCarbonMenu" id="29"><string name="title">main</string><array count="1" name="items">
      <object class="IBCarbonMenuItem" id="185"><string name="title">File</string>
        <object name="submenu" class="IBCarbonMenu" id="184"><array count="2" name="items">
          <object class="IBCarbonMenuItem" id="187"><string name="keyEquivalent">w</string><ostype name="command">clos</ostype></object>
          <object class="IBCarbonMenuItem" id="186"><boolean name="separator">TRUE</boolean></object>
        </array></object></object></array><string name="name">_NSMainMenu</string></object>
    <object class="IBCarbonWindow" id="166">
      <string name="windowRect">84 380 284 780 </string><string name="title">Réglages &amp; plus</string>
      <object name="rootControl" class="IBCarbonRootControl" id="167">
        <string name="bounds">0 0 200 400 </string><string name="viewFrame">0 0 400 200 </string>
        <array count="3" name="subviews">
          <object class="IBCarbonTab" id="188"><string name="bounds">7 14 150 386 </string><array count="1" name="subviews">
            <object class="IBCarbonUserPane" id="190"><string name="bounds">44 14 150 386 </string><array count="3" name="subviews">
              <object class="IBCarbonStaticText" id="195"><string name="bounds">60 30 76 200 </string>
                <ostype name="controlSignature">MSG1</ostype><int name="controlID">1</int>
                <boolean name="small">TRUE</boolean><string name="title">Password:</string></object>
              <object class="IBCarbonPopupButton" id="202"><string name="bounds">80 30 100 150 </string>
                <object name="menu" class="IBCarbonMenu" id="203"><array count="1" name="items">
                  <object class="IBCarbonMenuItem" id="206"><string name="title">Foo</string></object></array></object></object>
              <object class="IBCarbonProgressBar" id="222"><string name="bounds">110 30 130 300 </string>
                <object name="layoutInfo" class="IBCarbonHILayoutInfo"><int name="bindingLeftKind">1</int></object>
                <boolean name="indeterminate">FALSE</boolean><int name="initialValue">50</int></object>
            </array><ostype name="controlSignature">tabs</ostype><int name="controlID">129</int></object>
          </array><ostype name="controlSignature">tabs</ostype><int name="controlID">128</int>
            <array count="1" name="tabItems"><dictionary count="2"><string>tabName</string><string>Widgets</string>
              <string>userPane</string><reference idRef="190"/></dictionary></array></object>
          <object class="IBCarbonButton" id="191"><string name="bounds">160 300 180 380 </string>
            <ostype name="controlSignature">YES1</ostype><int name="controlID">1</int><string name="title">Quit</string>
            <ostype name="command">quit</ostype><int name="buttonType">1</int>
            <object name="layoutInfo" class="IBCarbonHILayoutInfo"><int name="bindingBottomKind">2</int></object></object>
          <object class="IBCarbonImageView" id="192"><string name="bounds">160 14 192 46 </string>
            <ostype name="controlSignature">copy</ostype><int name="controlID">1</int><string name="imageName">Installer.png</string>
            <dictionary count="1" name="auxiliaryDictionary"><string>tags</string><array count="1"><string>SIZ0</string></array></dictionary></object>
        </array></object>
      <boolean name="receiveUpdates">FALSE</boolean><boolean name="liveResize">TRUE</boolean><int name="themeBrush">7</int>
    </object>
    <object class="IBCarbonWindow" id="300"><string name="windowRect">255 367 326 599 </string><string name="title"></string>
      <object name="rootControl" class="IBCarbonRootControl" id="301"><string name="bounds">0 0 71 232 </string></object>
      <int name="carbonWindowClass">11</int></object>
    <reference idRef="167"/><reference idRef="184"/><reference idRef="185"/><reference idRef="186"/><reference idRef="187"/>
    <reference idRef="188"/><reference idRef="190"/><reference idRef="191"/><reference idRef="192"/>
  </array>
  <array count="12" name="allParents">
    <reference idRef="1"/><reference idRef="1"/><reference idRef="1"/><reference idRef="166"/><reference idRef="29"/>
    <reference idRef="185"/><reference idRef="184"/><reference idRef="184"/><reference idRef="167"/><reference idRef="188"/>
    <reference idRef="167"/><reference idRef="167"/>
  </array>
  <dictionary count="4" name="nameTable"><string>Files Owner</string><reference idRef="1"/><string>MainWindow</string>
    <reference idRef="166"/><string>MenuBar</string><reference idRef="29"/><string>Sheet</string><reference idRef="300"/></dictionary>
  <unsigned_int name="nextObjectID">302</unsigned_int>
</object>
)";

TEST(Nibs, BuilderNibIsReadAndShown) {
    PlatSetBackend("scripted");
    const std::string nib = kBuilderNib;
    WindowRef window = nullptr;
    ASSERT_EQ(CreateFrom(&nib, &window, "MainWindow"), noErr);
    PlatWindowInfo info;
    ASSERT_TRUE(PlatGetWindowInfo(window, &info));
    EXPECT_STREQ(info.title, "R\xC3\xA9glages & plus");
    EXPECT_EQ(info.width, 400);
    EXPECT_EQ(info.height, 200);
    EXPECT_TRUE(info.hasCloseBox); // a document window's close box unless the nib turns it off
    // Built in nib order from every depth, frames from the window's top left; other views passed over.
    struct {
        PlatControlKind kind;
        PlatRect frame;
        OSType signature;
        const char* text;
        bool isDefault;
    } expected[] = {
        {kPlatControlStaticText, {30, 60, 170, 16}, 'MSG1', "Password:", false},
        {kPlatControlProgressIndicator, {30, 110, 270, 20}, 0, "", false},
        {kPlatControlPushButton, {300, 160, 80, 20}, 'YES1', "Quit", true},
        {kPlatControlImageView, {14, 160, 32, 32}, 'copy', "", false},
    };
    ASSERT_EQ(info.controlCount, std::size(expected));
    for (size_t i = 0; i < std::size(expected); i++) {
        PlatControlInfo control;
        ASSERT_TRUE(PlatGetControlInfo(window, i, &control));
        const auto& e = expected[i];
        EXPECT_EQ(control.kind, e.kind) << i;
        EXPECT_EQ(std::tie(control.frame.x, control.frame.y, control.frame.width, control.frame.height),
                  std::tie(e.frame.x, e.frame.y, e.frame.width, e.frame.height))
            << i;
        EXPECT_EQ(control.id.signature, e.signature) << i;
        EXPECT_STREQ(control.text ? control.text : "", e.text) << i;
        EXPECT_EQ(control.isDefault != 0, e.isDefault) << i;
        EXPECT_FALSE(control.indeterminate) << i;
    }
    ShowWindow(window);
    EXPECT_TRUE(PlatScriptIsVisible("MainWindow"));
    DisposeWindow(window);

    // A sheet has no close box whatever the nib says; a window without subviews is empty.
    ASSERT_EQ(CreateFrom(&nib, &window, "Sheet"), noErr);
    ASSERT_TRUE(PlatGetWindowInfo(window, &info));
    EXPECT_FALSE(info.hasCloseBox);
    EXPECT_EQ(info.controlCount, 0u);
    DisposeWindow(window);
}

// The nib comes from the user's language, else from English; a language folder
// without one, or with an empty nib folder, falls back.
TEST(Nibs, FoundThroughTheUsersLanguage) {
    PlatSetBackend("scripted");
    auto titled = [](const char* title) {
        std::string nib = kGoodNib;
        return nib.replace(nib.find(NibTitle("")), NibTitle("").size(), NibTitle(title));
    };
    TempBundle bundle;
    bundle.Put("en.lproj/main.nib/objects.xib", titled("English"));
    bundle.Put("de.lproj/main.nib/objects.xib", titled("Deutsch"));
    bundle.Put("zh-Hans.lproj/main.nib/objects.xib", titled("\xE4\xB8\xAD\xE6\x96\x87"));
    bundle.Put("fr.lproj/custom.strings", "\"A\" = \"B\";\n");
    std::filesystem::create_directories(bundle.Resources() + "/it.lproj/main.nib");
    auto title = [](const char* lang) {
        UseLanguage(lang);
        IBNibRef nib = nullptr;
        WindowRef window = nullptr;
        PlatWindowInfo info;
        if (CreateNibReference(CFSTR("main"), &nib) != noErr)
            return std::string("no nib");
        std::string found =
            CreateWindowFromNib(nib, CFSTR("W"), &window) == noErr && PlatGetWindowInfo(window, &info)
                ? info.title
                : "no window";
        DisposeWindow(window);
        DisposeNibReference(nib);
        return found;
    };
    EXPECT_EQ(title("de_DE.UTF-8"), "Deutsch");
    EXPECT_EQ(title("zh_CN.UTF-8"), "\xE4\xB8\xAD\xE6\x96\x87");
    EXPECT_EQ(title("zh_TW.UTF-8"), "English");
    EXPECT_EQ(title("fr_FR.UTF-8"), "English");
    EXPECT_EQ(title("it_IT.UTF-8"), "English");
    std::filesystem::remove_all(bundle.Resources() + "/en.lproj");
    EXPECT_EQ(title("fr_FR.UTF-8"), "no nib");
}

// The built bundle speaks seven languages: each nib has the launcher's windows and
// controls, in its own words, and each string table the dialog texts.
TEST(Nibs, BundleHasEveryLanguage) {
    PlatSetBackend("scripted");
    PlatSetExecutablePath(KESTRUN_BUILD_DIR "/Launcher.app/Contents/Linux/Launcher");
    // The window titles and button captions in nib order, then the dialog texts.
    auto read = [](const char* lang) {
        UseLanguage(lang);
        std::vector<std::string> words;
        IBNibRef nib = nullptr;
        EXPECT_EQ(CreateNibReference(CFSTR("main"), &nib), noErr) << lang;
        for (const auto& [name, ids] : std::vector<std::pair<const char*, std::vector<ControlID>>>{
                 {"MessageBox", {{'YES1', 1}, {'NO11', 1}, {'MSG1', 1}}},
                 {"MessageBox_Installed", {{'YES1', 1}, {'NO11', 1}, {'MSG1', 1}}},
                 {"WarnningBox_Installed", {{'YES2', 1}, {'MSG1', 1}}},
                 {"ProgressWindow", {{'copy', 1}, {'prog', 1}}}}) {
            SCOPED_TRACE(std::string(lang) + " " + name);
            WindowRef window = nullptr;
            CFStringRef cfName = Str(name);
            EXPECT_EQ(CreateWindowFromNib(nib, cfName, &window), noErr);
            CFRelease(cfName);
            PlatWindowInfo info;
            if (window == nullptr || !PlatGetWindowInfo(window, &info))
                continue;
            words.push_back(info.title);
            EXPECT_EQ(info.hasCloseBox != 0, name[0] != 'P'); // all but the progress window
            for (ControlID id : ids) {
                ControlRef control = nullptr;
                EXPECT_EQ(GetControlByID(window, &id, &control), noErr);
            }
            PlatControlInfo control;
            for (size_t i = 0; PlatGetControlInfo(window, i, &control); i++) {
                if (control.kind == kPlatControlPushButton)
                    words.push_back(control.text);
                EXPECT_TRUE(control.kind != kPlatControlProgressIndicator || control.indeterminate);
                EXPECT_TRUE(control.kind != kPlatControlImageView || control.rgba != nullptr);
            }
            DisposeWindow(window);
        }
        DisposeNibReference(nib);
        const std::string no = words.size() > 1 ? words[1] : "?";
        for (const char* key : {"NEW_VERSION_CONFIRM", "DIFFERENT_VERSION_CONFIRM", "INSTALL_DRIVER"}) {
            CFStringRef cfKey = Str(key);
            CFStringRef text =
                CFBundleCopyLocalizedString(CFBundleGetMainBundle(), cfKey, cfKey, CFSTR("custom"));
            words.push_back(UTF8(text));
            Release({cfKey, text});
            // The messages name the negative button by its title in that language.
            EXPECT_NE(words.back().find(no), std::string::npos) << lang;
        }
        return words;
    };
    const std::vector<std::string> english = read("en_US.UTF-8");
    EXPECT_EQ(
        std::vector<std::string>(english.begin(), english.begin() + std::min<size_t>(9, english.size())),
        (std::vector<std::string>{"Vantorel Installer", "Open Vantorel", "Install", "Vantorel Installer",
                                  "Open Vantorel", "Install", "Vantorel Installer", "Open Vantorel",
                                  "Installing Vantorel"}));
    for (const char* lang :
         {"de_DE.UTF-8", "fr_FR.UTF-8", "es_ES.UTF-8", "it_IT.UTF-8", "ja_JP.UTF-8", "zh_CN.UTF-8"}) {
        std::vector<std::string> words = read(lang);
        ASSERT_EQ(words.size(), english.size()) << lang;
        for (size_t i = 0; i < words.size(); i++)
            EXPECT_NE(words[i], english[i]) << lang << " " << i;
        if (std::string(lang) == "de_DE.UTF-8") {
            EXPECT_EQ(std::vector<std::string>(words.begin(), words.begin() + 3),
                      (std::vector<std::string>{"Vantorel-Installationsprogramm",
                                                "Vantorel \xC3\xB6"
                                                "ffnen",
                                                "Installieren"}));
        }
    }
}

// What standard error received while the GTK backend was taken and given back.
std::string AcquireGtk() {
    PlatSetBackend("gtk");
    testing::internal::CaptureStderr();
    EXPECT_NE(PlatAcquireBackend(), nullptr);
    PlatReleaseBackend();
    return testing::internal::GetCapturedStderr();
}

} // namespace

// The GTK module comes from the bundle's plug-in folder alone, and only when it is a whole
// shared object of this machine with the module's entry; anything else is refused with one
// line naming it and the reason, before the loader maps it (a pipe would hang the loader, a
// cut file kill it with SIGBUS), and the choice goes on as without a module.
TEST(PlugIns, OnlyAWholeModuleOfTheBundleIsLoaded) {
    namespace fs = std::filesystem;
    TempBundle bundle;
    const std::string module = bundle.PlugIns() + "/PlatformGtk.so";
    const std::string moduleBytes = kestrun_test::ReadFile(PLAT_TEST_MODULE);
    ASSERT_GT(moduleBytes.size(), 4096u);
    std::string otherMachine = moduleBytes;
    otherMachine[18] = static_cast<char>(otherMachine[18] ^ 0x7f); // e_machine
    const char* const fallback = isatty(STDIN_FILENO) ? "terminal" : "none";

    const struct {
        const char* what;
        std::function<void()> make;
        const char* reason;
    } cases[] = {
        {"missing", [] {}, "missing"},
        {"a text file", [&] { kestrun_test::WriteFile(module, "not a library\n"); }, "not a shared object"},
        {"a folder", [&] { fs::create_directories(module); }, "not a regular file"},
        {"a named pipe", [&] { ASSERT_EQ(mkfifo(module.c_str(), 0600), 0); }, "not a regular file"},
        {"a copy cut to 4 KiB", [&] { kestrun_test::WriteFile(module, moduleBytes.substr(0, 4096)); },
         "cut short"},
        {"a module of another machine", [&] { kestrun_test::WriteFile(module, otherMachine); },
         "another machine"},
        {"another library", [&] { fs::copy_file(PLAT_TEST_OTHER_LIBRARY, module); }, "no PlatGtkBackend"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::create_directories(bundle.PlugIns());
        c.make();
        std::string said = AcquireGtk();
        EXPECT_STREQ(PlatGetBackendName(), fallback);
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
        EXPECT_NE(said.find(module), std::string::npos) << said;
        EXPECT_NE(said.find(c.reason), std::string::npos) << said;
        fs::remove_all(bundle.PlugIns());
    }

    // The same module whole is taken, and says nothing.
    kestrun_test::WriteFile(module, moduleBytes);
    EXPECT_EQ(AcquireGtk(), "");
    EXPECT_STREQ(PlatGetBackendName(), "test-module");
    PlatSetBackend(nullptr);
}
