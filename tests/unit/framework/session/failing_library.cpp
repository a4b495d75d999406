#include "tests/unit/framework/session/failing_library.h"

// In this order:
#include <arpa/inet.h>
#include <dlfcn.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace vex {
namespace {

std::atomic<const char *> failing{nullptr};
std::atomic<int> fail_errno{0};
std::atomic<int> fail_before{0};
std::atomic<int> fail_left{0};
std::atomic<int> has_failed{0};

bool FailsNow(const char *function) {
  const char *wanted = failing.load();
  if (wanted == nullptr || strcmp(wanted, function) != 0 || fail_before.fetch_sub(1) > 0 ||
      fail_left.fetch_sub(1) <= 0) {
    return false;
  }
  has_failed++;
  errno = fail_errno.load();
  return true;
}

}  // namespace

FailingLibrary::FailingLibrary(const char *function, int error, int nth, int count) {
  fail_errno = error;
  fail_before = nth - 1;
  fail_left = count;
  has_failed = 0;
  failing = function;
}

FailingLibrary::~FailingLibrary() {
  failing = nullptr;
}

int FailingLibrary::Failed() {
  return has_failed;
}

MovedLibrary &TheLibrary() {
  static MovedLibrary library;
  return library;
}

void RestoreLibrary() {
  MovedLibrary &library = TheLibrary();
  library.clock_ahead_ns = 0;
  library.clock_step_ns = 0;
  library.snmp_port = 161;
  library.ending = false;
  library.at_look = nullptr;
  library.passwd = nullptr;
  library.init_agent = nullptr;
}

}  // namespace vex

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
// The linker wants them where a shared library calls them, too, which then does not get them.
#pragma GCC visibility push(default)

std::chrono::steady_clock::time_point RealNow() noexcept
    __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point MovedNow() noexcept
    __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point MovedNow() noexcept {
  vex::MovedLibrary &library = vex::TheLibrary();
  library.clock_ahead_ns += library.clock_step_ns;
  return RealNow() + std::chrono::nanoseconds(library.clock_ahead_ns);
}

#define VEX_FAILING(type, name, parameters, arguments, failure) \
  type __real_##name parameters;                                \
  type __wrap_##name parameters {                               \
    if (vex::FailsNow(#name)) {                                 \
      return failure;                                           \
    }                                                           \
    return __real_##name arguments;                             \
  }

extern "C" {

VEX_FAILING(netsnmp_pdu *, snmp_pdu_create, (int command), (command), nullptr)
VEX_FAILING(netsnmp_variable_list *, snmp_varlist_add_variable,
            (netsnmp_variable_list * *list, const oid *name, size_t length, u_char type,
             const void *value, size_t size),
            (list, name, length, type, value, size), nullptr)
VEX_FAILING(netsnmp_variable_list *, snmp_add_null_var,
            (netsnmp_pdu * pdu, const oid *name, size_t length), (pdu, name, length), nullptr)
VEX_FAILING(int, snmp_sess_async_send,
            (void *handle, netsnmp_pdu *pdu, netsnmp_callback callback, void *data),
            (handle, pdu, callback, data), 0)
VEX_FAILING(void, snmp_sess_timeout, (void *handle), (handle), )
VEX_FAILING(const char *, get_configuration_directory, (), (), nullptr)
VEX_FAILING(int, dladdr, (const void *address, Dl_info *info), (address, info), 0)
VEX_FAILING(void *, dlopen, (const char *path, int flags), (path, flags), nullptr)
VEX_FAILING(int, access, (const char *path, int how), (path, how), -1)
VEX_FAILING(ssize_t, send, (int fd, const void *from, size_t size, int flags),
            (fd, from, size, flags), -1)
VEX_FAILING(ssize_t, recv, (int fd, void *to, size_t size, int flags), (fd, to, size, flags), -1)
VEX_FAILING(void *, realloc, (void *memory, size_t size), (memory, size), nullptr)
VEX_FAILING(int, inotify_init1, (int flags), (flags), -1)
VEX_FAILING(int, sched_getaffinity, (pid_t pid, size_t size, cpu_set_t *set), (pid, size, set), -1)
VEX_FAILING(int, netsnmp_ds_get_int, (int store, int which), (store, which), -1)
// The "error" is the user.
VEX_FAILING(uid_t, geteuid, (), (), static_cast<uid_t>(errno))

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode) {
  const char *passwd = vex::TheLibrary().passwd;
  return __real_fopen(passwd != nullptr && strcmp(path, "/etc/passwd") == 0 ? passwd : path, mode);
}

// As net-snmp does, it ends the transport when it fails.
using PreParse = int (*)(netsnmp_session *, netsnmp_transport *, void *, int);
using Parse = int (*)(netsnmp_session *, netsnmp_pdu *, u_char *, size_t);
using PostParse = int (*)(netsnmp_session *, netsnmp_pdu *, int);
using Build = int (*)(netsnmp_session *, netsnmp_pdu *, u_char *, size_t *);
using Rebuild = int (*)(netsnmp_session *, netsnmp_pdu *, u_char **, size_t *, size_t *);
using Check = int (*)(u_char *, size_t);
using Create = netsnmp_pdu *(*)(netsnmp_transport *, void *, size_t);
void *__real_snmp_sess_add_ex(netsnmp_session *session, netsnmp_transport *transport,
                              PreParse before, Parse parse, PostParse after, Build build,
                              Rebuild rebuild, Check check, Create create);
void *__wrap_snmp_sess_add_ex(netsnmp_session *session, netsnmp_transport *transport,
                              PreParse before, Parse parse, PostParse after, Build build,
                              Rebuild rebuild, Check check, Create create) {
  if (vex::FailsNow("snmp_sess_add_ex")) {
    transport->f_close(transport);
    netsnmp_transport_free(transport);
    return nullptr;
  }
  return __real_snmp_sess_add_ex(session, transport, before, parse, after, build, rebuild, check,
                                 create);
}

// With the error 0 an answer is said to have come, and there is none.
int __real_snmp_sess_synch_response(void *handle, netsnmp_pdu *pdu, netsnmp_pdu **response);
int __wrap_snmp_sess_synch_response(void *handle, netsnmp_pdu *pdu, netsnmp_pdu **response) {
  if (vex::FailsNow("snmp_sess_synch_response")) {
    snmp_free_pdu(pdu);
    *response = nullptr;
    return errno == 0 ? STAT_SUCCESS : STAT_TIMEOUT;
  }
  return __real_snmp_sess_synch_response(handle, pdu, response);
}

void *__real_dlsym(void *handle, const char *name);
void *__wrap_dlsym(void *handle, const char *name) {
  if (vex::FailsNow("dlsym")) {
    return nullptr;
  }
  const auto init = vex::TheLibrary().init_agent.load();
  return init != nullptr && strcmp(name, "init_agent") == 0 ? reinterpret_cast<void *>(init)
                                                            : __real_dlsym(handle, name);
}

void *__real_snmp_sess_open(netsnmp_session *session);
void *__wrap_snmp_sess_open(netsnmp_session *session) {
  if (vex::FailsNow("snmp_sess_open")) {
    return nullptr;
  }
  const std::string asked = session->peername;
  std::string moved = asked.substr(0, asked.rfind(':') + 1);
  moved += std::to_string(vex::TheLibrary().snmp_port);
  session->peername = moved.data();
  void *handle = __real_snmp_sess_open(session);
  session->peername = nullptr;
  return handle;
}

int __real_connect(int fd, const sockaddr *address, socklen_t length);
int __wrap_connect(int fd, const sockaddr *address, socklen_t length) {
  sockaddr_in moved = {};
  if (address->sa_family == AF_INET && length == sizeof(moved)) {
    memcpy(&moved, address, sizeof(moved));
    if (moved.sin_port == htons(161)) {
      moved.sin_port = htons(vex::TheLibrary().snmp_port);
      return __real_connect(fd, reinterpret_cast<const sockaddr *>(&moved), sizeof(moved));
    }
  }
  return __real_connect(fd, address, length);
}

int __real_agent_ending();
int __wrap_agent_ending() {
  if (void (*at_look)() = vex::TheLibrary().at_look) {
    at_look();
  }
  return vex::TheLibrary().ending ? 1 : __real_agent_ending();
}
}

#pragma GCC visibility pop
// NOLINTEND(bugprone-reserved-identifier)
