/* The Agent Framework (libvexcommon) as the Host Agent and any sibling agent sees it.
 *
 * The framework owns the process: main() hands over to agent_main(), which calls the agent's three
 * hooks. Every variable lives in a registry object; log_data() publishes an object to its file and
 * to the SNMP side.
 *
 * Threads: unless a comment says otherwise, every function here is called on the agent thread (the
 * process's main thread) only, and no hook or set handler ever runs on another one.
 * Strings are NUL-terminated; "owned by" says who releases. Functions that can fail return 0 or a
 * non-zero int, or a null pointer; nothing is thrown across this interface.
 */
#ifndef VEX_PLATFORM_FRAMEWORK_H
#define VEX_PLATFORM_FRAMEWORK_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
/* What is declared here is seen across libraries; everything else is hidden by the build. */
#pragma GCC visibility push(default)

struct registry_object;
struct descriptor;

/* ---- Variables --------------------------------------------------------------------------- */

/* Type of a variable, as given to init_info(). */
enum variable_type {
  VAR_INTEGER = 1,        /* 32-bit signed integer, host byte order, size 4 */
  VAR_DISPLAY_STRING = 2, /* text, NUL-terminated within the declared size */
  VAR_OCTET_STRING = 3    /* octets; descriptor.length of them are current */
};

/* Access of a variable, as given to init_info(). */
enum variable_access { ACCESS_WRITABLE = 0, ACCESS_READ_ONLY = 2 };

/* Phase of a set handler call. Any value other than SET_CHECK means apply. */
enum set_phase { SET_CHECK = 1, SET_APPLY = 2 };

/* Called when a manager sets a writable variable.
 * phase   SET_CHECK: validate, change nothing; otherwise apply: store the value in the data block.
 * object  the live object; desc its descriptor of the variable (desc->slot tells which).
 * value   an int32_t in host order (VAR_INTEGER), NUL-terminated text (VAR_DISPLAY_STRING) or
 *         octets (VAR_OCTET_STRING); owned by the framework, valid during the call only.
 * length  4, the text's length without the NUL, or the number of octets.
 * A manager is kept waiting for 0.7 seconds and then told that the set has failed: a handler that
 * waits for something asks set_wanted().
 * Returns 0 to accept, -1 to refuse. The framework does not publish on the handler's behalf, but
 * what the data block holds after an accepted apply is what a manager reads next. A variable
 * without a handler is stored and published by the framework. */
typedef int (*set_handler_fn)(uint8_t phase, struct registry_object *object,
                              struct descriptor *desc, const void *value, int length);

/* One variable of an object. Filled by init_info(). */
struct descriptor {
  int slot;
  const char *name; /* MIB object name; copied by init_info(), owned by the object */
  int size;         /* bytes in the data block */
  int type;         /* enum variable_type; 0 while undefined */
  int access;       /* enum variable_access */
  int count;        /* always 1 */
  void *value;      /* inside the object's data block */
  set_handler_fn set_handler;
  uint16_t length; /* current length of an octet string; init_info() sets it to size */
};

/* An object of the registry. Live objects belong to the framework; the agent writes the data block
 * and descriptor.length, and reads the rest. */
struct registry_object {
  const char *name;        /* full path of the object's file */
  int instance;            /* the number after the last dot of the name; 0 when there is none */
  int flag;                /* as given to create_obj(); recorded, without effect here */
  int data_size;           /* bytes in data */
  int var_count;           /* entries in desc */
  struct descriptor *desc; /* slots 0 .. var_count-1 */
  unsigned char *data;     /* zeroed by create_obj(); null in a snapshot without data */
  void *framework;         /* the framework's own; null in a snapshot */
};

/* ---- Queues ------------------------------------------------------------------------------ */

struct queue_element; /* opaque: a place in a queue */

/* A queue of records that their callers own. A zeroed struct is an empty queue. `head` may be read
 * (to start a walk); everything else is the framework's. */
struct queue {
  struct queue_element *head;
  void *framework;
};

/* Modes of remove_Q() and peek_Q(). */
enum queue_mode {
  Q_FIRST = 2, /* remove_Q: the record at the head */
  Q_NEXT = 3   /* peek_Q: the record at the cursor, and move the cursor on */
};

/* Orders two records: -1, 0 or 1. */
typedef int (*order_fn)(const void *record, const void *other);
/* Compares a key with a record: 0 when the record has that key. */
typedef int (*key_fn)(const void *key, const void *record);

/* Inserts record so that the queue stays in comparator order (after its equals). Returns non-zero
 * on success, 0 when there is no memory. O(log n). */
int ordinsert_Q(struct queue *queue, void *record, order_fn comparator);

/* Returns the record at *cursor and moves *cursor on; null at the end or for a mode other than
 * Q_NEXT. Start with cursor = queue->head. The record last returned may be removed from the queue
 * before the next call. */
void *peek_Q(struct queue *queue, struct queue_element **cursor, int mode);

/* Removes and returns the first record (mode Q_FIRST); null when the queue is empty or for another
 * mode. */
void *remove_Q(struct queue *queue, int mode);

/* Removes and returns the first record for which comparator(key, record) is 0; null if none.
 * O(log n) when comparator is the one that orders the queue; otherwise as findkey_Q(). */
void *keyremove_Q(struct queue *queue, const void *key, key_fn comparator);

/* Returns the first record for which comparator(key, record) is 0, left in place; null if none.
 * A walk, unless the queue is indexed. */
void *findkey_Q(struct queue *queue, const void *key, key_fn comparator);

/* Tells the queue, while it is empty, how to read a record's key string, so that findkey_Q() and
 * keyremove_Q() with a comparator that is strcmp on that string take constant time and give the
 * result of the plain walk. key_of must return the key by which the comparator compares; no other
 * comparators than that one and those that order the queue may be used on it then. Null ends the
 * indexing. Returns 0 or -1. */
int index_Q(struct queue *queue, const char *(*key_of)(const void *record));

/* Must be called after the key of a record in an indexed queue was changed in place. */
void rekey_Q(struct queue *queue, void *record);

/* ---- Globals and hooks that the agent exports for the framework --------------------------- */

extern const char *agent;  /* the agent's name, set by agent_main() from argv[0] */
extern int32_t poll_time;  /* poll period in seconds, set through set_poll_time() */
extern char log_dir[80];   /* the agent's registry directory, set by its init_agent() */
extern struct queue obj_Q; /* the agent's objects, kept by the framework */
extern unsigned char ignore_peer_stop;
extern int32_t NicCondition;
extern int32_t PrevNicCondition;

int init_agent(int argc, char **argv); /* once; 0, or -1 to fail start-up */
int get_data(void);                    /* at each poll; the result is not acted on */
int cleanup_agent(void);               /* once, at the end, when init_agent() had succeeded */

/* ---- Registry objects -------------------------------------------------------------------- */

#define REGISTRY_ROOT "/var/spool/quorix/kelmo/registry"

/* The agent's own identifier, passed as the owner to create_obj(). */
int get_id(void);

/* Creates an object with a zeroed data block and var_count undefined descriptors. Nothing is
 * visible to a sibling or a manager before the first log_data().
 * name       full path under REGISTRY_ROOT; a number after the last dot is the instance number.
 * data_size  bytes, 0 .. 1 MiB; var_count 0 .. 4096.
 * Returns the object (owned by the framework), or null when the name lies outside the registry or
 * is in use, a size is out of range, or there is no memory. */
struct registry_object *create_obj(struct queue *registry, int owner, const char *name, int flag,
                                   int data_size, int var_count);

/* Defines the variable of one slot. desc is &object->desc[slot] of an object from create_obj();
 * value points into that object's data block. set_handler may be null. Returns 0, or -1 when slot,
 * size or value do not lie within the object (the slot then stays undefined). Defining a variable
 * of the MIB modules takes no memory; another one's name may lack it (-1, errno ENOMEM). */
int init_info(int slot, struct descriptor *desc, const char *name, int size, int type, int access,
              int count, void *value, set_handler_fn set_handler);

/* Publishes the object's current values, all at once, to its file and to the SNMP side. Never waits
 * for a disk or for the SNMP side. Returns 0 once the values are served. What fails (a file on a
 * full or read-only disk, no memory) is reported once, when that begins, and done again by the
 * framework after each poll until it succeeds. -1 when the object is not a live one. */
int log_data(struct registry_object *object);

/* Finds a live object of this process by its name relative to REGISTRY_ROOT ("host/cpu.0") or its
 * full path. The second argument is always 0. Returns it (not a copy), or null. */
struct registry_object *find_obj(struct queue *registry, int zero, const char *name);

/* Takes a snapshot of any agent's published object from its file. path is relative to
 * REGISTRY_ROOT or absolute; one that leads outside it, a missing, truncated or foreign file, or
 * one that fails its checksum reads as absent. Returns one block that the caller releases with
 * free(); data is null when the object holds none. desc[i].value lies inside the snapshot,
 * set_handler is null. Every display string in it ends within its size. Null with errno when it
 * is absent or cannot be read now (EMFILE, ENOMEM, EIO and the like); 0 for what is no object. */
struct registry_object *get_obj(const char *path);

/* Deletes an object (its file and what managers see) and releases it; with object null, every
 * object of the agent. The last argument is always 0. Returns 0, or -1 when it is not a live
 * object. */
int delete_obj(struct queue *registry, struct registry_object *object, int zero);

/* Takes a directory below REGISTRY_ROOT for this process alone, for as long as it lives; makes it
 * when it is missing. Once, before create_dir() and remove_all_dir(). Waits a second for a holder
 * that is just ending, or for what is short. Returns 0; 1 when the directory cannot be made or
 * reached now: it must not be cleared then, and the framework tries again after each poll, clears
 * it once it is had, and ends the process when it is another's; -1 with errno when the process must
 * not go on: EBUSY when another process has it (the log then says which one), EXDEV for a path
 * elsewhere, ENOMEM. */
int claim_dir(const char *path);

/* Creates a directory below REGISTRY_ROOT and, when parents is 1, what is missing above it (mode
 * 0755). Returns 0 (also when it exists) or -1 with errno. */
int create_dir(const char *path, int parents);

/* Removes what the path names, recursively, without following symbolic links; a path that ends in
 * slash and asterisk means the contents of the directory. Only below REGISTRY_ROOT. Returns 0
 * (also when there is nothing) or -1 with errno. */
int remove_all_dir(const char *path);

/* Returns non-zero when path is a directory at or below REGISTRY_ROOT without entries. As with the
 * next two, no link below the root is followed, and above it only those that root or this user has
 * made. */
int is_empty_dir(const char *path);

/* Removes the directory at or below REGISTRY_ROOT when it has no entries. Returns 0, or -1 with
 * errno. */
int remove_empty_dir(const char *path);

/* Opens the directory at or below REGISTRY_ROOT for reading. Returns a descriptor that is
 * close-on-exec and that the caller closes, or -1 with errno: ELOOP for a link that is not
 * followed, EXDEV for a path outside the registry. */
int open_dir(const char *path);

/* Whether the set that a handler applies is still wanted: 0 once its manager is, or is to be, told
 * that it failed. What was done for it is then undone, and the handler refuses. last 0: asked
 * before what is hard to undo. last 1: asked when nothing is left that takes time; the set then
 * stays wanted, and the manager waits for what the handler returns. Non-zero outside an apply. */
int set_wanted(int last);

/* ---- Process ----------------------------------------------------------------------------- */

/* The process's main loop. Sets `agent`, takes -l FILE out of the arguments, calls the hooks, and
 * returns the exit status: 0 after SIGTERM or SIGINT, 1 when init_agent() failed; what it had
 * created in the registry is then deleted. 1 also when the SNMP side could not be started or has
 * ended, which is logged: the hooks are then called as for an ordinary end. */
int agent_main(int argc, char **argv);

/* Non-zero once the process has been told to end (SIGTERM, SIGINT). Whatever waits or loops in a
 * hook asks now and then and gives up: the agent ends within a second. From then on the agent
 * thread's calls that can be interrupted are interrupted (EINTR) ten times a second, so that a wait
 * that began just after the question is left as well. Agent thread. */
int agent_ending(void);

/* Writes one formatted message, as it stands, to the log (standard error, or the -l file, when
 * stream is stderr). One write a message; any thread. Returns the number of bytes or -1. */
int agentlog_fprintf(FILE *stream, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Sets poll_time; less than 1 becomes 1. Does not arm the alarm. */
void set_poll_time(int seconds);

/* Enables (0) or disables (-1) sets or traps. Returns 0, or non-zero for any other value (9999
 * stands for a text that is neither). */
int cfg_set_state(int value);
int cfg_trap_state(int value);

/* Why a command has no exit status. */
enum command_end {
  COMMAND_NOT_RUN = -1,     /* it could not be started */
  COMMAND_TIMED_OUT = -2,   /* it ran out of time and was killed */
  COMMAND_AGENT_ENDING = -3 /* the agent is to end: it was killed, or not started */
};

/* Runs a shell command line (by /bin/sh -c, in a process group of its own, without input) for at
 * most limit_ms milliseconds, and not beyond the agent's end: what is running then is killed with
 * its group. Stores at most size - 1 bytes of its standard output and a NUL in output, and their
 * number in *length; output beyond that is read and dropped. Ends when the shell has ended, also
 * when a process it left behind still holds its output. What it says on its standard error, that it
 * ran out of time, or that it could not be started is logged once, with the command, until it
 * changes. Returns the exit status (128 and the number of the signal that ended the shell), or an
 * enum command_end. */
int run_command(const char *command, int limit_ms, char *output, size_t size, size_t *length);

/* The same with a limit of half a minute. On entry *length is the capacity of output; on return the
 * bytes stored, always followed by a NUL within the capacity. Returns the command's exit status, or
 * -1 when it could not be run or was killed. */
int process_linux_cmd(const char *command, char *output, int *length);

/* One step of run_apart(); `result` is its record, zeroed. */
typedef void (*apart_fn)(size_t at, void *result);

/* Calls step(0, ...), step(1, ...) to step(count - 1, ...) in a child of the framework that is
 * killed when a call of one of them sleeps for limit_ms milliseconds, or all of them take longer
 * than whole_ms, or the agent is to end: for calls that other users' processes can hold up without
 * end, signals or not. Time in which the child waits for a processor counts for whole_ms alone.
 * The child has the memory of the moment of the call, no descriptor, and no other thread; a step
 * takes no lock and no memory, and leaves nothing but its record. The records of the steps done, of
 * `size` octets each, are stored in `results`, which the caller owns.
 * Returns the number of steps done. When there are fewer than count, errno says why: ETIMEDOUT (the
 * next one was held up; it is step number `returned`), EAGAIN or ETIME (all took too long, or try
 * again: that one is not to blame), EINTR (the agent is to end), ECHILD (the child was ended by
 * somebody), or why none could be started. Agent thread. */
size_t run_apart(apart_fn step, size_t count, void *results, size_t size, int limit_ms,
                 int whole_ms);

/* ---- SNMP -------------------------------------------------------------------------------- */

/* Names the application for the SNMP library, reads its configuration and connects to the master
 * agent (in the background; its absence is no error). Returns 0, or -1: unless an argument is wrong
 * or the process is ending, agent_main() then ends it with status 1. */
int init_snmp_appname(const char *name);

/* Stores the SNMP community, allocated (the caller frees), in *community and returns it; null when
 * none is configured. */
char *find_community_string(char **community);

/* Sends the enterprise notification `number` with the variables of object in the listed slots (none
 * when object is null) and description as its text. Values are taken now. Kept and sent later while
 * the master agent is away. Returns 0, or -1 when traps are disabled or an argument is wrong. */
int send_trap(struct registry_object *object, const int *slots, int slot_count,
              const char *description, int number);

/* The revision of a MIB group (11 host, 21 appliance), from the MIB modules; 0 for others. */
int get_mib_major_revision(int group);
int get_mib_minor_revision(int group);

/* A query to the SNMP agent at an IPv4 address (port 161, SNMPv2c, the configured community): open,
 * read integers, close. One connection at a time. init returns 0, or -1, also without a community.
 * get: oid is numeric or begins with "enterprises."; stores the value and, when status is not null,
 * the SNMP error status (0 with an exception such as noSuchObject). Returns 0 with a value of an
 * integer type, otherwise -1 with *value untouched.
 * Waits at most two seconds, which is also what all queries of one hook have together. After one
 * that was not answered the others of that hook fail at once; while the agent there stays silent,
 * the first one of a hook waits a quarter of a second, and once a minute two seconds. The end of
 * the process ends every wait. */
int init_snmp_connection(const char *address);
int get_one_snmp_integer_from_api(const char *oid, int32_t *value, int *status);
int cleanup_snmp_connection(void);

/* ---- Mounts ------------------------------------------------------------------------------ */

/* What became of the question put to one mount. */
enum mount_state {
  MOUNT_ANSWERED = 0,     /* the figures are valid */
  MOUNT_FAILED = 1,       /* statvfs(3) failed with `error` */
  MOUNT_SILENT = 2,       /* no answer in time, at this call for the first time */
  MOUNT_STILL_SILENT = 3, /* no answer yet; said earlier */
  MOUNT_WAITED_FOR = 4    /* no answer yet of one that answers late; `error` is its last one's */
};

/* The figures of statvfs(3), 64 bits wide, as far as they are used. */
struct mount_stats {
  int state; /* enum mount_state */
  int error; /* errno of a failure; ETIMEDOUT for silence */
  uint64_t frsize;
  uint64_t blocks;
  uint64_t bfree;
  uint64_t files;
  uint64_t ffree;
};

/* Asks every one of the mounts at these paths, all in one go, and stores one result for each.
 * A mount that does not answer within two seconds counts as silent. What it answers later is the
 * next call's result, and a mount whose last answer took more than a second is asked between two
 * calls: its result is then the last answer, or MOUNT_WAITED_FOR while there is no new one;
 * MOUNT_SILENT once that has lasted half a minute, and then MOUNT_STILL_SILENT. It is not asked
 * again before its outstanding call has come back, unless a call in between did not list its path
 * (it was unmounted). An answer within half a second ends this. The log says when it begins to
 * answer late and when it is quick again. However many fall silent at once delay the caller by
 * little more than two seconds, and not at all afterwards; once the process is to end
 * (agent_ending()), nobody is waited for. With 256 calls outstanding, mounts that could not be
 * asked for that reason count as silent. The calls are made by children of the framework that can
 * be left behind, so that a process whose mounts hang still ends at once. Agent thread. Returns 0,
 * or -1 with errno when there is no memory. */
int stat_mounts(const char *const *paths, size_t count, struct mount_stats *results);

/* ---- The machine ------------------------------------------------------------------------- */

/* Non-zero on an appliance: /etc/quorix/appliance.conf exists and each line of it is an assignment,
 * a comment or blank. Read once a process. */
int is_appliance(void);

/* An appliance datum by key; owned by the framework. "ProductID" points to an int32_t, the others
 * to text; null when missing ("ProductID" is always supplied on an appliance: 0 when it has none,
 * or one that is no number). */
const void *get_appliance_data(const char *key);

/* Identifies the Linux distribution from os-release(5). distroid_init() returns 0, or -1 when
 * there is no usable file; the strings are owned by the framework until distroid_exit(), "" when
 * missing. */
int distroid_init(void);
const char *distroid_name(void);
const char *distroid_flavor(void);
const char *distroid_version(void);
const char *distroid_description(void);
void distroid_exit(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
