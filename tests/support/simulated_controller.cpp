#include "tests/support/simulated_controller.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace vex {

namespace {

constexpr int kVersionCommand = 2;
constexpr int kLogicCommand = 0x0101;

int CommandOf(const std::string &request) {
  if (request.size() < 6) {
    return -1;
  }
  return static_cast<uint8_t>(request[4]) | static_cast<uint8_t>(request[5]) << 8;
}

// A reply begins with the request's header; the rest of it is the command's.
std::optional<std::string> ReplyTo(const std::string &request, const ControllerMood &mood) {
  std::string reply;
  switch (CommandOf(request)) {
    case kVersionCommand:
      reply.assign(80, '\0');
      reply[16] = static_cast<char>(mood.minor);
      reply[17] = static_cast<char>(mood.major);
      reply[68] = static_cast<char>(mood.generation);
      break;
    case kLogicCommand:
      reply.assign(14, '\0');
      reply[12] = static_cast<char>(mood.logic_code);
      reply[13] = static_cast<char>(mood.logic_code >> 8);
      reply += mood.logic;
      if (reply.size() < 78) {
        reply.resize(78);
      }
      break;
    default:
      return std::nullopt;
  }
  request.copy(reply.data(), std::min<size_t>(request.size(), 8));
  if (mood.reply_length >= 0) {
    reply.resize(static_cast<size_t>(mood.reply_length));
  }
  return reply;
}

int Number(const std::string &text, int base) {
  size_t used = 0;
  int value = std::stoi(text, &used, base);
  if (used != text.size()) {
    throw std::invalid_argument("not a number: " + text);
  }
  return value;
}

std::string Bytes(const std::string &hex) {
  std::string bytes;
  if (hex.size() % 2 != 0) {
    throw std::invalid_argument("half a byte: " + hex);
  }
  for (size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(Number(hex.substr(i, 2), 16)));
  }
  return bytes;
}

}  // namespace

ControllerMood ParseMood(const std::vector<std::string> &words) {
  ControllerMood mood;
  for (const std::string &word : words) {
    const size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
    if (key == "version") {
      const size_t dot = value.find('.');
      mood.major = Number(value.substr(0, dot), 10);
      mood.minor = dot == std::string::npos ? 0 : Number(value.substr(dot + 1), 10);
    } else if (key == "generation") {
      mood.generation = Number(value, 10);
    } else if (key == "code") {
      mood.logic_code = Number(value, 16);
    } else if (key == "logic") {
      mood.logic = Bytes(value);
    } else if (key == "length") {
      mood.reply_length = Number(value, 10);
    } else if (key == "silent") {
      mood.silent = true;
    } else if (key == "resets") {
      mood.resets = Number(value, 10);
    } else if (key == "resume") {
      mood.resume = true;
    } else {
      throw std::invalid_argument("not a mood: " + word);
    }
  }
  return mood;
}

SimulatedController::SimulatedController(const ControllerMood &mood, const std::string &path)
    : path_(path), mood_(mood) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  unlink(path.c_str());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  }
  path.copy(address.sun_path, path.size());
  listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  wake_ = eventfd(0, EFD_CLOEXEC);
  if (listener_ < 0 || wake_ < 0 ||
      bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(listener_, 16) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  thread_ = std::thread([this] { Serve(); });
}

SimulatedController::~SimulatedController() {
  eventfd_write(wake_, 1);
  thread_.join();
  for (int client : clients_) {
    close(client);
  }
  close(listener_);
  close(wake_);
  unlink(path_.c_str());
}

void SimulatedController::SetMood(const ControllerMood &mood) {
  std::lock_guard lock(mutex_);
  mood_ = mood;
}

std::vector<std::string> SimulatedController::Requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

int SimulatedController::Count(int command) const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(
      std::count_if(requests_.begin(), requests_.end(),
                    [&](const std::string &request) { return CommandOf(request) == command; }));
}

int SimulatedController::Accepted() const {
  std::lock_guard lock(mutex_);
  return accepted_;
}

int SimulatedController::Open() const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(clients_.size());
}

void SimulatedController::Accept() {
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) {
    return;
  }
  std::lock_guard lock(mutex_);
  clients_.push_back(client);
  accepted_++;
  for (const std::string &answer : owed_) {
    send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
  }
  owed_.clear();
}

// Deals with one request; false when the connection is to be closed.
bool SimulatedController::Answer(int client) {
  char buffer[4096];
  const ssize_t length = recv(client, buffer, sizeof(buffer), 0);
  if (length < 0) {
    return errno == EAGAIN;
  }
  if (length == 0) {
    return false;
  }
  const std::string request(buffer, static_cast<size_t>(length));
  std::lock_guard lock(mutex_);
  requests_.push_back(request);
  const auto reply = ReplyTo(request, mood_);
  if (mood_.resets > 0) {
    mood_.resets--;
    if (mood_.resume && reply) {
      owed_.push_back(*reply);
    }
    return false;
  }
  if (reply && !mood_.silent) {
    send(client, reply->data(), reply->size(), MSG_NOSIGNAL);
  }
  return true;
}

void SimulatedController::Serve() {
  for (;;) {
    std::vector<pollfd> watched = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
    for (int client : clients_) {
      watched.push_back({client, POLLIN, 0});
    }
    if (poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) {
      return;
    }
    if (watched[0].revents != 0) {
      return;
    }
    for (size_t i = 2; i < watched.size(); i++) {
      if (watched[i].revents != 0 && !Answer(watched[i].fd)) {
        std::lock_guard lock(mutex_);
        close(watched[i].fd);
        clients_.erase(std::find(clients_.begin(), clients_.end(), watched[i].fd));
      }
    }
    if (watched[1].revents != 0) {
      Accept();
    }
  }
}

}  // namespace vex
