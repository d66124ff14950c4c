#include "Screen.h"

#include <curses.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>

#include "common/Words.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr short kAlarmColours = 1;

const std::vector<Line> kHelp = {
    {"pz-top: keys", Style::Heading},
    {},
    {"  s       sort by the next of: name, load, pending messages, refused posts"},
    {"  p       pause, and go on"},
    {"  h, ?    this help, and back"},
    {"  arrows  scroll; page up, page down"},
    {"  q       quit"},
    {},
    {"Red: a handler or callback has run for longer than the watch time of its thread."},
    {"A question mark: could not be read, or makes no sense."},
};

constexpr Words<SortKey, SortKey::Refused> kSortNames = {"name", "load", "pending", "refused"};

SortKey next(SortKey key) {
    return key == SortKey::Refused ? SortKey::Name
                                   : static_cast<SortKey>(static_cast<int>(key) + 1);
}

/// The terminal, as long as the program has it.
class Terminal {
public:
    Terminal() {
        std::setlocale(LC_ALL, "");
        isOpen_ = newterm(nullptr, stdout, stdin) != nullptr;
        if (!isOpen_) return;
        canMove_ = is_text(tigetstr("cup"));
        if (!canMove_) return;
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        curs_set(0);
        if (has_colors() && start_color() == OK) {
            use_default_colors();
            init_pair(kAlarmColours, COLOR_RED, -1);
        }
    }
    ~Terminal() {
        if (isOpen_) endwin();
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// False for a terminal that is unknown, or cannot put text everywhere.
    bool CanShow() const { return canMove_; }

private:
    /// Of a capability's text, as curses answers it.
    static bool is_text(const char* value) {
        return value != nullptr && value != reinterpret_cast<const char*>(-1);
    }

    bool isOpen_ = false;
    bool canMove_ = false;
};

attr_t attributes_of(Style style) {
    switch (style) {
        case Style::Heading:
            return A_BOLD;
        case Style::Alarm:
            return A_BOLD | static_cast<attr_t>(COLOR_PAIR(kAlarmColours));
        default:
            return A_NORMAL;
    }
}

/// True when no key will come any more: the terminal is gone.
bool has_hung_up() {
    pollfd keys = {STDIN_FILENO, POLLIN, 0};
    return poll(&keys, 1, 0) == 1 && (keys.revents & POLLIN) == 0;
}

class Screen {
public:
    Screen(Watcher& watcher, unsigned int intervalMs)
        : watcher_(watcher), interval_(intervalMs), nextLook_(Clock::now()) {}

    int Run() {
        while (!isQuit_) {
            if (!isPaused_ && !isOver_ && Clock::now() >= nextLook_) LookAgain();
            Draw();
            int key = WaitForKey();
            if (key == ERR && has_hung_up()) break;
            // Keys may come faster than the program can look and draw.
            for (; key != ERR && !isQuit_; key = NextKey()) Obey(key);
        }
        return kExitDone;
    }

private:
    void LookAgain() {
        isOver_ = watcher_.Look() != kExitDone;
        if (!isOver_) Rebuild();
        nextLook_ += interval_;
        nextLook_ = std::max(nextLook_, Clock::now());  // after a stop of the whole program
    }

    void Rebuild() { lines_ = watcher_.Table(key_); }

    int WaitForKey() const {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(nextLook_ - Clock::now());
        const bool waits = isPaused_ || isOver_;
        timeout(waits ? -1 : static_cast<int>(std::max<long long>(left.count() + 1, 0)));
        return getch();
    }

    /// One that has come already, or ERR.
    static int NextKey() {
        timeout(0);
        return getch();
    }

    void Obey(int key) {
        switch (key) {
            case 'q':
                isQuit_ = true;
                break;
            case 's':
                key_ = next(key_);
                Rebuild();
                break;
            case 'p':
                isPaused_ = !isPaused_;
                nextLook_ = Clock::now();
                break;
            case 'h':
            case '?':
                isHelp_ = !isHelp_;
                top_ = 0;
                break;
            case KEY_DOWN:
                ++top_;
                break;
            case KEY_UP:
                --top_;
                break;
            case KEY_NPAGE:
                top_ += LINES - 1;
                break;
            case KEY_PPAGE:
                top_ -= LINES - 1;
                break;
            default:
                break;
        }
    }

    std::string Footer() const {
        std::string text =
            std::string("sorted by ") + kSortNames[key_] + "   s sort  p pause  h help  q quit";
        if (isPaused_) text = "PAUSED   " + text;
        if (isOver_) text = watcher_.Problem() + "   " + text;
        return text;
    }

    void Draw() {
        const std::vector<Line>& lines = isHelp_ ? kHelp : lines_;
        const int rows = std::max(LINES - 1, 1);
        top_ = std::clamp(top_, 0, std::max(static_cast<int>(lines.size()) - rows, 0));
        erase();
        for (int row = 0; row < rows && top_ + row < static_cast<int>(lines.size()); ++row) {
            DrawLine(row, lines[static_cast<std::size_t>(top_) + static_cast<std::size_t>(row)]);
        }
        DrawLine(LINES - 1, {Footer(), isOver_ ? Style::Alarm : Style::Heading});
        refresh();
    }

    static void DrawLine(int row, const Line& line) {
        // In a window of one line, a longer text does not go on in the next one.
        WINDOW* const strip = derwin(stdscr, 1, COLS, row, 0);
        if (strip == nullptr) return;
        wattrset(strip, static_cast<int>(attributes_of(line.style)));
        waddstr(strip, line.text.c_str());
        delwin(strip);
    }

    Watcher& watcher_;
    const std::chrono::milliseconds interval_;
    Clock::time_point nextLook_;
    std::vector<Line> lines_;
    SortKey key_ = SortKey::Name;
    int top_ = 0;  // first line that is shown
    bool isPaused_ = false;
    bool isHelp_ = false;
    bool isOver_ = false;  // there is nothing to look at any more
    bool isQuit_ = false;
};

int refused(const char* why) {
    std::fprintf(stderr, "pz-top: %s; try --once\n", why);
    return kExitUsage;
}

}  // namespace

int run_screen(Watcher& watcher, unsigned int intervalMs) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        return refused("the standard input or output is no terminal");
    }
    {
        const Terminal terminal;
        if (terminal.CanShow()) return Screen(watcher, intervalMs).Run();
    }
    return refused("this terminal cannot show a screen");
}
