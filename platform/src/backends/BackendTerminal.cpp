/* The terminal backend, for a user at a text terminal with no display: the
 * topmost shown window is drawn as text (its title, static texts, a moving line
 * for each progress indicator, its buttons' captions and a prompt), and a typed
 * line presses a button when it is the button's caption, ignoring case, or its
 * first letter; an empty line presses the default button. End of input (Ctrl-D)
 * is the close box. Each frame goes out in one write. */
#include "events/EventInternal.h"
#include "backends/PlatBackend.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFrameInterval = std::chrono::milliseconds(100);
constexpr size_t kBarCells = 30;
constexpr size_t kBarBlock = 6;
constexpr size_t kMaxLine = 4096;

/* The terminal's state; main thread only, except the wake-up descriptor. */
struct Terminal {
    std::vector<WindowRef> shown; /* visible windows, topmost last */
    std::string pending;          /* typed text not yet ended by a new line */
    bool inputEnded = false;
    /* progress lines of the drawn window, as lines above the cursor */
    std::vector<int> barsUp;
    unsigned frame = 0;
    Clock::time_point nextFrame;
};

Terminal& T() {
    static Terminal* terminal = new Terminal;
    return *terminal;
}

int WakeFd() {
    static int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

/* Standard output when it is the terminal, else the terminal on standard input. */
int OutFd() {
    return isatty(STDOUT_FILENO) ? STDOUT_FILENO : STDIN_FILENO;
}

void WriteAll(const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = write(OutFd(), p, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return; /* the terminal went away; nobody can see it now */
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

/* Lines the cursor moved down since the window was drawn keep its progress lines
 * where they are. */
void ShiftBars(size_t lines) {
    for (int& up : T().barsUp) {
        up += static_cast<int>(lines);
    }
}

void Emit(const std::string& text) {
    WriteAll(text);
    ShiftBars(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')));
}

size_t Columns() {
    struct winsize size {};
    if (ioctl(OutFd(), TIOCGWINSZ, &size) == 0 && size.ws_col >= 24) {
        return std::min<size_t>(size.ws_col - 1, 78);
    }
    return 78;
}

bool Echoes() {
    struct termios mode;
    return tcgetattr(STDIN_FILENO, &mode) == 0 && (mode.c_lflag & ECHO) != 0;
}

bool IsContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

size_t CodePoints(const std::string& s) {
    return static_cast<size_t>(std::count_if(s.begin(), s.end(), [](char c) { return !IsContinuation(c); }));
}

/* Byte length of the first n code points of s. */
size_t PrefixBytes(const std::string& s, size_t n) {
    size_t i = 0;
    for (size_t seen = 0; i < s.size(); i++) {
        if (!IsContinuation(static_cast<unsigned char>(s[i])) && seen++ == n) {
            break;
        }
    }
    return i;
}

/* Word-wraps text into lines of at most width code points. */
void Wrap(const std::string& text, size_t width, std::vector<std::string>& lines) {
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        std::string paragraph =
            text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::string line;
        size_t pos = 0;
        while (pos < paragraph.size()) {
            size_t wordEnd = paragraph.find(' ', pos);
            std::string word =
                paragraph.substr(pos, wordEnd == std::string::npos ? std::string::npos : wordEnd - pos);
            pos = wordEnd == std::string::npos ? paragraph.size() : wordEnd + 1;
            while (CodePoints(word) > width) {
                if (!line.empty()) {
                    lines.push_back(line);
                    line.clear();
                }
                size_t cut = PrefixBytes(word, width);
                lines.push_back(word.substr(0, cut));
                word.erase(0, cut);
            }
            if (!line.empty() && CodePoints(line) + 1 + CodePoints(word) > width) {
                lines.push_back(line);
                line.clear();
            }
            line += line.empty() ? word : " " + word;
        }
        lines.push_back(line);
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
}

std::string Bar(unsigned frame) {
    /* a block that bounces between the ends */
    size_t travel = kBarCells - kBarBlock;
    size_t step = frame % (2 * travel);
    size_t at = step <= travel ? step : 2 * travel - step;
    std::string bar = "  [";
    bar.append(at, ' ');
    bar.append(kBarBlock, '=');
    bar.append(kBarCells - kBarBlock - at, ' ');
    bar += "]";
    return bar;
}

struct Button {
    ControlRef control;
    std::string caption;
    bool isDefault;
};

std::vector<Button> ButtonsOf(WindowRef window) {
    std::vector<Button> buttons;
    PlatWindowInfo info;
    if (!PlatGetWindowInfo(window, &info)) {
        return buttons;
    }
    for (size_t i = 0; i < info.controlCount; i++) {
        PlatControlInfo control;
        if (PlatGetControlInfo(window, i, &control) && control.kind == kPlatControlPushButton) {
            buttons.push_back(Button{control.control, control.text, control.isDefault != 0});
        }
    }
    return buttons;
}

std::string Prompt(WindowRef window) {
    std::vector<Button> buttons = ButtonsOf(window);
    PlatWindowInfo info;
    if (buttons.empty() || !PlatGetWindowInfo(window, &info)) {
        return std::string();
    }
    std::string prompt = "Type ";
    for (size_t i = 0; i < buttons.size(); i++) {
        prompt += i == 0 ? "" : i + 1 == buttons.size() ? " or " : ", ";
        prompt += buttons[i].caption;
    }
    prompt += " (or its first letter)";
    for (const Button& b : buttons) {
        if (b.isDefault) {
            prompt += ", Return for " + b.caption;
            break;
        }
    }
    if (info.hasCloseBox) {
        prompt += ", Ctrl-D to close";
    }
    return prompt + ": ";
}

/* The prompt wrapped to the terminal, or nothing for a window without buttons. */
std::vector<std::string> PromptLines(WindowRef window) {
    std::vector<std::string> lines;
    std::string prompt = Prompt(window);
    if (!prompt.empty()) {
        Wrap(prompt, Columns(), lines);
    }
    return lines;
}

/* Draws the window whole, and starts animating its progress lines. */
void Draw(WindowRef window) {
    PlatWindowInfo info;
    T().barsUp.clear();
    if (!PlatGetWindowInfo(window, &info)) {
        return;
    }
    size_t width = Columns();
    std::vector<PlatControlInfo> controls;
    for (size_t i = 0; i < info.controlCount; i++) {
        PlatControlInfo control;
        if (PlatGetControlInfo(window, i, &control)) {
            controls.push_back(control);
        }
    }
    /* reading order: top to bottom, then left to right */
    std::stable_sort(controls.begin(), controls.end(),
                     [](const PlatControlInfo& a, const PlatControlInfo& b) {
                         return a.frame.y != b.frame.y ? a.frame.y < b.frame.y : a.frame.x < b.frame.x;
                     });

    std::vector<std::string> lines{""};
    Wrap("=== " + std::string(info.title) + " ===", width, lines);
    std::vector<size_t> bars;
    std::string buttons;
    for (const PlatControlInfo& c : controls) {
        if (c.kind == kPlatControlStaticText) {
            Wrap(c.text, width, lines);
        } else if (c.kind == kPlatControlProgressIndicator) {
            bars.push_back(lines.size());
            lines.push_back(Bar(0));
        } else if (c.kind == kPlatControlPushButton) {
            buttons += std::string(buttons.empty() ? "" : "  ") + "[ " + c.text + " ]";
        }
    }
    if (!buttons.empty()) {
        Wrap(buttons, width, lines);
    }
    std::vector<std::string> promptLines = PromptLines(window);

    std::string frame;
    for (const std::string& line : lines) {
        frame += line + "\n";
    }
    for (size_t i = 0; i < promptLines.size(); i++) {
        frame += promptLines[i] + (i + 1 < promptLines.size() ? "\n" : " ");
    }
    /* the cursor ends on the last prompt line, or on the line after the frame */
    size_t cursorLine = lines.size() + (promptLines.empty() ? 0 : promptLines.size() - 1);
    for (size_t bar : bars) {
        T().barsUp.push_back(static_cast<int>(cursorLine - bar));
    }
    T().frame = 0;
    T().nextFrame = Clock::now() + kFrameInterval;
    WriteAll(frame);
}

void DrawProgressFrame() {
    T().frame++;
    std::string frame = "\0337"; /* keep the cursor where the user types */
    for (int up : T().barsUp) {
        frame += "\0338\033[" + std::to_string(up) + "A\r" + Bar(T().frame);
    }
    frame += "\0338";
    WriteAll(frame);
}

WindowRef Top() {
    return T().shown.empty() ? nullptr : T().shown.back();
}

void Forget(WindowRef window) {
    bool wasTop = Top() == window;
    T().shown.erase(std::remove(T().shown.begin(), T().shown.end(), window), T().shown.end());
    if (wasTop) {
        T().barsUp.clear();
        if (Top() != nullptr) {
            Draw(Top());
        }
    }
}

bool SameIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string Trimmed(const std::string& s) {
    size_t first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

/* A typed line: presses the button it names, if exactly one; true when it did. */
bool Answer(const std::string& typed) {
    WindowRef window = Top();
    if (window == nullptr) {
        return false; /* nothing asks anything */
    }
    std::vector<Button> buttons = ButtonsOf(window);
    if (buttons.empty()) {
        return false;
    }
    std::string line = Trimmed(typed);
    std::vector<const Button*> named;
    for (const Button& b : buttons) {
        if (line.empty() ? b.isDefault : SameIgnoringCase(line, b.caption)) {
            named.push_back(&b);
        }
    }
    if (named.empty() && CodePoints(line) == 1) {
        for (const Button& b : buttons) {
            if (SameIgnoringCase(line, b.caption.substr(0, PrefixBytes(b.caption, 1)))) {
                named.push_back(&b);
            }
        }
    }
    if (named.size() == 1) {
        PlatPostControlHit(named.front()->control);
        return true;
    }
    std::string again = named.empty()
                            ? "No button is called \"" + line + "\"."
                            : "More than one button begins with \"" + line + "\"; type the whole name.";
    std::vector<std::string> promptLines = PromptLines(window);
    for (size_t i = 0; i < promptLines.size(); i++) {
        again += "\n" + promptLines[i];
    }
    Emit(again + " ");
    return false;
}

/* Ctrl-D: the close box, unless the last line typed already answered. */
void EndOfInput(bool answered) {
    T().inputEnded = true;
    PlatWindowInfo info;
    if (!answered && Top() != nullptr && PlatGetWindowInfo(Top(), &info) && info.hasCloseBox) {
        Emit("\n");
        PlatPostWindowClose(Top());
    }
}

void ReadInput() {
    char buffer[512];
    ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (n <= 0) {
        std::string last;
        last.swap(T().pending);
        EndOfInput(!last.empty() && Answer(last));
        return;
    }
    if (T().pending.size() > kMaxLine) {
        T().pending.clear(); /* nobody types this much: not an answer */
    }
    T().pending.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = T().pending.find('\n')) != std::string::npos) {
        std::string line = T().pending.substr(0, end);
        T().pending.erase(0, end + 1);
        if (Echoes()) {
            ShiftBars(1); /* the terminal echoed the user's new line */
        }
        Answer(line);
    }
}

OSStatus TerminalCreateWindow(WindowRef) {
    return noErr;
}

void TerminalShowWindow(WindowRef window) {
    T().shown.erase(std::remove(T().shown.begin(), T().shown.end(), window), T().shown.end());
    T().shown.push_back(window);
    Draw(window);
    PlatWindowInfo info;
    /* with input over, nobody can answer but through the close box */
    if (T().inputEnded && PlatGetWindowInfo(window, &info) && info.hasCloseBox) {
        PlatPostWindowClose(window);
    }
}

void TerminalHideWindow(WindowRef window) {
    Forget(window);
}

void TerminalDisposeWindow(WindowRef window) {
    Forget(window);
}

void TerminalControlChanged(WindowRef window, ControlRef) {
    if (window == Top()) {
        Draw(window);
    }
}

void TerminalPump(int timeoutMs) {
    int timeout = timeoutMs;
    if (!T().barsUp.empty()) {
        auto untilFrame = std::chrono::duration_cast<std::chrono::milliseconds>(T().nextFrame - Clock::now());
        int frameMs = static_cast<int>(std::max<long long>(0, untilFrame.count()));
        timeout = timeout < 0 ? frameMs : std::min(timeout, frameMs);
    }
    struct pollfd fds[2] = {{WakeFd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    nfds_t count = T().inputEnded ? 1 : 2;
    if (poll(fds, count, timeout) > 0) {
        if (fds[0].revents & POLLIN) {
            uint64_t value;
            (void)!read(WakeFd(), &value, sizeof value);
        }
        if (count == 2 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            ReadInput();
        }
    }
    if (!T().barsUp.empty() && Clock::now() >= T().nextFrame) {
        DrawProgressFrame();
        T().nextFrame += kFrameInterval;
        if (T().nextFrame < Clock::now()) {
            T().nextFrame = Clock::now() + kFrameInterval; /* fell behind: do not catch up */
        }
    }
}

void TerminalWake() {
    uint64_t one = 1;
    (void)!write(WakeFd(), &one, sizeof one);
}

} // namespace

const PlatBackendOps gPlatTerminalBackend = {
    "terminal",         TerminalCreateWindow,  TerminalShowWindow,
    TerminalHideWindow, TerminalDisposeWindow, TerminalControlChanged,
    TerminalPump,       TerminalWake,
};
