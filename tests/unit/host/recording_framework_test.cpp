// The recording framework itself: what the other tests of this folder rely on.
#include "tests/support/recording_framework.h"

#include <glob.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

namespace {

constexpr char kDir[] = REGISTRY_ROOT "/host";

int Accept(uint8_t phase, registry_object *, descriptor *desc, const void *value, int length) {
  if (phase != SET_CHECK) {
    memcpy(desc->value, value, static_cast<size_t>(length));
  }
  return 0;
}

registry_object *MakeObject(const std::string &name) {
  registry_object *object =
      create_obj(&obj_Q, get_id(), (std::string(kDir) + "/" + name).c_str(), 1, 20, 2);
  if (object != nullptr) {
    init_info(0, &object->desc[0], "number", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, object->data,
              nullptr);
    init_info(1, &object->desc[1], "text", 16, VAR_DISPLAY_STRING, ACCESS_WRITABLE, 1,
              object->data + 4, Accept);
  }
  return object;
}

TEST(RecordingFramework, KeepsWhatWasPublished) {
  registry_object *object = MakeObject("row.12");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->instance, 12);
  EXPECT_EQ(rec::Publications("host/row.12"), 0);
  object->data[0] = 7;
  EXPECT_EQ(log_data(object), 0);
  object->data[0] = 8;
  EXPECT_EQ(rec::Int("host/row.12", "number"), 7);
  EXPECT_EQ(rec::Set("host/row.12", "text", "abc"), 0);
  EXPECT_EQ(rec::Text("host/row.12", "text"), "");
  log_data(object);
  EXPECT_EQ(rec::Text("host/row.12", "text"), "abc");
  EXPECT_EQ(rec::Int("host/row.12", "number"), 8);
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/row.12"), object);
  registry_object *snapshot = get_obj("../../kelmo/registry/host/row.12");
  ASSERT_NE(snapshot, nullptr);
  EXPECT_STREQ(static_cast<char *>(snapshot->desc[1].value), "abc");
  free(snapshot);
  EXPECT_EQ(MakeObject("row.12"), nullptr);
  EXPECT_EQ(delete_obj(&obj_Q, object, 0), 0);
  EXPECT_EQ(rec::Live("host/row.12"), nullptr);
}

TEST(RecordingFramework, FailsWhenTold) {
  rec::Fail("create_obj", "host/b.*", 2);
  EXPECT_NE(MakeObject("b.0"), nullptr);
  EXPECT_NE(MakeObject("a.0"), nullptr);
  EXPECT_EQ(MakeObject("b.1"), nullptr);
  EXPECT_NE(MakeObject("b.2"), nullptr);
  rec::Fail("find_obj");
  EXPECT_EQ(find_obj(&obj_Q, 0, "host/b.0"), nullptr);
  rec::StopFailing();
  EXPECT_NE(find_obj(&obj_Q, 0, "host/b.0"), nullptr);
}

TEST(RecordingFramework, KeepsQueuesInOrder) {
  queue q = {};
  int values[] = {5, 1, 3, 3};
  const order_fn order = [](const void *a, const void *b) {
    const int x = *static_cast<const int *>(a);
    const int y = *static_cast<const int *>(b);
    return x < y ? -1 : int{x > y};
  };
  for (int &value : values) {
    EXPECT_NE(ordinsert_Q(&q, &value, order), 0);
  }
  const int three = 3;
  EXPECT_EQ(keyremove_Q(&q, &three, order), &values[2]);
  queue_element *cursor = q.head;
  EXPECT_EQ(peek_Q(&q, &cursor, Q_NEXT), &values[1]);
  EXPECT_EQ(remove_Q(&q, Q_FIRST), &values[1]);
  EXPECT_EQ(peek_Q(&q, &cursor, Q_NEXT), &values[3]);
  EXPECT_EQ(peek_Q(&q, &cursor, Q_NEXT), &values[0]);
  EXPECT_EQ(peek_Q(&q, &cursor, Q_NEXT), nullptr);
  EXPECT_EQ(remove_Q(&q, Q_FIRST), &values[3]);
  EXPECT_EQ(remove_Q(&q, Q_FIRST), &values[0]);
  EXPECT_EQ(remove_Q(&q, Q_FIRST), nullptr);
  EXPECT_EQ(q.framework, nullptr);
}

TEST(RecordingFramework, ServesMadeUpFilesCommandsAndTime) {
  rec::PutFile("/proc/version", "made up\n");
  FILE *file = fopen("/proc/version", "r");
  ASSERT_NE(file, nullptr);
  char line[64] = "";
  EXPECT_NE(fgets(line, sizeof line, file), nullptr);
  fclose(file);
  EXPECT_STREQ(line, "made up\n");
  rec::PutNothing("/etc/passwd");
  EXPECT_EQ(fopen("/etc/passwd", "r"), nullptr);

  rec::PutFile("/lib/modules/x/a.ko", "");
  rec::PutDirectory("/lib/modules");
  glob_t found;
  ASSERT_EQ(glob("/lib/modules/*/a.ko", 0, nullptr, &found), 0);
  EXPECT_STREQ(found.gl_pathv[0], "/lib/modules/x/a.ko");
  globfree(&found);

  rec::PutCommand("uptime", "3 days\n", 4);
  char output[4];
  int length = sizeof output;
  EXPECT_EQ(process_linux_cmd("uptime", output, &length), 4);
  EXPECT_STREQ(output, "3 d");
  size_t stored = 0;
  EXPECT_EQ(run_command("uptime", 1000, output, sizeof output, &stored), 4);
  EXPECT_EQ(stored, 3U);
  timespec before;
  timespec after;
  clock_gettime(CLOCK_MONOTONIC, &before);
  rec::PutCommandTime("uptime", 20);
  EXPECT_EQ(run_command("uptime", 5000, output, sizeof output, &stored), COMMAND_TIMED_OUT);
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_GE(after.tv_sec - before.tv_sec, 4);
  EXPECT_LT(after.tv_sec - before.tv_sec, 15);

  rec::SetTime(1000);
  EXPECT_EQ(time(nullptr), 1000);
  sleep(5);
  EXPECT_EQ(rec::Names("sleep"), std::vector<std::string>{"5"});
}

TEST(RecordingFramework, ServesSiblings) {
  rec::PutSibling("../../kelmo/registry/stdeq/misc",
                  {rec::IntVar("a", 2), rec::OctetVar("b", 16, "xyz"), rec::TextVar("c", 8, "hi")});
  registry_object *snapshot = get_obj("stdeq/misc");
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(*static_cast<int32_t *>(snapshot->desc[0].value), 2);
  EXPECT_EQ(snapshot->desc[1].length, 3);
  EXPECT_STREQ(static_cast<char *>(snapshot->desc[2].value), "hi");
  free(snapshot);
  rec::PutSiblingData("stdeq/misc", "");
  snapshot = get_obj(REGISTRY_ROOT "/stdeq/misc");
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(snapshot->data, nullptr);
  free(snapshot);
  EXPECT_EQ(get_obj("../../../etc/passwd"), nullptr);
}

}  // namespace
