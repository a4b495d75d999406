// Live objects of one small group in a registry of the test's own, for tests of the agent thread.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_AGENT_THREAD_OBJECTS_FIXTURE_H
#define VEX_TESTS_UNIT_FRAMEWORK_AGENT_THREAD_OBJECTS_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "framework/registry/objects.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_file.h"
#include "tests/unit/framework/agent_thread/fake_snmp.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {

namespace fs = std::filesystem;

#pragma pack(push, 1)
struct Block {
  int32_t count;
  char name[33];
  char role[9];
  uint8_t date[7];
  int32_t inner;       // unknown to the MIB
  char wrong_type[4];  // named like an integer of the MIB's
};
#pragma pack(pop)

// What the handler of exampleRole returns, and what it was called with.
inline int handler_result;
inline std::string handled;

inline int Handler(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                   int length) {
  handled += std::to_string(phase) + ":" + std::to_string(desc->slot) + ":" +
             std::to_string(object->instance) + ":" +
             std::string(static_cast<const char *>(value), static_cast<size_t>(length)) + ":" +
             std::to_string(length) + ";";
  if (handler_result == 0 && phase != SET_CHECK) {
    snprintf(static_cast<char *>(desc->value), static_cast<size_t>(desc->size), "<%s>",
             static_cast<const char *>(value));
  }
  return handler_result;
}

class Objects : public testing::Test {
 protected:
  Objects() {
    UseRegistryRoot(registry_.root());
    fs::create_directories(registry_.Path("host"));
    handler_result = 0;
    handled.clear();
  }
  ~Objects() override {
    delete_obj(&obj_Q, nullptr, 0);
    RetryFiles();
    RootOf(registry_.root()).Hold(Descriptor());
  }

  registry_object *Create(const std::string &name = "host/example", bool handler = true) {
    registry_object *object =
        create_obj(&obj_Q, get_id(), registry_.Path(name).c_str(), 1, sizeof(Block), 6);
    if (object == nullptr) {
      return nullptr;
    }
    auto *b = reinterpret_cast<Block *>(object->data);
    descriptor *d = object->desc;
    EXPECT_EQ(
        init_info(0, &d[0], "exampleCount", 4, VAR_INTEGER, ACCESS_WRITABLE, 1, &b->count, nullptr),
        0);
    EXPECT_EQ(init_info(1, &d[1], "exampleName", 33, VAR_DISPLAY_STRING, ACCESS_READ_ONLY, 1,
                        b->name, nullptr),
              0);
    EXPECT_EQ(init_info(2, &d[2], "exampleRole", 9, VAR_DISPLAY_STRING, ACCESS_WRITABLE, 1, b->role,
                        handler ? Handler : nullptr),
              0);
    EXPECT_EQ(init_info(3, &d[3], "exampleDate", 7, VAR_OCTET_STRING, ACCESS_WRITABLE, 1, b->date,
                        nullptr),
              0);
    EXPECT_EQ(init_info(4, &d[4], "inner", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, &b->inner, nullptr),
              0);
    EXPECT_EQ(init_info(5, &d[5], "exampleCount", 4, VAR_DISPLAY_STRING, ACCESS_READ_ONLY, 1,
                        b->wrong_type, nullptr),
              0);
    return object;
  }
  static Block *Data(registry_object *object) {
    return reinterpret_cast<Block *>(object->data);
  }
  // The only object that is served; null when there is another number of them.
  std::shared_ptr<const Image> Served() {
    const auto &served = TheFakeSnmp().served;
    return served.size() == 1 ? served.begin()->second : nullptr;
  }
  // The value of a served variable; "?" when it is not served.
  std::string Value(const char *name) {
    const std::shared_ptr<const Image> image = Served();
    if (image == nullptr) {
      return "?";
    }
    for (size_t i = 0; i < image->layout->variables.size(); i++) {
      const ServedVariable &v = image->layout->variables[i];
      if (strcmp(v.mib->name, name) == 0) {
        const char *at = reinterpret_cast<const char *>(&image->data[v.offset]);
        return {at, v.type == VAR_DISPLAY_STRING ? strnlen(at, static_cast<size_t>(v.size))
                                                 : image->octet_lengths[i]};
      }
    }
    return "?";
  }
  uint64_t Id() {
    return TheFakeSnmp().served.begin()->first;
  }
  SetItem Item(int slot, const std::string &value) {
    SetItem item;
    item.object_id = Id();
    item.slot = slot;
    item.value.assign(value.begin(), value.end());
    item.value.push_back(0);
    item.length = static_cast<int>(value.size());
    return item;
  }
  int Set(int slot, const std::string &value) {
    SetItem item = Item(slot, value);
    const int check = RunSet(SET_CHECK, item);
    return check != 0 ? check : RunSet(SET_APPLY, item);
  }
  std::string FileText(const std::string &name, size_t offset) {
    const auto file = ReadObjectFile(name, registry_.root());
    return file ? std::string(reinterpret_cast<const char *>(&file->data[offset])) : "?";
  }

  TempRegistry registry_;
};

// No file can grow while this lives.
class FullDisk {
 public:
  FullDisk() {
    getrlimit(RLIMIT_FSIZE, &old_);
    handler_ = signal(SIGXFSZ, SIG_IGN);
    rlimit none = old_;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_FSIZE, &none);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, handler_);
  }
  FullDisk(const FullDisk &) = delete;
  FullDisk &operator=(const FullDisk &) = delete;

 private:
  rlimit old_;
  void (*handler_)(int);
};

// Standard error goes into a pipe, which no size limit concerns.
class Captured {
 public:
  Captured() : old_(dup(STDERR_FILENO)) {
    if (pipe(ends_) == 0) {
      dup2(ends_[1], STDERR_FILENO);
    }
  }
  ~Captured() {
    dup2(old_, STDERR_FILENO);
    close(old_);
    close(ends_[0]);
    close(ends_[1]);
  }
  Captured(const Captured &) = delete;
  Captured &operator=(const Captured &) = delete;
  std::string Text() {
    if (write(ends_[1], "\n", 1) != 1) {
      return "?";
    }
    char bytes[65536];
    const ssize_t n = read(ends_[0], bytes, sizeof(bytes));
    return {bytes, static_cast<size_t>(n > 0 ? n - 1 : 0)};
  }

 private:
  int old_;
  int ends_[2] = {-1, -1};
};

}  // namespace vex

#endif
