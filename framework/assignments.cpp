#include "framework/assignments.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "framework/log.h"
#include "framework/registry_dir.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr size_t kMaxFile = 64 * 1024;

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

std::optional<Assignments> ParseAssignments(std::string_view text, int *bad_line) {
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
    std::optional<std::string> value =
        equals != line.npos && IsKey(key) && line.find('\0') == line.npos
            ? Unquoted(line.substr(equals + 1))
            : std::nullopt;
    if (!value) {
      *bad_line = number;
      return std::nullopt;
    }
    assignments[std::string(key)] = std::move(*value);
  }
  return assignments;
}

std::optional<Assignments> ReadAssignments(const char *path) {
  static std::set<std::string> reported;
  auto broken = [&](const char *why, int line) {
    if (reported.insert(path).second) {
      if (line != 0) {
        agentlog_fprintf(stderr, "%s: %s: line %d is broken, file not used\n", AgentName(), path,
                         line);
      } else {
        agentlog_fprintf(stderr, "%s: %s: %s, file not used\n", AgentName(), path, why);
      }
    }
    return std::nullopt;
  };
  Descriptor fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return std::nullopt;
    }
    return broken(strerror(errno), 0);
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return broken("not a regular file", 0);
  }
  std::string text;
  char bytes[4096];
  for (;;) {
    const ssize_t n = read(fd.get(), bytes, sizeof(bytes));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return broken(strerror(errno), 0);
    }
    if (n == 0) {
      break;
    }
    text.append(bytes, static_cast<size_t>(n));
    if (text.size() > kMaxFile) {
      return broken("too large", 0);
    }
  }
  int bad_line = 0;
  std::optional<Assignments> assignments = ParseAssignments(text, &bad_line);
  if (!assignments) {
    return broken("", bad_line);
  }
  return assignments;
}

}  // namespace vex
