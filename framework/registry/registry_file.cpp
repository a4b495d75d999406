#include "framework/registry/registry_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_format.h"

namespace vex {

namespace {

constexpr int kMaxDepth = 16;  // of directories in ListObjects()
// Reads of a file that is being written; two equal ones end it sooner.
constexpr int kMostReads = 20;
constexpr long kReadPauseNs = 50'000;

// ---- Reading

// The whole of a regular file of a sensible size; nothing otherwise, with errno when it could not
// be looked at and 0 when it is none.
std::optional<std::vector<uint8_t>> ReadWhole(int root, const std::string &relative) {
  Descriptor fd(OpenBeneath(root, relative, O_RDONLY | O_NONBLOCK | O_NOCTTY));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > kMaxFile) {
    errno = 0;
    return std::nullopt;
  }
  std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
  const ssize_t got = ReadFully(fd.get(), bytes.data(), bytes.size());
  if (got < 0) {
    return std::nullopt;
  }
  bytes.resize(static_cast<size_t>(got));
  return bytes;
}

// ---- Names

// Compares with runs of digits by value: cpu.2 before cpu.10.
bool NaturalLess(const std::string &a, const std::string &b) {
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  size_t i = 0;
  size_t j = 0;
  while (i < a.size() && j < b.size()) {
    if (digit(a[i]) && digit(b[j])) {
      size_t ia = i;
      size_t jb = j;
      while (ia < a.size() && a[ia] == '0') {
        ia++;
      }
      while (jb < b.size() && b[jb] == '0') {
        jb++;
      }
      size_t ea = ia;
      size_t eb = jb;
      while (ea < a.size() && digit(a[ea])) {
        ea++;
      }
      while (eb < b.size() && digit(b[eb])) {
        eb++;
      }
      if (ea - ia != eb - jb) {
        return ea - ia < eb - jb;
      }
      const int order = a.compare(ia, ea - ia, b, jb, eb - jb);
      if (order != 0) {
        return order < 0;
      }
      i = ea;
      j = eb;
    } else if (a[i] != b[j]) {
      return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
    } else {
      i++;
      j++;
    }
  }
  if ((i < a.size()) != (j < b.size())) {
    return j < b.size();
  }
  return a < b;
}

// Notes what could not be looked at, unless it has gone or its mode says so.
void NoteUnread(const std::string &name, int error, std::vector<Unread> *unread) {
  constexpr int kNoFailure[] = {0, ENOENT, ENOTDIR, ELOOP, EACCES};
  if (unread != nullptr &&
      std::find(std::begin(kNoFailure), std::end(kNoFailure), error) == std::end(kNoFailure)) {
    unread->push_back({name, error});
  }
}

// "host" of "host/".
std::string WithoutSlash(const std::string &prefix) {
  return prefix.substr(0, prefix.size() - (prefix.empty() ? 0 : 1));
}

// The next entry of a directory of that name; null at its end, and where it cannot be read.
const dirent *NextEntry(DIR *dir, const std::string &name, std::vector<Unread> *unread) {
  errno = 0;
  const dirent *entry = readdir(dir);
  if (entry == nullptr) {
    NoteUnread(name, errno, unread);
  }
  return entry;
}

void ListDirectory(int parent, const char *name, const std::string &prefix, int depth,
                   std::vector<std::string> &found, std::vector<Unread> *unread) {
  Descriptor fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  DIR *dir = fd ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) {
    NoteUnread(WithoutSlash(prefix), errno, unread);
    return;
  }
  const int dir_fd = fd.Release();
  while (const dirent *entry = NextEntry(dir, WithoutSlash(prefix), unread)) {
    if (entry->d_name[0] == '.') {
      continue;  // also the temporary files of writers
    }
    const std::string path = prefix + entry->d_name;
    struct stat st;
    if (fstatat(dir_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      NoteUnread(path, errno, unread);
      continue;
    }
    if (S_ISDIR(st.st_mode) && depth < kMaxDepth) {
      ListDirectory(dir_fd, entry->d_name, path + "/", depth + 1, found, unread);
    } else if (S_ISREG(st.st_mode)) {
      // Agents keep other small files in the registry too: an object's file says that it is one.
      Descriptor file(
          openat(dir_fd, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
      char magic[sizeof(kMagic)];
      const ssize_t got = file ? pread(file.get(), magic, sizeof(magic), 0) : -1;
      if (got < 0) {
        NoteUnread(path, errno, unread);
      } else if (got == sizeof(magic) && memcmp(magic, kMagic, sizeof(magic)) == 0) {
        found.push_back(path);
      }
    }
  }
  closedir(dir);
}

}  // namespace

namespace {

// The newest complete state in a file that `read` reads once more at each call.
template <typename Reader>
std::optional<FileObject> ReadSettled(const Reader &read) {
  std::vector<uint8_t> before;
  for (int attempt = 1;; attempt++) {
    std::optional<std::vector<uint8_t>> file = read();
    if (!file) {
      return std::nullopt;
    }
    bool torn = false;
    errno = 0;  // whatever is none of it is no error of looking
    std::optional<FileObject> object = ParseObjectFile(*file, &torn);
    // One slot torn, and the other may be older than what was complete when we began: while the
    // first was read, the writer may have gone round. The same bytes twice show that it did not.
    if (!torn || attempt == kMostReads || (attempt > 1 && *file == before)) {
      return object;
    }
    before = std::move(*file);
    if (attempt > 1) {
      const timespec pause = {0, kReadPauseNs};
      nanosleep(&pause, nullptr);
    }
  }
}

// The first bytes of a file in an open directory, as many as the buffer has room for: their number,
// or the error, negative.
ssize_t ReadBeginning(int directory, const std::string &name, std::vector<uint8_t> *buffer) {
  const Descriptor fd(
      openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  const ssize_t got = fd ? read(fd.get(), buffer->data(), buffer->size()) : -1;
  return got >= 0 ? got : -errno;
}

// One object of an open directory. Nearly every one is small and whole at the first read; else it
// is read again as any other.
std::optional<FileObject> ReadEntry(int directory, const std::string &name,
                                    std::vector<uint8_t> *buffer, bool *is_object) {
  constexpr size_t kUsual = 4096;
  buffer->resize(kUsual);
  const ssize_t got = ReadBeginning(directory, name, buffer);
  if (got < 0) {
    // Gone since the directory was read, a link, or a directory: none is an object of ours.
    *is_object = got != -ENOENT && got != -ELOOP && got != -EISDIR;
    return std::nullopt;
  }
  buffer->resize(static_cast<size_t>(got));
  *is_object =
      buffer->size() >= sizeof(kMagic) && memcmp(buffer->data(), kMagic, sizeof(kMagic)) == 0;
  if (*is_object && buffer->size() < kUsual) {
    bool torn = false;
    std::optional<FileObject> object = ParseObjectFile(*buffer, &torn);
    if (object && !torn) {
      return object;
    }
  }
  return *is_object ? ReadSettled([&] { return ReadWhole(directory, name); }) : std::nullopt;
}

}  // namespace

std::optional<FileObject> ReadObjectFile(std::string_view name, std::string_view root) {
  const std::optional<std::string> relative = ResolveObjectName(name, root);
  if (!relative) {
    return std::nullopt;
  }
  const Descriptor root_fd(OpenRegistryRoot(std::string(root), false));
  if (!root_fd) {
    return std::nullopt;
  }
  return ReadSettled([&] { return ReadWhole(root_fd.get(), *relative); });
}

std::vector<NamedFile> ReadObjectsOf(std::string_view directory, std::string_view root,
                                     std::vector<Unread> *unread) {
  std::vector<NamedFile> found;
  const std::string own_name(directory);
  const Descriptor root_fd(OpenRegistryRoot(std::string(root), false));
  Descriptor fd(root_fd ? OpenBeneath(root_fd.get(), own_name, kReadDirectory) : -1);
  DIR *dir = fd ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) {
    NoteUnread(root_fd ? own_name : "", errno, unread);
    return found;
  }
  const int dir_fd = fd.Release();
  std::vector<std::string> names;
  while (const dirent *entry = NextEntry(dir, own_name, unread)) {
    if (entry->d_name[0] != '.' && (entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN)) {
      names.emplace_back(entry->d_name);
    }
  }
  std::sort(names.begin(), names.end(), NaturalLess);
  found.reserve(names.size());
  std::vector<uint8_t> buffer;
  const std::string prefix = std::string(directory) + "/";
  for (const std::string &name : names) {
    bool is_object = false;
    std::optional<FileObject> object = ReadEntry(dir_fd, name, &buffer, &is_object);
    if (is_object) {
      found.push_back({prefix + name, std::move(object)});
    }
  }
  closedir(dir);
  return found;
}

std::vector<std::string> ListObjects(std::string_view root, std::vector<Unread> *unread) {
  std::vector<std::string> found;
  Descriptor root_fd(OpenRegistryRoot(std::string(root), false));
  if (root_fd) {
    ListDirectory(root_fd.get(), ".", "", 0, found, unread);
  } else {
    NoteUnread("", errno, unread);
  }
  std::sort(found.begin(), found.end(), NaturalLess);
  return found;
}

// ---- Writing ------------------------------------------------------------------------------------

namespace {

// Header, table and names as they stand in the file; shared by the writers of equal layout, as all
// rows of a table are.
struct FileLayout {
  std::vector<uint8_t> bytes;
  uint32_t data_size = 0;
  uint32_t var_count = 0;
  uint64_t checksum = 0;
};

std::shared_ptr<const FileLayout> EncodeLayout(const std::vector<FileVariable> &variables,
                                               uint32_t data_size) {
  size_t names_size = 0;
  for (const FileVariable &v : variables) {
    names_size += std::min(v.name.size(), kMaxVariableName);
  }
  const size_t names = sizeof(FileHeader) + variables.size() * sizeof(FileDescriptor);
  auto layout = std::make_shared<FileLayout>();
  layout->bytes.assign(Padded(names + names_size), 0);
  FileHeader header = {};
  memcpy(header.magic, kMagic, sizeof(kMagic));
  header.version = kVersion;
  header.var_count = static_cast<uint32_t>(variables.size());
  header.data_size = data_size;
  header.names_size = static_cast<uint32_t>(names_size);
  header.slots_offset = static_cast<uint32_t>(layout->bytes.size());
  header.slot_size = static_cast<uint32_t>(SlotSize(variables.size(), data_size));
  size_t name_offset = 0;
  for (size_t i = 0; i < variables.size(); i++) {
    const FileVariable &v = variables[i];
    FileDescriptor d = {};
    d.size = v.size;
    d.offset = v.offset;
    d.name_offset = static_cast<uint32_t>(name_offset);
    d.name_length = static_cast<uint16_t>(std::min(v.name.size(), kMaxVariableName));
    d.type = v.type;
    d.access = v.access;
    Store(&layout->bytes[sizeof(FileHeader) + i * sizeof(FileDescriptor)], d);
    if (d.name_length != 0) {
      memcpy(&layout->bytes[names + name_offset], v.name.data(), d.name_length);
    }
    name_offset += d.name_length;
  }
  Store(layout->bytes.data(), header);
  header.checksum = RegistryChecksum(layout->bytes.data(), layout->bytes.size(), 0);
  Store(layout->bytes.data(), header);
  layout->data_size = data_size;
  layout->var_count = header.var_count;
  layout->checksum = header.checksum;

  // A string: compared as a vector, gcc 14 warns with -O3 of lengths that no object has.
  static auto *known = new std::map<std::string, std::weak_ptr<const FileLayout>>;
  std::weak_ptr<const FileLayout> &entry =
      (*known)[std::string(layout->bytes.begin(), layout->bytes.end())];
  if (std::shared_ptr<const FileLayout> same = entry.lock()) {
    return same;
  }
  entry = layout;
  return layout;
}

// Fills one slot's bytes, header included. The time of publication that stands in it.
int64_t EncodeSlot(uint8_t *slot, const FileLayout &layout, uint64_t sequence, const uint8_t *data,
                   const uint16_t *lengths) {
  const size_t lengths_size = 2 * size_t{layout.var_count};
  const size_t size = SlotSize(layout.var_count, layout.data_size);
  memset(slot, 0, sizeof(SlotHeader));
  uint8_t *p = slot + sizeof(SlotHeader);
  if (lengths_size != 0) {
    memcpy(p, lengths, lengths_size);
    memset(p + lengths_size, 0, Padded(lengths_size) - lengths_size);
  }
  uint8_t *q = p + Padded(lengths_size);
  if (layout.data_size != 0) {
    memcpy(q, data, layout.data_size);
    memset(q + layout.data_size, 0, Padded(layout.data_size) - layout.data_size);
  }
  SlotHeader header = {};
  header.sequence = sequence;
  header.published_ns = ClockNs(CLOCK_REALTIME);
  const uint64_t sum =
      RegistryChecksum(reinterpret_cast<const uint8_t *>(&header), sizeof(header), layout.checksum);
  header.checksum = RegistryChecksum(p, size - sizeof(SlotHeader), sum);
  Store(slot, header);
  return header.published_ns;
}

// Which file it is. The time of birth tells a new file that got the inode number of one that was
// removed.
struct FileId {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t birth_seconds = 0;
  uint32_t birth_ns = 0;
  bool operator==(const FileId &) const = default;
};

// That it is the one, and that nobody cut it or took it from its readers.
struct Identity {
  FileId id;
  uint64_t size = 0;
  uint32_t owner = 0;
  uint32_t group = 0;
  uint16_t mode = 0;
  bool operator==(const Identity &) const = default;
};

// When anything of it was last changed; zeros: not known.
struct ChangeTime {
  int64_t seconds = 0;
  uint32_t ns = 0;
  bool operator==(const ChangeTime &) const = default;
};

// name "": fd itself. changed may be null: kernels that stamp files finely make the next write
// dearer for every time that somebody has asked when the file was changed.
int Identify(int fd, const char *name, Identity *identity, ChangeTime *changed) {
  struct statx st;
  constexpr unsigned kMask =
      STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_INO | STATX_SIZE | STATX_BTIME;
  if (statx(fd, name, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW,
            kMask | (changed != nullptr ? STATX_CTIME : 0), &st) != 0) {
    return -1;
  }
  if (!S_ISREG(st.stx_mode)) {
    errno = EINVAL;
    return -1;
  }
  *identity = {};
  identity->id.device = (uint64_t{st.stx_dev_major} << 32) | st.stx_dev_minor;
  identity->id.inode = st.stx_ino;
  identity->size = st.stx_size;
  identity->owner = st.stx_uid;
  identity->group = st.stx_gid;
  identity->mode = st.stx_mode;
  if ((st.stx_mask & STATX_BTIME) != 0) {
    identity->id.birth_seconds = st.stx_btime.tv_sec;
    identity->id.birth_ns = st.stx_btime.tv_nsec;
  }
  if (changed != nullptr) {
    *changed = {st.stx_ctime.tv_sec, st.stx_ctime.tv_nsec};
  }
  return 0;
}

int WriteAll(int fd, const uint8_t *bytes, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      if (n == 0) {
        errno = ENOSPC;
      }
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace

struct ObjectFileWriter::State {
  std::string relative;
  HeldRoot *root;
  std::shared_ptr<const FileLayout> layout;
  size_t leaf;               // where the last component of relative begins
  uint64_t sequence = 0;     // of the last attempt to publish
  uint64_t written = 0;      // of the state that stands in the file
  int64_t attempted_ns = 0;  // when the last attempt was made, and that state: with its sequence it
  int64_t written_ns = 0;    // tells a state from all others, also of other objects
  Identity file;             // of the file that we made; inode 0: none yet
  ChangeTime changed;     // when it was last read and right; not known: read it at the next check
  uint8_t next_slot = 0;  // the older one
  bool replace = false;   // the file is not to be written to any more: the next one replaces it

  std::string_view Parent() const {
    return std::string_view(relative).substr(0, leaf == 0 ? 0 : leaf - 1);
  }
  const char *Leaf() const {
    return relative.c_str() + leaf;
  }
  State(std::string object, const std::string &root_path)
      : relative(std::move(object)),
        root(&RootOf(root_path)),
        layout(EncodeLayout({}, 0)),
        leaf(relative.rfind('/') + 1) {}  // 0 without a slash

  int Create(const uint8_t *data, const uint16_t *lengths);
  int CreateIn(int directory, const std::vector<uint8_t> &bytes);
  int WriteSlot(int fd, const uint8_t *data, const uint16_t *lengths);
  FileState ReadBack(int directory);
};

ObjectFileWriter::ObjectFileWriter(std::string relative, const std::string &root)
    : state_(new State(std::move(relative), root)) {}

ObjectFileWriter::~ObjectFileWriter() {
  delete state_;
}

ObjectFileWriter::ObjectFileWriter(ObjectFileWriter &&other) noexcept
    : state_(std::exchange(other.state_, nullptr)) {}

std::string_view ObjectFileWriter::Directory() const {
  return state_->Parent();
}

void ObjectFileWriter::SetLayout(const std::vector<FileVariable> &variables, uint32_t data_size) {
  std::shared_ptr<const FileLayout> layout = EncodeLayout(variables, data_size);
  if (layout->bytes != state_->layout->bytes) {
    state_->replace = true;
  }
  state_->layout = std::move(layout);
}

int ObjectFileWriter::State::CreateIn(int directory, const std::vector<uint8_t> &bytes) {
  const std::string temporary = std::string(".") + Leaf() + "." + std::to_string(getpid());
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  Descriptor fd(openat(directory, temporary.c_str(), kFlags, 0600));
  if (!fd && errno == EEXIST) {
    // Left over by a process of our number that died just here.
    if (unlinkat(directory, temporary.c_str(), 0) != 0) {
      return -1;
    }
    fd.Reset(openat(directory, temporary.c_str(), kFlags, 0600));
  }
  if (!fd) {
    return -1;
  }
  Identity made;
  if (fchmod(fd.get(), 0644) != 0 || WriteAll(fd.get(), bytes.data(), bytes.size(), 0) != 0 ||
      Identify(fd.get(), "", &made, nullptr) != 0 ||
      renameat(directory, temporary.c_str(), directory, Leaf()) != 0) {
    const int error = errno;
    unlinkat(directory, temporary.c_str(), 0);
    errno = error;
    return -1;
  }
  file = made;
  replace = false;
  written = sequence;
  written_ns = attempted_ns;
  next_slot = 1;
  changed = {};
  return 0;
}

int ObjectFileWriter::State::Create(const uint8_t *data, const uint16_t *lengths) {
  const size_t head = layout->bytes.size();
  const size_t slot = SlotSize(layout->var_count, layout->data_size);
  static_assert(sizeof(FileHeader) + kMaxVariables * (sizeof(FileDescriptor) + kMaxVariableName) +
                    8 + 2 * SlotSize(kMaxVariables, kMaxData) <=
                kMaxFile);
  if (layout->var_count > kMaxVariables || layout->data_size > kMaxData) {
    errno = EFBIG;
    return -1;
  }
  std::vector<uint8_t> bytes(head + 2 * slot);
  memcpy(bytes.data(), layout->bytes.data(), head);
  attempted_ns = EncodeSlot(&bytes[head], *layout, sequence, data, lengths);
  const int root_fd = root->Get();
  if (root_fd < 0) {
    return -1;
  }
  const std::string parent(Parent());
  Descriptor directory(OpenBeneath(root_fd, parent, O_PATH | O_DIRECTORY));
  if (!directory && errno == ENOENT && MakeDirectories(root_fd, parent) == 0) {
    directory.Reset(OpenBeneath(root_fd, parent, O_PATH | O_DIRECTORY));
  }
  return directory ? CreateIn(directory.get(), bytes) : -1;
}

int ObjectFileWriter::State::WriteSlot(int fd, const uint8_t *data, const uint16_t *lengths) {
  const size_t head = layout->bytes.size();
  const size_t size = SlotSize(layout->var_count, layout->data_size);
  static auto *slot = new std::vector<uint8_t>;  // kept from one publication to the next
  slot->resize(size);
  attempted_ns = EncodeSlot(slot->data(), *layout, sequence, data, lengths);
  changed = {};
  if (WriteAll(fd, slot->data(), size, static_cast<off_t>(head + next_slot * size)) != 0) {
    return -1;  // the other slot stands; this one is the next to be filled again
  }
  next_slot ^= 1;
  written = sequence;
  written_ns = attempted_ns;
  return 0;
}

int ObjectFileWriter::Publish(const uint8_t *data, const uint16_t *lengths) {
  State &s = *state_;
  s.sequence++;
  if (s.file.id.inode != 0 && !s.replace) {
    Descriptor fd(OpenBeneath(s.root->Get(), s.relative, O_WRONLY | O_NONBLOCK | O_NOCTTY));
    if (!fd && (errno == EMFILE || errno == ENFILE || errno == EROFS || errno == EACCES ||
                errno == EPERM || errno == EIO)) {
      return -1;
    }
    Identity found;
    if (fd && Identify(fd.get(), "", &found, nullptr) == 0 && found == s.file) {
      return s.WriteSlot(fd.get(), data, lengths);
    }
    // Somebody removed, replaced or cut it.
  }
  return s.Create(data, lengths);
}

// Whether the file has our header and, whole, the state that we published last.
FileState ObjectFileWriter::State::ReadBack(int directory) {
  const auto bytes = ReadWhole(directory, Leaf());
  if (!bytes) {
    return errno == 0 || errno == ENOENT || errno == ELOOP ? FileState::kLost : FileState::kUnknown;
  }
  const std::vector<uint8_t> &head = layout->bytes;
  bool torn = false;
  const auto object = ParseObjectFile(*bytes, &torn);
  return object && !torn && object->sequence == written && object->published_ns == written_ns &&
                 std::mismatch(head.begin(), head.end(), bytes->begin(), bytes->end()).first ==
                     head.end()
             ? FileState::kIntact
             : FileState::kLost;
}

FileState ObjectFileWriter::Check(int directory, bool read_back) {
  State &s = *state_;
  Identity found;
  ChangeTime changed;
  FileState state = FileState::kLost;  // there is none of ours, or another one in its place
  if (s.file.id.inode != 0 && !s.replace) {
    if (Identify(directory, s.Leaf(), &found, &changed) != 0) {
      state = errno == ENOENT || errno == EINVAL ? FileState::kLost : FileState::kUnknown;
    } else if (found == s.file) {
      const bool look = changed != s.changed || read_back;
      state = look ? s.ReadBack(directory) : FileState::kIntact;
      if (state == FileState::kIntact) {
        s.changed = changed;
      }
    }
  }
  s.replace = s.replace || state == FileState::kLost;
  return state;
}

int ObjectFileWriter::Remove() {
  State &s = *state_;
  if (s.file.id.inode == 0) {
    return 0;
  }
  const int root_fd = s.root->Get();
  Descriptor directory(
      root_fd >= 0 ? OpenBeneath(root_fd, std::string(s.Parent()), O_PATH | O_DIRECTORY) : -1);
  Identity found;
  int result = directory ? Identify(directory.get(), s.Leaf(), &found, nullptr) : -1;
  if (result == 0 && found.id == s.file.id) {
    result = unlinkat(directory.get(), s.Leaf(), 0);
  }
  // What is no file of ours is not ours to remove.
  if (result != 0 && errno != ENOENT && errno != EINVAL && errno != ENOTDIR && errno != ELOOP) {
    return -1;
  }
  s.file = {};
  return 0;
}

int RemoveObjectFile(const std::string &relative, const std::string &root) {
  const auto [parent, leaf] = SplitPath(relative);
  Descriptor root_fd(OpenRegistryRoot(root, false));
  Descriptor directory(root_fd ? OpenBeneath(root_fd.get(), parent, O_PATH | O_DIRECTORY) : -1);
  if (!directory || unlinkat(directory.get(), leaf.c_str(), 0) != 0) {
    return errno == ENOENT ? 0 : -1;
  }
  return 0;
}

}  // namespace vex
