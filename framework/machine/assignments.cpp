#include "framework/machine/assignments.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "framework/process/descriptor.h"
#include "framework/process/log.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr size_t kMaxFile = 64 * 1024;

// What a file says is asked once in the life of a process: one failed call must not decide it.
constexpr int kAttempts = 3;

bool IsKey(std::string_view key) {
  if (key.empty() || (key[0] >= '0' && key[0] <= '9')) {
    return false;
  }
  for (const char c : key) {
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    if (!letter && !(c >= '0' && c <= '9')) {
      return false;
    }
  }
  return true;
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

std::string Plain(std::string_view value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.front() == value.back()) {
    value = value.substr(1, value.size() - 2);
  }
  return std::string(value);
}

std::optional<std::string> Unquoted(std::string_view value) {
  if (value.empty() || (value[0] != '"' && value[0] != '\'')) {
    // A quote further on opens what nothing closes as a whole.
    return value.find_first_of("\"'") == value.npos ? std::optional(std::string(value))
                                                    : std::nullopt;
  }
  const char quote = value[0];
  std::string result;
  for (size_t i = 1; i < value.size(); i++) {
    if (value[i] == quote) {
      return i + 1 == value.size() ? std::optional(result) : std::nullopt;
    }
    if (quote == '"' && value[i] == '\\' && i + 1 < value.size() &&
        std::string_view("$\"\\`").find(value[i + 1]) != std::string_view::npos) {
      i++;
    }
    result += value[i];
  }
  return std::nullopt;
}

}  // namespace

std::optional<Assignments> ParseAssignments(std::string_view text, Values values, int *bad_line) {
  Assignments assignments;
  int number = 0;
  while (!text.empty()) {
    number++;
    const size_t end = text.find('\n');
    const std::string_view line = Trimmed(text.substr(0, end));
    text = end == text.npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const size_t equals = line.find('=');
    const std::string_view key = line.substr(0, equals);
    std::optional<std::string> value;
    if (equals != line.npos && IsKey(key) && line.find('\0') == line.npos) {
      const std::string_view text_of_value = line.substr(equals + 1);
      value = values == Values::kShell ? Unquoted(text_of_value) : Plain(text_of_value);
    }
    if (!value) {
      *bad_line = number;
      return std::nullopt;
    }
    assignments[std::string(key)] = std::move(*value);
  }
  return assignments;
}

namespace {

enum class Reading { kDone, kAbsent, kBroken, kFailed };

// Reads a whole file. Otherwise says why not; a failed call (kFailed) may succeed the next time.
Reading ReadText(const char *path, std::string *text, std::string *why) {
  text->clear();
  const Descriptor fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return Reading::kAbsent;
    }
    *why = strerror(errno);
    return Reading::kFailed;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0) {
    *why = strerror(errno);
    return Reading::kFailed;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = "not a regular file";
    return Reading::kBroken;
  }
  char bytes[4096];
  for (;;) {
    const ssize_t n = read(fd.get(), bytes, sizeof(bytes));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      *why = strerror(errno);
      return Reading::kFailed;
    }
    if (n == 0) {
      return Reading::kDone;
    }
    text->append(bytes, static_cast<size_t>(n));
    if (text->size() > kMaxFile) {
      *why = "too large";
      return Reading::kBroken;
    }
  }
}

}  // namespace

std::optional<Assignments> ReadAssignments(const char *path, Values values) {
  std::string text;
  std::string why;
  Reading reading = Reading::kFailed;
  for (int attempt = 0; attempt < kAttempts && reading == Reading::kFailed; attempt++) {
    reading = ReadText(path, &text, &why);
  }
  if (reading == Reading::kAbsent) {
    return std::nullopt;
  }
  if (reading == Reading::kDone) {
    int bad_line = 0;
    std::optional<Assignments> assignments = ParseAssignments(text, values, &bad_line);
    if (assignments) {
      return assignments;
    }
    why = "line " + std::to_string(bad_line) + " is broken";
  }
  static std::set<std::string> reported;
  if (reported.insert(path).second) {
    agentlog_fprintf(stderr, "%s: %s: %s, file not used\n", AgentName(), path, why.c_str());
  }
  return std::nullopt;
}

}  // namespace vex
