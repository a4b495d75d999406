#include "tests/support/smbios_tables.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace vex {
namespace {

// The words of a line; a quoted text is one word that keeps its opening quote.
std::vector<std::string> Words(const std::string &line) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); i++) {
    const char c = line[i];
    if (quoted) {
      if (c == '"') {
        quoted = false;
      } else {
        word += c;
      }
    } else if (c == '"') {
      word += c;
      quoted = true;
    } else if (c == '#') {
      break;
    } else if (c == ' ' || c == '\t') {
      if (!word.empty()) {
        words.push_back(word);
      }
      word.clear();
    } else {
      word += c;
    }
  }
  if (quoted) {
    throw std::invalid_argument("text without end: " + line);
  }
  if (!word.empty()) {
    words.push_back(word);
  }
  return words;
}

unsigned long Number(const std::string &text) {
  size_t used = 0;
  const unsigned long n = std::stoul(text, &used, 0);
  if (used != text.size()) {
    throw std::invalid_argument("not a number: " + text);
  }
  return n;
}

void AppendHex(std::string text, std::string *out) {
  if (text.size() > 2 && text.front() == '{' && text.back() == '}') {
    text = text.substr(1, text.size() - 2);
  }
  if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != text.npos) {
    throw std::invalid_argument("neither bytes nor an option: " + text);
  }
  for (size_t i = 0; i < text.size(); i += 2) {
    *out += static_cast<char>(std::stoul(text.substr(i, 2), nullptr, 16));
  }
}

void AppendLittle(uint64_t n, int bytes, std::string *out) {
  for (int i = 0; i < bytes; i++) {
    *out += static_cast<char>(n >> (8 * i));
  }
}

// Takes NAME=VALUE words out of `words`.
std::map<std::string, std::string> TakeOptions(std::vector<std::string> *words,
                                               const std::string &names) {
  std::map<std::string, std::string> options;
  std::vector<std::string> rest;
  for (const std::string &word : *words) {
    const size_t equals = word.find('=');
    if (word[0] != '"' && equals != word.npos &&
        names.find(" " + word.substr(0, equals) + " ") != names.npos) {
      options[word.substr(0, equals)] = word.substr(equals + 1);
    } else {
      rest.push_back(word);
    }
  }
  *words = rest;
  return options;
}

std::string AssembleRecord(std::vector<std::string> words, unsigned next_handle) {
  std::string head = words[0].substr(0, words[0].size() - 1);
  unsigned long handle = next_handle;
  if (const size_t at = head.find('@'); at != head.npos) {
    handle = Number(head.substr(at + 1));
    head = head.substr(0, at);
  }
  words.erase(words.begin());
  auto options = TakeOptions(&words, " length end ");
  std::string record;
  record += static_cast<char>(Number(head));
  record += '\0';
  AppendLittle(handle, 2, &record);
  std::vector<std::string> strings;
  for (const std::string &word : words) {
    if (word[0] == '"') {
      strings.push_back(word.substr(1));
    } else if (word.starts_with("to=")) {
      record.resize(Number(word.substr(3)));
    } else if (word.starts_with("w=")) {
      AppendLittle(Number(word.substr(2)), 2, &record);
    } else {
      AppendHex(word, &record);
    }
  }
  record[1] =
      static_cast<char>(options.contains("length") ? Number(options["length"]) : record.size());
  for (size_t i = 0; i < strings.size(); i++) {
    record += i > 0 ? std::string(1, '\0') + strings[i] : strings[i];
  }
  record.append(options.contains("end") ? Number(options["end"]) : 2, '\0');
  return record;
}

// Makes the byte at `at` such that bytes [from, from + size) add up to zero.
void SetChecksum(std::string *bytes, size_t from, size_t size, size_t at) {
  (*bytes)[at] = 0;
  uint8_t sum = 0;
  for (size_t i = from; i < from + size && i < bytes->size(); i++) {
    sum = static_cast<uint8_t>(sum + static_cast<uint8_t>((*bytes)[i]));
  }
  (*bytes)[at] = static_cast<char>(-sum);
}

std::string AssembleEntryPoint(std::vector<std::string> words, size_t length, size_t count,
                               size_t largest) {
  words.erase(words.begin());
  auto options = TakeOptions(&words, " length count size anchor checksum cut ");
  const bool bare = !words.empty() && words[0] == "dmi";
  if (bare) {
    words.erase(words.begin());
  }
  if (words.size() != 1 || words[0].find('.') == std::string::npos) {
    throw std::invalid_argument("entry needs a version");
  }
  const unsigned long major = Number(words[0].substr(0, words[0].find('.')));
  const unsigned long minor = Number(words[0].substr(words[0].find('.') + 1));
  if (options.contains("length")) {
    length = Number(options["length"]);
  }
  if (options.contains("count")) {
    count = Number(options["count"]);
  }

  std::string entry;
  size_t checksum = 5;
  if (major >= 3 && !bare) {
    entry = "_SM3_";
    entry += '\0';
    entry += static_cast<char>(options.contains("size") ? Number(options["size"]) : 24);
    entry += static_cast<char>(major);
    entry += static_cast<char>(minor);
    AppendLittle(0, 1, &entry);  // docrev
    AppendLittle(1, 2, &entry);  // revision, reserved
    AppendLittle(length, 4, &entry);
    AppendLittle(0xE0000, 8, &entry);
    SetChecksum(&entry, 0, entry.size(), checksum);
  } else {
    std::string dmi = "_DMI_";
    dmi += '\0';
    AppendLittle(length, 2, &dmi);
    AppendLittle(0xE0000, 4, &dmi);
    AppendLittle(count, 2, &dmi);
    dmi += static_cast<char>(major << 4 | minor);
    SetChecksum(&dmi, 0, dmi.size(), 5);
    if (!bare) {
      entry = "_SM_";
      entry += '\0';
      entry += static_cast<char>(options.contains("size") ? Number(options["size"]) : 31);
      entry += static_cast<char>(major);
      entry += static_cast<char>(minor);
      AppendLittle(largest, 2, &entry);
      AppendLittle(0, 6, &entry);  // revision, formatted area
      checksum = 4;
    }
    entry += dmi;
    if (!bare) {
      SetChecksum(&entry, 0, static_cast<uint8_t>(entry[5]), checksum);
    }
  }
  if (options.contains("anchor")) {
    entry.replace(0, options["anchor"].size(), options["anchor"]);
    SetChecksum(&entry, 0, entry.size(), checksum);
  }
  if (options["checksum"] == "bad") {
    entry[checksum]++;
  }
  if (options.contains("cut")) {
    entry.resize(entry.size() - Number(options["cut"]));
  }
  return entry;
}

}  // namespace

SmbiosImage AssembleSmbios(std::string_view description) {
  SmbiosImage image;
  std::istringstream lines{std::string(description)};
  std::string line;
  std::vector<std::string> entry;
  unsigned count = 0;
  size_t largest = 0;
  while (std::getline(lines, line)) {
    const std::vector<std::string> words = Words(line);
    if (words.empty()) {
      continue;
    }
    if (words[0] == "entry") {
      entry = words;
    } else if (words[0] == "raw") {
      for (size_t i = 1; i < words.size(); i++) {
        AppendHex(words[i], &image.table);
      }
    } else if (words[0] == "cut" && words.size() == 2) {
      image.table.resize(image.table.size() - Number(words[1]));
    } else if (words[0].back() == ':') {
      const std::string record = AssembleRecord(words, count);
      largest = std::max(largest, record.size());
      image.table += record;
      count++;
    } else {
      throw std::invalid_argument("unknown line: " + line);
    }
  }
  if (entry.empty()) {
    throw std::invalid_argument("no entry line");
  }
  image.entry_point = AssembleEntryPoint(entry, image.table.size(), count, largest);
  return image;
}

void WriteSmbios(const SmbiosImage &image, const std::string &directory) {
  for (const auto &[name, content] :
       {std::pair("smbios_entry_point", &image.entry_point), std::pair("DMI", &image.table)}) {
    std::ofstream file(directory + "/" + name, std::ios::binary);
    file << *content << std::flush;
    if (!file) {
      throw std::runtime_error("cannot write " + directory + "/" + name);
    }
  }
}

}  // namespace vex
