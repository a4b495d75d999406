#include "tools/vexreg/secrets.h"

#include <ctype.h>
#include <strings.h>

#include <algorithm>
#include <initializer_list>
#include <vector>

namespace vex {
namespace {

// Tokens whose values say how the agents are found and what is seen, and nothing that lets somebody
// in. Whatever else net-snmp knows, or will know, is left out.
constexpr const char *kHarmless[] = {
    "access",
    "agentAddress",
    "agentXPerms",
    "agentXPingInterval",
    "agentXRetries",
    "agentXSocket",
    "agentXTimeout",
    "dontLogTCPWrappersConnects",
    "defVersion",
    "group",
    "master",
    "maxGetbulkRepeats",
    "maxGetbulkResponses",
    "mibs",
    "pollInterval",
    "sysServices",
    "view",
    "includeAllDisks",
    "includeDir",
    "includeFile",
};

constexpr const char *kSuspicious[] = {"pass", "secret", "communit", "token", "credential", "key"};
constexpr size_t kShortestWord = 4;

bool IsHarmless(const std::string &token) {
  return std::any_of(std::begin(kHarmless), std::end(kHarmless),
                     [&](const char *one) { return strcasecmp(one, token.c_str()) == 0; });
}

bool IsBlank(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

// Words between blanks, with what quotes them taken away.
std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  const auto end = [&] {
    if (!word.empty()) {
      words.push_back(word);
    }
    word.clear();
  };
  char quote = 0;
  for (const char c : text) {
    if (quote != 0 ? c == quote : c == '"' || c == '\'') {
      quote = quote != 0 ? '\0' : c;
    } else if (quote == 0 && IsBlank(c)) {
      end();
    } else if (c != '\\') {
      word += c;
    }
  }
  end();
  return words;
}

// Words that stand in many lines and let nobody in.
constexpr const char *kCommonWords[] = {"default", "localhost"};

bool MayBeSecret(const std::string &word) {
  const bool number = word.find_first_not_of("0123456789.:/") == std::string::npos;
  return !number && word.size() >= kShortestWord && word.front() != '-' &&
         std::none_of(std::begin(kCommonWords), std::end(kCommonWords),
                      [&](const char *one) { return word == one; });
}

void AddWords(std::string_view text, Secrets *secrets) {
  for (const std::string &word : Words(text)) {
    if (MayBeSecret(word)) {
      secrets->insert(word);
    }
  }
}

bool Is(const std::string &token, std::initializer_list<const char *> names) {
  return std::any_of(names.begin(), names.end(),
                     [&](const char *name) { return strcasecmp(name, token.c_str()) == 0; });
}

// Of the lines that are known, the community alone: the names of views and groups beside it stand
// in other lines, which say more with them.
void AddSecrets(const std::string &token, const std::string &rest, Secrets *secrets) {
  const std::vector<std::string> words = Words(rest);
  if (words.empty() || token.starts_with('#') ||
      Is(token, {"rouser", "rwuser", "authuser", "sysLocation", "sysContact", "sysName", "disk",
                 "proc", "load", "monitor", "agentUser", "agentGroup", "iquerySecName"})) {
    return;
  }
  // Communities are secrets however short they are.
  if (Is(token, {"rocommunity", "rwcommunity", "rocommunity6", "rwcommunity6"})) {
    secrets->insert(words.front());
    return;
  }
  if (Is(token, {"com2sec", "com2sec6", "com2secunix"})) {
    secrets->insert(words.back());
    return;
  }
  if (Is(token, {"community", "defCommunity", "trapcommunity"})) {
    secrets->insert(words.front());
  } else if (Is(token, {"trapsink", "trap2sink", "informsink", "authcommunity"}) &&
             words.size() > 1) {
    secrets->insert(words[1]);
  }
  for (size_t i = 0; i < words.size(); i++) {
    if (words[i] == "-c" && i + 1 < words.size()) {
      secrets->insert(words[i + 1]);
    } else if (words[i].starts_with("-c") && words[i].size() > 2) {
      secrets->insert(words[i].substr(2));
    }
  }
  AddWords(rest, secrets);
}

// The lines of a file; one that ends in a backslash goes on with the next.
std::vector<std::string> JoinedLines(std::string_view text) {
  std::vector<std::string> lines;
  std::string line;
  for (size_t from = 0; from < text.size();) {
    const size_t end = std::min(text.find('\n', from), text.size());
    line += text.substr(from, end - from);
    from = end + 1;
    while (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    if (!line.empty() && line.back() == '\\' && from < text.size()) {
      line.back() = ' ';
      continue;
    }
    lines.push_back(std::move(line));
    line.clear();
  }
  if (!line.empty()) {
    lines.push_back(std::move(line));
  }
  return lines;
}

struct Line {
  std::string section;  // "[snmpd]" before it, or empty
  std::string token;
  std::string rest;
};

// The first word and what follows it; a section's name may stand before both.
Line Divided(std::string_view line) {
  Line divided;
  const auto take = [&line] {
    size_t from = 0;
    while (from < line.size() && IsBlank(line[from])) {
      from++;
    }
    size_t end = from;
    while (end < line.size() && !IsBlank(line[end])) {
      end++;
    }
    std::string word(line.substr(from, end - from));
    line.remove_prefix(end);
    return word;
  };
  divided.token = take();
  if (divided.token.starts_with('[')) {
    divided.section = divided.token;
    divided.token = take();
  }
  divided.rest = line;
  return divided;
}

}  // namespace

std::string WithoutSnmpSecrets(std::string_view text, Secrets *secrets) {
  std::vector<Line> lines;
  for (const std::string &line : JoinedLines(text)) {
    lines.push_back(Divided(line));
    const Line &last = lines.back();
    if (last.section.find(']') == std::string::npos && !last.section.empty()) {
      lines.back() = {"", kLeftOut, ""};  // no section that net-snmp would take
      AddWords(line, secrets);
    } else if (!IsHarmless(last.token)) {
      AddSecrets(last.token, last.rest, secrets);
    }
  }
  std::string result;
  for (const Line &line : lines) {
    const bool comment = line.token.starts_with('#');
    if (!line.section.empty()) {
      result += line.section + (line.token.empty() ? "" : " ");
    }
    if (comment) {
      result += "#";
    } else if (IsHarmless(line.token)) {
      result += line.token;
      for (const std::string &word : Words(line.rest)) {
        result += " " + (secrets->count(word) != 0 ? std::string(kLeftOut) : word);
      }
    } else if (!line.token.empty()) {
      // A line that lacks its token may have a community in its place.
      const bool word = std::all_of(line.token.begin(), line.token.end(), [](char c) {
        return isalnum(static_cast<unsigned char>(c)) != 0;
      });
      result += (word && !line.rest.empty() ? line.token + " " : "") + kLeftOut;
    }
    result += '\n';
  }
  return result;
}

std::string WithoutAssignedSecrets(std::string_view text, Secrets *secrets) {
  std::string result;
  for (size_t from = 0; from < text.size();) {
    const size_t end = std::min(text.find('\n', from), text.size());
    const std::string_view line = text.substr(from, end - from);
    const size_t equals = line.find('=');
    std::string key(line.substr(0, std::min(equals, line.size())));
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    const bool secret =
        std::any_of(std::begin(kSuspicious), std::end(kSuspicious),
                    [&](const char *part) { return key.find(part) != std::string::npos; });
    if (secret) {
      AddWords(line.substr(equals == std::string_view::npos ? 0 : equals + 1), secrets);
      result += equals == std::string_view::npos ? "#" : std::string(line.substr(0, equals + 1));
    } else {
      result += line;
    }
    if (end < text.size()) {
      result += '\n';
    }
    from = end + 1;
  }
  return result;
}

std::string WithoutMountOptions(std::string_view table) {
  std::string result;
  for (size_t from = 0; from < table.size();) {
    const size_t end = std::min(table.find('\n', from), table.size());
    const std::string_view line = table.substr(from, end - from);
    size_t at = 0;
    for (int field = 0; at < line.size(); field++) {
      const size_t begin = std::min(line.find_first_not_of(" \t", at), line.size());
      const size_t stop = std::min(line.find_first_of(" \t", begin), line.size());
      result += line.substr(at, begin - at);
      const std::string_view word = line.substr(begin, stop - begin);
      constexpr int kOptions = 3;
      if (field == kOptions && !word.empty()) {
        const std::string all = "," + std::string(word) + ",";
        result += all.find(",ro,") != std::string::npos ? "ro" : "rw";
      } else {
        result += word;
      }
      at = stop;
    }
    result += end < table.size() ? "\n" : "";
    from = end + 1;
  }
  return result;
}

std::string WithoutWords(std::string_view text, const Secrets &secrets) {
  const auto part = [](char c) { return isalnum(static_cast<unsigned char>(c)) != 0; };
  std::string result(text);
  for (const std::string &secret : secrets) {
    if (secret.empty()) {
      continue;
    }
    for (size_t at = 0; (at = result.find(secret, at)) != std::string::npos;) {
      const size_t end = at + secret.size();
      const bool whole = (at == 0 || !part(result[at - 1]) || !part(secret.front())) &&
                         (end == result.size() || !part(result[end]) || !part(secret.back()));
      if (whole) {
        result.replace(at, secret.size(), kLeftOut);
        at += sizeof(kLeftOut) - 1;
      } else {
        at = end;
      }
    }
  }
  return result;
}

}  // namespace vex
