#include "tools/vexreg/secrets.h"

#include <ctype.h>
#include <strings.h>

#include <algorithm>
#include <initializer_list>
#include <vector>

#include "framework/registry/registry_format.h"
#include "platform/framework.h"

namespace vex {
namespace {

// Tokens whose values say how the agents are found and what is seen, and nothing that lets somebody
// in, with the words that they take. Whatever else net-snmp knows, or will know, is left out.
struct HarmlessToken {
  const char *name;
  size_t words;
};
constexpr HarmlessToken kHarmless[] = {
    {"access", 8},
    {"agentAddress", 1},
    {"agentXPerms", 4},
    {"agentXPingInterval", 1},
    {"agentXRetries", 1},
    {"agentXSocket", 1},
    {"agentXTimeout", 1},
    {"dontLogTCPWrappersConnects", 1},
    {"defVersion", 1},
    {"group", 3},
    {"master", 1},
    {"maxGetbulkRepeats", 1},
    {"maxGetbulkResponses", 1},
    {"mibs", 1},
    {"pollInterval", 1},
    {"sysServices", 1},
    {"view", 4},
    {"includeAllDisks", 1},
    {"includeDir", 1},
    {"includeFile", 1},
};

constexpr std::initializer_list<const char *> kSuspicious = {"pass",  "secret",     "communit",
                                                             "token", "credential", "key"};
constexpr size_t kShortestWord = 4;

// How many words of a token's value are kept.
size_t HarmlessWords(const std::string &token) {
  const auto *const found = std::find_if(
      std::begin(kHarmless), std::end(kHarmless),
      [&](const HarmlessToken &one) { return strcasecmp(one.name, token.c_str()) == 0; });
  return found != std::end(kHarmless) ? found->words : 0;
}

bool IsHarmless(const std::string &token) {
  return HarmlessWords(token) != 0;
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

// The words of a harmless token's value, and those behind them; a comment is neither.
struct TokenValue {
  std::vector<std::string> kept;
  std::vector<std::string> behind;
};

TokenValue ValueOf(const Line &line) {
  TokenValue value;
  for (const std::string &word :
       Words(std::string_view(line.rest).substr(0, line.rest.find('#')))) {
    // No value has a blank: what has one is a quotation mark that was forgotten.
    const bool taken = value.behind.empty() && value.kept.size() < HarmlessWords(line.token) &&
                       std::none_of(word.begin(), word.end(), IsBlank);
    (taken ? value.kept : value.behind).push_back(word);
  }
  return value;
}

bool SoundsSecret(std::string key, std::initializer_list<const char *> parts) {
  std::transform(key.begin(), key.end(), key.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return std::any_of(parts.begin(), parts.end(),
                     [&](const char *part) { return key.find(part) != std::string::npos; });
}

// Where the value begins that a text assigns to a name that ends at a place; npos when it assigns
// none. A colon stands in many sentences: it assigns to the plainest names alone.
size_t AssignedAt(std::string_view text, std::string_view name, size_t at) {
  const auto skip = [&](const char *signs) {
    at = std::min(text.find_first_not_of(signs, at), text.size());
  };
  const std::string key(name);
  if (!SoundsSecret(key, kSuspicious)) {
    return std::string_view::npos;
  }
  const bool option = name.starts_with("--") && at < text.size() && (text[at] == ' ');
  skip("\\\"'");
  skip(" \t");
  const char sign = at < text.size() ? text[at] : '\0';
  if (sign == '=' ||
      (sign == ':' && SoundsSecret(key, {"passw", "passphrase", "secret", "credential"}))) {
    at++;
    skip(" \t");
    return at;
  }
  return option ? at : std::string_view::npos;
}

// What follows a name that sounds like a secret's, left out.
std::string WithoutAssignments(std::string_view text) {
  const auto part = [](char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
  };
  std::string result;
  for (size_t at = 0; at < text.size();) {
    size_t end = at;
    while (end < text.size() && part(text[end])) {
      end++;
    }
    size_t value = end > at ? AssignedAt(text, text.substr(at, end - at), end) : std::string::npos;
    if (value == std::string::npos) {
      end += end == at ? 1 : 0;
      result += text.substr(at, end - at);
      at = end;
      continue;
    }
    // In quotation marks, which in JSON have backslashes before them, or up to the next sign that
    // ends a word.
    const size_t mark = std::min(text.find_first_not_of('\\', value), text.size());
    std::string stop = " \t\r\n,;&)>\"'";
    if (mark < text.size() && (text[mark] == '"' || text[mark] == '\'')) {
      stop = std::string(text.substr(mark, 1)) + "\n";
      value = mark + 1;
    }
    size_t behind = std::min(text.find_first_of(stop, value), text.size());
    while (behind > value && behind < text.size() && text[behind - 1] == '\\') {
      behind--;
    }
    result += text.substr(at, value - at);
    result += behind > value ? kLeftOut : "";
    at = behind;
  }
  return result;
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
    } else {
      for (const std::string &word : ValueOf(last).behind) {
        AddWords(word, secrets);
      }
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
      const TokenValue value = ValueOf(line);
      for (const std::string &word : value.kept) {
        result += " " + (secrets->count(word) != 0 ? std::string(kLeftOut) : word);
      }
      result += value.behind.empty() ? "" : std::string(" ") + kLeftOut;
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
    if (SoundsSecret(std::string(line.substr(0, std::min(equals, line.size()))), kSuspicious)) {
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

std::string WithoutMountSecrets(std::string_view table, Secrets *secrets) {
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
      constexpr int kSource = 0;
      constexpr int kOptions = 3;
      if (field == kOptions && !word.empty()) {
        const std::string all = "," + std::string(word) + ",";
        result += all.find(",ro,") != std::string::npos ? "ro" : "rw";
      } else if (field == kSource) {
        result += WithoutAddressPasswords(std::string(word), secrets);
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

std::string WithoutAddressPasswords(std::string text, Secrets *secrets) {
  // The agent cuts names that are longer: a password may have lost its end, and what follows it.
  constexpr size_t kShortestCut = 96;
  constexpr std::string_view kCut = "...";
  const auto ends = [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '\'' || c == '\x7F';
  };
  for (size_t from = 0; from < text.size();) {
    const size_t end = static_cast<size_t>(
        std::find_if(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), ends) -
        text.begin());
    const std::string_view word = std::string_view(text).substr(from, end - from);
    const size_t slashes = word.find("//");
    const size_t user = slashes != std::string_view::npos ? slashes + 2 : 0;
    const size_t colon = word.find(':', user);
    size_t at = word.rfind('@');
    if (at == std::string_view::npos && slashes != std::string_view::npos &&
        word.size() >= kShortestCut) {
      at = word.size() - (word.ends_with(kCut) ? kCut.size() : 0);
    }
    // server:/directory@1 is a directory of NFS, and an address in brackets has colons of its own.
    const bool password =
        colon != std::string_view::npos && at != std::string_view::npos && colon + 1 < at &&
        word.substr(user, 1) != "[" &&
        (slashes != std::string_view::npos ? slashes < colon : word[colon + 1] != '/');
    if (password) {
      const size_t length = at - colon - 1;
      const std::string secret(word.substr(colon + 1, length));
      if (secret.size() >= kShortestWord) {
        secrets->insert(secret);
      }
      text.replace(from + colon + 1, length, length, '*');
    }
    from = end + 1;
  }
  return text;
}

// Covers them in a text of so many bytes that stands somewhere in others; nothing moves.
static void CoverField(std::string *bytes, size_t at, size_t size, Secrets *secrets) {
  if (at <= bytes->size() && size <= bytes->size() - at) {
    bytes->replace(at, size, WithoutAddressPasswords(bytes->substr(at, size), secrets));
  }
}

std::string ObjectFileWithoutPasswords(std::string bytes, Secrets *secrets) {
  bool torn = false;
  const std::string before = bytes;
  const auto object = ParseObjectFile({bytes.begin(), bytes.end()}, &torn);
  if (!object) {
    return WithoutAddressPasswords(std::move(bytes), secrets);
  }
  const auto header = Load<FileHeader>(reinterpret_cast<const uint8_t *>(before.data()));
  const auto checksum = [&](const std::string &file, size_t offset) {
    const auto *const slot = reinterpret_cast<const uint8_t *>(file.data() + offset);
    auto head = Load<SlotHeader>(slot);
    head.checksum = 0;
    const uint64_t begun =
        RegistryChecksum(reinterpret_cast<const uint8_t *>(&head), sizeof(head), header.checksum);
    return RegistryChecksum(slot + sizeof(head), header.slot_size - sizeof(head), begun);
  };
  for (const size_t number : {0, 1}) {
    const size_t offset = header.slots_offset + number * size_t{header.slot_size};
    if (offset + header.slot_size > bytes.size()) {
      // The second one was cut off: what is left of it is no object's.
      bytes.replace(offset, std::string::npos,
                    WithoutAddressPasswords(bytes.substr(offset), secrets));
      break;
    }
    // The texts alone: other bytes may look like anything.
    for (const FileVariable &variable : object->variables) {
      if (variable.type == VAR_DISPLAY_STRING) {
        CoverField(
            &bytes,
            offset + sizeof(SlotHeader) + Padded(2 * object->variables.size()) + variable.offset,
            variable.size, secrets);
      }
    }
    auto slot = Load<SlotHeader>(reinterpret_cast<const uint8_t *>(before.data() + offset));
    if (slot.checksum == checksum(before, offset)) {
      slot.checksum = checksum(bytes, offset);
      Store(reinterpret_cast<uint8_t *>(bytes.data() + offset), slot);
    }
  }
  return bytes;
}

void CoverPasswords(FileObject *object) {
  Secrets ignored;
  std::string bytes(object->data.begin(), object->data.end());
  for (const FileVariable &variable : object->variables) {
    if (variable.type == VAR_DISPLAY_STRING) {
      CoverField(&bytes, variable.offset, variable.size, &ignored);
    }
  }
  object->data.assign(bytes.begin(), bytes.end());
}

std::string WithoutSecrets(std::string_view text, const Secrets &secrets) {
  Secrets ignored;
  return WithoutWords(WithoutAssignments(WithoutAddressPasswords(std::string(text), &ignored)),
                      secrets);
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
