#include "tools/vexreg/live.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "framework/process/clock.h"
#include "tools/vexreg/absence.h"
#include "tools/vexreg/follower.h"
#include "tools/vexreg/live_data.h"
#include "tools/vexreg/live_screen.h"
#include "tools/vexreg/live_view.h"

namespace vex {
namespace {

// A look at many objects is repeated only after this many times what it took.
constexpr double kRest = 10;
// Whether the agent runs is looked at no more often: that reads of every process.
constexpr double kSightSeconds = 5;
// Looks because of keys are at least so far apart.
constexpr double kSoonest = 1;
constexpr int kMostFruitless = 100;

double Now() {
  return static_cast<double>(ClockNs()) / kNsPerSecond;
}

std::string HostName() {
  char name[256] = "";
  gethostname(name, sizeof(name) - 1);
  return name;
}

std::set<std::string> GroupsOf(const std::vector<NamedObject> &objects) {
  std::set<std::string> groups;
  for (const NamedObject &object : objects) {
    const auto row = ParseRowName(object.name);
    groups.emplace(row ? row->group : std::string_view(object.name));
  }
  return groups;
}

class LiveLoop {
 public:
  LiveLoop(const Selection &selection, const View &view, const std::vector<NamedObject> &objects,
           const ViewSignals &signals)
      : selection_(selection),
        view_(view),
        signals_(signals),
        style_(ChooseStyle(view.raw, view.colour)),
        follower_(selection, HeadGroups()),
        data_(view.raw),
        page_(data_, OptionsOf(selection, view, style_, objects)),
        screen_(signals, style_.colour, style_.utf8) {
    moment_.host = HostName();
  }

  void Run() {
    double next_look = Now();
    while (!ViewSignals::Ended()) {
      if (Now() >= next_look) {
        const double began = Now();
        if (!page_.paused()) {
          LookAgain();
        }
        next_look = began + std::max(view_.interval, kRest * (Now() - began));
        soonest_look_ = began + std::max(kSoonest, kRest * (Now() - began));
      }
      Draw();
      const bool paused = page_.paused();
      if (!TakeKeys(next_look - Now())) {
        return;
      }
      // What is drawn after a pause, or at a key between two looks that are long apart, is not to
      // be as old as the last look.
      const bool old = data_.IsStale(time(nullptr), ClockNs()) && Now() >= soonest_look_;
      if (!page_.paused() && (paused || old)) {
        next_look = 0;
      }
    }
  }

 private:
  static LiveOptions OptionsOf(const Selection &selection, const View &view, const Style &style,
                               const std::vector<NamedObject> &objects) {
    LiveOptions options;
    options.raw = view.raw;
    options.bars = style.bars;
    options.utf8 = style.utf8;
    options.named = !selection.names.empty();
    options.groups = GroupsOf(objects);
    return options;
  }

  void LookAgain() {
    const int64_t wall = time(nullptr);
    data_.Take(follower_.LookAgain(), wall, ClockNs());
    const std::pair<bool, int> absence = {data_.groups().empty(), data_.last_look().error};
    const bool well = data_.AgeOfValues(wall, ClockNs()) >= 0 && !data_.IsStale(wall, ClockNs());
    if (!well && (Now() >= next_sight_ || absence != absence_)) {
      moment_.agent = SeeAgent(selection_.root);
      moment_.nothing = data_.groups().empty() ? WhyNothing(selection_.root) : "";
      next_sight_ = Now() + kSightSeconds;
    } else if (well) {
      moment_.agent = {};
      next_sight_ = 0;
    }
    absence_ = absence;
  }

  void Draw() {
    const LiveScreen::Size size = screen_.FitTerminal();
    const int wanted = view_.width.value_or(0);
    moment_.width = wanted > 0 ? std::min(wanted, size.width) : size.width;
    moment_.height = size.height;
    moment_.wall = time(nullptr);
    moment_.clock_ns = ClockNs();
    screen_.Draw(page_.Page(moment_));
  }

  // Waits for a key or a signal, at most so many seconds. False when the view is to end.
  bool TakeKeys(double seconds) {
    const double wait = std::max(0.0, seconds);
    const timespec time = {
        static_cast<time_t>(wait),
        static_cast<long>((wait - static_cast<double>(static_cast<time_t>(wait))) *
                          static_cast<double>(kNsPerSecond))};
    pollfd polled = {STDIN_FILENO, POLLIN, 0};
    const int ready = ppoll(&polled, has_keys_ ? 1 : 0, &time, &signals_.Before());
    if (ready > 0 && (polled.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
      return false;  // the terminal is gone
    }
    const bool expected = ready > 0;
    bool taken = false;
    while (ready > 0 && !ViewSignals::Ended()) {
      const auto key = LiveScreen::TakeKey();
      if (!key) {
        break;
      }
      taken = true;
      if (*key != 0 && !page_.Press(*key)) {
        return false;
      }
    }
    // A part of a key's sequence gives no key, either, but not time after time.
    fruitless_ = expected && !taken ? fruitless_ + 1 : 0;
    if (fruitless_ > kMostFruitless) {
      return false;
    }
    if (ViewSignals::TakeSuspend()) {
      screen_.Suspend();
    }
    return true;
  }

  const Selection selection_;
  const View view_;
  const ViewSignals &signals_;
  const Style style_;
  // Keys come from a terminal only; without them a signal ends the view.
  const bool has_keys_ = isatty(STDIN_FILENO) != 0;
  Follower follower_;
  LiveData data_;
  LiveView page_;
  LiveMoment moment_;
  int fruitless_ = 0;  // readings in a row of a terminal that says that it has a key
  double next_sight_ = 0;
  double soonest_look_ = 0;
  // Whether there is nothing, and the error of the root: another one is looked into at once.
  std::pair<bool, int> absence_ = {false, 0};
  LiveScreen screen_;
};

}  // namespace

void ShowLive(const Selection &selection, const View &view, const std::vector<NamedObject> &objects,
              const ViewSignals &signals) {
  // Where memory is short, the terminal is to be given back first.
  const std::new_handler handler = std::set_new_handler(nullptr);
  LiveLoop(selection, view, objects, signals).Run();
  std::set_new_handler(handler);
}

}  // namespace vex
