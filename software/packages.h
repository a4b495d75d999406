// The software pass: finds what is installed and keeps the table of swver.h.
#ifndef VEX_SOFTWARE_PACKAGES_H
#define VEX_SOFTWARE_PACKAGES_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "common/group.h"

extern const group swverag_group;  // the version of the agents' package

// Builds the table at the first call; refreshes component versions, rescans the package database
// when it has changed, and publishes. Returns 0.
int do_swver();

// ---- Pieces of the pass, for its tests ----------------------------------------------------------

// How a package is reported: origin * 256 + type, or 0 when it is not.
int classify_package(const char *name);

// Room for a row's name with its architecture.
inline constexpr size_t decorated_size = 64;

// Builds the name of a package's row: the name and, by origin, its architecture. A null
// architecture means the machine's.
void decorate_name(char (&buffer)[decorated_size], const char *name, const char *architecture,
                   int origin);

// The index of the first needle (in their order) that occurs in a line of the file, for the first
// line in which one does; NO_LINE when there is none or no such file, LINES_UNREADABLE when it may
// be read another time. Lines count in pieces of up to 253 characters.
enum find_line_result { NO_LINE = -1, LINES_UNREADABLE = -2 };
int find_line(const char *path, const char *const *needles, int count);

// What a package query prints, key by key. Null where a key was not printed.
struct package_answer {
  const char *name;
  const char *version;
  const char *description;
  const char *architecture;
  char texts[256];  // where they lie
};

// Reads pairs of key and value until four known keys were read. Returns 0, or -1 when the stream
// ends or the room is used up before.
int read_package_answer(FILE *stream, package_answer *answer);

// Splits a listing at its newlines, in place; what follows the last one does not count. Stores up
// to `most` names and returns their number.
int split_listing(char *text, size_t length, const char **names, int most);

// Whether a name may reach a shell, and if not, why.
enum package_name { NAME_USABLE = 0, NAME_TOO_LONG = 1, NAME_WITH_WRONG_CHARACTER = 2 };

// A usable name has only characters that a package's name can have and is short enough for the
// query. A wrong character counts before the length.
int check_package_name(const char *name);

// When a package tool that hung is asked again: after half a minute, then after twice the time of
// the time before, to ten minutes. Zeroed: at once.
struct tool_patience {
  int64_t next;   // milliseconds of the clock that does not step
  int64_t pause;  // before that; 0 when the tool did not hang
};

// Whether the tool may be asked at that time.
bool may_ask(const tool_patience &patience, int64_t now);
// The tool hung, or answered.
void lose_patience(tool_patience *patience, int64_t now);
void regain_patience(tool_patience *patience);

#endif
