#include "tools/vexreg/own_words.h"

#include <errno.h>
#include <string.h>

#include "tools/vexreg/child_output.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/host_facts.h"

namespace vex {
namespace {

constexpr int kDoctorSeconds = 20;
constexpr int kDoctorPatience = 5;  // seconds more for doctor, which gives up by itself
constexpr int kLogSeconds = 20;
constexpr size_t kMostFindings = size_t{8} << 20;
constexpr size_t kMostJournal = size_t{16} << 20;
constexpr char kJournalLines[] = "2000";

// Whole lines from the end.
std::string LastOf(const std::string &text, size_t most) {
  if (text.size() <= most) {
    return text;
  }
  const size_t line = text.find('\n', text.size() - most);
  return line == std::string::npos ? "" : text.substr(line + 1);
}

}  // namespace

TakenText TakeDoctorsFindings(const std::string &root, const std::string &search) {
  const std::string seconds = std::to_string(kDoctorSeconds);
  ChildOutput output =
      RunProgram({"/proc/self/exe", "--root", root, "doctor", "--json", "--limit", seconds}, search,
                 kDoctorSeconds + kDoctorPatience, kMostFindings);
  if (output.end == ChildOutput::kExited) {
    return {std::move(output.out), ""};
  }
  return {std::nullopt, output.end == ChildOutput::kTimedOut
                            ? "doctor did not end in " + seconds + " s"
                        : output.end == ChildOutput::kTooMuch ? "doctor said too much"
                                                              : "doctor could not be run"};
}

std::string LogFileOf(pid_t agent) {
  if (agent == 0) {
    return "";
  }
  const std::string words = ReadText("/proc/" + std::to_string(agent) + "/cmdline");
  std::string file;
  bool next = false;
  for (size_t from = 0; from < words.size();) {
    const std::string word = words.c_str() + from;
    from += word.size() + 1;
    file = next ? word : file;
    next = word == "-l";
    file = word.starts_with("-l") && word.size() > 2 ? word.substr(2) : file;
  }
  return file;
}

TakenText TakeLogFile(const std::string &file, const std::string &search, size_t most_bytes) {
  // By another process: the file may lie on a mount whose server is dead.
  ChildOutput output = RunProgram({"tail", "-c", std::to_string(most_bytes), "--", file}, search,
                                  kLogSeconds, 2 * most_bytes);
  if (output.end == ChildOutput::kExited && output.status == 0) {
    return {std::move(output.out), ""};
  }
  return {std::nullopt, "cannot be read"};
}

TakenText TakeJournal(const std::string &search, size_t most_bytes) {
  const ChildOutput output = RunProgram({"journalctl", "--unit", kAgentName, "--lines",
                                         kJournalLines, "--no-pager", "--output", "short-iso"},
                                        search, kLogSeconds, kMostJournal);
  if (output.end == ChildOutput::kExited && output.status == 0) {
    return {LastOf(output.out, most_bytes), ""};
  }
  return {std::nullopt, "no journal to be read"};
}

}  // namespace vex
