// The subcommands of vexreg. Each returns the exit status: 0, 1 when a named object does not exist
// or cannot be read or written, 2 for wrong usage; messages go to standard error.
#ifndef VEX_TOOLS_VEXREG_COMMANDS_H
#define VEX_TOOLS_VEXREG_COMMANDS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "framework/process/descriptor.h"
#include "tools/vexreg/appearance.h"
#include "tools/vexreg/archive.h"
#include "tools/vexreg/arrange.h"
#include "tools/vexreg/names.h"
#include "tools/vexreg/tables.h"

namespace vex {

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2 };

// How values are printed.
struct View {
  // Of the lines; none given: the terminal's, or unlimited when standard output is no terminal.
  std::optional<int> width;
  bool raw = false;   // numbers as they are
  bool json = false;  // for programs
  ColourChoice colour = ColourChoice::kAuto;
  double interval = 2;    // seconds between looks of a live view
  bool captured = false;  // what is shown was captured, and its age says nothing
};

// Reads the objects that the selection stands for, and complains of names that stand for nothing.
// *status becomes kFailed then; the others are read all the same.
std::vector<NamedObject> ReadObjects(const Selection &selection, int *status);

// Says what a search has left out: *status becomes kFailed where nobody knows what is missing.
void TellLeftOut(const Found &found, const std::string &root, int *status);
void TellUnread(const std::vector<Unread> &unread, const std::string &root, int *status);

int Dump(const Selection &selection);
// kFailed, and why, also when nothing at all is published. Of an agent's old values it says so.
int Show(const Selection &selection, const View &view, const Arrangement &arrangement);
// Looks for what keeps the agent from being seen, one line for each check. kFailed when something
// needs to be done, or when it is not done within so many seconds.
int Doctor(const std::string &root, const View &view, int most_seconds);
// A view of the whole screen on a terminal that can have one, else a line for each change, until a
// signal or a key ends it.
int Watch(const Selection &selection, const View &view);
// OpenMetrics text of what is published, on standard output or as a file that is written whole.
int Export(const std::string &root, const std::optional<std::string> &file);
int Put(const std::string &root, const std::string &name, const std::vector<std::string> &variables,
        const std::optional<std::string> &data_file);
int Remove(const std::string &root, const std::string &name);
// What a capture has at most besides its description, so that all of it goes into an archive.
struct CaptureLimits {
  size_t bytes = kMostArchiveBytes / 2;
  size_t members = kMostMembers - 1;
};
// Writes what the agent reads on this host, the registry, the log and doctor's findings as one file
// ("-": standard output). program: this program's version. What cannot be read is left out, with a
// message.
// json: what was taken and what was not, as JSON on standard output.
int CaptureHost(const std::string &root, const std::string &file, const std::string &program,
                bool json, const CaptureLimits &limits = {});
struct Capture;
// An HTML page of this host, or of a captured one, on standard output or as a file that is written
// whole, for this user alone. root: of the registry, the captured one too.
int Report(const std::string &root, const std::string &program, const Capture *capture,
           const std::optional<std::string> &file);
struct ReplayOptions {
  std::string agent;   // the program to try; empty: the one installed beside this
  bool exact = false;  // compares what moves between a poll and the capture as well
  int seconds = 60;    // until what differs is believed
  bool json = false;   // what differs, as JSON
};
// Runs the agent on a captured host in private namespaces. kFailed also when it serves other values
// than then.
int Replay(const std::string &file, const ReplayOptions &options);

// Does the work of a whole process and returns its exit status. Where memory is short, a process
// that has this about it ends at once with a message and kFailed: a stream would go on with half a
// text.
int Caught(const std::function<int()> &work);

// One message on standard error, with control characters made visible.
void Complain(const std::string &message);
// Opens a file to be read, which `opened` then owns; "-" is standard input. The descriptor, or -1
// with errno.
int OpenInput(const std::string &path, Descriptor *opened);
// The terminal's width on standard output; 0 when it is none.
int TerminalWidth();
// Flushes standard output. kFailed, with a message, when something could not be written.
int FinishOutput(int status);

}  // namespace vex

#endif
