/* What the window tests need of a real X server: one Xvfb per test binary, finding
 * windows by title, the user's keyboard, pointer and close box, and screenshots. */
#ifndef TESTS_GTK_DISPLAYTEST_H
#define TESTS_GTK_DISPLAYTEST_H

#include <string>
#include <vector>

namespace display {

/* Starts Xvfb on a free display before the first test and stops it after the last;
 * DISPLAY names it in between. Register with testing::AddGlobalTestEnvironment. */
void StartServer();
void StopServer();

/* Runs a shell command line; its standard output, or "" when it failed to start. */
std::string Capture(const std::string& command, int* status = nullptr);
std::string Quote(const std::string& text); // one shell word

/* The visible window whose title is exactly title, polled every 20 ms; 0 if none
 * appeared within timeoutMs. */
unsigned long WaitForWindow(const std::string& title, int timeoutMs);
/* True once no visible window has that title any more, within timeoutMs. */
bool WaitForNoWindow(const std::string& title, int timeoutMs);
/* Whether the X window exists (mapped or not). */
bool WindowExists(unsigned long window);
bool WindowSize(unsigned long window, int* width, int* height);

void PressReturn(unsigned long window);         // focus it, then Return
void Click(unsigned long window, int x, int y); // left button at window coordinates
void PressCloseBox(unsigned long window);       // WM_DELETE_WINDOW, as a window manager sends it

/* An RGBA picture, read from a PNG file. */
struct Picture {
    int width = 0, height = 0;
    std::vector<unsigned char> rgba;
    const unsigned char* At(int x, int y) const { return &rgba[(static_cast<size_t>(y) * width + x) * 4]; }
};
bool ReadPng(const std::string& path, Picture* picture);
/* Saves the window's contents as a PNG file (after the window has drawn itself). */
bool Screenshot(unsigned long window, const std::string& path);

/* Pixels inside the rectangle whose colour lies within tolerance of rgb. */
int CountColour(const Picture& picture, int x, int y, int width, int height, const unsigned char rgb[3],
                int tolerance);
/* Pixels inside the rectangle darker than the given level on every channel (text). */
int CountDark(const Picture& picture, int x, int y, int width, int height, int level);

} // namespace display

#endif
