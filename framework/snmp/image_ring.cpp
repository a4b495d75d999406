#include "framework/snmp/image_ring.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vex {
namespace {

constexpr size_t kPage = 4096;
static_assert(sizeof(RingHead) <= kRingHeadSize);
static_assert(std::atomic<uint64_t>::is_always_lock_free &&
              std::atomic<uint32_t>::is_always_lock_free);

enum Kind : uint32_t { kImage = 1, kImageWithLayout, kWithdrawal, kNothing };

// At the beginning of each record, whose size is a multiple of its own.
struct alignas(8) RecordHead {
  uint32_t size;  // with this
  uint32_t kind;
};
struct alignas(8) ImageRecord {
  RecordHead record;
  uint64_t object_id;
  uint32_t instance;
  uint32_t variables;  // of the layout that follows, if one does
  uint32_t lengths;    // numbers of 16 bits; they follow the layout
  uint32_t octets;     // the data block follows them
};
struct WithdrawalRecord {
  RecordHead record;
  uint64_t object_id;
};
struct LayoutEntry {
  uint32_t variable;  // its place among MibVariables()
  int32_t slot;
  int32_t size;
  uint32_t offset;
  uint32_t type;
  uint32_t writable;
};

size_t Rounded(size_t size) {
  return (size + sizeof(RecordHead) - 1) / sizeof(RecordHead) * sizeof(RecordHead);
}

// A memory file that keeps its size. -1 with errno.
int NewMemory(const char *name, size_t size) {
  Descriptor fd(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd || ftruncate(fd.get(), static_cast<off_t>(size)) != 0 ||
      fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0) {
    return -1;
  }
  return fd.Release();
}

bool SameVariables(const Layout &a, const Layout &b) {
  return std::equal(a.variables.begin(), a.variables.end(), b.variables.begin(), b.variables.end(),
                    [](const ServedVariable &one, const ServedVariable &other) {
                      return one.mib == other.mib && one.slot == other.slot &&
                             one.size == other.size && one.offset == other.offset &&
                             one.type == other.type && one.writable == other.writable;
                    });
}

}  // namespace

SharedPages::~SharedPages() {
  if (address_ != nullptr) {
    munmap(address_, size_);
  }
}

bool SharedPages::Map(int fd, size_t size, bool writable) {
  void *address =
      mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) {
    return false;
  }
  address_ = address;
  size_ = size;
  // A child of the agent that lives on must not keep the memory of a ring that is gone.
  return madvise(address, size, MADV_DONTFORK) == 0;
}

// ---- The agent's end ----

bool ImageRingWriter::Open() {
  images_fd_.Reset(NewMemory("vexhostd images", kRingHeadSize + kRingSize));
  control_fd_.Reset(NewMemory("vexhostd control", kPage));
  return images_fd_ && control_fd_ &&
         ring_.Map(images_fd_.get(), kRingHeadSize + kRingSize, true) &&
         control_.Map(control_fd_.get(), kPage, true) &&
         fcntl(images_fd_.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) == 0;
}

size_t ImageRingWriter::Unread() const {
  const auto *control = reinterpret_cast<const RingTail *>(control_.At(0));
  return static_cast<size_t>(head_ - control->tail.load(std::memory_order_acquire));
}

ImageRingWriter::Put ImageRingWriter::Reserve(size_t size, uint8_t **at) {
  if (size > kRingSize / 2) {
    return Put::kNever;
  }
  const size_t unread = Unread();
  if (unread > kRingSize) {
    return Put::kBroken;
  }
  const size_t place = head_ % kRingSize;
  // A record never goes around the end. And one that has nobody before it goes to the beginning,
  // whose pages are in memory already.
  size_t skipped = kRingSize - place;
  const bool around =
      place + size > kRingSize || (unread == 0 && place != 0 && skipped + size <= kRingSize);
  skipped = around ? skipped : 0;
  if (unread + skipped + size > kRingSize) {
    return Put::kFull;
  }
  if (around) {
    const RecordHead nothing = {static_cast<uint32_t>(skipped), kNothing};
    memcpy(ring_.At(kRingHeadSize + place), &nothing, sizeof(nothing));
    head_ += skipped;
  }
  *at = ring_.At(kRingHeadSize + head_ % kRingSize);
  return Put::kDone;
}

void ImageRingWriter::Commit(size_t size) {
  head_ += size;
  Head().head.store(head_, std::memory_order_release);
}

ImageRingWriter::Put ImageRingWriter::PutImage(const Image &image, bool with_layout) noexcept {
  const std::vector<ServedVariable> &variables = image.layout->variables;
  const size_t layout_size = with_layout ? variables.size() * sizeof(LayoutEntry) : 0;
  const size_t lengths_size = image.octet_lengths.size() * sizeof(uint16_t);
  const size_t size = Rounded(sizeof(ImageRecord) + layout_size + lengths_size + image.data.size());
  uint8_t *at = nullptr;
  const Put put = Reserve(size, &at);
  if (put != Put::kDone) {
    return put;
  }
  const ImageRecord record = {
      {static_cast<uint32_t>(size), with_layout ? kImageWithLayout : kImage},
      image.object_id,
      image.instance,
      with_layout ? static_cast<uint32_t>(variables.size()) : 0,
      static_cast<uint32_t>(image.octet_lengths.size()),
      static_cast<uint32_t>(image.data.size())};
  memcpy(at, &record, sizeof(record));
  at += sizeof(record);
  for (size_t i = 0; with_layout && i < variables.size(); i++) {
    const ServedVariable &v = variables[i];
    const LayoutEntry entry = {static_cast<uint32_t>(v.mib - MibVariables().data()),
                               v.slot,
                               v.size,
                               v.offset,
                               v.type,
                               v.writable ? 1U : 0U};
    memcpy(at, &entry, sizeof(entry));
    at += sizeof(entry);
  }
  if (lengths_size != 0) {
    memcpy(at, image.octet_lengths.data(), lengths_size);
    at += lengths_size;
  }
  if (!image.data.empty()) {
    memcpy(at, image.data.data(), image.data.size());
  }
  Commit(size);
  return Put::kDone;
}

ImageRingWriter::Put ImageRingWriter::PutWithdrawal(uint64_t object_id) noexcept {
  const WithdrawalRecord record = {{sizeof(WithdrawalRecord), kWithdrawal}, object_id};
  uint8_t *at = nullptr;
  const Put put = Reserve(sizeof(record), &at);
  if (put == Put::kDone) {
    memcpy(at, &record, sizeof(record));
    Commit(sizeof(record));
  }
  return put;
}

// ---- The SNMP process's end ----

bool ImageRingReader::Open(int images_fd, int control_fd) {
  return ring_.Map(images_fd, kRingHeadSize + kRingSize, false) &&
         control_.Map(control_fd, kPage, true);
}

bool ImageRingReader::Take(MibIndex *index) {
  auto *control = reinterpret_cast<RingTail *>(control_.At(0));
  // What comes meanwhile waits: an agent that publishes without a pause would hold the request up.
  const uint64_t head = Head().head.load(std::memory_order_acquire);
  while (head != tail_) {
    const uint64_t unread = head - tail_;
    const size_t place = tail_ % kRingSize;
    const uint8_t *at = ring_.At(kRingHeadSize + place);
    RecordHead record;
    memcpy(&record, at, sizeof(record));
    if (record.size < sizeof(record) || record.size > unread || record.size > kRingSize - place) {
      return false;
    }
    if (record.kind == kImage || record.kind == kImageWithLayout) {
      if (!TakeImage(at, record.size, index)) {
        return false;
      }
    } else if (record.kind == kWithdrawal && record.size >= sizeof(WithdrawalRecord)) {
      WithdrawalRecord withdrawal;
      memcpy(&withdrawal, at, sizeof(withdrawal));
      index->Remove(withdrawal.object_id);
    } else if (record.kind != kNothing) {
      return false;
    }
    tail_ += record.size;
    control->tail.store(tail_, std::memory_order_release);
  }
  return true;
}

bool ImageRingReader::TakeImage(const uint8_t *at, size_t size, MibIndex *index) {
  ImageRecord record;
  if (size < sizeof(record)) {
    return false;
  }
  memcpy(&record, at, sizeof(record));
  const bool with_layout = record.record.kind == kImageWithLayout;
  const size_t layout_size = size_t{record.variables} * sizeof(LayoutEntry);
  const size_t lengths_size = size_t{record.lengths} * sizeof(uint16_t);
  if (sizeof(record) + layout_size + lengths_size + record.octets > size) {
    return false;
  }
  at += sizeof(record);
  auto image = std::make_shared<Image>();
  image->object_id = record.object_id;
  image->instance = record.instance;
  if (with_layout) {
    auto layout = std::make_shared<Layout>();
    layout->variables.reserve(record.variables);
    for (uint32_t i = 0; i < record.variables; i++) {
      LayoutEntry entry;
      memcpy(&entry, at + i * sizeof(entry), sizeof(entry));
      if (entry.variable >= MibVariables().size()) {
        return false;
      }
      layout->variables.push_back({&MibVariables()[entry.variable], entry.slot, entry.size,
                                   entry.offset, static_cast<uint8_t>(entry.type),
                                   entry.writable != 0});
    }
    // The rows of a table follow each other and share one.
    if (last_layout_ == nullptr || !SameVariables(*last_layout_, *layout)) {
      last_layout_ = std::move(layout);
    }
    image->layout = last_layout_;
  } else {
    const Image *before = index->ImageOf(record.object_id);
    if (before == nullptr) {
      return false;
    }
    image->layout = before->layout;
  }
  at += layout_size;
  image->octet_lengths.resize(record.lengths);
  if (lengths_size != 0) {
    memcpy(image->octet_lengths.data(), at, lengths_size);
  }
  at += lengths_size;
  image->data.assign(at, at + record.octets);
  index->Put(image);
  return true;
}

}  // namespace vex
