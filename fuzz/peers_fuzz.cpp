// What siblings and other processes tell: command lines, objects of any shape, the answers of their
// SNMP subtrees, the threshold agent's entries. The input is a command line ended by a zero and the
// bytes of an object's file (as it is, and what its data block alone would be).
#include <string>

#include "framework/registry/registry_file.h"
#include "framework/registry/registry_format.h"
#include "fuzz/fake_objects.h"
// With their state in reach.
#include "status/mib_status.cpp"
#define create create_misc  // both files have names of their own for the same things
#include "status/misc.cpp"
#undef create

namespace {

const uint8_t *object_bytes;
size_t object_size;

// As get_obj() hands it out: values lie within the data block.
registry_object *Make(const std::vector<vex::FileVariable> &shape,
                      const std::vector<uint8_t> &data) {
  const size_t data_at = sizeof(registry_object) + shape.size() * sizeof(descriptor);
  auto *block = static_cast<unsigned char *>(calloc(1, data_at + data.size() + 1));
  auto *made = reinterpret_cast<registry_object *>(block);
  made->desc = reinterpret_cast<descriptor *>(block + sizeof(registry_object));
  made->data = data.empty() ? nullptr : block + data_at;
  made->data_size = static_cast<int>(data.size());
  made->var_count = static_cast<int>(shape.size());
  if (!data.empty()) {
    memcpy(block + data_at, data.data(), data.size());
  }
  for (size_t slot = 0; slot < shape.size(); slot++) {
    made->desc[slot].size = static_cast<int>(shape[slot].size);
    made->desc[slot].value = block + data_at + shape[slot].offset;
  }
  return made;
}

uint8_t Byte(size_t at) {
  return at < object_size ? object_bytes[at] : 0;
}

}  // namespace

extern "C" {

registry_object *get_obj(const char *) {
  bool torn = false;
  const auto file = vex::ParseObjectFile({object_bytes, object_bytes + object_size}, &torn);
  if (file) {
    return Make(file->variables, file->data);
  }
  if (Byte(0) % 4 == 0) {
    return nullptr;
  }
  // Variables of 1 to 8 bytes side by side over what there is.
  std::vector<vex::FileVariable> made(Byte(1) % 32);
  const std::vector<uint8_t> data(object_bytes, object_bytes + object_size);
  uint32_t offset = 0;
  for (vex::FileVariable &v : made) {
    v.size = 1 + Byte(offset) % 8;
    v.offset = offset;
    if (v.offset + v.size > data.size()) {
      v.offset = 0;
      v.size = 0;
    }
    offset += v.size;
  }
  return Make(made, data);
}

int open_dir(const char *) {
  return -1;
}
int init_snmp_connection(const char *) {
  return Byte(2) % 3 == 0 ? -1 : 0;
}
int get_one_snmp_integer_from_api(const char *oid, int32_t *value, int *) {
  Require(strlen(oid) < oid_text_size);
  if (Byte(3) % 3 == 0) {
    return -1;
  }
  *value = static_cast<int32_t>(uint32_t{Byte(4)} << 24 | Byte(5));
  return 0;
}
int cleanup_snmp_connection(void) {
  return 0;
}
int send_trap(registry_object *, const int *, int, const char *, int) {
  return 0;
}
int get_mib_major_revision(int) {
  return 1;
}
int get_mib_minor_revision(int) {
  return 1;
}
void set_poll_time(int) {}
int set_wanted(int) {
  return 1;
}
size_t run_apart(apart_fn, size_t, void *, size_t, int, int) {
  errno = ECHILD;
  return 0;
}

}  // extern "C"

kept_file guid_file = {"guid", false};
void obtain_guid(unsigned char *, char *, size_t) {}
int set_guid(uint8_t, unsigned char *, const void *, int) {
  return -1;
}
void keep_guid(unsigned char *, char *, size_t) {}

// /proc is not looked at: the process of the input is the only one.
static bool inside;
extern "C" DIR *__real_opendir(const char *path);
extern "C" DIR *__wrap_opendir(const char *path) {
  return inside ? nullptr : __real_opendir(path);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  char command[command_size] = "";
  const size_t length = strnlen(reinterpret_cast<const char *>(data), size);
  memcpy(command, data, length < sizeof(command) ? length : sizeof(command) - 1);
  const size_t taken = length < size ? length + 1 : length;
  object_bytes = data + taken;
  object_size = size - taken;

  named.count = 0;
  keep_process(match(getpid(), command));
  Require(named.count <= 1);
  scan(status_peers, &named_process::status_rows, true);
  unsigned char array[STATUS_ARRAY_SIZE] = {};
  for (peer &p : status_peers) {
    read_revision(&p);
    read_condition(&p);
    Require(4 * p.index + 3 < STATUS_ARRAY_SIZE);
  }
  inside = true;
  build_status_array(array);
  build_health_array(array);
  inside = false;

  registry_object *entry = get_obj("entry");
  if (entry != nullptr) {
    const int32_t severity = entry_severity(entry);
    const int32_t condition = condition_for(severity);
    Require(condition >= condition_normal && condition <= 4);
    free(entry);
  }
  const std::vector<uint8_t> raw(object_bytes, object_bytes + object_size);
  entry = Make({}, raw);
  (void)entry_severity(entry);
  free(entry);
  return 0;
}
