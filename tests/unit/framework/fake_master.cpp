#include "tests/unit/framework/fake_master.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace vex {
namespace {

constexpr size_t kHeader = 20;
enum {
  kOpen = 1,
  kRegister = 3,
  kGet = 5,
  kGetNext = 6,
  kGetBulk = 7,
  kTestSet = 8,
  kNotify = 12,
  kResponse = 18
};

void Put32(std::string *to, uint32_t value) {
  to->append(reinterpret_cast<const char *>(&value), sizeof(value));  // little-endian flag below
}

uint32_t Take32(const std::string &from, size_t *at) {
  uint32_t value = 0;
  if (*at + sizeof(value) <= from.size()) {
    memcpy(&value, from.data() + *at, sizeof(value));
  }
  *at += sizeof(value);
  return value;
}

void PutOid(std::string *to, const OidNumbers &oid, bool include) {
  to->push_back(static_cast<char>(oid.size()));
  to->push_back(0);
  to->push_back(include ? 1 : 0);
  to->push_back(0);
  for (uint32_t number : oid) {
    Put32(to, number);
  }
}

OidNumbers TakeOid(const std::string &from, size_t *at) {
  OidNumbers oid;
  if (*at + 4 > from.size()) {
    *at = from.size();
    return oid;
  }
  auto count = static_cast<uint8_t>(from[*at]);
  auto prefix = static_cast<uint8_t>(from[*at + 1]);
  *at += 4;
  if (prefix != 0) {
    oid = {1, 3, 6, 1, prefix};
  }
  for (int i = 0; i < count; i++) {
    oid.push_back(Take32(from, at));
  }
  return oid;
}

void PutOctets(std::string *to, const std::string &octets) {
  Put32(to, static_cast<uint32_t>(octets.size()));
  *to += octets;
  to->append((4 - octets.size() % 4) % 4, '\0');
}

std::string TakeOctets(const std::string &from, size_t *at) {
  size_t length = Take32(from, at);
  std::string octets = *at <= from.size() ? from.substr(*at, length) : "";
  *at += (length + 3) / 4 * 4;
  return octets;
}

bool Readable(int fd, int timeout_ms) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, timeout_ms) > 0;
}

}  // namespace

int AgentxPacket::Error() const {
  uint16_t error = 0xffff;
  if (payload.size() >= 8) {
    memcpy(&error, payload.data() + 4, sizeof(error));
  }
  return error;
}

int AgentxPacket::ErrorIndex() const {
  uint16_t index = 0xffff;
  if (payload.size() >= 8) {
    memcpy(&index, payload.data() + 6, sizeof(index));
  }
  return index;
}

std::vector<AgentxBinding> AgentxPacket::Bindings() const {
  std::vector<AgentxBinding> bindings;
  size_t at = type == kResponse ? 8 : 0;
  while (at + 4 <= payload.size()) {
    AgentxBinding binding;
    binding.type = static_cast<int>(Take32(payload, &at) & 0xffff);
    binding.name = TakeOid(payload, &at);
    if (binding.type == AgentxBinding::kInteger) {
      binding.integer = static_cast<int32_t>(Take32(payload, &at));
    } else if (binding.type == AgentxBinding::kOctets) {
      binding.octets = TakeOctets(payload, &at);
    } else if (binding.type == AgentxBinding::kObjectId) {
      binding.object_id = TakeOid(payload, &at);
    }
    bindings.push_back(std::move(binding));
  }
  return bindings;
}

OidNumbers AgentxPacket::Subtree() const {
  size_t at = 4;
  return TakeOid(payload, &at);
}

FakeMaster::FakeMaster(std::string path) : path_(std::move(path)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
  unlink(path_.c_str());
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(listener_, 5) != 0) {
    close(listener_);
    listener_ = -1;
  }
}

FakeMaster::FakeMaster(Tcp tcp) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(listener_, tcp.backlog) != 0) {
    close(listener_);
    listener_ = -1;
  }
}

FakeMaster::~FakeMaster() {
  Disconnect();
  close(listener_);
  if (!path_.empty()) {
    unlink(path_.c_str());
  }
}

uint16_t FakeMaster::Port() const {
  sockaddr_in address = {};
  socklen_t length = sizeof(address);
  getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
  return ntohs(address.sin_port);
}

bool FakeMaster::Accept(int timeout_ms) {
  if (!Readable(listener_, timeout_ms)) {
    return false;
  }
  connection_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  received_.clear();
  registered_.clear();
  return connection_ >= 0;
}

bool FakeMaster::AcceptAndRegister(int timeout_ms) {
  if (!Accept(timeout_ms)) {
    return false;
  }
  session_++;
  size_t wanted = 2;
  std::deque<AgentxPacket> other;
  while (registered_.size() < wanted) {
    std::optional<AgentxPacket> packet = Receive(timeout_ms);
    if (!packet) {
      return false;
    }
    if (packet->type == kOpen) {
      packet->session = session_;
      Answer(*packet);
    } else if (packet->type == kRegister) {
      registered_.push_back(packet->Subtree());
      priority_ = static_cast<uint8_t>(packet->payload.at(1));
      Answer(*packet);
    } else {
      other.push_back(*packet);
    }
  }
  kept_ = std::move(other);
  return true;
}

std::optional<AgentxPacket> FakeMaster::Receive(int timeout_ms) {
  if (!kept_.empty()) {
    AgentxPacket packet = kept_.front();
    kept_.pop_front();
    return packet;
  }
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    if (received_.size() >= kHeader) {
      AgentxPacket packet;
      size_t at = 4;
      packet.type = static_cast<uint8_t>(received_[1]);
      packet.flags = static_cast<uint8_t>(received_[2]);
      packet.session = Take32(received_, &at);
      packet.transaction = Take32(received_, &at);
      packet.packet = Take32(received_, &at);
      size_t length = Take32(received_, &at);
      if (received_.size() >= kHeader + length) {
        packet.payload = received_.substr(kHeader, length);
        received_.erase(0, kHeader + length);
        return packet;
      }
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    if (connection_ < 0 || left.count() < 0 ||
        !Readable(connection_, static_cast<int>(left.count()))) {
      return std::nullopt;
    }
    char buffer[8192];
    ssize_t length = recv(connection_, buffer, sizeof(buffer), 0);
    if (length <= 0) {
      return std::nullopt;
    }
    received_.append(buffer, static_cast<size_t>(length));
  }
}

std::string FakeMaster::ReceiveBytes(int timeout_ms) {
  char buffer[8192];
  ssize_t length =
      Readable(connection_, timeout_ms) ? recv(connection_, buffer, sizeof(buffer), 0) : 0;
  return {buffer, length > 0 ? static_cast<size_t>(length) : 0};
}

bool FakeMaster::HungUp(int timeout_ms) {
  char byte;
  return Readable(connection_, timeout_ms) && recv(connection_, &byte, 1, MSG_PEEK) <= 0;
}

bool FakeMaster::HasBeenReset(int timeout_ms) {
  pollfd entry = {connection_, POLLRDHUP, 0};
  return poll(&entry, 1, timeout_ms) > 0;
}

std::string FakeMaster::BytesOf(const AgentxPacket &packet) {
  std::string bytes = {1, static_cast<char>(packet.type), static_cast<char>(packet.flags), 0};
  Put32(&bytes, packet.session);
  Put32(&bytes, packet.transaction);
  Put32(&bytes, packet.packet);
  Put32(&bytes, static_cast<uint32_t>(packet.payload.size()));
  return bytes + packet.payload;
}

void FakeMaster::Send(const AgentxPacket &packet) {
  SendBytes(BytesOf(packet));
}

void FakeMaster::SendBytes(const std::string &bytes) {
  (void)!send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void FakeMaster::Answer(const AgentxPacket &request, int error) {
  AgentxPacket packet;
  packet.type = kResponse;
  packet.session = request.session;
  packet.transaction = request.transaction;
  packet.packet = request.packet;
  Put32(&packet.payload, 0);
  Put32(&packet.payload, static_cast<uint32_t>(error));
  Send(packet);
}

std::optional<AgentxPacket> FakeMaster::Ask(const AgentxPacket &request, int timeout_ms) {
  Send(request);
  std::deque<AgentxPacket> other;
  std::optional<AgentxPacket> packet;
  while ((packet = Receive(timeout_ms)) &&
         (packet->type != kResponse || packet->packet != request.packet)) {
    other.push_back(*packet);
  }
  kept_ = std::move(other);
  return packet;
}

void FakeMaster::Disconnect() {
  if (connection_ >= 0) {
    close(connection_);
    connection_ = -1;
  }
}

AgentxPacket FakeMaster::New(uint8_t type) {
  AgentxPacket packet;
  packet.type = type;
  packet.session = session_;
  packet.packet = next_packet_++;
  packet.transaction = packet.packet;
  return packet;
}

AgentxPacket FakeMaster::Get(const std::vector<OidNumbers> &names) {
  AgentxPacket packet = New(kGet);
  for (const OidNumbers &name : names) {
    PutOid(&packet.payload, name, false);
    PutOid(&packet.payload, {}, false);
  }
  return packet;
}

AgentxPacket FakeMaster::GetNext(const std::vector<OidNumbers> &names, const OidNumbers &end,
                                 bool inclusive) {
  AgentxPacket packet = New(kGetNext);
  for (const OidNumbers &name : names) {
    PutOid(&packet.payload, name, inclusive);
    PutOid(&packet.payload, end, false);
  }
  return packet;
}

AgentxPacket FakeMaster::GetBulk(uint16_t non_repeaters, uint16_t max_repetitions,
                                 const std::vector<OidNumbers> &names, const OidNumbers &end) {
  AgentxPacket packet = New(kGetBulk);
  Put32(&packet.payload, non_repeaters | static_cast<uint32_t>(max_repetitions) << 16);
  for (const OidNumbers &name : names) {
    PutOid(&packet.payload, name, false);
    PutOid(&packet.payload, end, false);
  }
  return packet;
}

AgentxPacket FakeMaster::TestSet(uint32_t transaction, const std::vector<AgentxBinding> &bindings) {
  AgentxPacket packet = New(kTestSet);
  packet.transaction = transaction;
  for (const AgentxBinding &binding : bindings) {
    Put32(&packet.payload, static_cast<uint32_t>(binding.type));
    PutOid(&packet.payload, binding.name, false);
    if (binding.type == AgentxBinding::kInteger) {
      Put32(&packet.payload, static_cast<uint32_t>(binding.integer));
    } else if (binding.type == AgentxBinding::kOctets) {
      PutOctets(&packet.payload, binding.octets);
    }
  }
  return packet;
}

AgentxPacket FakeMaster::Phase(uint8_t type, uint32_t transaction) {
  AgentxPacket packet = New(type);
  packet.transaction = transaction;
  return packet;
}

}  // namespace vex
