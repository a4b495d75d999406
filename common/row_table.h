// What every table of rows shares: a queue ordered by instance number, its two comparators, and the
// lowest free instance number.
#ifndef VEX_COMMON_ROW_TABLE_H
#define VEX_COMMON_ROW_TABLE_H

#include <stdint.h>
#include <string.h>

#include "common/util.h"
#include "platform/framework.h"

// Record is the group's row record; Object and Key say where it keeps its object and its key.
template <typename Record, registry_object *Record::*Object, char *Record::*Key>
struct row_table {
  queue rows = {};

  // Orders two rows by the instance numbers of their objects: -1, 0 or 1.
  static int order(const void *a, const void *b) {
    const int x = (static_cast<const Record *>(a)->*Object)->instance;
    const int y = (static_cast<const Record *>(b)->*Object)->instance;
    return x < y ? -1 : x > y;
  }

  // 0 when the row has this key, else 1.
  static int match_key(const void *key, const void *record) {
    return strcmp(static_cast<const char *>(key), static_cast<const Record *>(record)->*Key) != 0;
  }

  static const char *key_of(const void *record) {
    return static_cast<const Record *>(record)->*Key;
  }

  Record *find(const char *key) {
    if (rows.head == nullptr) {
      index_Q(&rows, key_of);
    }
    return static_cast<Record *>(findkey_Q(&rows, key, match_key));
  }

  // Puts a row whose object is set into its place. False when there is no memory.
  bool insert(Record *row) {
    if (!reserve((row->*Object)->instance)) {
      return false;
    }
    if (rows.head == nullptr) {
      index_Q(&rows, key_of);
    }
    if (ordinsert_Q(&rows, row, order) == 0) {
      return false;
    }
    mark((row->*Object)->instance, true);
    return true;
  }

  // Takes a row out of the queue by its instance number; null when it is not there.
  Record *remove(Record *row) {
    return removed(static_cast<Record *>(keyremove_Q(&rows, row, order)));
  }

  // Takes the first row out of the queue; null when it is empty.
  Record *remove_first() {
    return removed(static_cast<Record *>(remove_Q(&rows, Q_FIRST)));
  }

  // The row at the cursor, which moves on; null at the end. Start with cursor = rows.head.
  Record *next(queue_element **cursor) {
    return static_cast<Record *>(peek_Q(&rows, cursor, Q_NEXT));
  }

  // The lowest instance number that no row has, counting from 0.
  int free_index() const {
    size_t word = 0;
    while (word < words && used[word] == ~uint64_t{0}) {
      word++;
    }
    const int bit = word < words ? __builtin_ctzll(~used[word]) : 0;
    return static_cast<int>(word * 64) + bit;
  }

 private:
  // A bit for each instance number in use: counting rows at every creation would make the creation
  // of n rows quadratic.
  uint64_t *used = nullptr;
  size_t words = 0;

  bool reserve(int instance) {
    const size_t need = static_cast<size_t>(instance) / 64 + 1;
    if (need <= words) {
      return true;
    }
    if (!grow(&used, need)) {
      return false;
    }
    memset(used + words, 0, (need - words) * sizeof(uint64_t));
    words = need;
    return true;
  }

  void mark(int instance, bool in_use) {
    const uint64_t bit = uint64_t{1} << (instance % 64);
    uint64_t &word = used[instance / 64];
    word = in_use ? word | bit : word & ~bit;
  }

  Record *removed(Record *row) {
    if (row != nullptr) {
      mark((row->*Object)->instance, false);
    }
    return row;
  }
};

#endif
