// The Object Registry: live objects, what is published of them, and snapshots of anybody's.
#include "framework/objects.h"

#include <errno.h>
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

#include "framework/guard.h"
#include "framework/image.h"
#include "framework/log.h"
#include "framework/registry_file.h"
#include "framework/snmp_side.h"

namespace vex {

namespace {

constexpr int kMaxData = 1 << 20;
constexpr int kMaxVariables = 4096;
constexpr int kMaxValue = UINT16_MAX;  // descriptor.length has 16 bits
constexpr size_t kMaxVariableName = 255;

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
  std::shared_ptr<const Image> served;  // what managers read; null before the first log_data()
  std::vector<uint16_t> lengths;        // by slot, as of the last log_data()
};

struct Registry {
  std::string root = kRegistryRoot;
  uint64_t last_id = 0;
  std::unordered_map<const registry_object *, std::unique_ptr<Object>> objects;
  std::unordered_map<std::string_view, Object *> by_name;  // views of Object::relative
  std::unordered_map<uint64_t, Object *> by_id;
  std::map<const descriptor *, Object *> by_variables;  // by the first descriptor
  std::set<std::string> names;                          // of variables; shared by all rows

  // Published states whose file could not be written, and files that could not be unlinked.
  std::unordered_map<Object *, std::shared_ptr<const Image>> unwritten;
  std::map<std::string, ObjectFileWriter> undeleted;
  bool reported = false;
};

Registry &TheRegistry() {
  // Never destroyed: the SNMP thread and exit handlers may outlive static objects.
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

bool SameVariables(const Layout &a, const Layout &b) {
  return std::equal(a.variables.begin(), a.variables.end(), b.variables.begin(), b.variables.end(),
                    [](const ServedVariable &x, const ServedVariable &y) {
                      return x.mib == y.mib && x.slot == y.slot && x.size == y.size &&
                             x.offset == y.offset && x.type == y.type && x.writable == y.writable;
                    });
}

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
  if (same == nullptr || !SameVariables(*same, *layout)) {
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

void Serve(Object &object, std::shared_ptr<const Image> image) {
  object.served = image;
  if (!object.layout->variables.empty()) {
    SnmpPublish(std::move(image));
  }
}

// One line when files begin to fail, one when none is left over.
void Report(const std::string &relative, int error) {
  Registry &r = TheRegistry();
  const bool failing = !r.unwritten.empty() || !r.undeleted.empty();
  if (failing == r.reported) {
    return;
  }
  r.reported = failing;
  if (failing) {
    agentlog_fprintf(stderr,
                     "%s: Can't write registry file %s/%s: %s (values are served; trying again)\n",
                     AgentName(), r.root.c_str(), relative.c_str(), strerror(error));
  } else {
    agentlog_fprintf(stderr, "%s: Registry files are written again\n", AgentName());
  }
}

void WriteFile(Object &object, std::shared_ptr<const Image> image) {
  Registry &r = TheRegistry();
  if (object.writer.Publish(image->data.data(), object.lengths.data()) != 0) {
    const int error = errno;
    r.unwritten[&object] = std::move(image);
    Report(object.relative, error);
    return;
  }
  if (!r.unwritten.empty() || !r.undeleted.empty()) {
    r.unwritten.erase(&object);
    r.undeleted.erase(object.relative);  // the old file of that name has been replaced
    Report(object.relative, 0);
  }
}

void Delete(Object *object) {
  Registry &r = TheRegistry();
  if (object->member_of != nullptr) {
    keyremove_Q(object->member_of, &object->face, ById);
  }
  if (object->served != nullptr) {
    SnmpWithdraw(object->id);
    if (object->writer.Remove() != 0) {
      const int error = errno;
      r.undeleted.insert_or_assign(object->relative, std::move(object->writer));
      Report(object->relative, error);
    }
  }
  r.unwritten.erase(object);
  r.by_name.erase(object->relative);
  r.by_id.erase(object->id);
  if (!object->variables.empty()) {
    r.by_variables.erase(object->variables.data());
  }
  const registry_object *face = &object->face;
  r.objects.erase(face);
}

}  // namespace

const std::string &RegistryRootPath() {
  return TheRegistry().root;
}

void UseRegistryRoot(std::string root) {
  TheRegistry().root = std::move(root);
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
  Registry &r = TheRegistry();
  if (r.unwritten.empty() && r.undeleted.empty()) {
    return;
  }
  for (auto it = r.undeleted.begin(); it != r.undeleted.end();) {
    // Not the file of an object that was published under this name since.
    const auto live = r.by_name.find(it->first);
    const bool taken = live != r.by_name.end() && live->second->served != nullptr;
    it = taken || it->second.Remove() == 0 ? r.undeleted.erase(it) : std::next(it);
  }
  for (auto it = r.unwritten.begin(); it != r.unwritten.end();) {
    Object &object = *it->first;
    it = object.writer.Publish(it->second->data.data(), object.lengths.data()) == 0
             ? r.unwritten.erase(it)
             : std::next(it);
  }
  Report("", 0);
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
    descriptor &d = object->variables[static_cast<size_t>(item.slot)];
    if (d.type == 0 || d.access != ACCESS_WRITABLE || item.length < 0 ||
        item.value.size() < static_cast<size_t>(item.length)) {
      return -1;
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
        const auto length = static_cast<size_t>(item.length);
        auto *field = static_cast<unsigned char *>(d.value);
        memcpy(field, item.value.data(), length);
        memset(field + length, 0, static_cast<size_t>(d.size) - length);
        if (d.type == VAR_OCTET_STRING) {
          d.length = static_cast<uint16_t>(length);
        }
      }
    }
    const auto still = r.by_id.find(item.object_id);
    if (phase == SET_CHECK || still == r.by_id.end()) {
      return 0;
    }
    // Managers read what the handler accepted; all other variables stay as they were published.
    const std::vector<ServedVariable> &variables = object->served->layout->variables;
    for (size_t i = 0; i < variables.size(); i++) {
      const ServedVariable &v = variables[i];
      if (v.slot == item.slot) {
        auto image = std::make_shared<Image>(*object->served);
        std::copy_n(object->data.begin() + v.offset, v.size, image->data.begin() + v.offset);
        image->octet_lengths[i] = LengthOf(d);
        Serve(*object, std::move(image));
      }
    }
    return 0;
  });
}

}  // namespace vex

using namespace vex;  // NOLINT(google-build-using-namespace): what follows is the C interface

int get_id(void) {
  return static_cast<int>(getpid());
}

registry_object *create_obj(queue *registry, int /*owner*/, const char *name, int flag,
                            int data_size, int var_count) {
  return Guarded(static_cast<registry_object *>(nullptr), [&]() -> registry_object * {
    Registry &r = TheRegistry();
    if (name == nullptr || data_size < 0 || data_size > kMaxData || var_count < 0 ||
        var_count > kMaxVariables) {
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
    r.objects.emplace(&made->face, std::move(object));
    r.by_name.emplace(made->relative, made);
    r.by_id.emplace(made->id, made);
    if (var_count != 0) {
      r.by_variables.emplace(made->variables.data(), made);
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
    desc->name = r.names.insert(name).first->c_str();
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
  return Guarded(-1, [&] {
    Object *object = FindLive(face);
    if (object == nullptr) {
      return -1;
    }
    if (object->layout_changed) {
      BuildLayout(*object);
    }
    for (size_t slot = 0; slot < object->lengths.size(); slot++) {
      object->lengths[slot] = LengthOf(object->variables[slot]);
    }
    std::shared_ptr<const Image> image = MakeImage(*object);
    Serve(*object, image);
    WriteFile(*object, std::move(image));
    return 0;
  });
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
    const std::optional<FileObject> file =
        relative ? ReadObjectFile(*relative, root) : std::nullopt;
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
