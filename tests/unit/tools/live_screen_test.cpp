// The terminal of the live view: each test has one, with a process of its own on it.
#include "tools/vexreg/live_screen.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <new>
#include <string_view>

#include "tests/support/failing_call.h"
#include "tools/vexreg/commands.h"

namespace {

// The one of ncurses' calls that fails now, as without memory; tests/unit/CMakeLists.txt wraps
// them.
std::string_view failing_curses_call;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

struct screen *__real_newterm(const char *type, FILE *out, FILE *in);
struct screen *__wrap_newterm(const char *type, FILE *out, FILE *in) {
  if (failing_curses_call == "newterm") {
    errno = ENOMEM;
    return nullptr;
  }
  return __real_newterm(type, out, in);
}

int __real_start_color();
int __wrap_start_color() {
  return failing_curses_call == "start_color" ? -1 : __real_start_color();
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace vex {
namespace {

struct OnScreen {
  int status = -1;
  std::string text;
};

// What a process writes on its terminal of 80 columns and 24 lines, and the status that it ends
// with. keys: typed once "ready" stands there.
OnScreen OnTerminal(const std::function<int(LiveScreen &)> &work, std::string_view keys = "",
                    std::string_view failing = "") {
  const winsize size = {24, 80, 0, 0};
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
  if (child == 0) {
    failing_curses_call = failing;
    setenv("TERM", "xterm", 1);
    _exit(Caught([&] {
      std::string why;
      if (!CanDraw(&why)) {
        Complain(why);
        return static_cast<int>(kWrongUsage);
      }
      const ViewSignals signals;
      LiveScreen screen(signals, true, true);
      return work(screen);
    }));
  }
  OnScreen shown;
  EXPECT_GT(child, 0) << strerror(errno);
  char text[4096];
  // Until nobody has it open: EIO.
  for (ssize_t got; (got = read(terminal, text, sizeof(text))) > 0;) {
    shown.text.append(text, static_cast<size_t>(got));
    if (!keys.empty() && shown.text.find("ready") != std::string::npos) {
      EXPECT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
      keys = "";
    }
  }
  close(terminal);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  shown.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return shown;
}

// The terminal says which octet its key for it sends; people have terminals that send another.
TEST(LiveScreen, TakesEitherOctetThatErases) {
  const OnScreen shown = OnTerminal(
      [](LiveScreen &screen) {
        screen.Draw({{{"ready"}}});
        std::vector<int> keys;
        for (int waits = 0; keys.size() < 3 && waits < 100; waits++) {
          if (const auto key = LiveScreen::TakeKey()) {
            keys.push_back(*key);
          } else {
            pollfd polled = {STDIN_FILENO, POLLIN, 0};
            poll(&polled, 1, 100);
          }
        }
        return keys == std::vector<int>{kKeyErase, 'x', kKeyErase} ? kDone : kFailed;
      },
      "\bx\x7f");
  EXPECT_EQ(shown.status, kDone) << shown.text;
}

// Without memory for colours the view has none.
TEST(LiveScreen, DrawsWithoutColoursThatCannotBeHad) {
  for (const char *failing : {"", "start_color"}) {
    const OnScreen shown = OnTerminal(
        [](LiveScreen &screen) {
          screen.Draw({{{"good", Mood::kGood}}});
          return kDone;
        },
        "", failing);
    EXPECT_EQ(shown.status, kDone);
    const bool coloured = shown.text.find("\x1b[32mgood") != std::string::npos;
    EXPECT_EQ(coloured, *failing == '\0') << shown.text;
    EXPECT_NE(shown.text.find("good"), std::string::npos) << shown.text;
  }
}

TEST(LiveScreen, KeepsItsSizeWhileTheTerminalDoesNotTellIt) {
  const OnScreen shown = OnTerminal([](LiveScreen &screen) {
    const winsize smaller = {10, 40, 0, 0};
    ioctl(STDOUT_FILENO, TIOCSWINSZ, &smaller);
    const LiveScreen::Size unknown = [&] {
      const FailingCall failing("ioctl", EIO);
      return screen.FitTerminal();
    }();
    const LiveScreen::Size known = screen.FitTerminal();
    return unknown.width == 80 && unknown.height == 24 && known.width == 40 && known.height == 10
               ? kDone
               : kFailed;
  });
  EXPECT_EQ(shown.status, kDone) << shown.text;
}

TEST(LiveScreen, SaysWhyThereIsNone) {
  const OnScreen shown = OnTerminal([](LiveScreen &) { return kDone; }, "", "newterm");
  EXPECT_EQ(shown.status, kFailed);
  EXPECT_EQ(shown.text, "vexreg: the terminal cannot be set up: Cannot allocate memory\r\n");
}

// On the screen that people see afterwards.
TEST(LiveScreen, IsGivenBackBeforeItIsSaidThatMemoryIsOut) {
  const OnScreen shown = OnTerminal([](LiveScreen &screen) -> int {
    screen.Draw({{{"ready"}}});
    throw std::bad_alloc();
  });
  EXPECT_EQ(shown.status, kFailed);
  const size_t back = shown.text.find("\x1b[?1049l");
  ASSERT_NE(back, std::string::npos) << shown.text;
  EXPECT_GT(shown.text.find("vexreg: out of memory\r\n"), back) << shown.text;
  EXPECT_TRUE(shown.text.ends_with("vexreg: out of memory\r\n")) << shown.text;
}

}  // namespace
}  // namespace vex
