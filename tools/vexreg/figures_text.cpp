// The text of figures, for vexreg and for the library that gives them to the agent in a replay.
#include <charconv>
#include <cstdio>

#include "tools/vexreg/figures.h"

namespace vex {
namespace {

constexpr std::string_view kFigures = "figures";
constexpr std::string_view kError = "error";
constexpr std::string_view kSilent = "silent";

std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > ' ' && byte < 0x7F && c != '\\') {
      escaped += c;
    } else {
      char octal[8];
      snprintf(octal, sizeof(octal), "\\%03o", byte);
      escaped += octal;
    }
  }
  return escaped;
}

std::string Unescaped(std::string_view text) {
  const auto digit = [&](size_t at) {
    return at < text.size() && text[at] >= '0' && text[at] <= '7';
  };
  std::string plain;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '\\' && digit(i + 1) && digit(i + 2) && digit(i + 3)) {
      plain += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                 (text[i + 3] - '0'));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

std::string_view TakeWord(std::string_view *line) {
  const size_t end = std::min(line->find(' '), line->size());
  const std::string_view word = line->substr(0, end);
  line->remove_prefix(std::min(end + 1, line->size()));
  return word;
}

template <typename Number>
bool TakeNumber(std::string_view *line, Number *number) {
  const std::string_view word = TakeWord(line);
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), *number);
  return error == std::errc() && end == word.data() + word.size();
}

bool ParseLine(std::string_view line, MountFigures *figures) {
  return TakeNumber(&line, &figures->frsize) && TakeNumber(&line, &figures->blocks) &&
         TakeNumber(&line, &figures->bfree) && TakeNumber(&line, &figures->files) &&
         TakeNumber(&line, &figures->ffree);
}

}  // namespace

std::string FiguresText(const std::map<std::string, MountFigures> &figures) {
  std::string text;
  for (const auto &[directory, one] : figures) {
    const auto number = [&text](uint64_t value) { text += " " + std::to_string(value); };
    if (one.state == MountFigures::kAnswered) {
      text += kFigures;
      for (const uint64_t value : {one.frsize, one.blocks, one.bfree, one.files, one.ffree}) {
        number(value);
      }
    } else if (one.state == MountFigures::kErrno) {
      text += kError;
      number(static_cast<uint64_t>(one.error));
    } else {
      text += kSilent;
    }
    text += " " + Escaped(directory) + "\n";
  }
  return text;
}

std::map<std::string, MountFigures> ParseFigures(std::string_view text) {
  std::map<std::string, MountFigures> figures;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const std::string_view kind = TakeWord(&line);
    const size_t space = line.rfind(' ');
    const std::string_view directory = line.substr(space == line.npos ? 0 : space + 1);
    MountFigures one;
    if (kind == kFigures && ParseLine(line, &one)) {
      one.state = MountFigures::kAnswered;
    } else if (kind == kError && TakeNumber(&line, &one.error) && one.error > 0) {
      one.state = MountFigures::kErrno;
    } else if (kind != kSilent) {
      continue;
    }
    figures.emplace(Unescaped(directory), one);
  }
  return figures;
}

}  // namespace vex
