/* The terminal backend, for a user at a text terminal with no display: the
 * topmost shown window is drawn as text (its title, static texts, a moving line
 * for each progress indicator, its buttons' captions and a prompt in the user's
 * language). While a window with buttons is on top the terminal reads whole lines
 * in its own line editing, with Escape ending a line too: a typed line presses a
 * button when it is the button's caption, ignoring case, or its first letter;
 * Return alone presses the default button, Escape the cancel button. End of input
 * (Ctrl-D, or a terminal that hangs up) is the close box. Each frame goes out in
 * one write. */
#include "backends/PlatBackend.h"
#include "backends/terminal/TerminalText.h"

#include <errno.h>
#include <langinfo.h>
#include <locale.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <wchar.h>
#include <wctype.h>

#include <algorithm>
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
constexpr char kEscape = '\033';

/* The terminal's state; main thread only, except the wake-up descriptor. */
struct Terminal {
    std::vector<WindowRef> shown; /* visible windows, topmost last */
    std::string pending;          /* typed text not yet ended by Return or Escape */
    bool inputEnded = false;
    bool linesTaken = false; /* the terminal is in our line mode; its own mode is saved */
    /* progress lines of the drawn window, as lines above the cursor */
    std::vector<int> barsUp;
    unsigned frame = 0;
    Clock::time_point nextFrame;
};

Terminal& TheTerminal() {
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
    for (int& up : TheTerminal().barsUp) {
        up += static_cast<int>(lines);
    }
}

void Emit(const std::string& text) {
    WriteAll(text);
    ShiftBars(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')));
}

size_t ScreenColumns() {
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

/* ---- Characters, under the user's locale ---- */

/* The user's character classes. Our words and the captions are UTF-8 whatever the
 * locale says, so a locale that is not installed or not UTF-8 reads as C.UTF-8. */
locale_t UserCharacters() {
    static locale_t characters = [] {
        locale_t user = newlocale(LC_CTYPE_MASK, "", nullptr);
        if (user != nullptr && strcmp(nl_langinfo_l(CODESET, user), "UTF-8") == 0) {
            return user;
        }
        if (user != nullptr) {
            freelocale(user);
        }
        return newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    }();
    return characters;
}

/* The user's characters for the life of the scope, on this thread only. */
class UserLocaleScope {
  public:
    UserLocaleScope() : previous_(UserCharacters() != nullptr ? uselocale(UserCharacters()) : nullptr) {}
    ~UserLocaleScope() {
        if (previous_ != nullptr) {
            uselocale(previous_);
        }
    }
    UserLocaleScope(const UserLocaleScope&) = delete;
    UserLocaleScope& operator=(const UserLocaleScope&) = delete;

  private:
    locale_t previous_;
};

/* Calls each(bytes, length, c) for the characters of text in turn; a byte that
 * starts no character is one of its own, which no real character equals. */
template <typename Each> void ForEachCharacter(const std::string& text, Each each) {
    UserLocaleScope scope;
    mbstate_t state{};
    for (size_t i = 0; i < text.size();) {
        wchar_t c = 0;
        size_t length = mbrtowc(&c, text.data() + i, text.size() - i, &state);
        if (length == static_cast<size_t>(-1) || length == static_cast<size_t>(-2)) {
            c = static_cast<wchar_t>(0xDC00 | static_cast<unsigned char>(text[i]));
            length = 1;
            state = mbstate_t{};
        } else if (length == 0) {
            length = 1;
        }
        each(text.data() + i, length, c);
        i += length;
    }
}

/* The characters of text, folded to lower case. */
std::wstring Folded(const std::string& text) {
    std::wstring folded;
    ForEachCharacter(text,
                     [&](const char*, size_t, wchar_t c) { folded += static_cast<wchar_t>(towlower(c)); });
    return folded;
}

/* Columns a character takes on the terminal: two for the wide ones of East Asian scripts. */
size_t ColumnsOf(wchar_t c) {
    int columns = wcwidth(c);
    return columns < 0 ? 1 : static_cast<size_t>(columns);
}

/* Word-wraps text into lines of at most width columns at its blanks; a word longer
 * than a line is cut, at least one character a line. One pass over the text. */
void Wrap(const std::string& text, size_t width, std::vector<std::string>& lines) {
    std::string line, word;
    size_t lineColumns = 0, wordColumns = 0;
    auto endLine = [&] {
        lines.push_back(line);
        line.clear();
        lineColumns = 0;
    };
    auto endWord = [&] {
        if (!line.empty() && lineColumns + 1 + wordColumns > width) {
            endLine();
        }
        if (!line.empty()) {
            line += ' ';
            lineColumns++;
        }
        line += word;
        lineColumns += wordColumns;
        word.clear();
        wordColumns = 0;
    };
    ForEachCharacter(text, [&](const char* bytes, size_t length, wchar_t c) {
        if (c == L'\n' || c == L' ') {
            endWord();
            if (c == L'\n') {
                endLine();
            }
            return;
        }
        size_t columns = ColumnsOf(c);
        if (!word.empty() && wordColumns + columns > width) {
            /* a word longer than a line: what fits is a line of its own */
            if (!line.empty()) {
                endLine();
            }
            lines.push_back(word);
            word.clear();
            wordColumns = 0;
        }
        word.append(bytes, length);
        wordColumns += columns;
    });
    endWord();
    endLine();
}

/* ---- Drawing ---- */

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
        list += (list.empty() ? "" : PlatCurrentTerminalText().answerSeparator) + b.caption;
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
    const PlatTerminalText& words = PlatCurrentTerminalText();
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
        Wrap(PlatCurrentTerminalText().prompt, ScreenColumns(), lines);
        if (lines.back().empty() || lines.back().back() != ' ') {
            lines.back() += ' '; /* the answer does not touch the prompt */
        }
    }
    return lines;
}

/* Draws the window whole, and starts animating its progress lines. */
void Draw(WindowRef window) {
    PlatWindowInfo info;
    TheTerminal().barsUp.clear();
    if (!PlatGetWindowInfo(window, &info)) {
        return;
    }
    size_t width = ScreenColumns();
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
        TheTerminal().barsUp.push_back(static_cast<int>(cursorLine - bar));
    }
    TheTerminal().frame = 0;
    TheTerminal().nextFrame = Clock::now() + kFrameInterval;
    WriteAll(frame);
}

void DrawProgressFrame() {
    TheTerminal().frame++;
    std::string frame = "\0337"; /* keep the cursor where the user types */
    for (int up : TheTerminal().barsUp) {
        frame += "\0338\033[" + std::to_string(up) + "A\r" + Bar(TheTerminal().frame);
    }
    frame += "\0338";
    WriteAll(frame);
}

WindowRef Top() {
    return TheTerminal().shown.empty() ? nullptr : TheTerminal().shown.back();
}

/* ---- Reading lines ---- */

/* The terminal's mode before we took its lines; restored however the process ends. */
struct termios gSavedMode;
volatile sig_atomic_t gModeSaved = 0;
volatile sig_atomic_t gLinesTaken = 0;
volatile sig_atomic_t gHungUp = 0;

void RestoreMode() {
    if (gLinesTaken) {
        tcsetattr(STDIN_FILENO, TCSANOW, &gSavedMode);
        gLinesTaken = 0;
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

/* While the top window has buttons the terminal edits lines itself, echoing them,
 * and Escape ends a line as Return does, so that it counts at once; otherwise the
 * terminal has its own mode back. */
void UpdateLineMode() {
    Terminal& terminal = TheTerminal();
    WindowRef top = Top();
    bool want = top != nullptr && !terminal.inputEnded && !gHungUp && !ButtonsOf(top).empty();
    if (want == terminal.linesTaken) {
        return;
    }
    if (!want) {
        RestoreMode();
        terminal.linesTaken = false;
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
    mode.c_lflag |= ICANON | ECHO | ECHOE | ECHOK;
    mode.c_iflag |= ICRNL;
    mode.c_cc[VEOL] = kEscape;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0) {
        gLinesTaken = 1;
        terminal.linesTaken = true;
    }
}

void Forget(WindowRef window) {
    bool wasTop = Top() == window;
    TheTerminal().shown.erase(std::remove(TheTerminal().shown.begin(), TheTerminal().shown.end(), window),
                              TheTerminal().shown.end());
    UpdateLineMode();
    if (wasTop) {
        TheTerminal().barsUp.clear();
        if (Top() != nullptr) {
            Draw(Top());
        }
    }
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
    std::wstring folded = Folded(line);
    std::vector<const Button*> named;
    for (const Button& b : buttons) {
        if (typed.empty() ? b.isDefault : !folded.empty() && folded == Folded(b.caption)) {
            named.push_back(&b);
        }
    }
    if (named.empty() && folded.size() == 1) {
        for (const Button& b : buttons) {
            if (Folded(b.caption).compare(0, 1, folded) == 0) {
                named.push_back(&b);
            }
        }
    }
    if (named.size() == 1) {
        PlatPostControlHit(named.front()->control);
        return true;
    }
    const PlatTerminalText& words = PlatCurrentTerminalText();
    std::string reply = line.empty()    ? std::string()
                        : named.empty() ? Fill(words.unknownAnswer, Shown(line), Answers(buttons))
                                        : Fill(words.ambiguousAnswer, Shown(line));
    AskAgain(window, reply);
    return false;
}

/* Escape: the cancel button, where the window has one; else the question again. */
void Cancel() {
    WindowRef window = Top();
    if (window == nullptr) {
        return;
    }
    Emit("\n"); /* the terminal echoed Escape on the answer's line */
    for (const Button& b : ButtonsOf(window)) {
        if (b.isCancel) {
            PlatPostControlHit(b.control);
            return;
        }
    }
    AskAgain(window, "");
}

/* Ctrl-D: the close box, unless the last line typed already answered. */
void EndOfInput(bool answered) {
    TheTerminal().inputEnded = true;
    UpdateLineMode();
    PlatWindowInfo info;
    if (!answered && Top() != nullptr && PlatGetWindowInfo(Top(), &info) && info.hasCloseBox) {
        Emit("\n");
        PlatPostWindowClose(Top());
    }
}

void ReadInput() {
    Terminal& terminal = TheTerminal();
    char buffer[512];
    ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (n <= 0) {
        /* Ctrl-D at the start of a line, or a terminal gone; text before it is a last answer */
        std::string last;
        last.swap(terminal.pending);
        EndOfInput(!last.empty() && Answer(last));
        return;
    }
    if (terminal.pending.size() > kMaxLine) {
        terminal.pending.clear(); /* nobody types this much: not an answer */
    }
    terminal.pending.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = terminal.pending.find_first_of(std::string("\n") + kEscape)) != std::string::npos) {
        bool escape = terminal.pending[end] == kEscape;
        std::string line = terminal.pending.substr(0, end);
        terminal.pending.erase(0, end + 1);
        if (escape) {
            /* a key that sends a sequence starts with Escape too: the rest of it is no answer */
            terminal.pending.clear();
            tcflush(STDIN_FILENO, TCIFLUSH);
            Cancel();
            return;
        }
        if (Echoes()) {
            ShiftBars(1); /* the terminal echoed the user's new line */
        }
        Answer(line);
    }
}

OSStatus TerminalCreateWindow(WindowRef) {
    WakeFd(); /* made now: the hang-up handler must not be the first to make it */
    CatchIfDefault(SIGHUP, OnHangUp);
    return noErr;
}

void TerminalShowWindow(WindowRef window) {
    Terminal& terminal = TheTerminal();
    terminal.shown.erase(std::remove(terminal.shown.begin(), terminal.shown.end(), window),
                         terminal.shown.end());
    terminal.shown.push_back(window);
    UpdateLineMode();
    Draw(window);
    PlatWindowInfo info;
    /* with input over, nobody can answer but through the close box */
    if (terminal.inputEnded && PlatGetWindowInfo(window, &info) && info.hasCloseBox) {
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
    Terminal& terminal = TheTerminal();
    int timeout = timeoutMs;
    if (!terminal.barsUp.empty()) {
        auto untilFrame =
            std::chrono::duration_cast<std::chrono::milliseconds>(terminal.nextFrame - Clock::now());
        int frameMs = static_cast<int>(std::max<long long>(0, untilFrame.count()));
        timeout = timeout < 0 ? frameMs : std::min(timeout, frameMs);
    }
    struct pollfd fds[2] = {{WakeFd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    nfds_t count = terminal.inputEnded ? 1 : 2;
    if (poll(fds, count, timeout) > 0) {
        if (fds[0].revents & POLLIN) {
            uint64_t value;
            (void)!read(WakeFd(), &value, sizeof value);
        }
        if (count == 2 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            ReadInput();
        }
    }
    if (gHungUp && !terminal.inputEnded) {
        terminal.pending.clear();
        EndOfInput(false);
    }
    if (!terminal.barsUp.empty() && Clock::now() >= terminal.nextFrame) {
        DrawProgressFrame();
        terminal.nextFrame += kFrameInterval;
        if (terminal.nextFrame < Clock::now()) {
            terminal.nextFrame = Clock::now() + kFrameInterval; /* fell behind: do not catch up */
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
