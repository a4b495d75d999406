#include "tests/support/recording_framework.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <set>

#include "framework/process/sanitized.h"
#include "platform/ev.h"
#include "tests/support/recording_internal.h"

namespace {

// Behind a data block, to see what is written past its end. A sanitizer sees it by itself, and
// reads as well.
constexpr long kGuard = vex::kSanitized ? 0 : 16;
constexpr unsigned char kGuardOctet = 0xA5;

struct Object {
  registry_object face = {};
  std::string path;
  std::string relative;
  std::vector<descriptor> descriptors;
  std::vector<std::string> names;
  std::vector<unsigned char> data;  // the data block and the guard
  std::string published;
  std::vector<uint16_t> published_lengths;
  int publications = 0;
};

struct Failure {
  std::string operation;
  std::string pattern;
  int nth;
  int error;
  int seen = 0;
};

struct State {
  std::vector<rec::Event> events;
  std::vector<std::string> messages;
  void (*on_message)(const std::string &) = nullptr;
  std::vector<rec::Trap> traps;
  std::map<std::string, std::unique_ptr<Object>> objects;
  std::vector<Failure> failures;
  struct Sibling {
    std::vector<rec::SiblingVariable> variables;
    std::string data;
  };
  std::map<std::string, Sibling> siblings;
  std::map<std::string, std::pair<int32_t, int>> snmp;
  bool snmp_open = false;
  std::map<std::string, std::pair<std::string, int>> commands;
  std::map<std::string, double> command_seconds;
  std::string community = "public";
  bool appliance = false;
  int32_t product_id = 0;
  std::map<std::string, std::string> appliance_texts;
  std::optional<std::vector<std::string>> distribution;
  std::map<int, std::pair<int, int>> revisions;
  std::map<std::string, std::string> evs;
  std::map<std::string, mount_stats> mounts;
  std::set<std::string> undefined_slots;  // objects that may have some
  bool reuses_objects = false;
  std::unique_ptr<Object> deleted;  // the last one, when objects are reused
};

// What agent_main() does before the first hook.
const bool prepared = [] {
  agent = "vexhostd";
  poll_time = 15;
  snprintf(log_dir, sizeof(log_dir), "%s/host", REGISTRY_ROOT);
  return true;
}();

State &state() {
  static auto *s = new State;
  return *s;
}

// The name relative to the root, whatever its spelling; nothing when it leads outside.
std::optional<std::string> Relative(const std::string &name) {
  const std::filesystem::path root = REGISTRY_ROOT;
  const auto whole =
      (name.starts_with("/") ? std::filesystem::path(name) : root / name).lexically_normal();
  const auto relative = whole.lexically_relative(root);
  if (relative.empty() || relative == "." || *relative.begin() == "..") {
    return std::nullopt;
  }
  return relative.string();
}

std::string RelativeOrName(const std::string &name) {
  return Relative(name).value_or(name);
}

Object *FindLive(const registry_object *face) {
  for (auto &[name, object] : state().objects) {
    if (&object->face == face) {
      return object.get();
    }
  }
  return nullptr;
}

const descriptor *FindVariable(const std::string &name, const std::string &variable, int type,
                               const Object **object) {
  const auto found = state().objects.find(name);
  if (found == state().objects.end()) {
    ADD_FAILURE() << "no object " << name;
    return nullptr;
  }
  if (found->second->publications == 0) {
    ADD_FAILURE() << name << " was never published";
    return nullptr;
  }
  *object = found->second.get();
  for (const descriptor &desc : found->second->descriptors) {
    if (desc.name != nullptr && variable == desc.name) {
      if (desc.type != type) {
        ADD_FAILURE() << variable << " has type " << desc.type;
        return nullptr;
      }
      return &desc;
    }
  }
  ADD_FAILURE() << name << " has no variable " << variable;
  return nullptr;
}

size_t OffsetOf(const Object &object, const descriptor &desc) {
  return static_cast<size_t>(static_cast<const unsigned char *>(desc.value) - object.data.data());
}

int CallHandler(const std::string &name, const std::string &variable, int type,
                const std::string &value, bool apply) {
  descriptor *desc = rec::Variable(name, variable);
  if (desc == nullptr || desc->set_handler == nullptr) {
    return -1;
  }
  EXPECT_EQ(desc->access, ACCESS_WRITABLE) << variable;
  EXPECT_EQ(desc->type == VAR_INTEGER, type == VAR_INTEGER) << variable;
  registry_object *object = rec::Live(name);
  const int length = static_cast<int>(value.size());
  const int checked = desc->set_handler(SET_CHECK, object, desc, value.c_str(), length);
  if (checked != 0 || !apply) {
    return checked;
  }
  return desc->set_handler(SET_APPLY, object, desc, value.c_str(), length);
}

}  // namespace

namespace rec {

void Record(const std::string &operation, const std::string &name, const std::string &data) {
  state().events.push_back({operation, name, data});
}

bool Fails(const std::string &operation, const std::string &name) {
  bool fails = false;
  for (Failure &failure : state().failures) {
    if (failure.operation == operation && fnmatch(failure.pattern.c_str(), name.c_str(), 0) == 0) {
      failure.seen++;
      if (failure.nth == 0 || failure.nth == failure.seen ||
          (failure.nth < 0 && failure.seen >= -failure.nth)) {
        errno = failure.error;
        fails = true;
      }
    }
  }
  return fails;
}

const std::pair<std::string, int> *FindCommand(const std::string &command) {
  const auto found = state().commands.find(command);
  return found == state().commands.end() ? nullptr : &found->second;
}

const std::vector<Event> &Events() {
  return state().events;
}

int Count(std::string_view operation, const std::string &pattern) {
  int count = 0;
  for (const Event &event : state().events) {
    count += event.operation == operation && fnmatch(pattern.c_str(), event.name.c_str(), 0) == 0;
  }
  return count;
}

std::vector<std::string> Names(std::string_view operation) {
  std::vector<std::string> names;
  for (const Event &event : state().events) {
    if (event.operation == operation) {
      names.push_back(event.name);
    }
  }
  return names;
}

void ForgetEvents() {
  state().events.clear();
  state().messages.clear();
  state().traps.clear();
}

const std::vector<std::string> &Messages() {
  return state().messages;
}

void OnMessage(void (*callback)(const std::string &)) {
  state().on_message = callback;
}

const std::vector<Trap> &Traps() {
  return state().traps;
}

registry_object *Live(const std::string &name) {
  const auto found = state().objects.find(name);
  return found == state().objects.end() ? nullptr : &found->second->face;
}

void PrintTo(const Slot &slot, std::ostream *stream) {
  *stream << slot.name << " size " << slot.size << " type " << slot.type << " access "
          << slot.access << " at " << slot.offset;
}

std::vector<Slot> Slots(const std::string &name) {
  std::vector<Slot> slots;
  const registry_object *object = Live(name);
  for (int slot = 0; object != nullptr && slot < object->var_count; slot++) {
    const descriptor &desc = object->desc[slot];
    EXPECT_EQ(desc.slot, slot);
    EXPECT_EQ(desc.count, 1) << desc.name;
    slots.push_back({desc.name, desc.size, desc.type, desc.access,
                     static_cast<unsigned char *>(desc.value) - object->data});
  }
  return slots;
}

std::vector<std::string> Handled(const std::string &name) {
  std::vector<std::string> handled;
  const registry_object *object = Live(name);
  for (int slot = 0; object != nullptr && slot < object->var_count; slot++) {
    if (object->desc[slot].set_handler != nullptr) {
      handled.emplace_back(object->desc[slot].name);
    }
  }
  return handled;
}

std::vector<std::string> LiveNames() {
  std::vector<std::string> names;
  for (const auto &[name, object] : state().objects) {
    names.push_back(name);
  }
  return names;
}

int Publications(const std::string &name) {
  const auto found = state().objects.find(name);
  return found == state().objects.end() ? 0 : found->second->publications;
}

std::string Published(const std::string &name) {
  const auto found = state().objects.find(name);
  return found == state().objects.end() ? "" : found->second->published;
}

int32_t Int(const std::string &name, const std::string &variable) {
  const Object *object;
  const descriptor *desc = FindVariable(name, variable, VAR_INTEGER, &object);
  int32_t value = INT32_MIN;
  if (desc != nullptr) {
    memcpy(&value, object->published.data() + OffsetOf(*object, *desc), sizeof(value));
  }
  return value;
}

std::string Text(const std::string &name, const std::string &variable) {
  const Object *object;
  const descriptor *desc = FindVariable(name, variable, VAR_DISPLAY_STRING, &object);
  if (desc == nullptr) {
    return "";
  }
  const char *text = object->published.data() + OffsetOf(*object, *desc);
  const size_t length = strnlen(text, static_cast<size_t>(desc->size));
  EXPECT_LT(length, static_cast<size_t>(desc->size)) << variable << " is not terminated";
  return {text, length};
}

std::string Octets(const std::string &name, const std::string &variable) {
  const Object *object;
  const descriptor *desc = FindVariable(name, variable, VAR_OCTET_STRING, &object);
  if (desc == nullptr) {
    return "";
  }
  return object->published.substr(OffsetOf(*object, *desc),
                                  object->published_lengths[static_cast<size_t>(desc->slot)]);
}

descriptor *Variable(const std::string &name, const std::string &variable) {
  const auto found = state().objects.find(name);
  if (found != state().objects.end()) {
    for (descriptor &desc : found->second->descriptors) {
      if (desc.name != nullptr && variable == desc.name) {
        return &desc;
      }
    }
  }
  return nullptr;
}

int Set(const std::string &name, const std::string &variable, int32_t value) {
  return CallHandler(name, variable, VAR_INTEGER,
                     std::string(reinterpret_cast<const char *>(&value), sizeof(value)), true);
}

int Set(const std::string &name, const std::string &variable, const std::string &value) {
  return CallHandler(name, variable, VAR_DISPLAY_STRING, value, true);
}

int CheckOnly(const std::string &name, const std::string &variable, const std::string &value) {
  return CallHandler(name, variable, VAR_DISPLAY_STRING, value, false);
}

void Fail(const std::string &operation, const std::string &pattern, int nth, int error) {
  state().failures.push_back({operation, pattern, nth, error});
}

void AllowUndefinedSlots(const std::string &name) {
  state().undefined_slots.insert(name);
}

void ReuseObjects() {
  state().reuses_objects = true;
}

void StopFailing() {
  state().failures.clear();
}

SiblingVariable IntVar(const std::string &name, int32_t value) {
  return {name, VAR_INTEGER, 4, std::string(reinterpret_cast<const char *>(&value), sizeof(value))};
}

SiblingVariable TextVar(const std::string &name, int size, const std::string &text) {
  return {name, VAR_DISPLAY_STRING, size, text};
}

SiblingVariable OctetVar(const std::string &name, int size, const std::string &bytes) {
  return {name, VAR_OCTET_STRING, size, bytes};
}

void PutSibling(const std::string &path, const std::vector<SiblingVariable> &variables) {
  std::string data;
  for (const SiblingVariable &v : variables) {
    std::string value = v.bytes;
    value.resize(static_cast<size_t>(v.size));
    data += value;
  }
  state().siblings[RelativeOrName(path)] = {variables, data};
}

void PutSiblingData(const std::string &path, const std::string &data) {
  state().siblings[RelativeOrName(path)] = {{}, data};
}

void RemoveSibling(const std::string &path) {
  state().siblings.erase(RelativeOrName(path));
}

void PutSnmpInteger(const std::string &oid, int32_t value, int status) {
  state().snmp[oid] = {value, status};
}

bool SnmpConnectionOpen() {
  return state().snmp_open;
}

void PutCommand(const std::string &command, const std::string &output, int status) {
  state().commands[command] = {output, status};
}

void PutCommandTime(const std::string &command, double seconds) {
  state().command_seconds[command] = seconds;
}

void SetCommunity(const std::string &community) {
  state().community = community;
}

void SetAppliance(bool appliance, int32_t product_id,
                  const std::map<std::string, std::string> &texts) {
  state().appliance = appliance;
  state().product_id = product_id;
  state().appliance_texts = texts;
}

void SetDistribution(const std::string &name, const std::string &flavor, const std::string &version,
                     const std::string &description) {
  state().distribution = {name, flavor, version, description};
}

void SetMibRevision(int group, int major, int minor) {
  state().revisions[group] = {major, minor};
}

void PutMount(const std::string &path, const mount_stats &stats) {
  state().mounts[path] = stats;
}

void PutEv(const std::string &name, const std::string &bytes) {
  state().evs[name] = bytes;
}

}  // namespace rec

// ---- Queues -------------------------------------------------------------------------------------

struct queue_element {
  void *record;
  queue_element *previous;
  queue_element *next;
};

namespace {

// A plain list: what the framework does faster has to give the same results.
struct Places {
  queue_element *tail = nullptr;
  const char *(*key_of)(const void *) = nullptr;
};

Places &PlacesOf(queue *q) {
  if (q->framework == nullptr) {
    q->framework = new Places;
  }
  return *static_cast<Places *>(q->framework);
}

void *Unlink(queue *q, queue_element *e) {
  void *record = e->record;
  (e->previous != nullptr ? e->previous->next : q->head) = e->next;
  (e->next != nullptr ? e->next->previous : PlacesOf(q).tail) = e->previous;
  delete e;
  if (q->head == nullptr && PlacesOf(q).key_of == nullptr) {
    delete &PlacesOf(q);
    q->framework = nullptr;
  }
  return record;
}

}  // namespace

extern "C" {

int ordinsert_Q(queue *q, void *record, order_fn comparator) {
  if (rec::Fails("ordinsert_Q", "")) {
    return 0;
  }
  queue_element *before = PlacesOf(q).tail;
  while (before != nullptr && comparator(record, before->record) < 0) {
    before = before->previous;
  }
  auto *e = new queue_element{record, before, before != nullptr ? before->next : q->head};
  (before != nullptr ? before->next : q->head) = e;
  (e->next != nullptr ? e->next->previous : PlacesOf(q).tail) = e;
  return 1;
}

void *peek_Q(queue *, queue_element **cursor, int mode) {
  if (mode != Q_NEXT || *cursor == nullptr) {
    return nullptr;
  }
  void *record = (*cursor)->record;
  *cursor = (*cursor)->next;
  return record;
}

void *remove_Q(queue *q, int mode) {
  return mode == Q_FIRST && q->head != nullptr ? Unlink(q, q->head) : nullptr;
}

void *keyremove_Q(queue *q, const void *key, key_fn comparator) {
  if (rec::Fails("keyremove_Q", "")) {
    return nullptr;
  }
  for (queue_element *e = q->head; e != nullptr; e = e->next) {
    if (comparator(key, e->record) == 0) {
      return Unlink(q, e);
    }
  }
  return nullptr;
}

void *findkey_Q(queue *q, const void *key, key_fn comparator) {
  for (queue_element *e = q->head; e != nullptr; e = e->next) {
    if (comparator(key, e->record) == 0) {
      return e->record;
    }
  }
  return nullptr;
}

int index_Q(queue *q, const char *(*key_of)(const void *)) {
  if (q->head != nullptr) {
    return -1;
  }
  PlacesOf(q).key_of = key_of;
  return 0;
}

void rekey_Q(queue *, void *) {}

// ---- Objects ------------------------------------------------------------------------------------

int get_id(void) {
  return 11;
}

registry_object *create_obj(queue *registry, int owner, const char *name, int flag, int data_size,
                            int var_count) {
  const auto relative = Relative(name);
  rec::Record("create_obj", RelativeOrName(name), "");
  EXPECT_EQ(registry, &obj_Q);
  EXPECT_EQ(owner, get_id());
  if (rec::Fails("create_obj", RelativeOrName(name)) || !relative || data_size < 0 ||
      data_size > 1 << 20 || var_count < 0 || var_count > 4096 ||
      state().objects.contains(*relative)) {
    return nullptr;
  }
  std::unique_ptr<Object> object = std::move(state().deleted);
  if (object != nullptr) {
    *object = {};
  } else {
    object = std::make_unique<Object>();
  }
  object->path = std::string(REGISTRY_ROOT "/") + *relative;
  object->relative = *relative;
  object->descriptors.resize(static_cast<size_t>(var_count));
  object->names.resize(static_cast<size_t>(var_count));
  object->data.resize(static_cast<size_t>(data_size));
  object->data.insert(object->data.end(), kGuard, kGuardOctet);
  const size_t dot = relative->find_last_of("./");
  const char *number =
      dot != std::string::npos && (*relative)[dot] == '.' ? relative->c_str() + dot + 1 : "";
  object->face = {
      object->path.c_str(),
      *number != '\0' && strspn(number, "0123456789") == strlen(number) ? atoi(number) : 0,
      flag,
      data_size,
      var_count,
      object->descriptors.data(),
      object->data.data(),
      object.get()};
  return &(state().objects[*relative] = std::move(object))->face;
}

int init_info(int slot, descriptor *desc, const char *name, int size, int type, int access,
              int count, void *value, set_handler_fn set_handler) {
  for (auto &[relative, object] : state().objects) {
    if (slot < 0 || slot >= object->face.var_count ||
        desc != &object->descriptors[static_cast<size_t>(slot)]) {
      continue;
    }
    const auto *begin = object->data.data();
    const auto *at = static_cast<unsigned char *>(value);
    const bool fits = size > 0 && at >= begin && size <= object->face.data_size &&
                      at - begin <= object->face.data_size - size;
    EXPECT_TRUE(fits) << name << " does not lie within " << relative;
    EXPECT_EQ(count, 1) << name;
    EXPECT_TRUE(type != VAR_INTEGER || size == 4) << name;
    if (!fits || rec::Fails("init_info", name)) {
      return -1;
    }
    std::string &kept = object->names[static_cast<size_t>(slot)];
    kept = name;
    *desc = {slot,  kept.c_str(), size,
             type,  access,       count,
             value, set_handler,  static_cast<uint16_t>(size)};
    return 0;
  }
  ADD_FAILURE() << "slot " << slot << " of " << name << " is not one of a live object";
  return -1;
}

int log_data(registry_object *face) {
  Object *object = FindLive(face);
  if (object == nullptr) {
    ADD_FAILURE() << "log_data of what is not a live object";
    return -1;
  }
  if (rec::Fails("log_data", object->relative)) {
    rec::Record("log_data", object->relative, "");
    return -1;
  }
  EXPECT_EQ(std::count(object->data.end() - kGuard, object->data.end(), kGuardOctet), kGuard)
      << object->relative << " is written past the end of its data block";
  object->published.assign(object->data.begin(), object->data.end() - kGuard);
  object->published_lengths.clear();
  for (const descriptor &desc : object->descriptors) {
    if (state().undefined_slots.count(object->relative) == 0) {
      EXPECT_NE(desc.type, 0) << object->relative << " has undefined slots";
    }
    EXPECT_LE(desc.length, desc.size) << object->relative;
    object->published_lengths.push_back(desc.length);
  }
  object->publications++;
  rec::Record("log_data", object->relative, object->published);
  return 0;
}

registry_object *find_obj(queue *registry, int zero, const char *name) {
  EXPECT_EQ(registry, &obj_Q);
  EXPECT_EQ(zero, 0);
  rec::Record("find_obj", RelativeOrName(name), "");
  return rec::Fails("find_obj", RelativeOrName(name)) ? nullptr : rec::Live(RelativeOrName(name));
}

registry_object *get_obj(const char *path) {
  const std::string name = RelativeOrName(path);
  rec::Record("get_obj", name, "");
  if (rec::Fails("get_obj", name)) {
    return nullptr;
  }
  State::Sibling found;
  const auto sibling = state().siblings.find(name);
  if (sibling != state().siblings.end()) {
    found = sibling->second;
  } else if (rec::Publications(name) > 0) {
    const Object &own = *state().objects[name];
    found.data = own.published;
    for (const descriptor &desc : own.descriptors) {
      const auto slot = static_cast<size_t>(desc.slot);
      found.variables.push_back(
          {desc.name, desc.type, desc.size,
           own.published.substr(OffsetOf(own, desc), own.published_lengths[slot])});
    }
  } else {
    return nullptr;
  }
  size_t names = 0;
  for (const auto &v : found.variables) {
    names += v.name.size() + 1;
  }
  const size_t count = found.variables.size();
  const size_t size = sizeof(registry_object) + count * sizeof(descriptor) + found.data.size() +
                      names + name.size() + 1;
  // Not calloc(), which the code under test may be refused.
  auto *block = static_cast<unsigned char *>(malloc(size));
  memset(block, 0, size);
  auto *face = reinterpret_cast<registry_object *>(block);
  face->desc = reinterpret_cast<descriptor *>(block + sizeof(registry_object));
  unsigned char *data = block + sizeof(registry_object) + count * sizeof(descriptor);
  char *text = reinterpret_cast<char *>(data + found.data.size());
  memcpy(data, found.data.data(), found.data.size());
  face->data = found.data.empty() ? nullptr : data;
  face->data_size = static_cast<int>(found.data.size());
  face->var_count = static_cast<int>(count);
  for (size_t i = 0; i < count; i++) {
    const auto &v = found.variables[i];
    memcpy(text, v.name.c_str(), v.name.size() + 1);
    face->desc[i] = {static_cast<int>(i),
                     text,
                     v.size,
                     v.type,
                     ACCESS_READ_ONLY,
                     1,
                     data,
                     nullptr,
                     static_cast<uint16_t>(v.type == VAR_OCTET_STRING ? v.bytes.size() : v.size)};
    text += v.name.size() + 1;
    data += v.size;
  }
  memcpy(text, name.c_str(), name.size() + 1);
  face->name = text;
  return face;
}

int delete_obj(queue *registry, registry_object *face, int zero) {
  EXPECT_EQ(registry, &obj_Q);
  EXPECT_EQ(zero, 0);
  Object *object = face != nullptr ? FindLive(face) : nullptr;
  const std::string name = face == nullptr ? "all" : object != nullptr ? object->relative : "?";
  rec::Record("delete_obj", name, "");
  if (rec::Fails("delete_obj", name)) {
    return -1;
  }
  if (face == nullptr) {
    state().objects.clear();
    return 0;
  }
  if (object == nullptr) {
    ADD_FAILURE() << "delete_obj of what is not a live object";
    return -1;
  }
  if (state().reuses_objects) {
    state().deleted = std::move(state().objects[name]);
  }
  state().objects.erase(name);
  return 0;
}

int claim_dir(const char *path) {
  rec::Record("claim_dir", path, "");
  return rec::Fails("claim_dir", path) ? -1 : 0;
}

int create_dir(const char *path, int parents) {
  rec::Record("create_dir", path, std::to_string(parents));
  return rec::Fails("create_dir", path) ? -1 : 0;
}

int remove_all_dir(const char *path) {
  rec::Record("remove_all_dir", path, "");
  return rec::Fails("remove_all_dir", path) ? -1 : 0;
}

// Not empty while an object is left below it; told to fail, it is not empty either.
int is_empty_dir(const char *path) {
  rec::Record("is_empty_dir", path, "");
  return rec::Fails("is_empty_dir", path) ? 0 : state().objects.empty();
}

int remove_empty_dir(const char *path) {
  rec::Record("remove_empty_dir", path, "");
  return rec::Fails("remove_empty_dir", path) ? -1 : 0;
}

int open_dir(const char *path) {
  if (rec::Fails("open_dir", path)) {
    return -1;
  }
  const std::string place = rec::RealPath(std::filesystem::path(path).lexically_normal());
  return open(place.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// ---- Process ------------------------------------------------------------------------------------

int agent_main(int argc, char **argv) {
  return init_agent(argc, argv) != 0;
}

int agentlog_fprintf(FILE *stream, const char *format, ...) {
  EXPECT_EQ(stream, stderr);
  va_list arguments;
  va_start(arguments, format);
  char *text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  EXPECT_GE(length, 0);
  // One message has always been without its newline.
  EXPECT_TRUE((length > 0 && text[length - 1] == '\n') ||
              strcmp(text, "cannot opendir(/proc)") == 0)
      << text;
  state().messages.emplace_back(text);
  if (state().on_message != nullptr) {
    state().on_message(text);
  }
  rec::Record("agentlog_fprintf", text, "");
  free(text);
  return length;
}

void set_poll_time(int seconds) {
  rec::Record("set_poll_time", std::to_string(seconds), "");
  poll_time = seconds < 1 ? 1 : seconds;
}

int cfg_set_state(int value) {
  rec::Record("cfg_set_state", std::to_string(value), "");
  return rec::Fails("cfg_set_state", std::to_string(value)) || (value != 0 && value != -1);
}

int cfg_trap_state(int value) {
  rec::Record("cfg_trap_state", std::to_string(value), "");
  return rec::Fails("cfg_trap_state", std::to_string(value)) || (value != 0 && value != -1);
}

int set_wanted(int last) {
  return rec::Fails("set_wanted", last != 0 ? "last" : "first") ? 0 : 1;
}

int agent_ending(void) {
  return rec::Fails("agent_ending", "") ? 1 : 0;
}

int run_command(const char *command, int limit_ms, char *output, size_t size, size_t *length) {
  rec::Record("run_command", command, "");
  EXPECT_GT(size, 0U);
  EXPECT_GT(limit_ms, 0);
  *length = 0;
  output[0] = '\0';
  if (agent_ending() != 0) {
    return COMMAND_AGENT_ENDING;
  }
  if (rec::Fails("run_command", command)) {
    return COMMAND_NOT_RUN;
  }
  const auto known = state().command_seconds.find(command);
  const double seconds = known != state().command_seconds.end() ? known->second : 0;
  if (seconds * 1000 > limit_ms) {
    rec::PassTime(limit_ms / 1000.0);
    return COMMAND_TIMED_OUT;
  }
  rec::PassTime(seconds);
  const auto *made_up = rec::FindCommand(command);
  if (made_up == nullptr) {
    return 127;
  }
  *length = std::min(made_up->first.size(), size - 1);
  memcpy(output, made_up->first.data(), *length);
  output[*length] = '\0';
  return made_up->second;
}

int process_linux_cmd(const char *command, char *output, int *length) {
  rec::Record("process_linux_cmd", command, "");
  const int capacity = *length;
  EXPECT_GT(capacity, 0);
  *length = 0;
  output[0] = '\0';
  if (rec::Fails("process_linux_cmd", command)) {
    return -1;
  }
  const auto *known = rec::FindCommand(command);
  if (known == nullptr) {
    return 127;
  }
  *length = static_cast<int>(std::min(known->first.size(), static_cast<size_t>(capacity) - 1));
  memcpy(output, known->first.data(), static_cast<size_t>(*length));
  output[*length] = '\0';
  return known->second;
}

// ---- SNMP ---------------------------------------------------------------------------------------

int init_snmp_appname(const char *name) {
  rec::Record("init_snmp_appname", name, "");
  return rec::Fails("init_snmp_appname", name) ? -1 : 0;
}

char *find_community_string(char **community) {
  *community = rec::Fails("find_community_string", "") || state().community.empty()
                   ? nullptr
                   : strdup(state().community.c_str());
  return *community;
}

int send_trap(registry_object *face, const int *slots, int slot_count, const char *description,
              int number) {
  rec::Record("send_trap", std::to_string(number), "");
  Object *object = face != nullptr ? FindLive(face) : nullptr;
  EXPECT_EQ(object == nullptr, face == nullptr) << "trap with what is not a live object";
  if (rec::Fails("send_trap", std::to_string(number))) {
    return -1;
  }
  state().traps.push_back({number, object != nullptr ? object->relative : "",
                           std::vector<int>(slots, slots + slot_count),
                           description != nullptr ? description : ""});
  return 0;
}

int get_mib_major_revision(int group) {
  return state().revisions.contains(group) ? state().revisions[group].first : 0;
}

int get_mib_minor_revision(int group) {
  return state().revisions.contains(group) ? state().revisions[group].second : 0;
}

int init_snmp_connection(const char *address) {
  rec::Record("init_snmp_connection", address, "");
  EXPECT_FALSE(state().snmp_open) << "a connection is still open";
  if (rec::Fails("init_snmp_connection", address)) {
    return -1;
  }
  state().snmp_open = true;
  return 0;
}

int get_one_snmp_integer_from_api(const char *oid, int32_t *value, int *status) {
  rec::Record("get_one_snmp_integer_from_api", oid, "");
  EXPECT_TRUE(state().snmp_open) << "no connection is open";
  if (status != nullptr) {
    *status = 0;
  }
  const auto found = state().snmp.find(oid);
  if (rec::Fails("get_one_snmp_integer_from_api", oid) || found == state().snmp.end()) {
    return -1;
  }
  if (status != nullptr) {
    *status = found->second.second;
  }
  if (found->second.second != 0) {
    return -1;
  }
  *value = found->second.first;
  return 0;
}

int cleanup_snmp_connection(void) {
  rec::Record("cleanup_snmp_connection", "", "");
  EXPECT_TRUE(state().snmp_open) << "no connection is open";
  state().snmp_open = false;
  return 0;
}

// ---- The machine --------------------------------------------------------------------------------

int is_appliance(void) {
  return state().appliance;
}

const void *get_appliance_data(const char *key) {
  if (!state().appliance || rec::Fails("get_appliance_data", key)) {
    return nullptr;
  }
  if (strcmp(key, "ProductID") == 0) {
    return &state().product_id;
  }
  const auto found = state().appliance_texts.find(key);
  return found == state().appliance_texts.end() ? nullptr : found->second.c_str();
}

int distroid_init(void) {
  rec::Record("distroid_init", "", "");
  return rec::Fails("distroid_init", "") || !state().distribution ? -1 : 0;
}

static const char *DistributionText(size_t which) {
  return state().distribution ? (*state().distribution)[which].c_str() : "";
}

const char *distroid_name(void) {
  return DistributionText(0);
}

const char *distroid_flavor(void) {
  return DistributionText(1);
}

const char *distroid_version(void) {
  return DistributionText(2);
}

const char *distroid_description(void) {
  return DistributionText(3);
}

void distroid_exit(void) {
  rec::Record("distroid_exit", "", "");
}

int stat_mounts(const char *const *paths, size_t count, mount_stats *results) {
  rec::Record("stat_mounts", std::to_string(count));
  if (rec::Fails("stat_mounts", std::to_string(count))) {
    return -1;
  }
  for (size_t i = 0; i < count; i++) {
    const auto found = state().mounts.find(paths[i]);
    results[i] = {};
    results[i].state = MOUNT_FAILED;
    results[i].error = ENOENT;
    if (found != state().mounts.end()) {
      results[i] = found->second;
    }
  }
  return 0;
}

size_t run_apart(apart_fn step, size_t count, void *results, size_t size, int limit_ms, int) {
  rec::Record("run_apart", std::to_string(count));
  size_t at = 0;
  if (rec::Fails("run_apart", std::to_string(count))) {
    return 0;
  }
  try {
    for (; at < count; at++) {
      char *result = static_cast<char *>(results) + at * size;
      memset(result, 0, size);
      step(at, result);
    }
  } catch (const rec::HeldUp &) {
    rec::Record("run_apart held up", std::to_string(at));
    rec::PassTime(limit_ms / 1e3);
    errno = ETIMEDOUT;
  }
  return at;
}

int get_ev(const char *name, void *buffer, uint32_t *length) {
  rec::Record("get_ev", name, "");
  const auto found = state().evs.find(name);
  if (rec::Fails("get_ev", name) || found == state().evs.end()) {
    return -1;
  }
  *length = std::min(*length, static_cast<uint32_t>(found->second.size()));
  memcpy(buffer, found->second.data(), *length);
  return 0;
}

}  // extern "C"
