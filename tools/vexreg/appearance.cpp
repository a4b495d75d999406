#include "tools/vexreg/appearance.h"

#include <langinfo.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <utility>

namespace vex {
namespace {

bool IsSet(const char *name) {
  const char *value = getenv(name);
  return value != nullptr && *value != '\0';
}

// Whether the user's own locale is one of UTF-8; the process has set another for itself.
bool HasUtf8() {
  const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) {
    return false;
  }
  const bool utf8 = strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
  freelocale(locale);
  return utf8;
}

}  // namespace

bool ParseColour(std::string_view word, ColourChoice *choice) {
  constexpr std::pair<std::string_view, ColourChoice> kWords[] = {{"auto", ColourChoice::kAuto},
                                                                  {"always", ColourChoice::kAlways},
                                                                  {"never", ColourChoice::kNever}};
  for (const auto &[known, meant] : kWords) {
    if (word == known) {
      *choice = meant;
      return true;
    }
  }
  return false;
}

Style ChooseStyle(bool raw, ColourChoice choice) {
  const char *type = getenv("TERM");
  const bool able =
      isatty(STDOUT_FILENO) && type != nullptr && *type != '\0' && strcmp(type, "dumb") != 0;
  const bool always = choice == ColourChoice::kAlways;
  Style style;
  style.words = !raw;
  style.colour = always || (choice == ColourChoice::kAuto && able && !raw && !IsSet("NO_COLOR"));
  style.bars = !raw && (always || able);
  style.utf8 = HasUtf8();
  style.blocks = style.bars && style.utf8;
  return style;
}

}  // namespace vex
