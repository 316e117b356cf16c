#include "DisplayTest.h"

#include <X11/Xlib.h>
#include <png.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace display {

namespace {

pid_t gServer = -1;

constexpr int kPollMs = 20;

using Clock = std::chrono::steady_clock;

// A title as an anchored xdotool regular expression.
std::string ExactTitle(const std::string& title) {
    std::string pattern = "^";
    for (char c : title) {
        if (std::strchr("\\^$.|?*+()[]{}", c))
            pattern += '\\';
        pattern += c;
    }
    return pattern + "$";
}

int IgnoreXErrors(Display*, XErrorEvent*) {
    return 0;
}

} // namespace

void StartServer() {
    int fds[2];
    if (pipe(fds) != 0)
        throw std::runtime_error("pipe failed");
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        // The server goes with the test binary, however that ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(fds[1], 1);
        int null = open("/dev/null", 0);
        if (null >= 0)
            dup2(null, 2);
        close(fds[0]);
        close(fds[1]);
        execlp("Xvfb", "Xvfb", "-displayfd", "1", "-noreset", "-screen", "0", "1280x1024x24", "-nolisten",
               "tcp", "-extension", "GLX", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    gServer = pid;
    std::string number;
    pollfd waitFor{fds[0], POLLIN, 0};
    while (poll(&waitFor, 1, 10000) > 0) {
        char c;
        if (read(fds[0], &c, 1) != 1 || c == '\n')
            break;
        number += c;
    }
    close(fds[0]);
    if (number.empty()) {
        StopServer();
        throw std::runtime_error("Xvfb did not start");
    }
    setenv("DISPLAY", (":" + number).c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
    // No accessibility bus runs here; GTK would only warn about it.
    setenv("NO_AT_BRIDGE", "1", 1);
}

void StopServer() {
    if (gServer > 0) {
        kill(gServer, SIGTERM);
        waitpid(gServer, nullptr, 0);
        gServer = -1;
    }
}

std::string Capture(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        if (status)
            *status = -1;
        return output;
    }
    char buffer[256];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.append(buffer, n);
    int result = pclose(pipe);
    if (status)
        *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    return output;
}

std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

unsigned long WaitForWindow(const std::string& title, int timeoutMs) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const std::string command =
        "xdotool search --onlyvisible --name " + Quote(ExactTitle(title)) + " 2>/dev/null";
    do {
        std::string found = Capture(command);
        if (!found.empty())
            return std::strtoul(found.c_str(), nullptr, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    } while (Clock::now() < end);
    return 0;
}

bool WaitForNoWindow(const std::string& title, int timeoutMs) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const std::string command =
        "xdotool search --onlyvisible --name " + Quote(ExactTitle(title)) + " 2>/dev/null";
    do {
        if (Capture(command).empty())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    } while (Clock::now() < end);
    return false;
}

bool WindowSize(unsigned long window, int* width, int* height) {
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return false;
    auto previous = XSetErrorHandler(IgnoreXErrors);
    XWindowAttributes attributes;
    bool exists = XGetWindowAttributes(display, window, &attributes) != 0;
    XSync(display, False);
    XSetErrorHandler(previous);
    XCloseDisplay(display);
    if (exists && width && height) {
        *width = attributes.width;
        *height = attributes.height;
    }
    return exists;
}

bool WindowExists(unsigned long window) {
    return WindowSize(window, nullptr, nullptr);
}

void PressReturn(unsigned long window) {
    std::string id = std::to_string(window);
    Capture("xdotool windowfocus --sync " + id + " >/dev/null 2>&1; xdotool key Return >/dev/null 2>&1");
}

void Click(unsigned long window, int x, int y) {
    Capture("xdotool mousemove --window " + std::to_string(window) + " " + std::to_string(x) + " " +
            std::to_string(y) + " click 1 >/dev/null 2>&1");
}

void PressCloseBox(unsigned long window) {
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return;
    XEvent event;
    std::memset(&event, 0, sizeof event);
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    auto previous = XSetErrorHandler(IgnoreXErrors);
    XSendEvent(display, window, False, NoEventMask, &event);
    XSync(display, False);
    XSetErrorHandler(previous);
    XCloseDisplay(display);
}

bool ReadPng(const std::string& path, Picture* picture) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return false;
    image.format = PNG_FORMAT_RGBA;
    picture->width = static_cast<int>(image.width);
    picture->height = static_cast<int>(image.height);
    picture->rgba.assign(PNG_IMAGE_SIZE(image), 0);
    if (!png_image_finish_read(&image, nullptr, picture->rgba.data(), 0, nullptr)) {
        png_image_free(&image);
        return false;
    }
    return true;
}

bool Screenshot(unsigned long window, const std::string& path) {
    int status = -1;
    Capture("import -window " + std::to_string(window) + " " + Quote(path) + " 2>/dev/null", &status);
    return status == 0;
}

int CountColour(const Picture& picture, int x, int y, int width, int height, const unsigned char rgb[3],
                int tolerance) {
    int count = 0;
    for (int row = std::max(y, 0); row < std::min(y + height, picture.height); ++row)
        for (int column = std::max(x, 0); column < std::min(x + width, picture.width); ++column) {
            const unsigned char* p = picture.At(column, row);
            if (std::abs(p[0] - rgb[0]) <= tolerance && std::abs(p[1] - rgb[1]) <= tolerance &&
                std::abs(p[2] - rgb[2]) <= tolerance)
                ++count;
        }
    return count;
}

int CountDark(const Picture& picture, int x, int y, int width, int height, int level) {
    int count = 0;
    for (int row = std::max(y, 0); row < std::min(y + height, picture.height); ++row)
        for (int column = std::max(x, 0); column < std::min(x + width, picture.width); ++column) {
            const unsigned char* p = picture.At(column, row);
            if (p[0] < level && p[1] < level && p[2] < level)
                ++count;
        }
    return count;
}

} // namespace display
