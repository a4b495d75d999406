#include "framework/process/printable.h"

#include <algorithm>

namespace vex {

std::string Printable(std::string_view text) {
  std::string shown(text);
  for (size_t i = 0; i < shown.size(); i++) {
    const auto byte = static_cast<unsigned char>(shown[i]);
    const bool c1 =
        byte == 0xC2 && i + 1 < shown.size() && static_cast<unsigned char>(shown[i + 1]) < 0xA0;
    if (byte < ' ' || byte == 0x7F || c1) {
      shown[i] = '?';
      if (c1) {
        shown[i + 1] = '?';
      }
    }
  }
  return shown;
}

std::string JoinLines(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  std::string line;
  for (const char c : text) {
    if (c == '\n') {
      line += "; ";
    } else {
      line += c;
    }
  }
  return line;
}

std::string PrintableLine(std::string_view text) {
  std::string line = JoinLines(text);
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return line;
}

}  // namespace vex
