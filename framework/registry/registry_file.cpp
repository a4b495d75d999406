#include "framework/registry/registry_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>

#include "framework/process/trusted_link.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_format.h"

namespace vex {

namespace {

// Of a component of an object's name: room for what a temporary name adds within NAME_MAX.
constexpr size_t kMaxComponent = 200;
constexpr size_t kMaxRelative = 1024;
constexpr int kMaxDepth = 16;  // of directories in ListObjects()
// Looks of a reader at a file that is being written; two equal looks end it sooner.
constexpr int kLooks = 20;
constexpr long kLookPauseNs = 50'000;

template <typename T>
T Load(const uint8_t *bytes) {
  T value;
  memcpy(&value, bytes, sizeof(value));
  return value;
}

template <typename T>
void Store(uint8_t *bytes, const T &value) {
  memcpy(bytes, &value, sizeof(value));
}

// ---- Reading

// The head of a file, checked; the offsets in it can be trusted.
struct Head {
  FileHeader header;
  std::vector<FileVariable> variables;
};

std::optional<Head> ParseHead(const std::vector<uint8_t> &file) {
  Head head;
  if (file.size() < sizeof(FileHeader)) {
    return std::nullopt;
  }
  head.header = Load<FileHeader>(file.data());
  const FileHeader &h = head.header;
  if (memcmp(h.magic, kMagic, sizeof(kMagic)) != 0 || h.version != kVersion ||
      h.var_count > kMaxVariables || h.data_size > kMaxData || h.names_size > kMaxFile) {
    return std::nullopt;
  }
  const size_t table = sizeof(FileHeader);
  const size_t names = table + size_t{h.var_count} * sizeof(FileDescriptor);
  if (h.slots_offset != Padded(names + h.names_size) || h.slots_offset > file.size() ||
      h.slot_size != SlotSize(h.var_count, h.data_size) ||
      file.size() > size_t{h.slots_offset} + 2 * size_t{h.slot_size}) {
    return std::nullopt;
  }
  std::vector<uint8_t> covered(file.begin(), file.begin() + h.slots_offset);
  Store<uint64_t>(&covered[offsetof(FileHeader, checksum)], 0);
  if (RegistryChecksum(covered.data(), covered.size(), 0) != h.checksum) {
    return std::nullopt;
  }
  head.variables.reserve(h.var_count);
  for (size_t i = 0; i < h.var_count; i++) {
    const auto d = Load<FileDescriptor>(&file[table + i * sizeof(FileDescriptor)]);
    if (d.offset > h.data_size || d.size > h.data_size - d.offset ||
        d.name_length > kMaxVariableName || d.name_offset > h.names_size ||
        d.name_length > h.names_size - d.name_offset) {
      return std::nullopt;
    }
    FileVariable v;
    v.name.assign(reinterpret_cast<const char *>(&file[names]) + d.name_offset, d.name_length);
    v.type = d.type;
    v.access = d.access;
    v.size = d.size;
    v.offset = d.offset;
    // 1 is a 32-bit integer, 2 and 3 are strings, 0 a slot without a variable.
    if (d.type > 3 || (d.type == 1 && d.size != 4) || (d.type == 0 && d.size != 0) ||
        v.name.find('\0') != std::string::npos) {
      return std::nullopt;
    }
    head.variables.push_back(std::move(v));
  }
  return head;
}

enum class SlotState { kEmpty, kBad, kGood };

SlotState CheckSlot(const std::vector<uint8_t> &file, const Head &head, size_t offset) {
  if (offset > file.size() || file.size() - offset < head.header.slot_size) {
    return SlotState::kBad;
  }
  const uint8_t *slot = &file[offset];
  const auto h = Load<SlotHeader>(slot);
  if (h.sequence == 0 && h.published_ns == 0 && h.checksum == 0) {
    return SlotState::kEmpty;
  }
  const uint8_t *lengths = slot + sizeof(SlotHeader);
  SlotHeader covered = h;
  covered.checksum = 0;
  uint64_t sum = RegistryChecksum(reinterpret_cast<const uint8_t *>(&covered), sizeof(covered),
                                  head.header.checksum);
  sum = RegistryChecksum(lengths, head.header.slot_size - sizeof(SlotHeader), sum);
  if (h.sequence == 0 || sum != h.checksum) {
    return SlotState::kBad;
  }
  for (size_t i = 0; i < head.variables.size(); i++) {
    if (Load<uint16_t>(lengths + 2 * i) > head.variables[i].size) {
      return SlotState::kBad;
    }
  }
  return SlotState::kGood;
}

FileObject TakeSlot(const std::vector<uint8_t> &file, Head &&head, size_t offset) {
  const uint8_t *slot = &file[offset];
  const auto h = Load<SlotHeader>(slot);
  const uint8_t *lengths = slot + sizeof(SlotHeader);
  const uint8_t *data = lengths + Padded(2 * head.variables.size());
  FileObject object;
  object.variables = std::move(head.variables);
  for (size_t i = 0; i < object.variables.size(); i++) {
    object.variables[i].length = Load<uint16_t>(lengths + 2 * i);
  }
  object.data.assign(data, data + head.header.data_size);
  object.sequence = h.sequence;
  object.published_ns = h.published_ns;
  return object;
}

// The whole of a regular file of a sensible size; nothing otherwise, with errno when it could not
// be looked at and 0 when it is none.
std::optional<std::vector<uint8_t>> ReadWhole(int root, const std::string &relative) {
  Descriptor fd(OpenBeneath(root, relative, O_RDONLY | O_NONBLOCK | O_NOCTTY));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode) || st.st_size < 0 || static_cast<size_t>(st.st_size) > kMaxFile) {
    errno = 0;
    return std::nullopt;
  }
  std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
  size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t n = read(fd.get(), bytes.data() + got, bytes.size() - got);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return std::nullopt;
    }
    if (n == 0) {
      break;
    }
    got += static_cast<size_t>(n);
  }
  bytes.resize(got);
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

void ListDirectory(int parent, const char *name, const std::string &prefix, int depth,
                   std::vector<std::string> &found) {
  Descriptor fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) {
    return;
  }
  DIR *dir = fdopendir(fd.get());
  if (dir == nullptr) {
    return;
  }
  const int dir_fd = fd.Release();
  while (const dirent *entry = readdir(dir)) {
    if (entry->d_name[0] == '.') {
      continue;  // also the temporary files of writers
    }
    struct stat st;
    if (fstatat(dir_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    const std::string path = prefix + entry->d_name;
    if (S_ISDIR(st.st_mode) && depth < kMaxDepth) {
      ListDirectory(dir_fd, entry->d_name, path + "/", depth + 1, found);
    } else if (S_ISREG(st.st_mode)) {
      // Agents keep other small files in the registry too: an object's file says that it is one.
      Descriptor file(
          openat(dir_fd, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
      char magic[sizeof(kMagic)];
      if (file && pread(file.get(), magic, sizeof(magic), 0) == sizeof(magic) &&
          memcmp(magic, kMagic, sizeof(magic)) == 0) {
        found.push_back(path);
      }
    }
  }
  closedir(dir);
}

}  // namespace

// ---- Directories ---------------------------------------------------------------------------

std::pair<std::string, std::string> SplitPath(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {"", path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

int OpenBeneathByWalk(int root, const std::string &path, int flags, mode_t mode) {
  const std::string &target = path.empty() ? "." : path;
  Descriptor at;
  size_t begin = 0;
  for (;;) {
    const size_t slash = target.find('/', begin);
    const std::string component = target.substr(begin, slash - begin);
    if (component == "..") {
      errno = EXDEV;
      return -1;
    }
    const int from = at ? at.get() : root;
    if (slash == std::string::npos) {
      return openat(from, component.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode);
    }
    at.Reset(openat(from, component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!at) {
      return -1;
    }
    begin = slash + 1;
  }
}

int OpenBeneath(int root, const std::string &path, int flags, mode_t mode) {
  static std::atomic<bool> kernel_has_openat2{true};
  const std::string &target = path.empty() ? "." : path;
  if (kernel_has_openat2.load(std::memory_order_relaxed)) {
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const long fd = syscall(SYS_openat2, root, target.c_str(), &how, sizeof(how));
    if (fd >= 0) {
      return static_cast<int>(fd);
    }
    if (errno == ENOSYS) {
      kernel_has_openat2.store(false, std::memory_order_relaxed);
    } else if (errno != EPERM) {  // EPERM may be a sandbox that does not know the call
      return -1;
    }
  }
  return OpenBeneathByWalk(root, path, flags, mode);
}

int GiveDirectoryMode(int directory) {
  constexpr mode_t kMode = 0755;
  struct stat st;
  if (fstat(directory, &st) != 0) {
    return -1;
  }
  if (st.st_uid != geteuid() || (st.st_mode & kMode) == kMode) {
    return 0;
  }
  // fchmod(2) takes no O_PATH descriptor, and the directory may be one that its owner cannot open.
  char link[32];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", directory);
  return chmod(link, (st.st_mode & 07777) | kMode);
}

int MakeDirectories(int root, const std::string &path, bool parents) {
  size_t slash = parents ? path.find('/') : std::string::npos;
  for (;;) {
    const auto [parent, leaf] = SplitPath(path.substr(0, slash));
    Descriptor at(OpenBeneath(root, parent, O_PATH | O_DIRECTORY));
    if (!at || (mkdirat(at.get(), leaf.c_str(), 0755) != 0 && errno != EEXIST)) {
      return -1;
    }
    // Whatever the umask, and whoever died between the two steps: siblings read here.
    const Descriptor made(
        openat(at.get(), leaf.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made || GiveDirectoryMode(made.get()) != 0) {
      return -1;
    }
    if (slash == std::string::npos) {
      return 0;
    }
    slash = path.find('/', slash + 1);
  }
}

bool IsEmptyDirectory(int directory) {
  Descriptor fd(directory);
  DIR *dir = fd ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) {
    return false;
  }
  fd.Release();
  bool empty = true;
  errno = 0;
  while (const dirent *entry = readdir(dir)) {
    empty = empty && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0);
  }
  empty = empty && errno == 0;
  closedir(dir);
  return empty;
}

namespace {

int OpenWay(const std::string &path, int from, bool create, int links);

// One step on the way to the root: a directory, or a link to one that the administrator or this
// user has made. Who may write to a directory above the registry must not lead us elsewhere: a link
// is followed as it was looked at, not by its name, which may be another link's by now.
int OpenStep(int parent, const std::string &name, bool create, bool last, int links) {
  constexpr int kFlags = O_PATH | O_CLOEXEC;
  int fd = openat(parent, name.c_str(), kFlags | O_NOFOLLOW);
  bool made = false;
  if (fd < 0 && errno == ENOENT && create) {
    made = mkdirat(parent, name.c_str(), 0755) == 0;
    if (!made && errno != EEXIST) {
      return -1;
    }
    fd = openat(parent, name.c_str(), kFlags | O_NOFOLLOW);
  }
  Descriptor step(fd);
  struct stat st;
  if (!step || fstat(step.get(), &st) != 0) {
    return -1;
  }
  if (S_ISLNK(st.st_mode)) {
    if (!IsTrustedLink(st) || links == 0) {
      errno = ELOOP;
      return -1;
    }
    char target[PATH_MAX];
    const ssize_t length = readlinkat(step.get(), "", target, sizeof(target));
    if (length < 0) {
      return -1;
    }
    return OpenWay({target, static_cast<size_t>(length)}, parent, false, links - 1);
  }
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  // Who made it may have died before it had its mode: it is then empty. What has something in it is
  // as the administrator wants it, unless it is the registry itself.
  if (create && (st.st_mode & 0755) != 0755 &&
      (made || last ||
       IsEmptyDirectory(
           openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))) &&
      GiveDirectoryMode(step.get()) != 0) {
    return -1;
  }
  return step.Release();
}

// Opens the directory (O_PATH); a relative path begins at the directory `from`. -1 with errno.
int OpenWay(const std::string &path, int from, bool create, int links) {
  Descriptor at(openat(from, path.starts_with('/') ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (size_t begin = 0; at && begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) {
      const bool last = path.find_first_not_of('/', end) == std::string::npos;
      at.Reset(OpenStep(at.get(), path.substr(begin, end - begin), create, last, links));
    }
    begin = end + 1;
  }
  return at.Release();
}

}  // namespace

int OpenRegistryRoot(const std::string &root, bool create) {
  constexpr int kMostLinks = 40;  // as the kernel's
  return OpenWay(root, AT_FDCWD, create, kMostLinks);
}

std::optional<DirectoryId> IdOf(int directory) {
  struct stat st;
  if (fstat(directory, &st) != 0) {
    return std::nullopt;
  }
  return DirectoryId{st.st_dev, st.st_ino};
}

int HeldRoot::Get() {
  if (!fd_) {
    fd_.Reset(OpenRegistryRoot(path_, true));
  }
  return fd_.get();
}

std::optional<bool> HeldRoot::IsHeld(int root) const {
  if (!fd_) {
    return false;
  }
  const auto held = IdOf(fd_.get());
  const auto asked = held ? IdOf(root) : std::nullopt;
  return asked ? std::optional(held == asked) : std::nullopt;
}

HeldRoot &RootOf(const std::string &path) {
  // Never destroyed: exit handlers may still write. Not of the thread's own storage, whose
  // destructors are registered with an allocation that ends the process when it fails.
  static auto *roots = new std::map<std::string, HeldRoot>;
  return roots->try_emplace(path, path).first->second;
}

// ---- Public functions ------------------------------------------------------------------------

std::optional<std::string> ResolveDirectoryName(std::string_view name, std::string_view root) {
  if (name.empty() || name.size() > 4 * kMaxRelative || name.find('\0') != name.npos) {
    return std::nullopt;
  }
  std::vector<std::string_view> path;
  auto append = [&path](std::string_view text) {
    while (!text.empty()) {
      const size_t slash = text.find('/');
      const std::string_view component = text.substr(0, slash);
      if (component == "..") {
        if (!path.empty()) {
          path.pop_back();  // above "/" is "/"
        }
      } else if (!component.empty() && component != ".") {
        path.push_back(component);
      }
      text = slash == text.npos ? std::string_view() : text.substr(slash + 1);
    }
  };
  append(root);
  const std::vector<std::string_view> base = path;
  if (name.front() == '/') {
    path.clear();
  }
  append(name);
  if (path.size() < base.size() || !std::equal(base.begin(), base.end(), path.begin())) {
    return std::nullopt;
  }
  std::string relative;
  for (size_t i = base.size(); i < path.size(); i++) {
    if (path[i].size() > kMaxComponent || path[i].front() == '.') {
      return std::nullopt;
    }
    if (!relative.empty()) {
      relative += '/';
    }
    relative += path[i];
  }
  if (relative.size() > kMaxRelative) {
    return std::nullopt;
  }
  return relative;
}

std::optional<std::string> ResolveObjectName(std::string_view name, std::string_view root) {
  std::optional<std::string> relative = ResolveDirectoryName(name, root);
  return relative && !relative->empty() ? std::move(relative) : std::nullopt;
}

// FNV-1a's scheme on 64-bit words, with a shift that brings the high bits back down.
uint64_t RegistryChecksum(const uint8_t *bytes, size_t size, uint64_t seed) {
  uint64_t h = seed ^ 0xcbf29ce484222325;
  for (size_t i = 0; i < size; i += 8) {
    h = (h ^ Load<uint64_t>(bytes + i)) * 0x9e3779b97f4a7c15;
    h ^= h >> 32;
  }
  return h;
}

std::optional<FileObject> ParseObjectFile(const std::vector<uint8_t> &file, bool *torn) {
  *torn = false;
  std::optional<Head> head = ParseHead(file);
  if (!head) {
    return std::nullopt;
  }
  size_t newest = 0;  // no slot begins there
  uint64_t sequence = 0;
  for (const size_t offset : {size_t{head->header.slots_offset},
                              size_t{head->header.slots_offset} + head->header.slot_size}) {
    const SlotState state = CheckSlot(file, *head, offset);
    *torn = *torn || state == SlotState::kBad;
    if (state == SlotState::kGood && Load<SlotHeader>(&file[offset]).sequence > sequence) {
      sequence = Load<SlotHeader>(&file[offset]).sequence;
      newest = offset;
    }
  }
  if (newest == 0) {
    return std::nullopt;
  }
  return TakeSlot(file, std::move(*head), newest);
}

std::optional<FileObject> ReadObjectFile(std::string_view name, std::string_view root) {
  const std::optional<std::string> relative = ResolveObjectName(name, root);
  if (!relative) {
    return std::nullopt;
  }
  Descriptor root_fd(OpenRegistryRoot(std::string(root), false));
  if (!root_fd) {
    return std::nullopt;
  }
  std::vector<uint8_t> before;
  for (int look = 1;; look++) {
    std::optional<std::vector<uint8_t>> file = ReadWhole(root_fd.get(), *relative);
    if (!file) {
      return std::nullopt;
    }
    bool torn = false;
    std::optional<FileObject> object = ParseObjectFile(*file, &torn);
    // One slot torn, and the other may be older than what was complete when we began: while the
    // first was read, the writer may have gone round. The same bytes twice show that it did not.
    if (!torn || look == kLooks || (look > 1 && *file == before)) {
      return object;
    }
    before = std::move(*file);
    if (look > 1) {
      const timespec pause = {0, kLookPauseNs};
      nanosleep(&pause, nullptr);
    }
  }
}

std::vector<std::string> ListObjects(std::string_view root) {
  std::vector<std::string> found;
  Descriptor root_fd(OpenRegistryRoot(std::string(root), false));
  if (root_fd) {
    ListDirectory(root_fd.get(), ".", "", 0, found);
  }
  std::sort(found.begin(), found.end(), NaturalLess);
  return found;
}

// ---- Writing ---------------------------------------------------------------------------------

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

  static auto *known = new std::map<uint64_t, std::weak_ptr<const FileLayout>>;
  std::weak_ptr<const FileLayout> &entry = (*known)[layout->checksum];
  if (std::shared_ptr<const FileLayout> same = entry.lock(); same && same->bytes == layout->bytes) {
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
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  SlotHeader header = {};
  header.sequence = sequence;
  header.published_ns = static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
  const uint64_t sum =
      RegistryChecksum(reinterpret_cast<const uint8_t *>(&header), sizeof(header), layout.checksum);
  header.checksum = RegistryChecksum(p, size - sizeof(SlotHeader), sum);
  Store(slot, header);
  return header.published_ns;
}

// Which file it is, and that nobody cut it or took it from its readers. The time of birth tells a
// new file that got the inode number of one that was removed.
struct Identity {
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t size = 0;
  int64_t birth_seconds = 0;
  uint32_t birth_ns = 0;
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
  identity->device = (uint64_t{st.stx_dev_major} << 32) | st.stx_dev_minor;
  identity->inode = st.stx_ino;
  identity->size = st.stx_size;
  identity->owner = st.stx_uid;
  identity->group = st.stx_gid;
  identity->mode = st.stx_mode;
  if ((st.stx_mask & STATX_BTIME) != 0) {
    identity->birth_seconds = st.stx_btime.tv_sec;
    identity->birth_ns = st.stx_btime.tv_nsec;
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

ObjectFileWriter::ObjectFileWriter(std::string relative, std::string root)
    : state_(new State(std::move(relative), root)) {}

ObjectFileWriter::~ObjectFileWriter() {
  delete state_;
}

ObjectFileWriter::ObjectFileWriter(ObjectFileWriter &&other) noexcept
    : state_(std::exchange(other.state_, nullptr)) {}

ObjectFileWriter &ObjectFileWriter::operator=(ObjectFileWriter &&other) noexcept {
  std::swap(state_, other.state_);
  return *this;
}

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
  if (head + 2 * slot > kMaxFile || layout->var_count > kMaxVariables ||
      layout->data_size > kMaxData) {
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
  if (s.file.inode != 0 && !s.replace) {
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
                 bytes->size() == file.size && memcmp(bytes->data(), head.data(), head.size()) == 0
             ? FileState::kIntact
             : FileState::kLost;
}

FileState ObjectFileWriter::Check(int directory, bool read_back) {
  State &s = *state_;
  Identity found;
  ChangeTime changed;
  FileState state = FileState::kIntact;
  if (s.file.inode == 0 || s.replace) {
    state = FileState::kLost;
  } else if (Identify(directory, s.Leaf(), &found, &changed) != 0) {
    state = errno == ENOENT || errno == EINVAL ? FileState::kLost : FileState::kUnknown;
  } else if (found != s.file) {
    state = FileState::kLost;
  } else if (changed != s.changed || read_back) {
    state = s.ReadBack(directory);
    if (state == FileState::kIntact) {
      s.changed = changed;
    }
  }
  s.replace = s.replace || state == FileState::kLost;
  return state;
}

int ObjectFileWriter::Remove() {
  State &s = *state_;
  if (s.file.inode == 0) {
    return 0;
  }
  const int root_fd = s.root->Get();
  Descriptor directory(
      root_fd >= 0 ? OpenBeneath(root_fd, std::string(s.Parent()), O_PATH | O_DIRECTORY) : -1);
  Identity found;
  int result = directory ? Identify(directory.get(), s.Leaf(), &found, nullptr) : -1;
  if (result == 0 && found.device == s.file.device && found.inode == s.file.inode &&
      found.birth_seconds == s.file.birth_seconds && found.birth_ns == s.file.birth_ns) {
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
