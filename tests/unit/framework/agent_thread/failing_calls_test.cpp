// Every call of the system that something makes fails once, in turn; afterwards all is as if none
// had.
#include "tests/support/failing_calls.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "framework/process/commands.h"
#include "framework/registry/claim.h"
#include "framework/registry/objects.h"
#include "framework/registry/registry_file.h"
#include "platform/framework.h"
#include "tests/unit/framework/agent_thread/fake_snmp.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

constexpr int kErrors[] = {EIO, EMFILE};

class FailingCalls : public testing::Test {
 protected:
  FailingCalls() {
    UseRegistryRoot(registry_.root());
    fs::create_directories(registry_.Path("host"));
  }
  ~FailingCalls() override {
    delete_obj(&obj_Q, nullptr, 0);
    RetryFiles();
  }

  registry_object *Create(const std::string &name) {
    registry_object *object =
        create_obj(&obj_Q, get_id(), registry_.Path(name).c_str(), 1, kText, 1);
    EXPECT_EQ(init_info(0, &object->desc[0], "exampleName", kText, VAR_DISPLAY_STRING,
                        ACCESS_READ_ONLY, 1, object->data, nullptr),
              0);
    return object;
  }
  static void Publish(registry_object *object, const char *text) {
    strcpy(reinterpret_cast<char *>(object->data), text);
    EXPECT_EQ(log_data(object), 0);
  }
  // The text in the object's file; "?" when there is none.
  std::string InFile(const std::string &name) {
    const auto file = ReadObjectFile(name, registry_.root());
    return file ? reinterpret_cast<const char *>(file->data.data()) : "?";
  }
  size_t Entries(const std::string &directory) {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : fs::directory_iterator(registry_.Path(directory))) {
      count++;
    }
    return count;
  }

  static constexpr int kText = 33;
  TempRegistry registry_;
};

TEST_F(FailingCalls, AFirstPublicationReachesItsFile) {
  for (const int error : kErrors) {
    int number = 0;
    std::string name;
    registry_object *object = nullptr;
    const int failures = FailEachCall(
        error,
        [&] {
          // In a directory that is made for it.
          name = "host/made" + std::to_string(++number) + "/example";
          object = Create(name);
          Publish(object, "first");
        },
        [&](const char *call, int n) {
          RetryFiles();
          EXPECT_EQ(InFile(name), "first") << call << " " << n << " " << strerror(error);
          EXPECT_EQ(Entries(fs::path(name).parent_path()), 1U) << call << " " << n;
          struct stat st = {};
          EXPECT_EQ(stat(registry_.Path(fs::path(name).parent_path()).c_str(), &st), 0);
          EXPECT_EQ(st.st_mode & 07777, 0755U) << call << " " << n;
          EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
          fs::remove_all(registry_.Path(fs::path(name).parent_path()));
        });
    EXPECT_GE(failures, 8);
  }
}

TEST_F(FailingCalls, ALaterPublicationReachesItsFile) {
  for (const int error : kErrors) {
    registry_object *object = Create("host/example");
    Publish(object, "first");
    int number = 0;
    std::string text;
    FailEachCall(
        error,
        [&] {
          text = "text " + std::to_string(++number);
          Publish(object, text.c_str());
        },
        [&](const char *call, int n) {
          // Old or new, and new after the poll.
          EXPECT_NE(InFile("host/example"), "?") << call << " " << n;
          RetryFiles();
          EXPECT_EQ(InFile("host/example"), text) << call << " " << n << " " << strerror(error);
          EXPECT_EQ(Entries("host"), 1U) << call << " " << n;
        });
    EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
  }
}

// A look after the poll at files that are gone, damaged, or as they were.
TEST_F(FailingCalls, LostFilesAreWrittenAgain) {
  for (const int error : {EIO, EMFILE, ENOMEM, ENOTDIR}) {
    const std::string names[] = {"host/gone", "host/cut", "host/whole"};
    registry_object *objects[3] = {};
    for (int i = 0; i < 3; i++) {
      objects[i] = Create(names[i]);
      Publish(objects[i], names[i].c_str());
    }
    RetryFiles();
    const int failures = FailEachCall(
        error,
        [&] {
          fs::remove(registry_.Path(names[0]));
          EXPECT_EQ(truncate(registry_.Path(names[1]).c_str(), 20), 0);
          RetryFiles();
        },
        [&](const char *call, int n) {
          RetryFiles();
          for (const std::string &name : names) {
            EXPECT_EQ(InFile(name), name) << call << " " << n << " " << strerror(error);
          }
          EXPECT_EQ(Entries("host"), 3U) << call << " " << n;
        });
    EXPECT_GE(failures, 8);
    for (registry_object *object : objects) {
      EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
    }
  }
}

TEST_F(FailingCalls, ARootThatIsReplacedIsFilledAgain) {
  EXPECT_EQ(claim_dir(registry_.Path("host").c_str()), 0);
  for (const int error : kErrors) {
    registry_object *object = Create("host/example");
    Publish(object, "text");
    RetryFiles();
    const int failures = FailEachCall(
        error,
        [&] {
          fs::remove_all(registry_.root());
          RetryFiles();
        },
        [&](const char *call, int n) {
          RetryFiles();
          EXPECT_EQ(InFile("host/example"), "text") << call << " " << n << " " << strerror(error);
        });
    EXPECT_GE(failures, 12);
    EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
  }
}

TEST_F(FailingCalls, ADeletionTakesItsFileAway) {
  for (const int error : kErrors) {
    FailEachCall(
        error,
        [&] {
          registry_object *object = nullptr;
          const FailingCall call = failing_call;
          failing_call = {};
          object = Create("host/example");
          Publish(object, "text");
          failing_call = call;
          EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
        },
        [&](const char *call, int n) {
          EXPECT_TRUE(TheFakeSnmp().served.empty()) << call << " " << n;
          RetryFiles();
          EXPECT_EQ(Entries("host"), 0U) << call << " " << n << " " << strerror(error);
        });
  }
}

// Readers have the object or none.
TEST_F(FailingCalls, AReaderHasAWholeObjectOrNone) {
  registry_object *object = Create("host/example");
  Publish(object, "text");
  for (const int error : {EIO, ENOENT, ELOOP}) {
    int absent = 0;
    FailEachCall(
        error,
        [&] {
          registry_object *read = get_obj("host/example");
          absent += read == nullptr ? 1 : 0;
          if (read != nullptr) {
            EXPECT_STREQ(static_cast<const char *>(read->desc[0].value), "text");
          }
          free(read);
          const size_t listed = ListObjects(registry_.root()).size();
          EXPECT_LE(listed, 1U);
          for (const NamedFile &file : ReadObjectsOf("host", registry_.root())) {
            EXPECT_EQ(file.name, "host/example");
            if (file.object) {
              EXPECT_STREQ(reinterpret_cast<const char *>(file.object->data.data()), "text");
            }
          }
        },
        [](const char *, int) {});
    EXPECT_GE(absent, 4) << strerror(error);
    EXPECT_EQ(InFile("host/example"), "text");
  }
}

TEST_F(FailingCalls, DirectoriesAreMadeOrNot) {
  for (const int error : kErrors) {
    int number = 0;
    FailEachCall(
        error,
        [&] {
          const std::string path = registry_.Path("a" + std::to_string(++number) + "/b/c");
          const bool made = create_dir(path.c_str(), 1) == 0;
          struct stat st = {};
          const FailingCall call = failing_call;
          failing_call = {};
          EXPECT_TRUE(!made || (stat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0755));
          EXPECT_EQ(create_dir(path.c_str(), 1), 0);
          EXPECT_EQ(is_empty_dir(path.c_str()), 1);
          failing_call = call;
          // Not known to be empty is not empty.
          const bool empty = is_empty_dir(path.c_str()) != 0;
          const bool removed = remove_empty_dir(path.c_str()) == 0;
          EXPECT_TRUE(removed || empty || fs::exists(path));
          EXPECT_EQ(fs::exists(path), !removed);
        },
        [](const char *, int) {});
  }
}

TEST_F(FailingCalls, RemovalGoesOnNextTime) {
  for (const int error : kErrors) {
    const int failures = FailEachCall(
        error,
        [&] {
          const FailingCall call = failing_call;
          failing_call = {};
          std::string deep = registry_.Path("gone");
          for (int i = 0; i < 70; i++) {
            deep += "/d";
          }
          fs::create_directories(deep);
          WriteBytes(registry_.Path("gone/file"), {1});
          failing_call = call;
          remove_all_dir(registry_.Path("gone/*").c_str());
          remove_all_dir(registry_.Path("gone").c_str());
        },
        [&](const char *call, int n) {
          EXPECT_EQ(remove_all_dir(registry_.Path("gone").c_str()), 0);
          EXPECT_FALSE(fs::exists(registry_.Path("gone"))) << call << " " << n;
          EXPECT_TRUE(fs::exists(registry_.Path("host")));
        });
    EXPECT_GE(failures, 20);
  }
}

TEST_F(FailingCalls, ACommandIsRunOrSaidNotToHaveBeen) {
  for (const int error : {EIO, EINTR, EAGAIN}) {
    FailEachCall(
        error,
        [&] {
          char output[16] = "";
          const CommandResult result = RunCommand("echo word", 5000, output, sizeof(output));
          if (result.end == CommandResult::kExited) {
            EXPECT_EQ(result.status, 0);
          }
        },
        [&](const char *call, int n) {
          char output[16] = "";
          const CommandResult result = RunCommand("echo word", 5000, output, sizeof(output));
          EXPECT_EQ(result.end, CommandResult::kExited) << call << " " << n;
          EXPECT_STREQ(output, "word\n") << call << " " << n << " " << strerror(error);
        });
  }
}

}  // namespace
}  // namespace vex
