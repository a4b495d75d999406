// The terminal of the live view, drawn by ncurses. What is drawn are lines; what they say is
// LiveView's.
#ifndef VEX_TOOLS_VEXREG_LIVE_SCREEN_H
#define VEX_TOOLS_VEXREG_LIVE_SCREEN_H

#include <optional>
#include <string>
#include <vector>

#include "tools/vexreg/live_view.h"
#include "tools/vexreg/signals.h"

namespace vex {

// Whether standard output is a terminal on which a screen can be drawn; else why not.
bool CanDraw(std::string *why);

// The terminal's other screen, for as long as this lives. However the process ends, but by SIGKILL,
// the terminal gets its modes and its first screen back. One in a process; CanDraw() comes first.
class LiveScreen {
 public:
  // colour: with colours, where the terminal has them. utf8: characters beyond ASCII go out as
  // they are, else as question marks.
  LiveScreen(const ViewSignals &signals, bool colour, bool utf8);
  ~LiveScreen();
  LiveScreen(const LiveScreen &) = delete;
  LiveScreen &operator=(const LiveScreen &) = delete;

  struct Size {
    int width;
    int height;
  };
  // As the terminal is now.
  Size FitTerminal();
  // Sends what differs from what the terminal shows.
  void Draw(const std::vector<LiveLine> &page);
  // A key that was pressed, as LiveView takes it; nothing when none is waiting.
  static std::optional<int> TakeKey();
  // Gives the terminal back, stops the process, and goes on when it is continued.
  void Suspend();

 private:
  int Attributes(const LivePiece &piece) const;
  const ViewSignals &signals_;
  const bool utf8_;
  bool colour_;
  struct Impl;
};

}  // namespace vex

#endif
