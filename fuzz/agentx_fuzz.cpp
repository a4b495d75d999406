// The session with a master agent that sends anything, in any pieces: what comes out must be whole
// packets, and nothing may be waited for or kept without end. The input is a list of steps: a byte
// that says what and how, a length, and that many bytes; see Step().
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "framework/snmp/agentx_session.h"
#include "framework/snmp/mib_index.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_requests.h"
#include "framework/snmp/socket_transport.h"
#include "fuzz/require.h"
#include "platform/framework.h"

const char *agent = "fuzz";

extern "C" int agentlog_fprintf(FILE *, const char *, ...) {
  return 0;
}

namespace {

using vex::AgentxSession;

std::string socket_path;
int listener = -1;
vex::SetChannel *channel;
std::atomic<bool> serving{false};

// One object with every scalar of the modules, and two rows of every table's columns.
std::shared_ptr<const vex::Image> MakeImage(bool columns, uint32_t instance) {
  auto layout = std::make_shared<vex::Layout>();
  auto image = std::make_shared<vex::Image>();
  uint32_t offset = 0;
  for (const vex::MibVariable &mib : vex::MibVariables()) {
    if (mib.column != columns) {
      continue;
    }
    const int size = mib.type == VAR_INTEGER ? 4 : mib.max_length + 1;
    layout->variables.push_back({&mib, static_cast<int>(layout->variables.size()), size, offset,
                                 mib.type, mib.access == vex::MibAccess::kReadWrite});
    image->octet_lengths.push_back(static_cast<uint16_t>(size / 2));
    offset += static_cast<uint32_t>(size);
  }
  image->data.assign(offset, 'x');
  image->layout = layout;
  image->object_id = instance + 1 + (columns ? 10 : 0);
  image->instance = instance;
  return image;
}

vex::MibIndex &Index() {
  static auto *index = [] {
    auto *made = new vex::MibIndex(vex::MibVariables());
    made->Put(MakeImage(false, 0));
    made->Put(MakeImage(true, 0));
    made->Put(MakeImage(true, 7));
    return made;
  }();
  return *index;
}

// By the value's first octet; the length of what a handler gets is right.
int RunSet(uint8_t phase, vex::SetItem &item) {
  Require(item.length >= 0 && item.value.size() >= static_cast<size_t>(item.length));
  return !item.value.empty() && item.value[0] == (phase == SET_CHECK ? 'c' : 'a') ? -1 : 0;
}

class Master {
 public:
  Master()
      : session_({"fuzz", {socket_path, socket_path, {}}, 15, 0, 127, vex::MibGroups()},
                 {[this](netsnmp_pdu *pdu) { requests_.Handle(&session_, pdu, true, true); },
                  [this](const vex::AgentxSession::PacketHeader &request) {
                    requests_.HandleUnread(&session_, request);
                  },
                  [] {}, [] {}, [] {}, [] {},
                  [this](bool was_open, bool) {
                    if (was_open) {
                      requests_.SessionLost();
                    }
                  }}),
        requests_(&Index(), channel) {
    Require(session_.Adopt(vex::StreamTransport(vex::ConnectUnix(socket_path))));
    connection_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    Require(connection_ >= 0);
  }
  ~Master() {
    requests_.SessionLost();
    close(connection_);
    while (serving) {
      std::this_thread::yield();
    }
  }
  Master(const Master &) = delete;
  Master &operator=(const Master &) = delete;

  void Step(uint8_t what, const uint8_t *bytes, size_t size) {
    switch (what % 8) {
      case 0:
        Send(std::string(reinterpret_cast<const char *>(bytes), size));
        break;
      case 1:
        AnswerAll(0);
        break;
      case 2:
        AnswerAll(size > 0 ? bytes[0] + 256 : 5);
        break;
      case 3:  // in pieces of one octet
        for (size_t i = 0; i < size; i++) {
          Send(std::string(1, static_cast<char>(bytes[i])));
        }
        break;
      default:
        SendPacket(what, bytes, size);
    }
    Turn();
  }
  // Every answer is a whole packet of this session.
  void Check() {
    Drain();
    for (size_t at = 0; at < received_.size();) {
      Require(received_.size() - at >= kHeader);
      const size_t length = Length(received_, at);
      Require(received_[at] == 1 && received_.size() - at >= kHeader + length && length % 4 == 0);
      at += kHeader + length;
    }
  }

 private:
  static constexpr size_t kHeader = 20;

  static size_t Length(const std::string &text, size_t at) {
    uint32_t length;
    memcpy(&length, &text[at + 16], sizeof(length));
    return (text[at + 2] & 0x10) != 0 ? __builtin_bswap32(length) : length;
  }

  void Send(const std::string &bytes) {
    (void)!send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    Turn();
  }
  // type, flags, transaction and packet number, then the payload: the rest of the header is right.
  void SendPacket(uint8_t what, const uint8_t *bytes, size_t size) {
    if (size < 4) {
      return;
    }
    const bool network = (bytes[1] & 0x10) != 0;
    std::string packet = {1, static_cast<char>(bytes[0] % 20), static_cast<char>(bytes[1]), 0};
    auto put = [&](uint32_t word) {
      word = network ? __builtin_bswap32(word) : word;
      packet.append(reinterpret_cast<const char *>(&word), sizeof(word));
    };
    put(what < 128 ? kSession : bytes[0]);
    put(bytes[2] % 4);
    put(what < 64 ? packet_++ : bytes[3]);
    put(static_cast<uint32_t>(size - 4));
    Send(packet + std::string(reinterpret_cast<const char *>(bytes + 4), size - 4));
  }
  // What the agent has asked so far (to open, to register, to ping) is answered.
  void AnswerAll(uint32_t error) {
    Drain();
    for (; answered_ + kHeader <= received_.size();
         answered_ += kHeader + Length(received_, answered_)) {
      const auto type = static_cast<uint8_t>(received_[answered_ + 1]);
      if (type == 18) {
        continue;
      }
      std::string answer = received_.substr(answered_, kHeader);
      answer[1] = 18;
      const uint32_t words[] = {kSession, 8, 0, error << 16 >> 16};
      memcpy(&answer[4], &words[0], 4);
      memcpy(&answer[16], &words[1], 4);
      answer.append(reinterpret_cast<const char *>(&words[2]), 8);
      Send(answer);
    }
  }
  void Drain() {
    char buffer[65536];
    for (ssize_t n; (n = recv(connection_, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
      received_.append(buffer, static_cast<size_t>(n));
    }
  }
  void Turn() {
    for (int i = 0; i < 4 && session_.Socket() >= 0; i++) {
      pollfd ready = {session_.Socket(), POLLIN | POLLOUT, 0};
      if (poll(&ready, 1, 0) <= 0) {
        break;
      }
      session_.SocketReady((ready.revents & ~POLLOUT) != 0, session_.WantsToWrite());
    }
    requests_.Work(&session_);
  }

  static constexpr uint32_t kSession = 77;
  AgentxSession session_;
  vex::SnmpRequests requests_;
  int connection_ = -1;
  std::string received_;
  size_t answered_ = 0;
  uint32_t packet_ = 1000;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  char directory[] = "/tmp/agentx-fuzz-XXXXXX";
  Require(mkdtemp(directory) != nullptr);
  socket_path = std::string(directory) + "/master";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  socket_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Require(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
          listen(listener, 5) == 0);
  atexit([] {
    unlink(socket_path.c_str());
    rmdir(socket_path.substr(0, socket_path.rfind('/')).c_str());
  });
  snmp_disable_log();
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  channel = new vex::SetChannel;
  // The agent thread; sets are its own business.
  std::thread([] {
    for (;;) {
      pollfd ready = {channel->Fd(), POLLIN, 0};
      poll(&ready, 1, -1);
      serving = true;
      channel->Serve(RunSet);
      serving = false;
    }
  }).detach();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Master master;
  for (size_t at = 0; at + 2 <= size;) {
    const uint8_t what = data[at];
    const size_t length = data[at + 1] < size - at - 2 ? data[at + 1] : size - at - 2;
    master.Step(what, data + at + 2, length);
    at += 2 + length;
  }
  master.Check();
  return 0;
}
