// The terminal backend drawing a window whose text has no blank to wrap at, on a
// pseudo-terminal: 10,000 and 100,000 characters. Wrapping is one pass over the text,
// so "ratio" (time per character of the long text over that of the short one) should
// stay at about 1; a wrap that measures the rest of the text at each cut reads 10.
#include <benchmark/benchmark.h>

#include <Carbon/Carbon.h>
#include <PlatformTesting.h>

#include <pty.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;

const char kNib[] = R"(<?xml version="1.0" standalone="yes"?>
<object class="NSIBObjectData">
<string name="targetFramework">IBCarbonFramework</string>
<object name="rootObject" class="NSCustomObject" id="1"/>
<array name="allObjects"><object class="IBCarbonWindow" id="10">
<string name="windowRect">100 100 250 500 </string><string name="title">Wrap</string>
<object name="rootControl" class="IBCarbonRootControl"><array name="subviews">
<object class="IBCarbonStaticText"><string name="bounds">10 10 50 390 </string>
<ostype name="controlSignature">MSG1</ostype><int name="controlID">1</int></object>
</array></object></object></array>
<array name="allParents"><reference idRef="1"/></array>
<dictionary name="nameTable"><string>W</string><reference idRef="10"/></dictionary>
</object>
)";

// Seconds to draw the window with a text of that many characters and no blank.
double DrawSeconds(ControlRef text, size_t characters) {
    std::string letters(characters, 'x');
    CFStringRef value = CFStringCreateWithCString(nullptr, letters.c_str(), kCFStringEncodingUTF8);
    auto start = std::chrono::steady_clock::now();
    SetControlData(text, kControlEntireControl, kControlStaticTextCFStringTag, sizeof value, &value);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    CFRelease(value);
    return seconds;
}

void BM_TerminalWrapIsLinear(benchmark::State& state) {
    // A bundle with the nib, and a pseudo-terminal as standard input and output whose
    // screen a thread reads away.
    fs::path bundle = fs::temp_directory_path() / ("bench-wrap-" + std::to_string(getpid()) + ".app");
    fs::create_directories(bundle / "Contents/MacOS");
    fs::create_directories(bundle / "Contents/Resources/en.lproj/main.nib");
    std::ofstream(bundle / "Contents/Resources/en.lproj/main.nib/objects.xib") << kNib;
    PlatSetExecutablePath((bundle / "Contents/MacOS/bench").c_str());
    int screen = -1, terminal = -1;
    if (openpty(&screen, &terminal, nullptr, nullptr, nullptr) != 0) {
        state.SkipWithError("no pseudo-terminal");
        return;
    }
    std::thread reader([screen] {
        char buffer[65536];
        while (read(screen, buffer, sizeof buffer) > 0) {
        }
    });
    int savedIn = dup(STDIN_FILENO), savedOut = dup(STDOUT_FILENO);
    dup2(terminal, STDIN_FILENO);
    dup2(terminal, STDOUT_FILENO);

    PlatSetBackend("terminal");
    IBNibRef nib = nullptr;
    WindowRef window = nullptr;
    ControlRef text = nullptr;
    const ControlID id = {'MSG1', 1};
    if (CreateNibReference(CFSTR("main"), &nib) == noErr &&
        CreateWindowFromNib(nib, CFSTR("W"), &window) == noErr &&
        GetControlByID(window, &id, &text) == noErr) {
        ShowWindow(window);
        double shortSeconds = 0, longSeconds = 0;
        for (auto _ : state) {
            shortSeconds += DrawSeconds(text, 10000);
            longSeconds += DrawSeconds(text, 100000);
        }
        state.counters["ratio"] = (longSeconds / 100000) / (shortSeconds / 10000);
    } else {
        state.SkipWithError("no window");
    }
    DisposeWindow(window);
    DisposeNibReference(nib);

    dup2(savedIn, STDIN_FILENO);
    dup2(savedOut, STDOUT_FILENO);
    close(savedIn);
    close(savedOut);
    close(terminal);
    close(screen);
    reader.join();
    fs::remove_all(bundle);
}
BENCHMARK(BM_TerminalWrapIsLinear)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
