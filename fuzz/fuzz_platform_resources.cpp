// The bundle resources the launcher reads, fuzzed: string tables, nibs (objects.xib), and text
// conversions. Input: one byte choosing the reader, then that reader's bytes.
#include <Carbon/Carbon.h>
#include <PlatformTesting.h>

#include "cf/PlatCF.h"

#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace {

std::filesystem::path g_bundle;

void WriteNib(const uint8_t* data, size_t size) {
    std::ofstream(g_bundle / "Contents/Resources/en.lproj/main.nib/objects.xib",
                  std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

// Every window a fuzzed nib can name is built, searched and disposed of.
void FuzzNib(const uint8_t* data, size_t size) {
    WriteNib(data, size);
    IBNibRef nib = nullptr;
    if (CreateNibReference(CFSTR("main"), &nib) != noErr) {
        if (nib != nullptr) {
            abort(); // a failed reference must not be handed out
        }
        return;
    }
    static const char* const kWindows[] = {"MessageBox", "ProgressWindow", "MainWindow",
                                           "W",          "Files Owner",    ""};
    for (const char* name : kWindows) {
        CFStringRef title = CFStringCreateWithCString(nullptr, name, kCFStringEncodingUTF8);
        WindowRef window = nullptr;
        OSStatus status = CreateWindowFromNib(nib, title, &window);
        CFRelease(title);
        if (status != noErr) {
            if (window != nullptr) {
                abort();
            }
            continue;
        }
        static const ControlID kIds[] = {{'MSG1', 1}, {'YES1', 1}, {'NO11', 1}, {'copy', 1}, {0, 0}};
        for (const ControlID& id : kIds) {
            ControlRef control = nullptr;
            if (GetControlByID(window, &id, &control) == noErr) {
                CFStringRef text = CFSTR("text");
                SetControlData(control, kControlEditTextPart, kControlStaticTextCFStringTag, sizeof text,
                               &text);
            }
        }
        ShowWindow(window);
        DisposeWindow(window);
    }
    DisposeNibReference(nib);
}

// A string table either parses or is refused; never more.
void FuzzStrings(const uint8_t* data, size_t size) {
    PlatCFStringsTable table;
    PlatCFParseStringsTable(std::string_view(reinterpret_cast<const char*>(data), size), table);
}

// Bytes to a string and back, in both encodings: a conversion either fails or gives a
// terminated text that fits the buffer.
void FuzzText(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    for (CFStringEncoding in : {kCFStringEncodingMacRoman, kCFStringEncodingUTF8}) {
        CFStringRef text = CFStringCreateWithCString(nullptr, bytes.c_str(), in);
        if (text == nullptr) {
            continue;
        }
        for (CFIndex capacity : {CFIndex(1), CFIndex(8), CFIndex(4 * size + 1)}) {
            std::string buffer(static_cast<size_t>(capacity), '\x7f');
            for (CFStringEncoding out : {kCFStringEncodingMacRoman, kCFStringEncodingUTF8}) {
                if (CFStringGetCString(text, buffer.data(), capacity, out) &&
                    buffer.find('\0') == std::string::npos) {
                    abort();
                }
            }
        }
        CFRelease(text);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_bundle = std::filesystem::temp_directory_path() / ("fuzz_resources-" + std::to_string(getpid()));
    std::filesystem::create_directories(g_bundle / "Contents/Linux");
    std::filesystem::create_directories(g_bundle / "Contents/Resources/en.lproj/main.nib");
    PlatSetExecutablePath((g_bundle / "Contents/Linux/Launcher").c_str());
    PlatSetBackend("scripted");
    atexit([] {
        std::error_code error;
        std::filesystem::remove_all(g_bundle, error);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    switch (data[0] % 3) {
    case 0:
        FuzzStrings(data + 1, size - 1);
        break;
    case 1:
        FuzzNib(data + 1, size - 1);
        break;
    default:
        FuzzText(data + 1, size - 1);
        break;
    }
    return 0;
}
