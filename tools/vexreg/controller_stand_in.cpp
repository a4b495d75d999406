#include "tools/vexreg/controller_stand_in.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <vector>

#include "framework/process/descriptor.h"
#include "hardware/tlxci/paths.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/forked.h"

namespace vex {
namespace {

constexpr int kLogicCommand = 0x0101;
constexpr int kVersionCommand = 2;
constexpr size_t kHeader = 8;

// Answers one request. False when the client has gone.
bool Answer(int client, const ControllerReplies &replies) {
  char request[4096];
  const ssize_t length = recv(client, request, sizeof(request), 0);
  if (length <= 0) {
    return false;
  }
  const std::string reply = ReplyTo(std::string(request, static_cast<size_t>(length)), replies);
  if (!reply.empty()) {
    send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
  }
  return true;
}

[[noreturn]] void AnswerAll(int listener, const ControllerReplies &replies) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // This command is no process of the host, and by its path it may look like an agent.
  unlink(("/proc/" + std::to_string(getpid())).c_str());
  std::list<Descriptor> clients;
  for (;;) {
    std::vector<pollfd> watched = {{listener, POLLIN, 0}};
    for (const Descriptor &client : clients) {
      watched.push_back({client.get(), POLLIN, 0});
    }
    poll(watched.data(), watched.size(), -1);
    size_t place = 1;
    clients.remove_if([&](const Descriptor &client) {
      return watched[place++].revents != 0 && !Answer(client.get(), replies);
    });
    if (watched[0].revents != 0) {
      Descriptor client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
      if (client) {
        clients.push_back(std::move(client));
      }
    }
  }
}

}  // namespace

std::string ReplyTo(const std::string &request, const ControllerReplies &replies) {
  if (request.size() < kHeader) {
    return "";
  }
  const int command = static_cast<uint8_t>(request[4]) | static_cast<uint8_t>(request[5]) << 8;
  std::string reply = command == kVersionCommand ? replies.version
                      : command == kLogicCommand ? replies.logic
                                                 : "";
  if (command == kLogicCommand && reply.empty()) {
    reply.assign(78, '\0');  // a controller without such devices says so by another code
  }
  if (!reply.empty()) {
    reply.replace(0, kHeader, request, 0, kHeader);
  }
  return reply;
}

pid_t StandInForController(const ControllerReplies &replies) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof(kControllerSocket) <= sizeof(address.sun_path));
  memcpy(address.sun_path, kControllerSocket, sizeof(kControllerSocket));
  mkdir(std::filesystem::path(kControllerSocket).parent_path().c_str(), 0755);
  const Descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const bool listens =
      listener &&
      bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
      listen(listener.get(), 16) == 0;
  const pid_t child = listens ? Forked([&]() -> int { AnswerAll(listener.get(), replies); }) : -1;
  if (child < 0) {
    Complain(std::string("no stand-in for the controller: ") + strerror(errno));
  }
  return child;
}

}  // namespace vex
