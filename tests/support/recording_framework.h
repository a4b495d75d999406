// An Agent Framework in memory for unit tests of the Host Agent's code: it keeps objects and
// queues, records what the code under test does, serves made-up facts, and fails when told to. A
// target that links `recording_framework` also gets its file, command and clock calls through the
// wrappers declared at the end, so that the code under test reads made-up files without knowing it.
//
// Objects are named relative to the registry root ("host/cpu.0"). Module state of the code under
// test lives as long as the process, so tests run each in a process of their own: link
// `isolated_main` in place of gtest_main.
#ifndef VEX_TESTS_SUPPORT_RECORDING_FRAMEWORK_H
#define VEX_TESTS_SUPPORT_RECORDING_FRAMEWORK_H

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/utsname.h>

#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/framework.h"

namespace rec {

// ---- What happened ------------------------------------------------------------------------------

// One call of interest, in order. `operation` is the function's name.
struct Event {
  std::string operation;
  // The object (create_obj, log_data, delete_obj, find_obj, get_obj), path (create_dir ...),
  // command (process_linux_cmd, run_command), OID, or number as text (sleep, alarm, set_poll_time
  // ...).
  std::string name;
  std::string data;  // log_data: the data block as published
};

const std::vector<Event> &Events();
// Events of that operation whose name matches the shell pattern.
int Count(std::string_view operation, const std::string &pattern = "*");
// Names of the events of that operation, in order.
std::vector<std::string> Names(std::string_view operation);
// Forgets the events, messages and traps so far; objects stay.
void ForgetEvents();

// Messages of agentlog_fprintf(), whole.
const std::vector<std::string> &Messages();
// Also called with every message, at once.
void OnMessage(void (*callback)(const std::string &message));

struct Trap {
  int number;
  std::string object;  // "" for none
  std::vector<int> slots;
  std::string description;
};
const std::vector<Trap> &Traps();

// ---- Objects ------------------------------------------------------------------------------------

// One variable of an object, by its slot: what the object says of it, and where its value lies in
// the data block.
struct Slot {
  std::string name;
  int size;
  int type;
  int access;
  long offset;
  bool operator==(const Slot &) const = default;
};
// For googletest.
void PrintTo(const Slot &slot, std::ostream *stream);
// The variables of a live object, in their order; checked are their numbers, and that each is one
// value.
std::vector<Slot> Slots(const std::string &name);
// Those of them that a handler judges when they are set.
std::vector<std::string> Handled(const std::string &name);

// The live object, published or not; null when there is none.
registry_object *Live(const std::string &name);
// From now on, an object that is made lies where the last deleted one lay.
void ReuseObjects();
std::vector<std::string> LiveNames();
// How often the object was published since its creation (0 also when there is none).
int Publications(const std::string &name);
// The data block as last published; "" when never.
std::string Published(const std::string &name);
// A variable of the object as last published. The test fails when there is none of that name, or
// none of that type; Octets() has the variable's current length.
int32_t Int(const std::string &name, const std::string &variable);
std::string Text(const std::string &name, const std::string &variable);
std::string Octets(const std::string &name, const std::string &variable);
// The descriptor of a live object's variable; null when there is none.
descriptor *Variable(const std::string &name, const std::string &variable);

// The object may be published with slots that were never defined; else that fails the test.
void AllowUndefinedSlots(const std::string &name);

// A manager's set of one variable: check, then, when accepted, apply. Returns the handler's
// result; -1 for a variable without a handler.
int Set(const std::string &name, const std::string &variable, int32_t value);
int Set(const std::string &name, const std::string &variable, const std::string &value);
int CheckOnly(const std::string &name, const std::string &variable, const std::string &value);

// ---- Failures -----------------------------------------------------------------------------------

// Makes calls of an operation fail as its declaration says: those whose name (see Event) matches
// the pattern; only the n-th such call from now, or all of them when nth is 0, or all from the n-th
// on when nth is -n. Works for every
// operation of platform/framework.h with a failing result, for get_ev, and for the wrapped calls
// below; `error` is the errno of those that set one.
void Fail(const std::string &operation, const std::string &pattern = "*", int nth = 0,
          int error = 5 /* EIO */);
void StopFailing();

// ---- Made-up facts ------------------------------------------------------------------------------

// A variable of a sibling's object.
struct SiblingVariable {
  std::string name;
  int type;
  int size;
  std::string bytes;  // size of them, or fewer: an octet string's current length
};
SiblingVariable IntVar(const std::string &name, int32_t value);
SiblingVariable TextVar(const std::string &name, int size, const std::string &text);
SiblingVariable OctetVar(const std::string &name, int size, const std::string &bytes);

// What get_obj() finds under that path (any spelling of it).
void PutSibling(const std::string &path, const std::vector<SiblingVariable> &variables);
// An object with a raw data block and no variables; `data` empty: one without data.
void PutSiblingData(const std::string &path, const std::string &data);
void RemoveSibling(const std::string &path);

void PutSnmpInteger(const std::string &oid, int32_t value, int status = 0);
// Whether a connection to an SNMP agent is open now.
bool SnmpConnectionOpen();

// Output and exit status of process_linux_cmd() and run_command() for exactly that command. A
// command that was not given exits with 127 and without output.
void PutCommand(const std::string &command, const std::string &output, int status = 0);
// run_command() of that command takes so long of the time that PassTime() moves; when its limit is
// shorter, that long, and it fails as one that ran out of time. 0 for no time again.
void PutCommandTime(const std::string &command, double seconds);

void SetCommunity(const std::string &community);  // "" for none; "public" at first
void SetAppliance(bool appliance, int32_t product_id = 0,
                  const std::map<std::string, std::string> &texts = {});
void SetDistribution(const std::string &name, const std::string &flavor, const std::string &version,
                     const std::string &description);
void SetMibRevision(int group, int major, int minor);
// What stat_mounts() says of that path. A path that was not put fails with ENOENT.
void PutMount(const std::string &path, const mount_stats &stats);
void PutEv(const std::string &name, const std::string &bytes);
// SMBIOS tables from their description (see smbios_tables.h); none at first, none when malformed.
void PutSmbios(const std::string &description);
// What initializeRemoteVantix() finds (a tlxci_kind); nothing at first. Events: the calls of
// platform/channel.h, and ioctl for the card; name: the time-out, data: what was sent.
struct ControllerReply {
  int status;
  std::string bytes;
  double seconds = 0;  // that it takes, of the time that PassTime() moves
};
void SetController(int kind);
// Statuses of the sends to come (then 0), and the replies to come (then a time-out).
void PutSends(const std::vector<int> &statuses);
void PutReplies(const std::vector<ControllerReply> &replies);
// What a remote card answers (status 0) or that its ioctl fails.
void PutCardReply(const ControllerReply &reply);
// The System V segment that any key names; there is none at first.
void PutSegment(const std::string &bytes);
// What getpgid() says of a process, and SIOCGIFHWADDR of an interface (six bytes; "" for no such
// interface). Processes and interfaces that were not given are the machine's.
void PutProcessGroup(pid_t process, pid_t group);
void PutHardwareAddress(const std::string &interface, const std::string &address);
// What getservbyname() says of a service; port 0: unknown. Others are the machine's.
void PutService(const std::string &name, int port);
// What uname() says from now on.
void PutSystem(const utsname &system);

// ---- Files, commands and clocks -----------------------------------------------------------------

// fopen, open, opendir, access, stat, lstat, chmod, unlink, rename, glob and setmntent of a path at
// or below one that was put here go to a private directory instead; everything else is untouched.
// Parents are created. The path counts as taken over until the process ends. openat, read, write,
// fstat, fchmod, fsync, renameat, renameat2 (by their target), unlinkat, statx, fstatat, fdopendir
// and readdir go where their descriptors lead; Fail() knows those files by the paths that the code
// under test has for them. calloc, realloc, fmemopen and uname have the name "", strdup its text.
void PutFile(const std::string &path, std::string_view contents);
void PutDirectory(const std::string &path);
// Nothing is there, whatever the machine has.
void PutNothing(const std::string &path);
// Where a path taken over really lies.
std::string RealPath(const std::string &path);
// What is in a directory taken over, in order.
std::vector<std::string> EntriesOf(const std::string &directory);
// What fstat says of the owner of that path, and what geteuid says. Otherwise they are the
// machine's.
void PutOwner(const std::string &path, uid_t owner);
void PutUser(uid_t user);
// What statx says of when that path was made; with nanoseconds below 0, that it does not know.
void PutBirth(const std::string &path, const timespec &birth);
// The contents of a file, taken over or not; "" when there is none.
std::string ReadFile(const std::string &path);

// As often as that, fopen and setmntent of the path give a stream of which a read fails with EIO
// once that many bytes have been read.
void BreakReads(const std::string &path, int times, size_t after);

// fstatat() of the path says what `change` makes of its status from now on.
void ChangeStatus(const std::string &path, void (*change)(struct stat *status));

// A read() of that path is held up from now on: the steps of run_apart(), which are called in this
// process, end there, and the time that such a step has passes. Elsewhere the test fails.
void HoldUp(const std::string &path);
void LetGo(const std::string &path);

// time() and clock_gettime(CLOCK_REALTIME) say this from now on.
void SetTime(time_t now);
// Moves what clock_gettime(CLOCK_MONOTONIC) says on.
void PassTime(double seconds);
// clock_gettime(CLOCK_BOOTTIME) does.
void SetBootTime(time_t now);
// How many blocks of calloc(), realloc() and strdup() were not freed yet.
size_t Blocks();
// sleep(), usleep(), nanosleep() (in milliseconds), alarm() and rmdir() are recorded and return at
// once with 0; nothing is armed or removed.

// Every nanosleep() calls this from now on: what happens during a pause.
void OnPause(void (*callback)());

}  // namespace rec

#endif
