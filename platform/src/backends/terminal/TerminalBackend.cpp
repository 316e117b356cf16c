/* The terminal backend, for a user at a text terminal with no display: the
 * topmost shown window is drawn as text (its title, static texts, a moving line
 * for each progress indicator, its buttons' captions and a prompt in the user's
 * language). While a window with buttons is on top the backend reads keys itself:
 * a typed line presses a button when it is the button's caption, ignoring case,
 * or its first letter; Return alone presses the default button, Escape (or
 * Ctrl-.) the cancel button. End of input (Ctrl-D, or a terminal that hangs up)
 * is the close box. Each frame goes out in one write. */
#include "backends/PlatBackend.h"
#include "backends/terminal/TerminalText.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
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
/* An Escape key sends ESC alone; a longer key sends ESC and more at once. */
constexpr int kEscapeWaitMs = 30;

/* The terminal's state; main thread only, except the wake-up descriptor. */
struct Terminal {
    std::vector<WindowRef> shown; /* visible windows, topmost last */
    std::string pending;          /* typed text not yet ended by a new line */
    std::string sequence;         /* an escape sequence being read */
    bool inputEnded = false;
    bool keys = false; /* we read keys and echo them; the terminal's own mode is saved */
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

/* The code points of UTF-8 text; a stray byte counts as one. */
std::vector<char32_t> Decode(const std::string& s) {
    std::vector<char32_t> points;
    for (size_t i = 0; i < s.size();) {
        unsigned char lead = static_cast<unsigned char>(s[i]);
        size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        char32_t point = length == 1 ? lead : lead & (0x3F >> (length - 1));
        size_t n = 1;
        while (n < length && i + n < s.size() && IsContinuation(static_cast<unsigned char>(s[i + n]))) {
            point = (point << 6) | (static_cast<unsigned char>(s[i + n]) & 0x3F);
            n++;
        }
        points.push_back(n == length ? point : lead);
        i += n;
    }
    return points;
}

/* Columns a code point takes: two for the wide characters of East Asian scripts. */
size_t ColumnsOf(char32_t c) {
    bool wide = (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF && c != 0x303F) ||
                (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
                (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
                (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x20000 && c <= 0x3FFFD);
    return wide ? 2 : 1;
}

size_t TextColumns(const std::string& s) {
    size_t columns = 0;
    for (char32_t c : Decode(s)) {
        columns += ColumnsOf(c);
    }
    return columns;
}

/* Byte length of the longest start of s that takes at most n columns, but at
 * least one code point. */
size_t PrefixBytes(const std::string& s, size_t n) {
    size_t i = 0, columns = 0;
    while (i < s.size()) {
        size_t next = i + 1;
        while (next < s.size() && IsContinuation(static_cast<unsigned char>(s[next]))) {
            next++;
        }
        columns += TextColumns(s.substr(i, next - i));
        if (columns > n && i > 0) {
            break;
        }
        i = next;
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
            while (TextColumns(word) > width) {
                if (!line.empty()) {
                    lines.push_back(line);
                    line.clear();
                }
                size_t cut = PrefixBytes(word, width);
                lines.push_back(word.substr(0, cut));
                word.erase(0, cut);
            }
            if (!line.empty() && TextColumns(line) + 1 + TextColumns(word) > width) {
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
    bool isCancel;
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
            buttons.push_back(
                Button{control.control, control.text, control.isDefault != 0, control.isCancel != 0});
        }
    }
    return buttons;
}

/* The text with %1 and %2 replaced; what is put in is not looked at again. */
std::string Fill(const char* pattern, const std::string& first, const std::string& second = "") {
    std::string text;
    for (const char* p = pattern; *p != '\0'; p++) {
        if (p[0] == '%' && (p[1] == '1' || p[1] == '2')) {
            text += p[1] == '1' ? first : second;
            p++;
        } else {
            text += *p;
        }
    }
    return text;
}

std::string Answers(const std::vector<Button>& buttons) {
    std::string list;
    for (const Button& b : buttons) {
        list += (list.empty() ? "" : plat::CurrentTerminalText().answerSeparator) + b.caption;
    }
    return list;
}

/* The keys that answer for the window: Return, Escape, end of input. */
std::string Hints(WindowRef window) {
    std::vector<Button> buttons = ButtonsOf(window);
    PlatWindowInfo info;
    if (buttons.empty() || !PlatGetWindowInfo(window, &info)) {
        return std::string();
    }
    const plat::TerminalText& words = plat::CurrentTerminalText();
    std::string hints;
    auto hint = [&](const std::string& text) { hints += (hints.empty() ? "" : words.hintSeparator) + text; };
    for (const Button& b : buttons) {
        if (b.isDefault) {
            hint(Fill(words.returnHint, b.caption));
            break;
        }
    }
    for (const Button& b : buttons) {
        if (b.isCancel) {
            hint(Fill(words.escapeHint, b.caption));
            break;
        }
    }
    if (info.hasCloseBox) {
        hint(words.closeHint);
    }
    return hints;
}

/* The prompt wrapped to the terminal, or nothing for a window without buttons. */
std::vector<std::string> PromptLines(WindowRef window) {
    std::vector<std::string> lines;
    if (!ButtonsOf(window).empty()) {
        Wrap(plat::CurrentTerminalText().prompt, Columns(), lines);
        if (lines.back().empty() || lines.back().back() != ' ') {
            lines.back() += ' '; /* the answer does not touch the prompt */
        }
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
    std::string hints = Hints(window);
    if (!hints.empty()) {
        Wrap(hints, width, lines);
    }
    std::vector<std::string> promptLines = PromptLines(window);

    std::string frame;
    for (const std::string& line : lines) {
        frame += line + "\n";
    }
    for (size_t i = 0; i < promptLines.size(); i++) {
        frame += promptLines[i] + (i + 1 < promptLines.size() ? "\n" : "");
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

/* ---- Reading keys ---- */

/* The terminal's mode before we took its keys; restored however the process ends. */
struct termios gSavedMode;
volatile sig_atomic_t gModeSaved = 0;
volatile sig_atomic_t gKeysTaken = 0;
volatile sig_atomic_t gHungUp = 0;

void RestoreMode() {
    if (gKeysTaken) {
        tcsetattr(STDIN_FILENO, TCSANOW, &gSavedMode);
        gKeysTaken = 0;
    }
}

/* A signal that ends the process leaves the terminal as it found it. */
void OnEndingSignal(int signal) {
    RestoreMode();
    ::signal(signal, SIG_DFL);
    raise(signal);
}

/* A terminal that hangs up is the end of input, not the end of the process: the
 * close box is answered, and the program goes on to its own end. */
void OnHangUp(int) {
    gHungUp = 1;
    uint64_t one = 1;
    (void)!write(WakeFd(), &one, sizeof one);
}

void CatchIfDefault(int signal, void (*handler)(int)) {
    struct sigaction old;
    if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        sigaction(signal, &action, nullptr);
    }
}

/* Takes the terminal's keys while the top window has buttons, so that Escape
 * counts at once; gives them back otherwise. */
void UpdateKeyMode() {
    WindowRef top = T().shown.empty() ? nullptr : T().shown.back();
    bool want = top != nullptr && !T().inputEnded && !gHungUp && !ButtonsOf(top).empty();
    if (want == T().keys) {
        return;
    }
    if (!want) {
        RestoreMode();
        T().keys = false;
        return;
    }
    if (!gModeSaved) {
        if (tcgetattr(STDIN_FILENO, &gSavedMode) != 0) {
            return;
        }
        gModeSaved = 1;
        atexit(RestoreMode);
        for (int signal : {SIGINT, SIGTERM, SIGQUIT}) {
            CatchIfDefault(signal, OnEndingSignal);
        }
    }
    struct termios mode = gSavedMode;
    mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    mode.c_cc[VMIN] = 1;
    mode.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0) {
        gKeysTaken = 1;
        T().keys = true;
    }
}

void Forget(WindowRef window) {
    bool wasTop = Top() == window;
    T().shown.erase(std::remove(T().shown.begin(), T().shown.end(), window), T().shown.end());
    UpdateKeyMode();
    if (wasTop) {
        T().barsUp.clear();
        if (Top() != nullptr) {
            Draw(Top());
        }
    }
}

/* Lower case for the letters of the scripts the launcher speaks: Latin (with its
 * accented letters), Greek, Cyrillic and the full-width Latin of East Asian input. */
char32_t Folded(char32_t c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7) || (c >= 0x391 && c <= 0x3AB) ||
        (c >= 0x410 && c <= 0x42F) || (c >= 0xFF21 && c <= 0xFF3A)) {
        return c + 0x20;
    }
    if (c >= 0x400 && c <= 0x40F) {
        return c + 0x50;
    }
    bool evenUpper = (c >= 0x100 && c <= 0x137) || (c >= 0x14A && c <= 0x177) || (c >= 0x1E00 && c <= 0x1EFF);
    bool oddUpper = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
    if ((evenUpper && c % 2 == 0) || (oddUpper && c % 2 == 1)) {
        return c + 1;
    }
    return c == 0x178 ? 0xFF : c;
}

bool SameIgnoringCase(const std::string& a, const std::string& b) {
    std::vector<char32_t> x = Decode(a), y = Decode(b);
    return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(),
                                              [](char32_t p, char32_t q) { return Folded(p) == Folded(q); });
}

/* The first code point of text, as UTF-8. */
std::string FirstLetter(const std::string& text) {
    size_t end = text.empty() ? 0 : 1;
    while (end < text.size() && IsContinuation(static_cast<unsigned char>(text[end]))) {
        end++;
    }
    return text.substr(0, end);
}

std::string Trimmed(const std::string& s) {
    size_t first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

/* What was typed, safe to show: control characters are not sent back. */
std::string Shown(const std::string& typed) {
    std::string shown;
    for (char c : typed) {
        shown += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
    }
    return shown;
}

/* A reply to the user, then the prompt again on a line of its own. */
void AskAgain(WindowRef window, const std::string& reply) {
    std::string again = reply;
    for (const std::string& line : PromptLines(window)) {
        again += (again.empty() ? "" : "\n") + line;
    }
    Emit(again);
}

/* A typed line: presses the button it names, if exactly one; true when it did.
 * Return alone is the default button; a line of blanks names nothing. */
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
        if (typed.empty() ? b.isDefault : !line.empty() && SameIgnoringCase(line, b.caption)) {
            named.push_back(&b);
        }
    }
    if (named.empty() && !line.empty() && FirstLetter(line) == line) {
        for (const Button& b : buttons) {
            if (SameIgnoringCase(line, FirstLetter(b.caption))) {
                named.push_back(&b);
            }
        }
    }
    if (named.size() == 1) {
        PlatPostControlHit(named.front()->control);
        return true;
    }
    const plat::TerminalText& words = plat::CurrentTerminalText();
    std::string reply = line.empty()    ? std::string()
                        : named.empty() ? Fill(words.unknownAnswer, Shown(line), Answers(buttons))
                                        : Fill(words.ambiguousAnswer, Shown(line));
    AskAgain(window, reply);
    return false;
}

/* Escape: the cancel button, where the window has one. */
void Cancel() {
    if (Top() == nullptr) {
        return;
    }
    for (const Button& b : ButtonsOf(Top())) {
        if (b.isCancel) {
            Emit("\n");
            T().pending.clear();
            PlatPostControlHit(b.control);
            return;
        }
    }
}

/* Ctrl-D: the close box, unless the last line typed already answered. */
void EndOfInput(bool answered) {
    T().inputEnded = true;
    UpdateKeyMode();
    PlatWindowInfo info;
    if (!answered && Top() != nullptr && PlatGetWindowInfo(Top(), &info) && info.hasCloseBox) {
        Emit("\n");
        PlatPostWindowClose(Top());
    }
}

/* The end of a typed line: the kernel's or ours. */
void EndOfLine() {
    std::string line;
    line.swap(T().pending);
    if (T().keys) {
        Emit("\n");
    } else if (Echoes()) {
        ShiftBars(1); /* the terminal echoed the user's new line */
    }
    Answer(line);
}

/* An escape sequence is over: Ctrl-. (as terminals that report modified keys
 * send it) is Escape, keypad Enter is Return, anything else is no answer. */
void EndOfSequence() {
    std::string sequence;
    sequence.swap(T().sequence);
    if (sequence == "\033" || sequence == "\033[27;5;46~" || sequence == "\033[46;5u") {
        Cancel();
    } else if (sequence == "\033OM") {
        EndOfLine();
    }
}

bool InputWaiting(int timeoutMs) {
    struct pollfd input = {STDIN_FILENO, POLLIN, 0};
    return poll(&input, 1, timeoutMs) > 0;
}

/* One byte typed while we read keys ourselves: a small line editor. */
void Key(unsigned char c) {
    std::string& line = T().pending;
    if (c == '\r' || c == '\n') {
        EndOfLine();
    } else if (c == gSavedMode.c_cc[VEOF] && c != 0) {
        if (line.empty()) {
            EndOfInput(false);
        }
    } else if ((c == gSavedMode.c_cc[VERASE] && c != 0) || c == 0x7F || c == '\b') {
        if (!line.empty()) {
            size_t start = line.size() - 1;
            while (start > 0 && IsContinuation(static_cast<unsigned char>(line[start]))) {
                start--;
            }
            size_t columns = TextColumns(line.substr(start));
            line.erase(start);
            std::string erase;
            for (size_t i = 0; i < columns; i++) {
                erase += "\b \b";
            }
            WriteAll(erase);
        }
    } else if (c == gSavedMode.c_cc[VKILL] && c != 0) {
        std::string erase;
        for (size_t i = TextColumns(line); i > 0; i--) {
            erase += "\b \b";
        }
        line.clear();
        WriteAll(erase);
    } else if (c >= 0x20 && line.size() < kMaxLine) {
        line += static_cast<char>(c);
        WriteAll(std::string(1, static_cast<char>(c)));
    }
}

/* Bytes typed while we read keys ourselves. */
void Keys(const char* bytes, size_t count) {
    for (size_t i = 0; i < count && T().keys;) {
        unsigned char c = static_cast<unsigned char>(bytes[i]);
        std::string& sequence = T().sequence;
        if (sequence.empty()) {
            if (c == 0x1B) {
                sequence = "\033";
            } else {
                Key(c);
            }
        } else if (sequence.size() == 1 && c != '[' && c != 'O') {
            EndOfSequence(); /* ESC and another key: the Escape key, then that key */
            continue;
        } else {
            sequence += static_cast<char>(c);
            bool final = sequence.size() > 2 && (sequence[1] == 'O' || (c >= 0x40 && c <= 0x7E));
            if (final || sequence.size() > 32) {
                EndOfSequence();
            }
        }
        i++;
    }
    /* ESC with nothing after it is the Escape key itself */
    if (T().sequence == "\033" && !InputWaiting(kEscapeWaitMs)) {
        EndOfSequence();
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
        EndOfInput(!last.empty() && !T().keys && Answer(last));
        return;
    }
    if (T().keys) {
        Keys(buffer, static_cast<size_t>(n));
        return;
    }
    if (T().pending.size() > kMaxLine) {
        T().pending.clear(); /* nobody types this much: not an answer */
    }
    T().pending.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = T().pending.find('\n')) != std::string::npos) {
        std::string rest = T().pending.substr(end + 1);
        T().pending.erase(end);
        EndOfLine();
        T().pending = rest + T().pending;
    }
}

OSStatus TerminalCreateWindow(WindowRef) {
    CatchIfDefault(SIGHUP, OnHangUp);
    return noErr;
}

void TerminalShowWindow(WindowRef window) {
    T().shown.erase(std::remove(T().shown.begin(), T().shown.end(), window), T().shown.end());
    T().shown.push_back(window);
    UpdateKeyMode();
    Draw(window);
    PlatWindowInfo info;
    /* with input over, nobody can answer but through the close box */
    if (T().inputEnded && PlatGetWindowInfo(window, &info) && info.hasCloseBox) {
        PlatPostWindowClose(window);
    }
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
    if (gHungUp && !T().inputEnded) {
        T().pending.clear();
        EndOfInput(false);
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
    "terminal",   TerminalCreateWindow, TerminalShowWindow, TerminalDisposeWindow, TerminalControlChanged,
    TerminalPump, TerminalWake,
};
