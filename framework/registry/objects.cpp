// The Object Registry: live objects, what is published of them, and snapshots of anybody's.
#include "framework/registry/objects.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framework/process/descriptor.h"
#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/registry/claim.h"
#include "framework/registry/image.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_file.h"
#include "framework/registry/registry_format.h"
#include "framework/registry/registry_path.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

namespace {

constexpr int kMaxValue = UINT16_MAX;  // descriptor.length has 16 bits

struct Object {
  Object(std::string relative_name, const std::string &root)
      : relative(std::move(relative_name)), path(root + "/" + relative), writer(relative, root) {}

  registry_object face = {};
  uint64_t id = 0;
  queue *member_of = nullptr;
  std::string relative;
  std::string path;
  std::vector<descriptor> variables;
  std::vector<unsigned char> data;
  ObjectFileWriter writer;
  bool layout_changed = true;
  std::shared_ptr<const Layout> layout;
  // What managers read: what is published, and what set handlers have accepted since. Null before
  // the first log_data().
  std::shared_ptr<const Image> served;
  std::shared_ptr<const Image> published;  // what siblings read in the file
  std::vector<uint16_t> lengths;           // by slot, of what is published

  // What is still to be done, so that a failure anywhere leaves it to be done later.
  bool unpublished = false;        // log_data() could not make the image
  bool unserved = false;           // the image has not gone to the SNMP side
  bool stale = false;              // the file is not what is published
  Object *next_deleted = nullptr;  // behind this one, which is deleted
};

struct Registry {
  std::string root = kRegistryRoot;
  uint64_t last_id = 0;
  std::unordered_map<const registry_object *, std::unique_ptr<Object>> objects;
  std::unordered_map<std::string_view, Object *> by_name;  // views of Object::relative
  std::map<uint64_t, Object *> by_id;
  std::map<const descriptor *, Object *> by_variables;  // by the first descriptor
  std::set<std::string> names;                          // of variables; shared by all rows

  // Objects that are gone but for their file; owned, newest first.
  Object *deleted = nullptr;
  size_t stale = 0;          // objects
  size_t unpublished = 0;    // or not served
  bool root_failed = false;  // at the last look
  bool files_reported = false;
  bool memory_reported = false;
  bool loss_reported = false;
  uint64_t read_back = 0;  // the object whose file's content was compared last
};

// Files whose content is compared at each look, one after the other: what a look at the change time
// does not show. All of a usual host's.
constexpr int kReadBack = 32;

Registry &TheRegistry() {
  // Never destroyed: the relay or SNMP thread and exit handlers may outlive static objects.
  static auto *registry = new Registry;
  return *registry;
}

Object *FindLive(const registry_object *object) {
  Registry &r = TheRegistry();
  const auto found = r.objects.find(object);
  return found == r.objects.end() ? nullptr : found->second.get();
}

// Objects stand in the agent's queue in order of creation.
int ById(const void *record, const void *other) {
  const uint64_t a =
      static_cast<const Object *>(static_cast<const registry_object *>(record)->framework)->id;
  const uint64_t b =
      static_cast<const Object *>(static_cast<const registry_object *>(other)->framework)->id;
  return a < b ? -1 : (a > b ? 1 : 0);
}

int InstanceOf(std::string_view name) {
  const size_t dot = name.find_last_of("./");
  if (dot == name.npos || name[dot] != '.' || dot + 1 == name.size()) {
    return 0;
  }
  int instance = 0;
  for (const char c : name.substr(dot + 1)) {
    if (c < '0' || c > '9') {
      return 0;
    }
    const int digit = c - '0';
    instance = instance > (INT_MAX - digit) / 10 ? INT_MAX : 10 * instance + digit;
  }
  return instance;
}

// ---- Publishing

void BuildLayout(Object &object) {
  auto layout = std::make_shared<Layout>();
  std::vector<FileVariable> file(object.variables.size());
  for (size_t slot = 0; slot < file.size(); slot++) {
    const descriptor &d = object.variables[slot];
    if (d.type == 0) {
      continue;
    }
    const auto offset =
        static_cast<uint32_t>(static_cast<const unsigned char *>(d.value) - object.data.data());
    file[slot] = {d.name,
                  static_cast<uint8_t>(d.type),
                  static_cast<uint8_t>(d.access),
                  static_cast<uint32_t>(d.size),
                  offset,
                  0};
    const MibVariable *mib = FindMibVariable(d.name);
    if (mib != nullptr && mib->type == d.type) {
      layout->variables.push_back({mib, static_cast<int>(slot), d.size, offset,
                                   static_cast<uint8_t>(d.type), d.access == ACCESS_WRITABLE});
    }
  }
  object.writer.SetLayout(file, static_cast<uint32_t>(object.data.size()));
  // The rows of a table follow each other and share one.
  static std::weak_ptr<const Layout> last;
  std::shared_ptr<const Layout> same = last.lock();
  if (same == nullptr || same->variables != layout->variables) {
    same = std::move(layout);
    last = same;
  }
  object.layout = std::move(same);
  object.layout_changed = false;
}

uint16_t LengthOf(const descriptor &d) {
  if (d.type == VAR_OCTET_STRING) {
    return static_cast<uint16_t>(std::min<int>(d.length, d.size));
  }
  return static_cast<uint16_t>(d.size);
}

std::shared_ptr<const Image> MakeImage(const Object &object) {
  auto image = std::make_shared<Image>();
  image->layout = object.layout;
  image->object_id = object.id;
  image->instance = static_cast<uint32_t>(object.face.instance);
  image->data = object.data;
  image->octet_lengths.reserve(object.layout->variables.size());
  for (const ServedVariable &v : object.layout->variables) {
    image->octet_lengths.push_back(object.lengths[static_cast<size_t>(v.slot)]);
  }
  return image;
}

void MarkStale(Object &object, bool stale) {
  TheRegistry().stale += static_cast<size_t>(stale) - static_cast<size_t>(object.stale);
  object.stale = stale;
}

// Each is cleared when all of it is done.
void MarkUnpublished(Object &object, bool unpublished, bool unserved) {
  const auto waits = [&] { return static_cast<size_t>(object.unpublished || object.unserved); };
  TheRegistry().unpublished -= waits();
  object.unpublished = unpublished;
  object.unserved = unserved;
  TheRegistry().unpublished += waits();
}

bool AnyPublished() {
  const Registry &r = TheRegistry();
  return std::any_of(r.by_id.begin(), r.by_id.end(),
                     [](const auto &entry) { return entry.second->served != nullptr; });
}

// Of the root that is held and was removed there is nothing to say but that it is gone. What stands
// in its place now tells more.
int WhyUnwritten(int error) {
  if (error != ENOENT) {
    return error;
  }
  const Descriptor now(OpenRegistryRoot(TheRegistry().root, false));
  return now ? error : errno;
}

// One line when files begin to fail, one when none is left over. relative: "" for the root itself.
void ReportFiles(const std::string &relative, const char *problem) {
  Registry &r = TheRegistry();
  const bool failing = r.stale != 0 || r.root_failed || r.deleted != nullptr;
  if (failing == r.files_reported) {
    return;
  }
  r.files_reported = failing;
  if (failing) {
    agentlog_fprintf(
        stderr, "%s: Can't write registry file %s%s%s: %s (values are served; trying again)\n",
        AgentName(), r.root.c_str(), relative.empty() ? "" : "/", relative.c_str(), problem);
  } else if (AnyPublished()) {  // at the end there is nothing to write
    agentlog_fprintf(stderr, "%s: Registry files are written again\n", AgentName());
  }
}

// The same for values that do not even reach managers.
void ReportMemory(const char *name) {
  Registry &r = TheRegistry();
  const bool failing = r.unpublished != 0;
  if (failing == r.memory_reported) {
    return;
  }
  r.memory_reported = failing;
  if (failing) {
    agentlog_fprintf(stderr, "%s: Can't publish %s: %s (trying again after the poll)\n",
                     AgentName(), name, strerror(ENOMEM));
  } else {
    agentlog_fprintf(stderr, "%s: All objects are published again\n", AgentName());
  }
}

// Hands what managers read to the SNMP side.
void Serve(Object &object) {
  if (!object.layout->variables.empty()) {
    SnmpPublish(object.served);
  }
  MarkUnpublished(object, object.unpublished, false);
}

// Writes what is published to the file. False when it cannot be written now, with errno.
bool WriteFile(Object &object) {
  if (object.writer.Publish(object.published->data.data(), object.lengths.data()) != 0) {
    MarkStale(object, true);
    return false;
  }
  MarkStale(object, false);
  return true;
}

// From now on managers read this; what fails of it is done later.
void ServeFromNowOn(Object &object, std::shared_ptr<const Image> image) {
  object.served = std::move(image);
  MarkUnpublished(object, object.unpublished, true);
  Serve(object);
}

// From now on this is what is published, and that is what managers read; whatever fails after it is
// done later.
void Publish(Object &object, std::shared_ptr<const Image> published,
             std::shared_ptr<const Image> served) {
  object.published = std::move(published);
  object.served = std::move(served);
  MarkUnpublished(object, object.unpublished, true);
  MarkStale(object, true);
  Serve(object);
  if (!WriteFile(object)) {
    ReportFiles(object.relative, strerror(WhyUnwritten(errno)));
  } else if (TheRegistry().files_reported) {
    ReportFiles(object.relative, "");
  }
}

// Publishes the data block as it is.
void PublishBlock(Object &object) {
  MarkUnpublished(object, true, object.unserved);
  if (object.layout_changed) {
    BuildLayout(object);
  }
  for (size_t slot = 0; slot < object.lengths.size(); slot++) {
    object.lengths[slot] = LengthOf(object.variables[slot]);
  }
  std::shared_ptr<const Image> image = MakeImage(object);
  MarkUnpublished(object, false, object.unserved);
  Publish(object, image, image);
}

// Nothing of the object is found any more. Does not release it.
void Forget(Object &object) {
  Registry &r = TheRegistry();
  r.by_name.erase(object.relative);
  r.by_id.erase(object.id);
  if (!object.variables.empty()) {
    r.by_variables.erase(object.variables.data());
  }
  r.objects.erase(&object.face);
}

// Removes the file of a deleted object. False, with errno, when it is to be tried again.
bool RemoveFile(Object &object) noexcept {
  return Guarded(-1, [&] { return object.writer.Remove(); }) == 0;
}

// Takes no memory of its own: a deletion always succeeds, and what it cannot do now is done later.
void Delete(Object *object) {
  Registry &r = TheRegistry();
  if (object->member_of != nullptr) {
    keyremove_Q(object->member_of, &object->face, ById);
  }
  MarkStale(*object, false);
  MarkUnpublished(*object, false, false);
  std::unique_ptr<Object> owned;
  owned.swap(r.objects.find(&object->face)->second);
  Forget(*object);
  if (object->served == nullptr) {
    return;
  }
  SnmpWithdraw(object->id);
  if (!RemoveFile(*object)) {
    const int error = errno;
    object->next_deleted = r.deleted;
    r.deleted = owned.release();
    ReportFiles(object->relative, strerror(error));
  }
}

void FinishDeletions() {
  for (Object **place = &TheRegistry().deleted; *place != nullptr;) {
    Object *object = *place;
    if (RemoveFile(*object)) {
      *place = object->next_deleted;
      delete object;
    } else {
      place = &object->next_deleted;
    }
  }
}

// ---- Making good

// Objects whose publication failed for want of memory.
void PublishAgain() {
  Registry &r = TheRegistry();
  if (r.unpublished == 0) {
    return;
  }
  for (const auto &entry : r.by_id) {
    Object &object = *entry.second;
    Guarded(0, [&object] {
      if (object.unpublished) {
        PublishBlock(object);
      } else if (object.unserved) {
        Serve(object);
      }
      return 0;
    });
  }
  ReportMemory("");
}

// The directory that one object after the other lies in, mostly the same one.
class DirectoryOf {
 public:
  // A descriptor, or -1 with errno.
  int Open(std::string_view path) {
    if (!fd_ || path != path_) {
      path_ = path;
      fd_.Reset(OpenBeneath(RootOf(TheRegistry().root).Get(), path_, O_PATH | O_DIRECTORY));
    }
    return fd_.get();
  }

 private:
  std::string path_;
  Descriptor fd_;
};

FileState CheckFile(Object &object, DirectoryOf &directories, bool read_back) {
  const int directory = directories.Open(object.writer.Directory());
  if (directory < 0) {
    return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? FileState::kLost
                                                                 : FileState::kUnknown;
  }
  return object.writer.Check(directory, read_back);
}

// The objects whose content is compared this time.
class ReadBackTurn {
 public:
  ReadBackTurn() {
    Registry &r = TheRegistry();
    first_ = r.by_id.upper_bound(r.read_back) == r.by_id.end() ? 0 : r.read_back;
  }
  bool Takes(uint64_t id) {
    if (id <= first_ || taken_ == kReadBack) {
      return false;
    }
    taken_++;
    TheRegistry().read_back = id;
    return true;
  }

 private:
  uint64_t first_;
  int taken_ = 0;
};

// Writes the files again that are not what is published.
void WriteAgain(bool renewed) {
  Registry &r = TheRegistry();
  DirectoryOf directories;
  ReadBackTurn turn;
  size_t lost = 0;
  const Object *first_lost = nullptr;
  const Object *failed = nullptr;
  int error = 0;
  for (const auto &[id, object] : r.by_id) {
    if (object->served == nullptr || object->unpublished) {
      continue;
    }
    bool was_lost = false;
    if (!object->stale) {
      if (CheckFile(*object, directories, turn.Takes(id)) != FileState::kLost) {
        continue;
      }
      was_lost = true;
    }
    if (WriteFile(*object)) {
      lost += was_lost ? 1 : 0;
      first_lost = was_lost && first_lost == nullptr ? object : first_lost;
    } else if (failed == nullptr) {
      failed = object;
      error = errno;
    }
  }
  if (lost != 0 && !renewed && !r.loss_reported) {
    agentlog_fprintf(stderr,
                     "%s: Registry files that were missing or damaged are written again: %zu, %s "
                     "first\n",
                     AgentName(), lost, first_lost->path.c_str());
  }
  r.loss_reported = lost != 0 && !renewed;
  if (failed != nullptr || r.stale == 0) {
    ReportFiles(failed != nullptr ? failed->relative : "", strerror(error));
  }
}

void MakeGood() {
  Registry &r = TheRegistry();
  PublishAgain();
  FinishDeletions();
  if (!AnyPublished()) {
    // The directories may go, too: nothing makes them again.
    r.root_failed = false;
    ReportFiles("", "");
    return;
  }
  const bool known = RootOf(r.root).IsOpen();
  std::string problem;
  const RootState state = KeepRoot(&problem);
  r.root_failed = state == RootState::kFailed;
  if (r.root_failed) {
    ReportFiles("", problem.c_str());
    return;
  }
  if (state == RootState::kRenewed && known) {
    agentlog_fprintf(stderr,
                     "%s: The registry was moved, removed or covered: its files are written anew "
                     "to %s\n",
                     AgentName(), r.root.c_str());
  }
  WriteAgain(state == RootState::kRenewed);
}

}  // namespace

const std::string &RegistryRootPath() {
  return TheRegistry().root;
}

void UseRegistryRoot(std::string root) {
  TheRegistry().root = std::move(root);
  ForgetClaim();
}

bool IsLive(const registry_object *object) {
  return FindLive(object) != nullptr;
}

size_t CurrentLength(const descriptor &d) {
  if (d.type == VAR_DISPLAY_STRING) {
    return strnlen(static_cast<const char *>(d.value), static_cast<size_t>(d.size));
  }
  return LengthOf(d);
}

void RetryFiles() {
  Guarded(0, [] {
    MakeGood();
    return 0;
  });
}

int RunSet(uint8_t phase, SetItem &item) {
  return Guarded(-1, [&] {
    Registry &r = TheRegistry();
    const auto found = r.by_id.find(item.object_id);
    if (found == r.by_id.end() || found->second->served == nullptr) {
      return -1;
    }
    Object *object = found->second;
    if (item.slot < 0 || static_cast<size_t>(item.slot) >= object->variables.size()) {
      return -1;
    }
    const auto slot = static_cast<size_t>(item.slot);
    descriptor &d = object->variables[slot];
    if (d.type == 0 || d.access != ACCESS_WRITABLE || item.length < 0 ||
        item.value.size() < static_cast<size_t>(item.length)) {
      return -1;
    }
    // Had before anything is applied: what is applied is told.
    std::shared_ptr<Image> served;
    std::shared_ptr<Image> published;
    if (phase != SET_CHECK) {
      served = std::make_shared<Image>(*object->served);
      published = object->published == object->served ? served
                                                      : std::make_shared<Image>(*object->published);
    }
    if (d.set_handler != nullptr) {
      if (d.set_handler(phase, &object->face, &d, item.value.data(), item.length) != 0) {
        return -1;
      }
    } else {
      const int room = d.type == VAR_DISPLAY_STRING ? d.size - 1 : d.size;
      if (item.length > room || (d.type == VAR_INTEGER && item.length != d.size)) {
        return -1;
      }
      if (phase != SET_CHECK) {
        if (!SetWanted(true)) {
          return -1;
        }
        const auto length = static_cast<size_t>(item.length);
        auto *field = static_cast<unsigned char *>(d.value);
        memcpy(field, item.value.data(), length);
        memset(field + length, 0, static_cast<size_t>(d.size) - length);
        if (d.type == VAR_OCTET_STRING) {
          d.length = static_cast<uint16_t>(length);
        }
      }
    }
    if (phase == SET_CHECK || !r.by_id.contains(item.object_id)) {
      return 0;
    }
    // Managers read what was accepted; all other variables stay as they were. When a variable is
    // published is its handler's rule; one without a handler is published at once.
    const std::vector<ServedVariable> &variables = object->served->layout->variables;
    for (size_t i = 0; i < variables.size(); i++) {
      const ServedVariable &v = variables[i];
      if (v.slot != item.slot) {
        continue;
      }
      const auto take = [&](Image &image) {
        std::copy_n(object->data.begin() + v.offset, v.size, image.data.begin() + v.offset);
        image.octet_lengths[i] = LengthOf(d);
      };
      *served = *object->served;  // the handler may have published others
      take(*served);
      // It is applied: what fails from here on is done after the poll.
      Guarded(0, [&] {
        if (d.set_handler != nullptr) {
          ServeFromNowOn(*object, std::move(served));
        } else {
          take(*published);
          object->lengths[slot] = LengthOf(d);
          Publish(*object, std::move(published), std::move(served));
        }
        return 0;
      });
      ReportMemory(object->path.c_str());
      break;
    }
    return 0;
  });
}

}  // namespace vex

using namespace vex;  // NOLINT(google-build-using-namespace): what follows is the C interface

int set_wanted(int last) {
  return SetWanted(last != 0) ? 1 : 0;
}

int get_id(void) {
  return static_cast<int>(getpid());
}

registry_object *create_obj(queue *registry, int /*owner*/, const char *name, int flag,
                            int data_size, int var_count) {
  return Guarded(static_cast<registry_object *>(nullptr), [&]() -> registry_object * {
    Registry &r = TheRegistry();
    if (name == nullptr || data_size < 0 || static_cast<size_t>(data_size) > kMaxData ||
        var_count < 0 || static_cast<size_t>(var_count) > kMaxVariables) {
      return nullptr;
    }
    std::optional<std::string> relative = ResolveObjectName(name, r.root);
    if (!relative || r.by_name.contains(*relative)) {
      return nullptr;
    }
    auto object = std::make_unique<Object>(std::move(*relative), r.root);
    object->id = ++r.last_id;
    object->variables.resize(static_cast<size_t>(var_count));
    object->data.resize(static_cast<size_t>(data_size));
    object->lengths.resize(object->variables.size());
    for (int slot = 0; slot < var_count; slot++) {
      object->variables[static_cast<size_t>(slot)].slot = slot;
    }
    registry_object &face = object->face;
    face.name = object->path.c_str();
    face.instance = InstanceOf(object->relative);
    face.flag = flag;
    face.data_size = data_size;
    face.var_count = var_count;
    face.desc = object->variables.data();
    face.data = data_size == 0 ? nullptr : object->data.data();
    face.framework = object.get();
    Object *made = object.get();
    try {
      std::unique_ptr<Object> &owner = r.objects[&made->face];
      r.by_name.emplace(made->relative, made);
      r.by_id.emplace(made->id, made);
      if (var_count != 0) {
        r.by_variables.emplace(made->variables.data(), made);
      }
      owner = std::move(object);
    } catch (...) {
      Forget(*made);
      throw;
    }
    if (registry != nullptr) {
      if (ordinsert_Q(registry, &made->face, ById) == 0) {
        Delete(made);
        return nullptr;
      }
      made->member_of = registry;
    }
    return &made->face;
  });
}

int init_info(int slot, descriptor *desc, const char *name, int size, int type, int access,
              int /*count*/, void *value, set_handler_fn set_handler) {
  return Guarded(-1, [&] {
    Registry &r = TheRegistry();
    // The object whose descriptors desc lies in.
    auto after = r.by_variables.upper_bound(desc);
    if (after == r.by_variables.begin()) {
      return -1;
    }
    Object &object = *std::prev(after)->second;
    const auto count = static_cast<int>(object.variables.size());
    if (slot < 0 || slot >= count || desc != &object.variables[static_cast<size_t>(slot)]) {
      return -1;
    }
    *desc = {};
    desc->slot = slot;
    object.layout_changed = true;
    // As numbers: value may be any pointer.
    const auto block = reinterpret_cast<uintptr_t>(object.data.data());
    const auto at = reinterpret_cast<uintptr_t>(value);
    if (name == nullptr || strlen(name) > kMaxVariableName || type < VAR_INTEGER ||
        type > VAR_OCTET_STRING || size < 1 || size > kMaxValue ||
        (type == VAR_INTEGER && size != 4) || at < block || at - block > object.data.size() ||
        object.data.size() - (at - block) < static_cast<size_t>(size)) {
      return -1;
    }
    // The MIB's own copy takes no memory: a variable that was not defined would be lost for good.
    const MibVariable *mib = FindMibVariable(name);
    desc->name = mib != nullptr ? mib->name : r.names.insert(name).first->c_str();
    desc->size = size;
    desc->type = type;
    desc->access = access == ACCESS_WRITABLE ? ACCESS_WRITABLE : ACCESS_READ_ONLY;
    desc->count = 1;
    desc->value = value;
    desc->set_handler = set_handler;
    desc->length = static_cast<uint16_t>(size);
    return 0;
  });
}

int log_data(registry_object *face) {
  Object *object = FindLive(face);
  if (object == nullptr) {
    return -1;
  }
  if (Guarded(-1,
              [&] {
                PublishBlock(*object);
                return 0;
              }) != 0 ||
      TheRegistry().memory_reported) {
    ReportMemory(object->path.c_str());
  }
  return 0;
}

registry_object *find_obj(queue * /*registry*/, int /*zero*/, const char *name) {
  return Guarded(static_cast<registry_object *>(nullptr), [&]() -> registry_object * {
    if (name == nullptr) {
      return nullptr;
    }
    Registry &r = TheRegistry();
    auto found = r.by_name.find(name);  // as it usually stands
    if (found == r.by_name.end()) {
      const std::optional<std::string> relative = ResolveObjectName(name, r.root);
      if (!relative || (found = r.by_name.find(*relative)) == r.by_name.end()) {
        return nullptr;
      }
    }
    return &found->second->face;
  });
}

registry_object *get_obj(const char *path) {
  return Guarded(static_cast<registry_object *>(nullptr), [&]() -> registry_object * {
    if (path == nullptr) {
      return nullptr;
    }
    const std::string &root = RegistryRootPath();
    const std::optional<std::string> relative = ResolveObjectName(path, root);
    if (!relative) {
      errno = EXDEV;
      return nullptr;
    }
    const std::optional<FileObject> file = ReadObjectFile(*relative, root);
    if (!file) {
      return nullptr;
    }
    const std::string name = root + "/" + *relative;
    const size_t count = file->variables.size();
    // One block: object, descriptors, data, then texts: the name, the variables' names, and copies
    // of the display strings that do not end within their size.
    const size_t data_at = sizeof(registry_object) + count * sizeof(descriptor);
    size_t size = data_at + file->data.size() + name.size() + 1;
    auto unterminated = [&](const FileVariable &v) {
      return v.type == VAR_DISPLAY_STRING &&
             (v.size == 0 || memchr(&file->data[v.offset], 0, v.size) == nullptr);
    };
    for (const FileVariable &v : file->variables) {
      size += v.name.size() + 1 + (unterminated(v) ? std::max<size_t>(v.size, 1) : 0);
    }
    auto *block = static_cast<unsigned char *>(calloc(1, size));
    if (block == nullptr) {
      return nullptr;
    }
    auto *object = reinterpret_cast<registry_object *>(block);
    auto *variables = reinterpret_cast<descriptor *>(block + sizeof(registry_object));
    unsigned char *data = block + data_at;
    auto *text = reinterpret_cast<char *>(data) + file->data.size();
    // The block is zeroed, so what is copied to it ends with a NUL.
    auto add_text = [&text](const char *from, size_t length) {
      char *at = text;
      if (length != 0) {
        memcpy(at, from, length);
      }
      text += length + 1;
      return at;
    };
    if (!file->data.empty()) {
      memcpy(data, file->data.data(), file->data.size());
    }
    object->name = add_text(name.data(), name.size());
    object->instance = InstanceOf(*relative);
    object->data_size = static_cast<int>(file->data.size());
    object->var_count = static_cast<int>(count);
    object->desc = variables;
    object->data = file->data.empty() ? nullptr : data;
    for (size_t slot = 0; slot < count; slot++) {
      const FileVariable &v = file->variables[slot];
      descriptor &d = variables[slot];
      d.slot = static_cast<int>(slot);
      d.name = add_text(v.name.data(), v.name.size());
      d.size = static_cast<int>(v.size);
      d.type = v.type;
      d.access = v.access;
      d.count = 1;
      d.length = v.length;
      d.value = data + v.offset;
      if (unterminated(v)) {
        d.value =
            add_text(reinterpret_cast<const char *>(data) + v.offset, v.size == 0 ? 0 : v.size - 1);
      }
    }
    return object;
  });
}

int delete_obj(queue * /*registry*/, registry_object *face, int /*zero*/) {
  return Guarded(-1, [&] {
    Registry &r = TheRegistry();
    if (face == nullptr) {
      while (!r.objects.empty()) {
        Delete(r.objects.begin()->second.get());
      }
      return 0;
    }
    Object *object = FindLive(face);
    if (object == nullptr) {
      return -1;
    }
    Delete(object);
    return 0;
  });
}
