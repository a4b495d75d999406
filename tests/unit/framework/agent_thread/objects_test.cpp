#include "framework/registry/objects.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "framework/process/log.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_file.h"
#include "tests/support/failing_call.h"
#include "tests/support/failing_new.h"
#include "tests/unit/framework/agent_thread/objects_fixture.h"

namespace vex {
namespace {

TEST_F(Objects, AreInvisibleBeforeTheFirstPublication) {
  registry_object *object = Create();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->name, registry_.Path("host/example"));
  EXPECT_EQ(object->instance, 0);
  EXPECT_EQ(object->flag, 1);
  EXPECT_EQ(object->data_size, static_cast<int>(sizeof(Block)));
  EXPECT_EQ(std::count(object->data, object->data + sizeof(Block), 0),
            static_cast<long>(sizeof(Block)));
  EXPECT_EQ(object->desc[3].length, 7);
  EXPECT_EQ(object->desc[2].count, 1);
  EXPECT_EQ(Served(), nullptr);
  EXPECT_EQ(get_obj("host/example"), nullptr);
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/example"), object);
  EXPECT_EQ(log_data(object), 0);
  EXPECT_NE(Served(), nullptr);
}

TEST_F(Objects, NamesSayTheInstance) {
  struct {
    const char *name;
    int instance;
  } const table[] = {{"host/cpu.0", 0},
                     {"host/cpu.7", 7},
                     {"host/cpu.1234", 1234},
                     {"host/cpu", 0},
                     {"host/a.b", 0},
                     {"host/a.", 0},
                     {"host/a.-1", 0},
                     {"host.3/cpu", 0},
                     {"host/cpu.99999999999", INT32_MAX},
                     {"host/cpu.2147483647", INT32_MAX},
                     {"host/a.1.2", 2}};
  for (const auto &row : table) {
    registry_object *object =
        create_obj(&obj_Q, get_id(), registry_.Path(row.name).c_str(), 0, 4, 0);
    ASSERT_NE(object, nullptr) << row.name;
    EXPECT_EQ(object->instance, row.instance) << row.name;
  }
}

TEST_F(Objects, CreationIsRefusedOutsideAndOutOfRange) {
  ASSERT_NE(Create(), nullptr);
  EXPECT_EQ(Create(), nullptr) << "the name is in use";
  EXPECT_EQ(create_obj(&obj_Q, 0, "/etc/example", 0, 4, 1), nullptr);
  EXPECT_EQ(create_obj(&obj_Q, 0, registry_.root().c_str(), 0, 4, 1), nullptr);
  EXPECT_EQ(create_obj(&obj_Q, 0, nullptr, 0, 4, 1), nullptr);
  const std::string name = registry_.Path("host/x");
  EXPECT_EQ(create_obj(&obj_Q, 0, name.c_str(), 0, -1, 1), nullptr);
  EXPECT_EQ(create_obj(&obj_Q, 0, name.c_str(), 0, (1 << 20) + 1, 1), nullptr);
  EXPECT_EQ(create_obj(&obj_Q, 0, name.c_str(), 0, 4, -1), nullptr);
  EXPECT_EQ(create_obj(&obj_Q, 0, name.c_str(), 0, 4, 4097), nullptr);
  EXPECT_NE(create_obj(&obj_Q, 0, name.c_str(), 0, 1 << 20, 4096), nullptr);
  EXPECT_EQ(log_data(find_obj(&obj_Q, 0, "host/x")), 0);
}

TEST_F(Objects, AnObjectMayHaveNoDataAndStandInNoQueue) {
  registry_object *object = create_obj(nullptr, 0, registry_.Path("host/mark").c_str(), 0, 0, 0);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->data, nullptr);
  EXPECT_EQ(obj_Q.head, nullptr);
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/mark"), object);
  EXPECT_EQ(log_data(object), 0);
  EXPECT_TRUE(TheFakeSnmp().served.empty()) << "there is nothing to serve";
  EXPECT_TRUE(fs::exists(registry_.Path("host/mark")));
  EXPECT_EQ(delete_obj(nullptr, object, 0), 0);
  EXPECT_FALSE(fs::exists(registry_.Path("host/mark")));
}

TEST_F(Objects, VariablesMustLieWithinTheirObject) {
  registry_object *o = create_obj(&obj_Q, 0, registry_.Path("host/x").c_str(), 0, 8, 2);
  registry_object *other = create_obj(&obj_Q, 0, registry_.Path("host/y").c_str(), 0, 8, 2);
  ASSERT_NE(o, nullptr);
  ASSERT_NE(other, nullptr);
  auto define = [&](int slot, descriptor *desc, int size, int type, void *value) {
    return init_info(slot, desc, "exampleCount", size, type, ACCESS_READ_ONLY, 1, value, nullptr);
  };
  EXPECT_EQ(define(0, &o->desc[1], 4, VAR_INTEGER, o->data), -1);
  EXPECT_EQ(define(2, &o->desc[2], 4, VAR_INTEGER, o->data), -1);
  EXPECT_EQ(define(-1, &o->desc[0], 4, VAR_INTEGER, o->data), -1);
  descriptor stray = {};
  EXPECT_EQ(define(0, &stray, 4, VAR_INTEGER, o->data), -1);
  EXPECT_EQ(define(0, nullptr, 4, VAR_INTEGER, o->data), -1);
  EXPECT_EQ(define(0, &o->desc[0], 2, VAR_INTEGER, o->data), -1);
  EXPECT_EQ(define(0, &o->desc[0], 4, 4, o->data), -1);
  EXPECT_EQ(define(0, &o->desc[0], 0, VAR_OCTET_STRING, o->data), -1);
  EXPECT_EQ(define(0, &o->desc[0], 9, VAR_OCTET_STRING, o->data), -1);
  EXPECT_EQ(define(0, &o->desc[0], 4, VAR_INTEGER, o->data + 5), -1);
  EXPECT_EQ(define(0, &o->desc[0], 4, VAR_INTEGER, o->data - 1), -1);
  EXPECT_EQ(define(0, &o->desc[0], 4, VAR_INTEGER, other->data), -1);
  EXPECT_EQ(define(0, &o->desc[0], 4, VAR_INTEGER, nullptr), -1);
  EXPECT_EQ(define(0, &o->desc[0], 4, 0, o->data), -1);
  const std::string long_name(256, 'n');
  for (const char *name : {static_cast<const char *>(nullptr), long_name.c_str()}) {
    EXPECT_EQ(
        init_info(0, &o->desc[0], name, 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, o->data, nullptr), -1);
  }
  registry_object *large = create_obj(&obj_Q, 0, registry_.Path("host/z").c_str(), 0, 70000, 1);
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(define(0, &large->desc[0], 65536, VAR_OCTET_STRING, large->data), -1);
  EXPECT_EQ(define(0, &large->desc[0], 65535, VAR_OCTET_STRING, large->data), 0);
  EXPECT_EQ(o->desc[0].type, 0);
  EXPECT_EQ(o->desc[1].type, 0);
  EXPECT_EQ(define(1, &o->desc[1], 1, VAR_OCTET_STRING, o->data + 7), 0) << "the smallest";
  EXPECT_EQ(define(1, &o->desc[1], 4, VAR_INTEGER, o->data + 4), 0);
  char name[] = "exampleCount";
  EXPECT_EQ(init_info(0, &o->desc[0], name, 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, o->data, nullptr),
            0);
  name[0] = 'X';
  EXPECT_STREQ(o->desc[0].name, "exampleCount");
}

TEST_F(Objects, PublishingShowsAllValuesAtOnce) {
  registry_object *object = Create();
  Block *b = Data(object);
  b->count = 5;
  strcpy(b->name, "first");
  memcpy(b->date, "\x07\xe5\x01\x02\x03\x04\x05", 7);
  b->inner = 77;
  ASSERT_EQ(log_data(object), 0);
  EXPECT_EQ(Value("exampleCount"), std::string("\5\0\0\0", 4));
  EXPECT_EQ(Value("exampleName"), "first");
  EXPECT_EQ(Value("exampleDate").size(), 7u);
  ASSERT_NE(Served(), nullptr);
  // What the MIB does not know, or knows otherwise, stands in the file alone.
  EXPECT_EQ(Served()->layout->variables.size(), 4u);
  EXPECT_TRUE(Served()->layout->variables[2].writable);
  EXPECT_FALSE(Served()->layout->variables[1].writable);

  strcpy(b->name, "second");
  object->desc[3].length = 3;
  EXPECT_EQ(Value("exampleName"), "first") << "an image does not change";
  registry_object *snapshot = get_obj("host/example");
  ASSERT_NE(snapshot, nullptr);
  EXPECT_STREQ(static_cast<const char *>(snapshot->desc[1].value), "first");
  free(snapshot);
  ASSERT_EQ(log_data(object), 0);
  EXPECT_EQ(Value("exampleName"), "second");
  EXPECT_EQ(Value("exampleDate").size(), 3u);
  object->desc[3].length = 200;  // more than there is
  ASSERT_EQ(log_data(object), 0);
  EXPECT_EQ(Value("exampleDate").size(), 7u);

  snapshot = get_obj("host/example");
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(snapshot->var_count, 6);
  EXPECT_EQ(snapshot->name, registry_.Path("host/example"));
  EXPECT_STREQ(snapshot->desc[4].name, "inner");
  int32_t inner;
  memcpy(&inner, snapshot->desc[4].value, 4);
  EXPECT_EQ(inner, 77);
  EXPECT_EQ(snapshot->framework, nullptr);
  EXPECT_EQ(snapshot->desc[2].set_handler, nullptr);
  EXPECT_EQ(snapshot->data_size, static_cast<int>(sizeof(Block)));
  free(snapshot);
}

TEST_F(Objects, SlotsThatWereNeverDefinedAreNotServed) {
  registry_object *object = create_obj(&obj_Q, 0, registry_.Path("host/gap").c_str(), 0, 8, 3);
  ASSERT_EQ(init_info(1, &object->desc[1], "exampleCount", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1,
                      object->data, nullptr),
            0);
  ASSERT_EQ(log_data(object), 0);
  ASSERT_NE(Served(), nullptr);
  ASSERT_EQ(Served()->layout->variables.size(), 1u);
  EXPECT_EQ(Served()->layout->variables[0].slot, 1);
  // A variable that is defined later is served from the next publication on.
  ASSERT_EQ(init_info(2, &object->desc[2], "exampleDate", 4, VAR_OCTET_STRING, ACCESS_READ_ONLY, 1,
                      object->data + 4, nullptr),
            0);
  ASSERT_EQ(log_data(object), 0);
  EXPECT_EQ(Served()->layout->variables.size(), 2u);
  registry_object *snapshot = get_obj("host/gap");
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(snapshot->desc[0].type, 0);
  EXPECT_STREQ(snapshot->desc[0].name, "");
  EXPECT_EQ(snapshot->desc[2].length, 4);
  free(snapshot);
}

// Objects of equal layout share it; the least difference is one.
TEST_F(Objects, EachIsServedByItsOwnLayout) {
  struct {
    int slot;
    const char *variable;
    int size;
    int type;
    int offset;
    int access;
  } const table[] = {
      {0, "exampleName", 8, VAR_DISPLAY_STRING, 0, ACCESS_READ_ONLY},
      {1, "exampleName", 8, VAR_DISPLAY_STRING, 0, ACCESS_READ_ONLY},
      {1, "exampleName", 7, VAR_DISPLAY_STRING, 0, ACCESS_READ_ONLY},
      {1, "exampleName", 7, VAR_DISPLAY_STRING, 1, ACCESS_READ_ONLY},
      {1, "exampleName", 7, VAR_DISPLAY_STRING, 1, ACCESS_WRITABLE},
      {1, "exampleDate", 7, VAR_OCTET_STRING, 1, ACCESS_WRITABLE},
      {1, "exampleRole", 7, VAR_DISPLAY_STRING, 1, ACCESS_WRITABLE},
  };
  std::shared_ptr<const Layout> before;
  for (const auto &row : table) {
    for (const bool again : {false, true}) {
      const std::string path = registry_.Path("host/x." + std::to_string(&row - table));
      registry_object *object = create_obj(&obj_Q, 0, path.c_str(), 0, 8, 2);
      ASSERT_NE(object, nullptr);
      ASSERT_EQ(init_info(row.slot, &object->desc[row.slot], row.variable, row.size, row.type,
                          row.access, 1, object->data + row.offset, nullptr),
                0);
      ASSERT_EQ(log_data(object), 0);
      ASSERT_NE(Served(), nullptr);
      const std::shared_ptr<const Layout> layout = Served()->layout;
      EXPECT_EQ(layout == before, again) << &row - table;
      ASSERT_EQ(layout->variables.size(), 1U);
      const ServedVariable &v = layout->variables[0];
      EXPECT_STREQ(v.mib->name, row.variable);
      EXPECT_EQ(v.slot, row.slot);
      EXPECT_EQ(v.size, row.size);
      EXPECT_EQ(v.offset, static_cast<uint32_t>(row.offset));
      EXPECT_EQ(v.writable, row.access == ACCESS_WRITABLE);
      before = layout;
      ASSERT_EQ(delete_obj(&obj_Q, object, 0), 0);
    }
  }
}

TEST_F(Objects, AreFoundByAnyFormOfTheirName) {
  registry_object *object = Create();
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/example"), object);
  EXPECT_EQ(find_obj(&obj_Q, 0, registry_.Path("host/example").c_str()), object);
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/../host//example"), object);
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/other"), nullptr);
  EXPECT_EQ(find_obj(&obj_Q, 0, "example"), nullptr);
  EXPECT_EQ(find_obj(&obj_Q, 0, "/host/example"), nullptr);
  EXPECT_EQ(find_obj(&obj_Q, 0, nullptr), nullptr);
  EXPECT_EQ(find_obj(&obj_Q, 0, ""), nullptr);
}

TEST_F(Objects, TheAgentsQueueHoldsThemInOrderOfCreation) {
  registry_object *made[3] = {Create("host/b"), Create("host/a"), Create("host/c")};
  ASSERT_EQ(delete_obj(&obj_Q, made[1], 0), 0);
  queue_element *cursor = obj_Q.head;
  EXPECT_EQ(peek_Q(&obj_Q, &cursor, Q_NEXT), made[0]);
  EXPECT_EQ(peek_Q(&obj_Q, &cursor, Q_NEXT), made[2]);
  EXPECT_EQ(peek_Q(&obj_Q, &cursor, Q_NEXT), nullptr);
}

TEST_F(Objects, DeletionTakesFileAndValuesAway) {
  registry_object *object = Create();
  ASSERT_EQ(log_data(object), 0);
  ASSERT_TRUE(fs::exists(registry_.Path("host/example")));
  registry_object *unpublished = Create("host/unpublished");
  WriteBytes(registry_.Path("host/unpublished"), {'x'});
  EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
  EXPECT_FALSE(fs::exists(registry_.Path("host/example")));
  EXPECT_TRUE(TheFakeSnmp().served.empty());
  EXPECT_EQ(delete_obj(&obj_Q, object, 0), -1);
  EXPECT_EQ(log_data(object), -1);
  EXPECT_EQ(log_data(nullptr), -1);
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/example"), nullptr);
  EXPECT_EQ(delete_obj(&obj_Q, unpublished, 0), 0);
  EXPECT_TRUE(fs::exists(registry_.Path("host/unpublished"))) << "that file was not ours";
  // The name is free again.
  EXPECT_NE(Create(), nullptr);
}

TEST_F(Objects, DeletionOfAllLeavesNothing) {
  for (int i = 0; i < 50; i++) {
    ASSERT_EQ(log_data(Create("host/example." + std::to_string(i))), 0);
  }
  EXPECT_EQ(delete_obj(&obj_Q, nullptr, 0), 0);
  EXPECT_TRUE(fs::is_empty(registry_.Path("host")));
  EXPECT_TRUE(TheFakeSnmp().served.empty());
  EXPECT_EQ(obj_Q.head, nullptr);
  EXPECT_EQ(delete_obj(&obj_Q, nullptr, 0), 0);
}

TEST_F(Objects, IdentifiersAreNotReused) {
  registry_object *object = Create();
  log_data(object);
  const uint64_t first = Id();
  delete_obj(&obj_Q, object, 0);
  log_data(Create());
  EXPECT_NE(Id(), first);
  SetItem late = Item(0, std::string("\1\0\0\0", 4));
  late.object_id = first;
  EXPECT_EQ(RunSet(SET_CHECK, late), -1);
}

// ---- Snapshots of what others wrote

TEST_F(Objects, SnapshotsEndTheirTexts) {
  ObjectFileWriter writer("stdeq/misc", registry_.root());
  writer.SetLayout({{"full", 2, 2, 4, 0, 4},
                    {"nothing", 2, 2, 0, 8, 0},
                    {"short", 2, 2, 4, 4, 4},
                    {"number", 1, 2, 4, 0, 4},
                    {"octets", 3, 2, 8, 0, 2}},
                   8);
  const uint16_t lengths[] = {4, 0, 4, 4, 2};
  ASSERT_EQ(writer.Publish(reinterpret_cast<const uint8_t *>("abcdx\0yz"), lengths), 0);
  for (const std::string &name : {std::string("stdeq/misc"), std::string("../registry/stdeq/misc"),
                                  registry_.Path("stdeq/misc")}) {
    registry_object *object = get_obj(name.c_str());
    ASSERT_NE(object, nullptr) << name;
    EXPECT_STREQ(static_cast<const char *>(object->desc[0].value), "abc");
    EXPECT_STREQ(static_cast<const char *>(object->desc[1].value), "");
    EXPECT_STREQ(static_cast<const char *>(object->desc[2].value), "x");
    EXPECT_EQ(memcmp(object->desc[3].value, "abcd", 4), 0) << "no other value has changed";
    EXPECT_EQ(memcmp(object->desc[4].value, "abcdx\0yz", 8), 0);
    EXPECT_EQ(object->desc[4].length, 2);
    free(object);
  }
}

TEST_F(Objects, SnapshotsTellWhetherThereIsData) {
  ObjectFileWriter writer("stdeq/nothing.4", registry_.root());
  writer.SetLayout({}, 0);
  ASSERT_EQ(writer.Publish(nullptr, nullptr), 0);
  registry_object *object = get_obj("stdeq/nothing.4");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->data, nullptr);
  EXPECT_EQ(object->var_count, 0);
  EXPECT_EQ(object->instance, 4);
  free(object);
  EXPECT_EQ(get_obj("stdeq/missing"), nullptr);
  EXPECT_EQ(get_obj("/etc/passwd"), nullptr);
  EXPECT_EQ(get_obj("../../../etc/passwd"), nullptr);
  EXPECT_EQ(get_obj(""), nullptr);
  EXPECT_EQ(get_obj(nullptr), nullptr);
}

TEST_F(Objects, SnapshotsOfCutFilesAreAbsentOrWhole) {
  log_data(Create());
  const std::vector<uint8_t> whole = ReadBytes(registry_.Path("host/example"));
  for (size_t length = 0; length < whole.size(); length++) {
    WriteBytes(registry_.Path("stdeq"), {whole.begin(), whole.begin() + static_cast<long>(length)});
    registry_object *object = get_obj("stdeq");
    if (object != nullptr) {
      EXPECT_EQ(object->data_size, static_cast<int>(sizeof(Block)));
      EXPECT_EQ(object->var_count, 6);
    }
    free(object);
  }
}

TEST_F(Objects, ASnapshotThatHasNoRoomIsAbsent) {
  ASSERT_EQ(log_data(Create()), 0);
  {
    const FailingCall fail("calloc", ENOMEM);
    EXPECT_EQ(get_obj("host/example"), nullptr);
    EXPECT_EQ(fail.Failed(), 1);
  }
  registry_object *snapshot = get_obj("host/example");
  EXPECT_NE(snapshot, nullptr);
  free(snapshot);
}

// ---- Sets

// The handler of a row's own removal.
int DeleteIt(uint8_t phase, registry_object *object, descriptor * /*desc*/, const void * /*value*/,
             int /*length*/) {
  return phase == SET_CHECK ? 0 : delete_obj(&obj_Q, object, 0);
}

TEST_F(Objects, AHandlerMayDeleteItsObject) {
  registry_object *object = Create();
  ASSERT_EQ(log_data(object), 0);
  ASSERT_EQ(init_info(2, &object->desc[2], "exampleRole", 9, VAR_DISPLAY_STRING, ACCESS_WRITABLE, 1,
                      Data(object)->role, DeleteIt),
            0);
  const int publications = TheFakeSnmp().publications;
  EXPECT_EQ(Set(2, "gone"), 0);
  EXPECT_TRUE(TheFakeSnmp().served.empty());
  EXPECT_EQ(TheFakeSnmp().publications, publications) << "nothing is served of it any more";
  EXPECT_FALSE(fs::exists(registry_.Path("host/example")));
  EXPECT_FALSE(IsLive(object));
}

TEST_F(Objects, ASetGoesThroughTheHandler) {
  registry_object *object = Create();
  Block *b = Data(object);
  strcpy(b->name, "published");
  log_data(object);
  strcpy(b->name, "not yet");
  const int publications = TheFakeSnmp().publications;
  ASSERT_EQ(Set(2, "web"), 0);
  EXPECT_EQ(handled, "1:2:0:web:3;2:2:0:web:3;");
  EXPECT_EQ(Value("exampleRole"), "<web>") << "what the handler stored";
  EXPECT_EQ(Value("exampleName"), "published") << "and nothing else";
  EXPECT_EQ(TheFakeSnmp().publications, publications + 1);
  EXPECT_EQ(FileText("host/example", offsetof(Block, role)), "") << "the handler publishes or not";
  EXPECT_EQ(FileText("host/example", offsetof(Block, name)), "published");
  ASSERT_EQ(Set(0, std::string("\7\0\0\0", 4)), 0);
  EXPECT_EQ(FileText("host/example", offsetof(Block, role)), "") << "also with another's set";
  EXPECT_EQ(Value("exampleRole"), "<web>") << "a second set keeps the first";
  log_data(object);
  EXPECT_EQ(Value("exampleName"), "not yet");
  EXPECT_EQ(FileText("host/example", offsetof(Block, role)), "<web>");

  handler_result = -1;
  EXPECT_EQ(Set(2, "no"), -1);
  EXPECT_EQ(Value("exampleRole"), "<web>");
}

TEST_F(Objects, ACheckChangesNothing) {
  registry_object *object = Create("host/example", false);
  log_data(object);
  SetItem item = Item(2, "web");
  EXPECT_EQ(RunSet(SET_CHECK, item), 0);
  EXPECT_STREQ(Data(object)->role, "");
  EXPECT_EQ(Value("exampleRole"), "");
}

TEST_F(Objects, AVariableWithoutHandlerIsStored) {
  registry_object *object = Create("host/example", false);
  Block *b = Data(object);
  strcpy(b->role, "12345678");
  log_data(object);
  strcpy(b->name, "not yet");
  ASSERT_EQ(Set(2, "web"), 0);
  EXPECT_EQ(memcmp(b->role, "web\0\0\0\0\0", 9), 0) << "the rest of the field is zeroed";
  EXPECT_EQ(Value("exampleRole"), "web");
  EXPECT_EQ(FileText("host/example", offsetof(Block, role)), "web") << "siblings read it, too";
  EXPECT_EQ(FileText("host/example", offsetof(Block, name)), "") << "and nothing else";
  ASSERT_EQ(Set(2, "12345678"), 0);
  EXPECT_EQ(Set(2, "123456789"), -1) << "no room for the NUL";
  EXPECT_EQ(Value("exampleRole"), "12345678");
  ASSERT_EQ(Set(2, ""), 0);
  EXPECT_EQ(Value("exampleRole"), "");

  ASSERT_EQ(Set(3, "abc"), 0);
  EXPECT_EQ(object->desc[3].length, 3);
  EXPECT_EQ(Value("exampleDate"), "abc");
  ASSERT_TRUE(ReadObjectFile("host/example", registry_.root()));
  EXPECT_EQ(ReadObjectFile("host/example", registry_.root())->variables[3].length, 3);
  ASSERT_EQ(Set(3, "abcdefg"), 0);
  EXPECT_EQ(Value("exampleDate"), "abcdefg");
  EXPECT_EQ(Set(3, "abcdefgh"), -1);

  ASSERT_EQ(Set(0, std::string("\1\2\3\4", 4)), 0);
  EXPECT_EQ(b->count, 0x04030201);
  EXPECT_EQ(Set(0, "ab"), -1);
  log_data(object);
  EXPECT_EQ(Value("exampleDate"), "abcdefg");
}

TEST_F(Objects, AVariableWithoutHandlerIsNotStoredForASetThatIsNotWanted) {
  registry_object *object = Create("host/example", false);
  log_data(object);
  ASSERT_EQ(Set(2, "web"), 0);
  EXPECT_NE(set_wanted(1), 0);
  TheFakeSnmp().wanted = false;
  EXPECT_EQ(set_wanted(1), 0);
  EXPECT_EQ(Set(2, "late"), -1);
  TheFakeSnmp().wanted = true;
  EXPECT_STREQ(Data(object)->role, "web");
  EXPECT_EQ(Value("exampleRole"), "web");
}

TEST_F(Objects, SetsAreRefusedWhereThereIsNothingToSet) {
  registry_object *object = Create("host/example", false);
  log_data(object);
  EXPECT_EQ(Set(1, "read-only"), -1);
  EXPECT_EQ(Set(6, "x"), -1);
  EXPECT_EQ(Set(INT_MAX, "x"), -1);
  EXPECT_EQ(Set(-1, "x"), -1);
  SetItem item = Item(2, "x");
  for (const int length : {100, -1}) {
    item.length = length;
    EXPECT_EQ(RunSet(SET_CHECK, item), -1);
  }
  delete_obj(&obj_Q, object, 0);
  object = create_obj(&obj_Q, 0, registry_.Path("host/gap").c_str(), 0, 8, 2);
  ASSERT_EQ(init_info(1, &object->desc[1], "exampleCount", 4, VAR_INTEGER, ACCESS_WRITABLE, 1,
                      object->data, nullptr),
            0);
  log_data(object);
  EXPECT_EQ(Set(0, std::string("\1\0\0\0", 4)), -1) << "a slot that was never defined";
  EXPECT_EQ(Set(1, std::string("\1\0\0\0", 4)), 0);
  delete_obj(&obj_Q, object, 0);
  object = Create("host/other", false);
  item = SetItem();
  item.slot = 2;
  item.value = {'x', 0};
  item.length = 1;
  for (uint64_t id = 0; id < 200; id++) {
    item.object_id = id;
    EXPECT_EQ(RunSet(SET_APPLY, item), -1) << "nothing is published";
  }
  EXPECT_STREQ(Data(object)->role, "");
}

// ---- Files that cannot be written

TEST_F(Objects, AreServedWhenTheirFilesCannotBeWritten) {
  SetLogName("exampled");
  Captured log;
  registry_object *first = Create("host/first");
  log_data(first);
  registry_object *second = Create("host/second");
  {
    FullDisk full;
    strcpy(Data(first)->name, "one");
    strcpy(Data(second)->name, "two");
    for (int poll = 0; poll < 3; poll++) {
      EXPECT_EQ(log_data(first), 0);
      EXPECT_EQ(log_data(second), 0);
      RetryFiles();
    }
    EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.Path("host/first") +
                              ": File too large (values are served; trying again)\n");
    EXPECT_EQ(TheFakeSnmp().served.size(), 2u);
    EXPECT_EQ(FileText("host/first", offsetof(Block, name)), "");
    EXPECT_EQ(FileText("host/second", offsetof(Block, name)), "?");
    // What was published is written, not what the block holds meanwhile.
    strcpy(Data(first)->name, "unpublished");
    // An object that goes away needs no file.
    registry_object *gone = Create("host/gone");
    EXPECT_EQ(log_data(gone), 0);
    delete_obj(&obj_Q, gone, 0);
  }
  RetryFiles();
  EXPECT_EQ(log.Text(), "exampled: Registry files are written again\n");
  EXPECT_EQ(FileText("host/first", offsetof(Block, name)), "one");
  EXPECT_EQ(FileText("host/second", offsetof(Block, name)), "two");
  EXPECT_FALSE(fs::exists(registry_.Path("host/gone")));
  RetryFiles();
  EXPECT_EQ(log.Text(), "");
}

// What a directory is that stands in the way is told; what cannot be looked at is left alone.
TEST_F(Objects, FilesWhoseDirectoryIsNoneAreWrittenWhenItIsOneAgain) {
  SetLogName("exampled");
  registry_object *object = Create("host/sub/a");
  strcpy(Data(object)->name, "published");
  log_data(object);
  RetryFiles();
  const std::function<void()> kBecomes[] = {
      [&] { WriteBytes(registry_.Path("host"), {'x'}); },
      [&] { fs::create_directory_symlink("moved", registry_.Path("host")); },
  };
  for (const auto &becomes : kBecomes) {
    Captured log;
    fs::rename(registry_.Path("host"), registry_.Path("moved"));
    becomes();
    RetryFiles();
    RetryFiles();
    const int error = fs::is_symlink(registry_.Path("host")) ? ELOOP : ENOTDIR;
    EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.Path("host/sub/a") +
                              ": " + strerror(error) + " (values are served; trying again)\n");
    fs::remove(registry_.Path("host"));
    RetryFiles();
    EXPECT_EQ(log.Text(), "exampled: Registry files are written again\n");
    EXPECT_EQ(FileText("host/sub/a", offsetof(Block, name)), "published");
    fs::remove_all(registry_.Path("moved"));
  }
  Captured log;
  const auto before = fs::last_write_time(registry_.Path("host/sub/a"));
  {
    FailingCall fail("syscall", EMFILE);
    fail.On("host/sub");
    RetryFiles();
    EXPECT_EQ(fail.Failed(), 1);
  }
  RetryFiles();
  EXPECT_EQ(fs::last_write_time(registry_.Path("host/sub/a")), before);
  EXPECT_EQ(log.Text(), "");
}

// Of the directory that is held there is only to say that it is gone.
TEST_F(Objects, WhatStandsInTheRootsPlaceIsTold) {
  SetLogName("exampled");
  Captured log;
  registry_object *object = Create("host/a");
  log_data(object);
  const auto told = [&](int error) {
    return "exampled: Can't write registry file " + registry_.Path("host/a") + ": " +
           strerror(error) + " (values are served; trying again)\n";
  };
  fs::remove_all(registry_.root());
  log_data(object);
  EXPECT_EQ(log.Text(), told(ENOENT));
  RetryFiles();
  log.Text();
  fs::remove_all(registry_.root());
  WriteBytes(registry_.root(), {'x'});
  log_data(object);
  EXPECT_EQ(log.Text(), told(ENOTDIR));
  fs::remove(registry_.root());
}

// A root that could not be had before has not been moved.
TEST_F(Objects, ARootThatComesLaterIsNotSaidToHaveMoved) {
  SetLogName("exampled");
  Captured log;
  fs::remove_all(registry_.root());
  WriteBytes(registry_.root(), {'x'});
  registry_object *object = Create("host/a");
  strcpy(Data(object)->name, "published");
  EXPECT_EQ(log_data(object), 0);
  EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.Path("host/a") +
                            ": Not a directory (values are served; trying again)\n");
  fs::remove(registry_.root());
  RetryFiles();
  EXPECT_EQ(log.Text(), "exampled: Registry files are written again\n");
  EXPECT_EQ(FileText("host/a", offsetof(Block, name)), "published");
}

TEST_F(Objects, FilesOfDeletedObjectsAreRemovedLater) {
  SetLogName("exampled");
  Captured log;
  registry_object *objects[] = {Create("host/a"), Create("host/b"), Create("host/c")};
  for (registry_object *object : objects) {
    log_data(object);
  }
  const auto files = [&] {
    return std::distance(fs::directory_iterator(registry_.Path("host")), {});
  };
  {
    const FailingCall fail("unlinkat", EROFS, 1, FailingCall::kAll);
    EXPECT_EQ(delete_obj(&obj_Q, objects[0], 0), 0);
    EXPECT_EQ(delete_obj(&obj_Q, objects[1], 0), 0);
    RetryFiles();
    EXPECT_EQ(TheFakeSnmp().served.size(), 1U);
    EXPECT_EQ(files(), 3);
    EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.Path("host/a") +
                              ": Read-only file system (values are served; trying again)\n");
  }
  {
    const FailingCall fail("unlinkat", EROFS);
    RetryFiles();
    EXPECT_EQ(files(), 2) << "one of them goes";
    EXPECT_EQ(log.Text(), "");
  }
  RetryFiles();
  EXPECT_EQ(files(), 1);
  EXPECT_TRUE(fs::exists(registry_.Path("host/c")));
  EXPECT_EQ(log.Text(), "exampled: Registry files are written again\n");
}

TEST_F(Objects, NothingIsSaidToBeWrittenAgainAtTheEnd) {
  SetLogName("exampled");
  Captured log;
  registry_object *first = Create("host/first");
  log_data(first);
  {
    FullDisk full;
    strcpy(Data(first)->name, "one");
    log_data(first);
    log.Text();
    delete_obj(&obj_Q, nullptr, 0);
    RetryFiles();
  }
  EXPECT_EQ(log.Text(), "");
}

TEST_F(Objects, DeletionLeavesWhatSomebodyElsePutThere) {
  SetLogName("exampled");
  registry_object *object = Create("host/first");
  log_data(object);
  fs::remove(registry_.Path("host/first"));
  fs::create_directories(registry_.Path("host/first"));
  Captured log;
  EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
  RetryFiles();
  EXPECT_TRUE(fs::exists(registry_.Path("host/first")));
  EXPECT_EQ(log.Text(), "");
}

// ---- Allocations that fail
// Every one in turn fails once, while something is done; afterwards all is as if none had.

TEST_F(Objects, NoFailedAllocationLosesAPublication) {
  SetLogName("exampled");
  Captured log;
  size_t failures = 0;
  for (int n = 1;; n++) {
    const std::string name = "host/example." + std::to_string(n);
    registry_object *object = Create(name);
    ASSERT_NE(object, nullptr);
    strcpy(Data(object)->name, "first");
    const bool failed = FailAllocation(n, [&] { EXPECT_EQ(log_data(object), 0); });
    RetryFiles();
    EXPECT_EQ(Value("exampleName"), "first") << n;
    EXPECT_EQ(FileText(name, offsetof(Block, name)), "first") << n;
    // A set in between is kept.
    strcpy(Data(object)->name, "second");
    FailAllocation(n, [&] { log_data(object); });
    Set(3, "abc");
    FailAllocation(n, [] { RetryFiles(); });
    RetryFiles();
    EXPECT_EQ(Value("exampleName"), "second") << n;
    EXPECT_EQ(Value("exampleDate"), "abc") << n;
    EXPECT_EQ(FileText(name, offsetof(Block, name)), "second") << n;
    FailAllocation(n, [&] { EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0); });
    RetryFiles();
    EXPECT_TRUE(TheFakeSnmp().served.empty()) << n;
    EXPECT_FALSE(fs::exists(registry_.Path(name))) << n;
    failures += failed ? 1 : 0;
    if (!failed) {
      break;
    }
  }
  EXPECT_GT(failures, 3U);
  const std::string told = log.Text();
  EXPECT_NE(told.find("exampled: Can't publish " + registry_.Path("host/example.1") +
                      ": Cannot allocate memory (trying again after the poll)\n"),
            std::string::npos)
      << told;
  EXPECT_NE(told.find("exampled: All objects are published again\n"), std::string::npos) << told;
}

// Memory and disk are short at a time: nothing is lost, and both are told, and that they are over.
TEST_F(Objects, WithoutMemoryAndDiskAllIsPublishedLater) {
  SetLogName("exampled");
  Captured log;
  registry_object *first = Create("host/a");
  registry_object *second = Create("host/b");
  log_data(second);
  strcpy(Data(first)->name, "one");
  const auto without_memory = [](auto &&does) {
    allocations_left = 1;
    does();
    allocations_left = 0;
  };
  {
    FullDisk full;
    log_data(first);
    EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.Path("host/a") +
                              ": File too large (values are served; trying again)\n");
    strcpy(Data(first)->name, "two");
    without_memory([&] { log_data(first); });
    EXPECT_EQ(log.Text(), "exampled: Can't publish " + registry_.Path("host/a") +
                              ": Cannot allocate memory (trying again after the poll)\n");
    // The first allocation is the image of the one that waits.
    without_memory([] { RetryFiles(); });
    EXPECT_EQ(log.Text(), "") << "it goes on";
    EXPECT_EQ(TheFakeSnmp().served.size(), 2U);
  }
  // A publication that succeeds ends what is told of memory, if it was the last one.
  EXPECT_EQ(log_data(first), 0);
  EXPECT_EQ(FileText("host/a", offsetof(Block, name)), "two");
  const std::string told = log.Text();
  EXPECT_NE(told.find("exampled: All objects are published again\n"), std::string::npos) << told;
  EXPECT_NE(told.find("exampled: Registry files are written again\n"), std::string::npos) << told;
}

TEST_F(Objects, NoFailedAllocationLeavesHalfAnObject) {
  for (int n = 1;; n++) {
    registry_object *object = nullptr;
    const std::string path = registry_.Path("host/example");
    const bool failed = FailAllocation(
        n, [&] { object = create_obj(&obj_Q, get_id(), path.c_str(), 1, sizeof(Block), 6); });
    EXPECT_EQ(object == nullptr, failed) << n;
    if (object == nullptr) {
      EXPECT_EQ(find_obj(&obj_Q, 0, "host/example"), nullptr);
      object = Create();
      ASSERT_NE(object, nullptr) << "the name is free";
    }
    EXPECT_EQ(log_data(object), 0);
    EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
    if (!failed) {
      break;
    }
  }
}

TEST_F(Objects, DefiningAVariableOfTheMibTakesNoMemory) {
  registry_object *object =
      create_obj(&obj_Q, get_id(), registry_.Path("host/example").c_str(), 1, 40, 2);
  ASSERT_NE(object, nullptr);
  EXPECT_FALSE(FailAllocation(1, [&] {
    EXPECT_EQ(init_info(0, &object->desc[0], "exampleCount", 4, VAR_INTEGER, ACCESS_WRITABLE, 1,
                        object->data, nullptr),
              0);
  }));
  EXPECT_TRUE(FailAllocation(1, [&] {
    EXPECT_EQ(init_info(1, &object->desc[1], "a name that no module has, and too long to be short",
                        4, VAR_INTEGER, ACCESS_WRITABLE, 1, object->data + 4, nullptr),
              -1);
  }));
  EXPECT_EQ(object->desc[1].type, 0);
}

TEST_F(Objects, ASetThatWasAppliedIsPublishedWhateverFails) {
  SetLogName("exampled");
  Captured log;
  for (const bool handler : {false, true}) {
    registry_object *object = Create("host/example", handler);
    ASSERT_EQ(log_data(object), 0);
    for (int n = 1;; n++) {
      const std::string text = "v" + std::to_string(n);
      const std::string stored = handler ? "<" + text + ">" : text;
      SetItem item = Item(2, text);
      int result = -1;
      const bool failed = FailAllocation(n, [&] { result = RunSet(SET_APPLY, item); });
      RetryFiles();
      const bool applied = stored == Data(object)->role;
      EXPECT_EQ(applied, result == 0) << n << " " << log.Text();
      EXPECT_EQ(Value("exampleRole"), Data(object)->role) << n;
      EXPECT_EQ(FileText("host/example", offsetof(Block, role)),
                handler ? "" : std::string(Data(object)->role))
          << n;
      if (!failed) {
        EXPECT_TRUE(applied);
        break;
      }
    }
    delete_obj(&obj_Q, object, 0);
  }
}

TEST_F(Objects, WhatTheSnmpSideHasNoMemoryForIsHandedToItLater) {
  SetLogName("exampled");
  for (const bool handler : {false, true}) {
    const std::string name = handler ? "host/handled" : "host/plain";
    registry_object *object = Create(name, handler);
    ASSERT_EQ(log_data(object), 0);
    Captured log;
    SetItem item = Item(2, "web");
    TheFakeSnmp().publish_fails = 2;
    EXPECT_EQ(RunSet(SET_APPLY, item), 0) << "it is applied";
    EXPECT_EQ(Value("exampleRole"), "");
    RetryFiles();
    EXPECT_EQ(Value("exampleRole"), "");
    EXPECT_EQ(log.Text(), "exampled: Can't publish " + registry_.Path(name) +
                              ": Cannot allocate memory (trying again after the poll)\n");
    RetryFiles();
    EXPECT_EQ(Value("exampleRole"), handler ? "<web>" : "web");
    EXPECT_EQ(log.Text(), "exampled: All objects are published again\n");
    delete_obj(&obj_Q, object, 0);
  }
}

// ---- Files and directories that are lost

TEST_F(Objects, LostFilesAreWrittenAgainWithWhatWasPublished) {
  SetLogName("exampled");
  Captured log;
  registry_object *objects[] = {Create("host/a"), Create("host/b"), Create("host/sub/c")};
  for (registry_object *object : objects) {
    strcpy(Data(object)->name, "published");
    log_data(object);
    strcpy(Data(object)->name, "not published");
  }
  Create("host/unpublished");
  const auto all_are_there = [&] {
    for (const char *name : {"host/a", "host/b", "host/sub/c"}) {
      EXPECT_EQ(FileText(name, offsetof(Block, name)), "published") << name;
      EXPECT_EQ(fs::status(registry_.Path(name)).permissions(), fs::perms(0644)) << name;
    }
    EXPECT_FALSE(fs::exists(registry_.Path("host/unpublished")));
    EXPECT_EQ(fs::status(registry_.root()).permissions(), fs::perms(0755));
    EXPECT_EQ(fs::status(registry_.Path("host")).permissions(), fs::perms(0755));
  };
  RetryFiles();
  EXPECT_EQ(log.Text(), "");
  fs::remove(registry_.Path("host/a"));
  WriteBytes(registry_.Path("host/b"), {'x'});
  RetryFiles();
  all_are_there();
  EXPECT_EQ(log.Text(),
            "exampled: Registry files that were missing or damaged are written again: 2, " +
                registry_.Path("host/a") + " first\n");
  // Once, while it goes on.
  fs::remove(registry_.Path("host/a"));
  RetryFiles();
  EXPECT_EQ(log.Text(), "");
  RetryFiles();
  fs::remove_all(registry_.Path("host"));
  RetryFiles();
  all_are_there();
  EXPECT_EQ(log.Text(),
            "exampled: Registry files that were missing or damaged are written again: 3, " +
                registry_.Path("host/a") + " first\n");
}

// What a look at a file's times does not show is found when its turn comes.
TEST_F(Objects, ContentsAreComparedInTurn) {
  for (int i = 0; i < 40; i++) {
    ASSERT_EQ(log_data(Create("host/row." + std::to_string(i))), 0);
  }
  const auto compared = [] {
    const FailingCall count(
        "read", [] {}, 1, FailingCall::kAll);
    RetryFiles();
    return count.Failed();
  };
  EXPECT_EQ(compared(), 40) << "after a publication all";
  EXPECT_EQ(compared(), 8);
  EXPECT_EQ(compared(), 32);
  EXPECT_EQ(compared(), 8);
}

TEST_F(Objects, TheRootIsFoundAgain) {
  SetLogName("exampled");
  Captured log;
  registry_object *object = Create("host/a");
  strcpy(Data(object)->name, "published");
  log_data(object);
  RetryFiles();
  const std::string told =
      "exampled: The registry was moved, removed or covered: its files are "
      "written anew to " +
      registry_.root() + "\n";
  // Moved away.
  fs::rename(registry_.root(), registry_.base() + "/moved");
  log_data(object);
  EXPECT_FALSE(fs::exists(registry_.root()));
  RetryFiles();
  EXPECT_EQ(FileText("host/a", offsetof(Block, name)), "published");
  EXPECT_EQ(log.Text(), told);
  // Another directory in its place.
  fs::rename(registry_.root(), registry_.base() + "/moved again");
  fs::create_directories(registry_.root());
  RetryFiles();
  EXPECT_EQ(FileText("host/a", offsetof(Block, name)), "published");
  EXPECT_EQ(log.Text(), told);
  // Removed, with what is above it.
  fs::remove_all(registry_.base() + "/spool");
  RetryFiles();
  EXPECT_EQ(FileText("host/a", offsetof(Block, name)), "published");
  EXPECT_EQ(log.Text(), told);
  fs::permissions(registry_.root(), fs::perms(0700));
  RetryFiles();
  EXPECT_EQ(fs::status(registry_.root()).permissions(), fs::perms(0755));
  // Nothing that can be used: told once, and made good when it is over.
  fs::rename(registry_.root(), registry_.base() + "/third");
  WriteBytes(registry_.root(), {'x'});
  RetryFiles();
  RetryFiles();
  EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.root() +
                            ": Not a directory (values are served; trying again)\n");
  fs::remove(registry_.root());
  RetryFiles();
  EXPECT_EQ(FileText("host/a", offsetof(Block, name)), "published");
  EXPECT_EQ(log.Text(), told + "exampled: Registry files are written again\n");
  // Without objects nothing is made.
  delete_obj(&obj_Q, nullptr, 0);
  fs::remove_all(registry_.root());
  RetryFiles();
  EXPECT_FALSE(fs::exists(registry_.root()));
}

// ---- Directories

TEST_F(Objects, DirectoriesAreMadeBelowTheRoot) {
  EXPECT_EQ(create_dir(registry_.Path("a/b/c").c_str(), 1), 0);
  EXPECT_TRUE(fs::is_directory(registry_.Path("a/b/c")));
  EXPECT_EQ(create_dir(registry_.Path("a/b/c").c_str(), 1), 0) << "it exists";
  EXPECT_EQ(create_dir(registry_.Path("x/y").c_str(), 0), -1);
  EXPECT_EQ(create_dir(registry_.Path("x").c_str(), 0), 0);
  EXPECT_EQ(create_dir((registry_.base() + "/outside").c_str(), 1), -1);
  EXPECT_FALSE(fs::exists(registry_.base() + "/outside"));
  WriteBytes(registry_.Path("file"), {'x'});
  EXPECT_EQ(create_dir(registry_.Path("file").c_str(), 1), -1);
  EXPECT_EQ(create_dir(registry_.Path("file/below").c_str(), 1), -1);
  EXPECT_EQ(create_dir(nullptr, 1), -1);
  fs::remove_all(registry_.base() + "/spool");
  EXPECT_EQ(create_dir(registry_.Path("host").c_str(), 0), -1);
  EXPECT_FALSE(fs::exists(registry_.root())) << "that would be its parent";
  EXPECT_EQ(create_dir(registry_.root().c_str(), 0), 0);
  EXPECT_TRUE(fs::is_directory(registry_.root()));
  EXPECT_EQ(create_dir(registry_.root().c_str(), 0), 0);
  fs::remove_all(registry_.base() + "/spool");
  EXPECT_EQ(create_dir(registry_.Path("host").c_str(), 1), 0);
  EXPECT_TRUE(fs::is_directory(registry_.Path("host")));
  EXPECT_EQ(create_dir(registry_.root().c_str(), 1), 0);
}

TEST_F(Objects, RemovalStaysBelowTheRootAndFollowsNoLink) {
  fs::create_directories(registry_.base() + "/outside/deep");
  WriteBytes(registry_.base() + "/outside/file", {'x'});
  fs::create_directories(registry_.Path("host/sub/deep"));
  WriteBytes(registry_.Path("host/.hidden.12"), {'x'});
  WriteBytes(registry_.Path("host/sub/deep/file"), {'x'});
  fs::create_directory_symlink(registry_.base() + "/outside", registry_.Path("host/link"));
  fs::create_directory_symlink(registry_.base() + "/outside", registry_.Path("alias"));
  WriteBytes(registry_.Path("keep"), {'x'});
  EXPECT_EQ(remove_all_dir(registry_.Path("host/*").c_str()), 0);
  EXPECT_TRUE(fs::is_empty(registry_.Path("host")));
  EXPECT_EQ(remove_all_dir(registry_.Path("host").c_str()), 0);
  EXPECT_FALSE(fs::exists(registry_.Path("host")));
  EXPECT_EQ(remove_all_dir(registry_.Path("host").c_str()), 0) << "nothing there";
  EXPECT_EQ(remove_all_dir(registry_.Path("host/*").c_str()), 0);
  EXPECT_NE(remove_all_dir(registry_.Path("alias/*").c_str()), 0);
  EXPECT_NE(remove_all_dir(registry_.Path("alias/deep").c_str()), 0);
  EXPECT_NE(remove_all_dir((registry_.base() + "/outside").c_str()), 0);
  EXPECT_NE(remove_all_dir((registry_.base() + "/outside/*").c_str()), 0);
  EXPECT_NE(remove_all_dir((registry_.Path("../../outside")).c_str()), 0);
  EXPECT_NE(remove_all_dir("/*"), 0);
  EXPECT_NE(remove_all_dir(nullptr), 0);
  EXPECT_EQ(remove_all_dir(registry_.Path("alias").c_str()), 0) << "the link itself";
  EXPECT_TRUE(fs::exists(registry_.base() + "/outside/file"));
  EXPECT_TRUE(fs::exists(registry_.base() + "/outside/deep"));
  EXPECT_TRUE(fs::exists(registry_.Path("keep")));
  EXPECT_EQ(remove_all_dir(registry_.Path("keep").c_str()), 0) << "a file";
  EXPECT_FALSE(fs::exists(registry_.Path("keep")));
  WriteBytes(registry_.Path("keep"), {'x'});
  EXPECT_EQ(remove_all_dir(registry_.Path("*").c_str()), 0);
  EXPECT_TRUE(fs::is_empty(registry_.root()));
}

TEST_F(Objects, TheRootIsRemovedWithAllThatIsInIt) {
  const auto remove = [&](const std::string &path) {
    errno = 0;
    return remove_all_dir(path.c_str()) == 0 ? 0 : errno;
  };
  WriteBytes(registry_.Path("host/file"), {'x'});
  EXPECT_EQ(remove(registry_.root()), 0);
  EXPECT_FALSE(fs::exists(registry_.root()));
  fs::create_directories(registry_.Path("host"));
  {
    // A mount of its own.
    FailingCall fail("unlinkat", EBUSY);
    fail.On("registry");
    EXPECT_EQ(remove(registry_.root()), EBUSY);
    EXPECT_TRUE(fs::is_empty(registry_.root()));
  }
  fs::create_directories(registry_.Path("host"));
  for (const char *name : {"host", "host/*", "", "*"}) {
    FailingCall fail("openat", EMFILE);
    EXPECT_EQ(remove(registry_.Path(name)), EMFILE) << name;
    EXPECT_TRUE(fs::exists(registry_.Path("host"))) << name;
  }
  EXPECT_EQ(remove(registry_.Path("missing/below")), 0);
  WriteBytes(registry_.Path("host/file"), {'x'});
  EXPECT_EQ(remove(registry_.Path("host/file/below")), ENOTDIR);
  {
    FailingCall fail("unlinkat", EACCES);
    fail.On("file");
    EXPECT_EQ(remove(registry_.Path("host/*")), EACCES);
  }
  EXPECT_EQ(remove(registry_.root()), 0);
  for (const char *name : {"host", "host/*", "", "*"}) {
    EXPECT_EQ(remove(registry_.Path(name)), 0) << "there is none";
  }
  WriteBytes(registry_.root(), {'x'});
  EXPECT_EQ(remove(registry_.Path("host")), ENOTDIR);
  fs::remove(registry_.root());
  for (const std::string &path : {registry_.root(), registry_.Path("host")}) {
    EXPECT_EQ(remove_empty_dir(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(is_empty_dir(path.c_str()), 0);
    EXPECT_LT(open_dir(path.c_str()), 0);
  }
  fs::remove(registry_.base() + "/spool");
  EXPECT_EQ(remove_empty_dir(registry_.root().c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(fs::exists(registry_.base() + "/spool"));
}

TEST_F(Objects, NoDepthKeepsADirectoryFromBeingRemoved) {
  const auto nest = [&](const std::string &from, int levels) {
    Descriptor at(open(registry_.Path(from).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int level = 0; level < levels; level++) {
      ASSERT_EQ(mkdirat(at.get(), "level", 0755), 0);
      at.Reset(openat(at.get(), "level", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      ASSERT_TRUE(at);
      Descriptor file(openat(at.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      ASSERT_TRUE(file);
    }
  };
  rlimit old;
  getrlimit(RLIMIT_NOFILE, &old);
  rlimit few = old;
  few.rlim_cur = 100;
  for (const int levels : {90, 500}) {
    nest("host", levels);
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_EQ(remove_all_dir(registry_.Path("host/*").c_str()), 0) << strerror(errno);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_TRUE(fs::is_empty(registry_.Path("host"))) << levels;
    nest("host", levels);
    EXPECT_EQ(remove_all_dir(registry_.Path("host").c_str()), 0);
    EXPECT_FALSE(fs::exists(registry_.Path("host")));
    fs::create_directory(registry_.Path("host"));
  }
}

TEST_F(Objects, EmptyDirectoriesAreTold) {
  EXPECT_NE(is_empty_dir(registry_.Path("host").c_str()), 0);
  WriteBytes(registry_.Path("host/.x"), {'x'});
  EXPECT_EQ(is_empty_dir(registry_.Path("host").c_str()), 0);
  EXPECT_EQ(is_empty_dir(registry_.Path("host/.x").c_str()), 0);
  EXPECT_EQ(is_empty_dir(registry_.Path("missing").c_str()), 0);
  EXPECT_EQ(is_empty_dir(""), 0);
  EXPECT_EQ(is_empty_dir(nullptr), 0);
}

TEST_F(Objects, EmptyDirectoriesAreRemovedByDescriptor) {
  const std::string outside = registry_.base() + "/outside";
  fs::create_directories(outside + "/deep");
  fs::create_directories(registry_.Path("a/b"));
  fs::create_directory_symlink(outside, registry_.Path("alias"));
  EXPECT_NE(remove_empty_dir(registry_.Path("a").c_str()), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(remove_empty_dir(registry_.Path("a/b").c_str()), 0);
  EXPECT_EQ(remove_empty_dir(registry_.Path("a").c_str()), 0);
  EXPECT_FALSE(fs::exists(registry_.Path("a")));
  for (const std::string &path :
       {registry_.Path("alias"), registry_.Path("alias/deep"), outside + "/deep",
        registry_.Path("../outside/deep"), registry_.Path("missing"), std::string()}) {
    EXPECT_NE(remove_empty_dir(path.c_str()), 0) << path;
    EXPECT_EQ(is_empty_dir(path.c_str()), 0) << path;
    EXPECT_LT(open_dir(path.c_str()), 0) << path;
  }
  EXPECT_NE(remove_empty_dir(nullptr), 0);
  EXPECT_LT(open_dir(nullptr), 0);
  EXPECT_TRUE(fs::exists(outside + "/deep"));
  EXPECT_NE(remove_empty_dir(registry_.root().c_str()), 0);
  EXPECT_EQ(remove_all_dir(registry_.Path("*").c_str()), 0);
  EXPECT_EQ(remove_empty_dir(registry_.root().c_str()), 0);
  EXPECT_FALSE(fs::exists(registry_.root()));
}

TEST_F(Objects, DirectoriesAreOpenedForReading) {
  fs::create_directories(registry_.Path("host"));
  fs::create_directories(registry_.Path("threshold"));
  const int descriptor = open_dir(registry_.Path("host/../threshold").c_str());
  ASSERT_GE(descriptor, 0);
  struct stat opened = {};
  struct stat named = {};
  ASSERT_EQ(fstat(descriptor, &opened), 0);
  ASSERT_EQ(stat(registry_.Path("threshold").c_str(), &named), 0);
  EXPECT_EQ(opened.st_ino, named.st_ino);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fsync(descriptor), 0);
  close(descriptor);
}

// ---- Traps

TEST_F(Objects, TrapsCarryTheValuesOfTheMoment) {
  TheFakeSnmp().notifications.clear();
  registry_object *object = Create("host/example.5");
  Block *b = Data(object);
  strcpy(b->name, "before");
  b->count = 3;
  object->desc[3].length = 2;
  const int slots[] = {3, 1, 0};
  ASSERT_EQ(send_trap(object, slots, 3, "text", 11003), 0);
  strcpy(b->name, "after");
  ASSERT_EQ(TheFakeSnmp().notifications.size(), 1u);
  const Notification &n = TheFakeSnmp().notifications[0];
  EXPECT_EQ(n.number, 11003u);
  EXPECT_EQ(n.description, "text");
  ASSERT_EQ(n.variables.size(), 3u);
  EXPECT_STREQ(n.variables[0].mib->name, "exampleDate");
  EXPECT_EQ(n.variables[0].value.size(), 2u);
  EXPECT_EQ(std::string(n.variables[1].value.begin(), n.variables[1].value.end()), "before");
  EXPECT_EQ(n.variables[1].instance, 0u) << "a scalar";
  EXPECT_EQ(n.variables[2].value.size(), 4u);

  registry_object *row = create_obj(&obj_Q, 0, registry_.Path("host/row.9").c_str(), 0, 8, 2);
  init_info(0, &row->desc[0], "rowLabel", 8, VAR_DISPLAY_STRING, ACCESS_READ_ONLY, 1, row->data,
            nullptr);
  memcpy(row->data, "12345678", 8);  // no NUL
  const int label[] = {0};
  ASSERT_EQ(send_trap(row, label, 1, nullptr, 1), 0);
  EXPECT_EQ(TheFakeSnmp().notifications[1].variables[0].instance, 9u);
  EXPECT_EQ(TheFakeSnmp().notifications[1].variables[0].value.size(), 8u);
  EXPECT_EQ(TheFakeSnmp().notifications[1].description, "");
  EXPECT_EQ(send_trap(nullptr, nullptr, 0, "no variables", 2), 0);
  EXPECT_EQ(TheFakeSnmp().notifications.size(), 3u);
}

TEST_F(Objects, TrapsWithWrongArgumentsAreRefused) {
  TheFakeSnmp().notifications.clear();
  registry_object *object = Create();
  const int unknown[] = {4};
  const int outside[] = {6};
  const int negative[] = {-1};
  const int good[] = {0};
  EXPECT_EQ(send_trap(object, unknown, 1, "", 1), -1);
  EXPECT_EQ(send_trap(object, outside, 1, "", 1), -1);
  EXPECT_EQ(send_trap(object, negative, 1, "", 1), -1);
  EXPECT_EQ(send_trap(object, nullptr, 1, "", 1), -1);
  EXPECT_EQ(send_trap(object, good, -1, "", 1), -1);
  EXPECT_EQ(send_trap(object, good, 1, "", -1), -1);
  registry_object stray = *object;
  EXPECT_EQ(send_trap(&stray, good, 1, "", 1), -1);
  EXPECT_EQ(cfg_trap_state(-1), 0);
  EXPECT_EQ(send_trap(object, good, 1, "", 1), -1);
  EXPECT_NE(cfg_trap_state(9999), 0);
  EXPECT_EQ(send_trap(object, good, 1, "", 1), -1) << "a refused value changes nothing";
  EXPECT_EQ(cfg_trap_state(0), 0);
  EXPECT_TRUE(TheFakeSnmp().notifications.empty());
  EXPECT_EQ(send_trap(object, good, 1, "", 1), 0);
}

}  // namespace
}  // namespace vex
