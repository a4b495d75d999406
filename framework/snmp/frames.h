// Messages between the agent's process and that of its SNMP side: whole, bounded, and checked by
// whoever reads them. Nobody waits for the other one.
#ifndef VEX_FRAMEWORK_SNMP_FRAMES_H
#define VEX_FRAMEWORK_SNMP_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "framework/process/descriptor.h"

namespace vex {

// What a frame is about: its first octet.
enum class FrameType : uint8_t {
  // The agent to its starter, and back.
  kSpawn,  // with descriptors: channel, images, control; ends the one before
  kKill,
  kConfigured,  // what the configuration says
  kMisconfigured,
  kSpawned,  // 0, or the error
  kEnded,    // an SNMP process: status as of waitpid(2)
  // The agent to the SNMP process.
  kConnected,  // with a descriptor: a connected socket of the master
  kSetResult,
  kNotify,
  kQuery,   // with a descriptor: a connected socket of the agent that is asked
  kImages,  // there are images to be taken, or room was made use of
  kPing,
  kStop,
  // The SNMP process to the agent.
  kReady,     // it has given up all rights
  kUnable,    // it could not: what and the error
  kSession,   // what became of the session with the master
  kNotified,  // the master has answered for a notification
  kSetPart,
  kSetApply,
  kSetRelease,
  kAnswer,  // of a query
  kRoom,    // all images have been taken
  kLog,
  kPong,
};

// What the SNMP process keeps to and the agent holds it to.
inline constexpr size_t kMostSets = 16;   // a master has one on its way: more than a few are none
inline constexpr size_t kMostParts = 16;  // of a set: one for each registered subtree it touches
inline constexpr size_t kLongestMessage = 1024;  // of the log

// Puts numbers, as this machine has them, and texts one behind the other. Throws std::bad_alloc.
class FrameWriter {
 public:
  explicit FrameWriter(FrameType type) {
    Put(type);
  }
  template <typename Number>
  FrameWriter &Put(Number number) {
    static_assert(std::is_trivially_copyable_v<Number> && !std::is_pointer_v<Number>);
    bytes_.append(reinterpret_cast<const char *>(&number), sizeof(number));
    return *this;
  }
  FrameWriter &PutText(std::string_view text) {
    Put(static_cast<uint32_t>(text.size()));
    bytes_.append(text);
    return *this;
  }
  FrameWriter &PutOctets(std::span<const uint8_t> octets) {
    return PutText({reinterpret_cast<const char *>(octets.data()), octets.size()});
  }
  const std::string &Bytes() const {
    return bytes_;
  }

 private:
  std::string bytes_;
};

// Takes them again. After the first that is not there, nothing is, and Good() says so.
class FrameReader {
 public:
  explicit FrameReader(std::string_view bytes) : left_(bytes) {}
  template <typename Number>
  Number Take() {
    static_assert(std::is_arithmetic_v<Number> || std::is_enum_v<Number>);
    Number number{};
    if (left_.size() < sizeof(number)) {
      good_ = false;
      left_ = {};
      return number;
    }
    memcpy(&number, left_.data(), sizeof(number));
    left_.remove_prefix(sizeof(number));
    return number;
  }
  std::string_view TakeText() {
    const auto size = Take<uint32_t>();
    if (size > left_.size()) {
      good_ = false;
      left_ = {};
      return {};
    }
    const std::string_view text = left_.substr(0, size);
    left_.remove_prefix(size);
    return text;
  }
  bool Good() const {
    return good_;
  }
  // Whether all was there and nothing is left.
  bool Whole() const {
    return good_ && left_.empty();
  }

 private:
  std::string_view left_;
  bool good_ = true;
};

// One end of a connection that keeps frames whole (SOCK_SEQPACKET) and does not block.
class FrameSocket {
 public:
  // Of one frame. A notification that is longer would not fit into an AgentX packet of net-snmp's.
  static constexpr size_t kLongest = 96 * 1024;
  static constexpr size_t kMostDescriptors = 3;

  FrameSocket() = default;
  explicit FrameSocket(Descriptor socket) : socket_(std::move(socket)) {}
  // Two connected ends, close-on-exec. False with errno.
  static bool Pair(Descriptor *one, Descriptor *other);

  int Fd() const {
    return socket_.get();
  }
  // What is not taken at once waits, and Flush() is for when the socket is writable. False when the
  // other end is gone or takes nothing any more; errno is EMSGSIZE for a frame that is too long, of
  // which nothing is sent. Descriptors remain the caller's. Throws std::bad_alloc, and has then
  // sent nothing.
  bool Send(const FrameWriter &frame, std::span<const int> descriptors = {});
  bool HasUnsent() const {
    return !unsent_.empty();
  }
  bool Flush();
  // The next frame, valid until the next call, and its descriptors; null: descriptors end the
  // connection, as whatever is no frame does. kNone: there is none now. Throws std::bad_alloc.
  using Descriptors = Descriptor[kMostDescriptors];
  enum class Got { kFrame, kNone, kEnd };
  Got Receive(std::string_view *frame, Descriptors *descriptors);
  void Close() {
    socket_.Reset();
    unsent_.clear();
  }

 private:
  struct Unsent {
    std::string bytes;
    Descriptors descriptors;
  };
  // More than the other end ever owes: it does not read.
  static constexpr size_t kMostUnsent = 4096;
  // Of those with descriptors, which are open here as well until they are sent.
  static constexpr ptrdiff_t kMostHolding = 16;

  Descriptor socket_;
  std::deque<Unsent> unsent_;
  std::string received_;
};

}  // namespace vex

#endif
