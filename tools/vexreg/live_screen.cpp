#include "tools/vexreg/live_screen.h"

// Macros with the names of everyday functions stay out.
#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>

#include "tools/vexreg/tables.h"

namespace vex {
namespace {

constexpr int kEscapeDelayMs = 100;  // within which the rest of a key's sequence comes
// What ends a process and does not end the view by itself; those for real time, too.
constexpr int kCrashes[] = {SIGSEGV, SIGBUS,  SIGFPE,  SIGILL,    SIGABRT,  SIGQUIT, SIGSYS,
                            SIGALRM, SIGTRAP, SIGXCPU, SIGXFSZ,   SIGPIPE,  SIGUSR1, SIGUSR2,
                            SIGPROF, SIGIO,   SIGPWR,  SIGVTALRM, SIGSTKFLT};

// What a signal's handler needs to give the terminal back.
termios modes_before;
bool has_modes;
char leave[256];
size_t leave_length;

// Gives the terminal back without ncurses and without waiting, for one that takes nothing.
void GiveBack() {
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  fcntl(STDOUT_FILENO, F_SETFL, flags | O_NONBLOCK);
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, leave, leave_length);
  fcntl(STDOUT_FILENO, F_SETFL, flags);
  if (has_modes) {
    tcsetattr(STDOUT_FILENO, TCSANOW, &modes_before);
  }
}

void TakeCrash(int number) {
  GiveBack();
  if (number == SIGALRM) {
    _exit(0);  // told to end while the terminal took nothing
  }
  raise(number);  // as if this handler had never been
}

// A string of the terminal's description, without the pauses in it that old terminals needed.
void AddToLeave(const char *capability) {
  const char *text = tigetstr(const_cast<char *>(capability));
  if (text == nullptr) {
    return;
  }
  while (*text != '\0' && leave_length < sizeof(leave)) {
    if (text[0] == '$' && text[1] == '<') {
      const char *end = strchr(text, '>');
      text = end != nullptr ? end + 1 : text + strlen(text);
      continue;
    }
    leave[leave_length++] = *text++;
  }
}

void CatchCrash(int number) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = TakeCrash;
  action.sa_flags = SA_RESETHAND | SA_NODEFER;
  sigaction(number, &action, &before);
  if (before.sa_handler == SIG_IGN && number != SIGALRM) {  // which is the view's own
    sigaction(number, &before, nullptr);
  }
}

void CatchCrashes() {
  for (const int number : kCrashes) {
    CatchCrash(number);
  }
  for (int number = SIGRTMIN; number <= SIGRTMAX; number++) {
    CatchCrash(number);
  }
}

enum Colours : short { kGoodPair = 1, kWarningPair, kBadPair };

}  // namespace

bool CanDraw(std::string *why) {
  const char *type = getenv("TERM");
  const std::string name = type != nullptr ? type : "";
  int error = 0;
  if (setupterm(nullptr, STDOUT_FILENO, &error) != OK) {
    *why = name.empty() ? "TERM is not set" : "the terminal \"" + name + "\" is not known";
    return false;
  }
  if (tigetstr(const_cast<char *>("cup")) == nullptr) {
    *why = "the terminal \"" + name + "\" has no cursor that can be moved";
    return false;
  }
  return true;
}

LiveScreen::LiveScreen(const ViewSignals &signals, bool colour, bool utf8)
    : signals_(signals), utf8_(utf8), colour_(colour) {
  has_modes = tcgetattr(STDOUT_FILENO, &modes_before) == 0;
  leave_length = 0;
  for (const char *capability : {"sgr0", "rmkx", "cnorm", "rmcup"}) {
    AddToLeave(capability);
  }
  CatchCrashes();
  const TakingSignals taking(signals_);
  // CanDraw() has seen that the terminal is one; what may fail now is memory.
  if (newterm(nullptr, stdout, stdin) == nullptr) {
    throw std::runtime_error(std::string("the terminal cannot be set up: ") + strerror(errno));
  }
  set_escdelay(kEscapeDelayMs);
  cbreak();
  noecho();
  nonl();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  curs_set(0);
  colour_ = colour_ && has_colors();
  if (colour_) {
    start_color();  // where it fails, ncurses draws all without colours
    const short background = use_default_colors() == OK ? -1 : COLOR_BLACK;
    init_pair(kGoodPair, COLOR_GREEN, background);
    init_pair(kWarningPair, COLOR_YELLOW, background);
    init_pair(kBadPair, COLOR_RED, background);
  }
}

LiveScreen::~LiveScreen() {
  {
    const TakingSignals taking(signals_);
    alarm(TakingSignals::kPatience);
    endwin();
  }
  for (const int number : kCrashes) {
    signal(number, SIG_DFL);
  }
  for (int number = SIGRTMIN; number <= SIGRTMAX; number++) {
    signal(number, SIG_DFL);
  }
}

LiveScreen::Size LiveScreen::FitTerminal() {
  winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0 &&
      (size.ws_row != LINES || size.ws_col != COLS)) {
    resizeterm(size.ws_row, size.ws_col);
  }
  return {COLS, LINES};
}

int LiveScreen::Attributes(const LivePiece &piece) const {
  attr_t attributes = A_NORMAL;
  if (piece.strong || piece.mood == Mood::kBad) {
    attributes |= A_BOLD;
  }
  if (piece.reverse) {
    attributes |= A_REVERSE;
  }
  if (piece.mood == Mood::kFaint) {
    attributes |= A_DIM;
  }
  if (colour_) {
    const short pair = piece.mood == Mood::kGood      ? kGoodPair
                       : piece.mood == Mood::kWarning ? kWarningPair
                       : piece.mood == Mood::kBad     ? kBadPair
                                                      : 0;
    attributes |= static_cast<attr_t>(COLOR_PAIR(pair));
  }
  return static_cast<int>(attributes);
}

void LiveScreen::Draw(const std::vector<LiveLine> &page) {
  werase(stdscr);
  for (size_t y = 0; y < page.size(); y++) {
    wmove(stdscr, static_cast<int>(y), 0);
    for (const LivePiece &piece : page[y]) {
      wattrset(stdscr, Attributes(piece));
      waddstr(stdscr, (utf8_ ? piece.text : AsciiText(piece.text)).c_str());
    }
  }
  wattrset(stdscr, A_NORMAL);
  const TakingSignals taking(signals_);
  wrefresh(stdscr);
}

std::optional<int> LiveScreen::TakeKey() {
  constexpr std::pair<int, int> kKeys[] = {
      {KEY_UP, kKeyUp},           {KEY_DOWN, kKeyDown},   {KEY_PPAGE, kKeyPageUp},
      {KEY_NPAGE, kKeyPageDown},  {KEY_HOME, kKeyHome},   {KEY_END, kKeyEnd},
      {KEY_LEFT, kKeyLeft},       {KEY_RIGHT, kKeyRight}, {KEY_BTAB, kKeyBackTab},
      {KEY_BACKSPACE, kKeyErase}, {KEY_DC, kKeyErase},    {KEY_ENTER, '\n'}};
  wint_t key = 0;
  switch (wget_wch(stdscr, &key)) {
    case OK:
      switch (key) {
        case 0x1B:
          return kKeyEscape;
        case 0x7F:
        case '\b':
          return kKeyErase;
        case 'L' & 0x1F:  // what programs of whole screens take to paint anew
          clearok(curscr, TRUE);
          return 0;
        default:
          return static_cast<int>(key);
      }
    case KEY_CODE_YES:
      for (const auto &[theirs, ours] : kKeys) {
        if (static_cast<int>(key) == theirs) {
          return ours;
        }
      }
      return 0;
    default:
      return std::nullopt;
  }
}

void LiveScreen::Suspend() {
  {
    const TakingSignals taking(signals_);
    endwin();
  }
  signals_.Stop();
  const TakingSignals taking(signals_);
  clearok(curscr, TRUE);
  wrefresh(stdscr);
}

}  // namespace vex
