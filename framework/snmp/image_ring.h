// Published images on their way to the SNMP process, in memory that both share. Publishing is a
// copy: nobody is woken and nothing waits. The SNMP process takes what is there before it answers a
// request, and so sees whatever was published before the request came.
#ifndef VEX_FRAMEWORK_SNMP_IMAGE_RING_H
#define VEX_FRAMEWORK_SNMP_IMAGE_RING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "framework/process/descriptor.h"
#include "framework/registry/image.h"
#include "framework/snmp/mib_index.h"

namespace vex {

// What the agent alone writes, in the first page of the ring's memory.
struct RingHead {
  std::atomic<uint64_t> head;     // bytes written since the beginning
  std::atomic<uint32_t> backlog;  // some images have found no room yet
  std::atomic<uint32_t> refuse_sets;
};
// What the SNMP process alone writes; the agent believes none of it.
struct RingTail {
  std::atomic<uint64_t> tail;  // bytes read since the beginning
};

// A mapping of a memory file.
class SharedPages {
 public:
  SharedPages() = default;
  ~SharedPages();
  SharedPages(const SharedPages &) = delete;
  SharedPages &operator=(const SharedPages &) = delete;
  // False with errno.
  bool Map(int fd, size_t size, bool writable);
  uint8_t *At(size_t offset) const {
    return static_cast<uint8_t *>(address_) + offset;
  }

 private:
  void *address_ = nullptr;
  size_t size_ = 0;
};

constexpr size_t kRingHeadSize = 4096;
// Twice the largest object with its layout. Of it only as much is ever in memory as was once
// written between two requests.
constexpr size_t kRingSize = size_t{16} << 20;

// The agent's end, for one SNMP process. The caller sees to it that one thread at a time is in it.
class ImageRingWriter {
 public:
  // So much in the ring is worth waking somebody for, and telling the process of.
  static constexpr size_t kMuchUnread = size_t{256} << 10;

  // False with errno. The memory can be neither resized by anybody nor mapped for writing again.
  bool Open();
  int ImagesFd() const {
    return images_fd_.get();
  }
  int ControlFd() const {
    return control_fd_.get();
  }
  // Once the other process has them.
  void CloseDescriptors() {
    images_fd_.Reset();
    control_fd_.Reset();
  }

  enum class Put {
    kDone,
    kFull,
    kNever,  // larger than the ring will ever take
    kBroken  // the other end says what cannot be
  };
  // with_layout: the object is new there, or its layout is.
  Put PutImage(const Image &image, bool with_layout) noexcept;
  Put PutWithdrawal(uint64_t object_id) noexcept;
  // Of bytes that were not read, as far as one can tell.
  size_t Unread() const;
  void SetBacklog(bool backlog) {
    Head().backlog.store(backlog ? 1 : 0, std::memory_order_release);
  }
  void RefuseSets(bool refuse) {
    Head().refuse_sets.store(refuse ? 1 : 0, std::memory_order_release);
  }

 private:
  RingHead &Head() const {
    return *reinterpret_cast<RingHead *>(ring_.At(0));
  }
  Put Reserve(size_t size, uint8_t **at);
  void Commit(size_t size);

  Descriptor images_fd_;
  Descriptor control_fd_;
  SharedPages ring_;
  SharedPages control_;
  uint64_t head_ = 0;
};

// The SNMP process's end.
class ImageRingReader {
 public:
  // False with errno.
  bool Open(int images_fd, int control_fd);
  bool Anything() const {
    return Head().head.load(std::memory_order_acquire) != tail_ ||
           Head().backlog.load(std::memory_order_acquire) != 0;
  }
  bool Backlog() const {
    return Head().backlog.load(std::memory_order_acquire) != 0;
  }
  bool SetsRefused() const {
    return Head().refuse_sets.load(std::memory_order_acquire) != 0;
  }
  // Brings the index up to date with what is there at the call. Throws std::bad_alloc; call again
  // then. False when what is there makes no sense.
  bool Take(MibIndex *index);

 private:
  const RingHead &Head() const {
    return *reinterpret_cast<const RingHead *>(ring_.At(0));
  }
  bool TakeImage(const uint8_t *record, size_t size, MibIndex *index);

  SharedPages ring_;
  SharedPages control_;
  uint64_t tail_ = 0;
  std::shared_ptr<const Layout> last_layout_;
};

}  // namespace vex

#endif
