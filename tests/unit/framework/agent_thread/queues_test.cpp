#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/framework.h"

namespace {

struct Row {
  int instance;
  std::string key;
};

int calls;  // of comparators

int ByInstance(const void *record, const void *other) {
  calls++;
  const int a = static_cast<const Row *>(record)->instance;
  const int b = static_cast<const Row *>(other)->instance;
  return a < b ? -1 : (a > b ? 1 : 0);
}

int ByInstanceDown(const void *record, const void *other) {
  return -ByInstance(record, other);
}

int HasKey(const void *key, const void *record) {
  calls++;
  return strcmp(static_cast<const char *>(key), static_cast<const Row *>(record)->key.c_str()) == 0
             ? 0
             : 1;
}

const char *KeyOf(const void *record) {
  return static_cast<const Row *>(record)->key.c_str();
}

// What the interface says, in the plainest way.
struct Model {
  std::list<Row *> rows;

  void Insert(Row *row, order_fn order) {
    auto at = rows.begin();
    while (at != rows.end() && order(row, *at) >= 0) {
      ++at;
    }
    rows.insert(at, row);
  }
  Row *Find(const void *key, key_fn comparator, bool remove) {
    for (auto at = rows.begin(); at != rows.end(); ++at) {
      if (comparator(key, *at) == 0) {
        Row *row = *at;
        if (remove) {
          rows.erase(at);
        }
        return row;
      }
    }
    return nullptr;
  }
};

std::vector<Row *> Walk(queue &q) {
  std::vector<Row *> rows;
  queue_element *cursor = q.head;
  while (void *record = peek_Q(&q, &cursor, Q_NEXT)) {
    rows.push_back(static_cast<Row *>(record));
  }
  return rows;
}

void Drain(queue &q) {
  while (remove_Q(&q, Q_FIRST) != nullptr) {
  }
  index_Q(&q, nullptr);
}

struct Variant {
  const char *name;
  bool indexed;
  bool two_orders;
  bool unique;
};

class QueueAgainstModel : public testing::TestWithParam<Variant> {};

TEST_P(QueueAgainstModel, GivesTheSame) {
  const Variant variant = GetParam();
  for (unsigned seed = 1; seed <= 30; seed++) {
    std::mt19937 random(seed);
    queue q = {};
    Model model;
    if (variant.indexed) {
      ASSERT_EQ(index_Q(&q, KeyOf), 0);
    }
    std::vector<std::unique_ptr<Row>> owned;
    for (int step = 0; step < 400; step++) {
      const auto number = static_cast<int>(random() % 40);
      const std::string key = "k" + std::to_string(random() % 25);
      Row sought{number, ""};
      switch (random() % 9) {
        case 0:
        case 1:
        case 2:
        case 3: {
          if (variant.unique && model.Find(&sought, ByInstance, false) != nullptr) {
            break;
          }
          owned.push_back(std::make_unique<Row>(Row{number, key}));
          const order_fn order =
              variant.two_orders && random() % 2 == 0 ? ByInstanceDown : ByInstance;
          model.Insert(owned.back().get(), order);
          ASSERT_NE(ordinsert_Q(&q, owned.back().get(), order), 0);
          break;
        }
        case 4: {
          void *removed = remove_Q(&q, Q_FIRST);
          Row *expected = model.rows.empty() ? nullptr : model.rows.front();
          if (expected != nullptr) {
            model.rows.pop_front();
          }
          ASSERT_EQ(removed, expected);
          break;
        }
        case 5:
          ASSERT_EQ(keyremove_Q(&q, key.c_str(), HasKey), model.Find(key.c_str(), HasKey, true));
          break;
        case 6:
          ASSERT_EQ(keyremove_Q(&q, &sought, ByInstance), model.Find(&sought, ByInstance, true));
          break;
        case 7:
          ASSERT_EQ(findkey_Q(&q, key.c_str(), HasKey), model.Find(key.c_str(), HasKey, false));
          ASSERT_EQ(findkey_Q(&q, &sought, ByInstance), model.Find(&sought, ByInstance, false));
          break;
        default:
          if (!model.rows.empty()) {
            Row *row =
                *std::next(model.rows.begin(), static_cast<long>(random() % model.rows.size()));
            row->key = key;
            rekey_Q(&q, row);
          }
          break;
      }
      ASSERT_EQ(Walk(q), (std::vector<Row *>(model.rows.begin(), model.rows.end())));
    }
    Drain(q);
    EXPECT_EQ(q.framework, nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(, QueueAgainstModel,
                         testing::Values(Variant{"plain", false, false, false},
                                         Variant{"rows", false, false, true},
                                         Variant{"indexed", true, false, false},
                                         Variant{"indexed_rows", true, false, true},
                                         Variant{"two_orders", false, true, false},
                                         Variant{"indexed_two_orders", true, true, false}),
                         [](const auto &test) { return std::string(test.param.name); });

TEST(Queue, AZeroedStructIsEmpty) {
  queue q = {};
  queue_element *cursor = q.head;
  EXPECT_EQ(peek_Q(&q, &cursor, Q_NEXT), nullptr);
  EXPECT_EQ(remove_Q(&q, Q_FIRST), nullptr);
  EXPECT_EQ(findkey_Q(&q, "x", HasKey), nullptr);
  EXPECT_EQ(keyremove_Q(&q, "x", HasKey), nullptr);
}

TEST(Queue, OtherModesGiveNothing) {
  queue q = {};
  Row row{1, "a"};
  ASSERT_NE(ordinsert_Q(&q, &row, ByInstance), 0);
  queue_element *cursor = q.head;
  EXPECT_EQ(peek_Q(&q, &cursor, Q_FIRST), nullptr);
  EXPECT_EQ(cursor, q.head);
  EXPECT_EQ(remove_Q(&q, Q_NEXT), nullptr);
  EXPECT_EQ(remove_Q(&q, 0), nullptr);
  EXPECT_EQ(remove_Q(&q, Q_FIRST), &row);
  EXPECT_EQ(q.head, nullptr);
}

TEST(Queue, TheRecordLastReturnedMayBeRemovedDuringTheWalk) {
  queue q = {};
  std::vector<std::unique_ptr<Row>> rows;
  for (int i = 0; i < 100; i++) {
    rows.push_back(std::make_unique<Row>(Row{i, "k" + std::to_string(i)}));
    ASSERT_NE(ordinsert_Q(&q, rows.back().get(), ByInstance), 0);
  }
  queue_element *cursor = q.head;
  int seen = 0;
  while (auto *row = static_cast<Row *>(peek_Q(&q, &cursor, Q_NEXT))) {
    EXPECT_EQ(row->instance, seen);
    if (seen % 3 != 1) {
      EXPECT_EQ(keyremove_Q(&q, row->key.c_str(), HasKey), row);
      rows[static_cast<size_t>(seen)].reset();  // as the caller does at once
    }
    seen++;
  }
  EXPECT_EQ(seen, 100);
  EXPECT_EQ(Walk(q).size(), 33u);
  Drain(q);
}

TEST(Queue, IndexingNeedsAnEmptyQueueAndStaysWhenItEmpties) {
  queue q = {};
  Row row{1, "a"};
  ASSERT_NE(ordinsert_Q(&q, &row, ByInstance), 0);
  EXPECT_EQ(index_Q(&q, KeyOf), -1);
  ASSERT_EQ(remove_Q(&q, Q_FIRST), &row);
  ASSERT_EQ(index_Q(&q, KeyOf), 0);
  for (int round = 0; round < 2; round++) {
    std::vector<Row> rows;
    for (int i = 0; i < 1000; i++) {
      rows.push_back({i, "k" + std::to_string(i)});
    }
    for (Row &each : rows) {
      ASSERT_NE(ordinsert_Q(&q, &each, ByInstance), 0);
    }
    calls = 0;
    EXPECT_EQ(findkey_Q(&q, "k999", HasKey), &rows[999]);
    EXPECT_EQ(findkey_Q(&q, "missing", HasKey), nullptr);
    EXPECT_LE(calls, 2);
    while (remove_Q(&q, Q_FIRST) != nullptr) {
    }
  }
  index_Q(&q, nullptr);
}

const char *KeyOrNone(const void *record) {
  const char *key = KeyOf(record);
  return *key == '\0' ? nullptr : key;
}

int HasKeyAndIsEven(const void *key, const void *record) {
  return static_cast<const Row *>(record)->instance % 2 == 0 ? HasKey(key, record) : 1;
}

int IsTheSecond(const void *key, const void *record) {
  return key == nullptr && static_cast<const Row *>(record)->instance == 2 ? 0 : 1;
}

TEST(Queue, AnIndexFindsWhatTheComparatorSays) {
  queue q = {};
  ASSERT_EQ(index_Q(&q, KeyOf), 0);
  ASSERT_EQ(index_Q(&q, KeyOrNone), 0) << "the last one counts";
  Row rows[] = {{1, "a"}, {2, "b"}, {3, ""}, {4, "a"}};
  for (Row &row : rows) {
    ASSERT_NE(ordinsert_Q(&q, &row, ByInstance), 0);
  }
  EXPECT_EQ(findkey_Q(&q, "a", HasKey), &rows[0]);
  EXPECT_EQ(findkey_Q(&q, "a", HasKeyAndIsEven), &rows[3]);
  EXPECT_EQ(findkey_Q(&q, "c", HasKeyAndIsEven), nullptr);
  // A key that changed without a word is not found by the one of before.
  rows[1].key = "c";
  EXPECT_EQ(findkey_Q(&q, "b", HasKey), nullptr);
  rekey_Q(&q, &rows[1]);
  EXPECT_EQ(findkey_Q(&q, "c", HasKey), &rows[1]);
  // Without a key, by the order and by comparators that ask for none.
  EXPECT_EQ(findkey_Q(&q, &rows[2], ByInstance), &rows[2]);
  EXPECT_EQ(findkey_Q(&q, nullptr, IsTheSecond), &rows[1]);
  EXPECT_EQ(keyremove_Q(&q, &rows[2], ByInstance), &rows[2]);
  Row behind{5, "e"};
  for (Row *absent : {&rows[2], &behind}) {
    rekey_Q(&q, absent);  // it is in no queue
  }
  EXPECT_EQ(Walk(q), (std::vector<Row *>{&rows[0], &rows[1], &rows[3]}));
  EXPECT_EQ(findkey_Q(&q, "e", HasKey), nullptr);
  EXPECT_EQ(findkey_Q(&q, "", HasKey), nullptr);
  // A key may come and go.
  rows[3].key = "";
  rekey_Q(&q, &rows[3]);
  EXPECT_EQ(findkey_Q(&q, "a", HasKeyAndIsEven), nullptr);
  rows[3].key = "d";
  rekey_Q(&q, &rows[3]);
  EXPECT_EQ(findkey_Q(&q, "d", HasKey), &rows[3]);
  Drain(q);
  EXPECT_EQ(q.framework, nullptr);
}

TEST(Queue, NothingComesOfArgumentsThatAreMissing) {
  Row row{1, "a"};
  queue q = {};
  EXPECT_EQ(ordinsert_Q(nullptr, &row, ByInstance), 0);
  EXPECT_EQ(ordinsert_Q(&q, nullptr, ByInstance), 0);
  EXPECT_EQ(ordinsert_Q(&q, &row, nullptr), 0);
  EXPECT_EQ(q.head, nullptr);
  EXPECT_EQ(q.framework, nullptr);
  ASSERT_EQ(ordinsert_Q(&q, &row, ByInstance), 1);
  queue_element *cursor = q.head;
  EXPECT_EQ(peek_Q(nullptr, &cursor, Q_NEXT), nullptr);
  EXPECT_EQ(peek_Q(&q, nullptr, Q_NEXT), nullptr);
  EXPECT_EQ(cursor, q.head);
  EXPECT_EQ(remove_Q(nullptr, Q_FIRST), nullptr);
  EXPECT_EQ(keyremove_Q(nullptr, "a", HasKey), nullptr);
  EXPECT_EQ(keyremove_Q(&q, "a", nullptr), nullptr);
  EXPECT_EQ(findkey_Q(nullptr, "a", HasKey), nullptr);
  EXPECT_EQ(findkey_Q(&q, "a", nullptr), nullptr);
  EXPECT_EQ(index_Q(nullptr, KeyOf), -1);
  rekey_Q(nullptr, &row);
  rekey_Q(&q, &row);  // without an index
  EXPECT_EQ(Walk(q), std::vector<Row *>{&row});
  EXPECT_EQ(remove_Q(&q, Q_FIRST), &row);
  rekey_Q(&q, &row);
  EXPECT_EQ(q.framework, nullptr);
}

TEST(Queue, TenThousandRowsTakeLogarithmicWork) {
  queue q = {};
  std::vector<Row> rows;
  for (int i = 0; i < 10000; i++) {
    rows.push_back({i, ""});
  }
  std::shuffle(rows.begin(), rows.end(), std::mt19937(3));
  calls = 0;
  for (Row &row : rows) {
    ASSERT_NE(ordinsert_Q(&q, &row, ByInstance), 0);
  }
  EXPECT_LT(calls, 10000 * 30);
  calls = 0;
  for (Row &row : rows) {
    ASSERT_EQ(keyremove_Q(&q, &row, ByInstance), &row);
  }
  EXPECT_LT(calls, 10000 * 30);
  EXPECT_EQ(q.head, nullptr);
}

}  // namespace
