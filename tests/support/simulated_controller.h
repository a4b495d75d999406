// A management controller on its socket, in whatever mood: for tests, and (simulated_controller,
// the program) for a person who tries the agent against one.
#ifndef VEX_TESTS_SUPPORT_SIMULATED_CONTROLLER_H
#define VEX_TESTS_SUPPORT_SIMULATED_CONTROLLER_H

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace vex {

inline constexpr char kControllerSocket[] = "/run/quorix/tlxci.sock";

struct ControllerMood {
  // The version request (command 2).
  int major = 2;
  int minor = 5;
  int generation = 6;
  // The programmable-logic request (command 0x0101): the reply's code, and its bytes from 14 on.
  // A server without such devices answers with another code and nothing else.
  int logic_code = 0;
  std::string logic;

  int reply_length = -1;  // replies are cut, or filled with zeros, to that length; -1: as they are
  bool silent = false;    // takes requests and never answers
  int resets = 0;         // breaks the connection on that many requests instead of answering
  bool resume = false;    // sends the answer that a reset cost at once on the next connection
};

// Reads words like "version=1.5", "generation=6", "code=A1", "logic=0102...", "length=20",
// "silent", "resets=2", "resume". Throws std::invalid_argument.
ControllerMood ParseMood(const std::vector<std::string> &words);

class SimulatedController {
 public:
  // Listens at the path (its directory is made) until it is destroyed. Throws std::system_error.
  explicit SimulatedController(const ControllerMood &mood = {},
                               const std::string &path = kControllerSocket);
  ~SimulatedController();
  SimulatedController(const SimulatedController &) = delete;
  SimulatedController &operator=(const SimulatedController &) = delete;

  void SetMood(const ControllerMood &mood);
  // What arrived so far, one string of bytes each.
  std::vector<std::string> Requests() const;
  // How many of them had that command.
  int Count(int command) const;
  // Connections accepted so far, and open now.
  int Accepted() const;
  int Open() const;

 private:
  void Serve();
  void Accept();
  bool Answer(int client);

  std::string path_;
  int listener_ = -1;
  int wake_ = -1;
  mutable std::mutex mutex_;
  ControllerMood mood_;
  std::vector<std::string> requests_;
  std::vector<int> clients_;
  std::vector<std::string> owed_;  // answers that resets cost
  int accepted_ = 0;
  std::thread thread_;
};

}  // namespace vex

#endif
