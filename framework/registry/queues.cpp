// Queues of records that their callers own. The linked list is the queue; the tree beside it finds
// places in comparator order, and the table of hashes finds keys. Either may be missing: then the
// list is walked.
#include <string.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framework/process/guard.h"
#include "platform/framework.h"

namespace {

// What the tree is searched for: the place of a key or record that is not in it.
struct Sought {
  const void *key;
};

struct InOrder {
  using is_transparent = void;
  order_fn order;
  bool operator()(const queue_element *a, const queue_element *b) const;
  bool operator()(const queue_element *a, Sought b) const;
  bool operator()(Sought a, const queue_element *b) const;
};

using Tree = std::multiset<queue_element *, InOrder>;
using Hashes = std::unordered_multimap<size_t, queue_element *>;
using KeyOf = const char *(*)(const void *);

}  // namespace

struct queue_element {
  void *record = nullptr;
  queue_element *next = nullptr;
  queue_element *previous = nullptr;
  bool in_tree = false;
  bool hashed = false;
  Tree::iterator place;  // in the tree
  size_t hash = 0;       // of the key as of the last look at it
};

namespace {

bool InOrder::operator()(const queue_element *a, const queue_element *b) const {
  return order(a->record, b->record) < 0;
}
// The comparator always gets what is sought first, as in a walk.
bool InOrder::operator()(const queue_element *a, Sought b) const {
  return order(b.key, a->record) > 0;
}
bool InOrder::operator()(Sought a, const queue_element *b) const {
  return order(a.key, b->record) < 0;
}

// Behind queue.framework while the queue has elements or an index.
struct Inside {
  std::vector<order_fn> orders;  // that insertions were made by; the tree is in the first one's
  bool one_order = true;         // every insertion was by that one: the tree holds all elements
  Tree tree{InOrder{nullptr}};
  KeyOf key_of = nullptr;
  Hashes hashes;
};

bool Orders(const Inside &inside, order_fn comparator) {
  return std::find(inside.orders.begin(), inside.orders.end(), comparator) != inside.orders.end();
}

Inside *InsideOf(const queue *q) {
  return static_cast<Inside *>(q->framework);
}

size_t HashOf(const char *key) {
  return std::hash<std::string_view>()(key);
}

void AddHash(Inside &inside, queue_element *element) {
  const char *key = inside.key_of(element->record);
  if (key != nullptr) {
    element->hash = HashOf(key);
    inside.hashes.emplace(element->hash, element);
    element->hashed = true;
  }
}

void DropHash(Inside &inside, queue_element *element) {
  if (!element->hashed) {
    return;
  }
  auto at = inside.hashes.equal_range(element->hash).first;
  while (at->second != element) {
    ++at;  // it is among those of its hash, which follow each other
  }
  inside.hashes.erase(at);
  element->hashed = false;
}

// A second comparator: no order holds for the queue any more until it is empty again.
void DropTree(Inside &inside, queue_element *head) {
  for (queue_element *e = head; e != nullptr; e = e->next) {
    e->in_tree = false;
  }
  inside.tree.clear();
  inside.one_order = false;
}

void Unlink(queue *q, queue_element *element) {
  Inside &inside = *InsideOf(q);
  if (element->in_tree) {
    inside.tree.erase(element->place);
  }
  DropHash(inside, element);
  (element->previous != nullptr ? element->previous->next : q->head) = element->next;
  if (element->next != nullptr) {
    element->next->previous = element->previous;
  }
  delete element;
  if (q->head == nullptr) {
    if (inside.key_of == nullptr) {
      delete &inside;
      q->framework = nullptr;
    } else {
      inside.orders.clear();
      inside.one_order = true;
    }
  }
}

queue_element *Walk(const queue *q, const void *key, key_fn comparator) {
  queue_element *e = q->head;
  while (e != nullptr && comparator(key, e->record) != 0) {
    e = e->next;
  }
  return e;
}

// The first element with that key, by the quickest way that gives the same as a walk.
queue_element *Find(const queue *q, const void *key, key_fn comparator) {
  if (q->head == nullptr) {
    return nullptr;
  }
  const Inside &inside = *InsideOf(q);
  if (inside.one_order && comparator == inside.orders[0]) {
    const auto found = inside.tree.lower_bound(Sought{key});
    return found != inside.tree.end() && comparator(key, (*found)->record) == 0 ? *found : nullptr;
  }
  // The key of a comparator that orders is a record; only that of another is the indexed text.
  if (inside.key_of == nullptr || Orders(inside, comparator) || key == nullptr) {
    return Walk(q, key, comparator);
  }
  queue_element *first = nullptr;
  const auto [begin, end] = inside.hashes.equal_range(HashOf(static_cast<const char *>(key)));
  for (auto at = begin; at != end; ++at) {
    queue_element *e = at->second;
    if (comparator(key, e->record) != 0) {
      continue;
    }
    if (first == nullptr) {
      first = e;
      continue;
    }
    const int order = inside.one_order ? inside.orders[0](e->record, first->record) : 0;
    if (order == 0) {
      return Walk(q, key, comparator);  // two of one key in one place: the list knows
    }
    if (order < 0) {
      first = e;
    }
  }
  return first;
}

}  // namespace

int ordinsert_Q(queue *q, void *record, order_fn comparator) {
  return vex::Guarded(0, [&] {
    if (q == nullptr || record == nullptr || comparator == nullptr) {
      return 0;
    }
    if (q->framework == nullptr) {
      q->framework = new Inside;
    }
    Inside &inside = *InsideOf(q);
    if (q->head == nullptr) {
      inside.orders.assign(1, comparator);
      inside.tree = Tree(InOrder{comparator});
    } else if (!Orders(inside, comparator)) {
      inside.orders.push_back(comparator);
      DropTree(inside, q->head);
    }
    auto *element = new queue_element;
    element->record = record;
    queue_element *next = nullptr;
    queue_element *previous = nullptr;
    try {
      if (inside.key_of != nullptr) {
        AddHash(inside, element);
      }
      if (inside.one_order) {
        element->place = inside.tree.insert(element);  // after its equals
        element->in_tree = true;
        const auto after = std::next(element->place);
        next = after == inside.tree.end() ? nullptr : *after;
        previous = element->place == inside.tree.begin() ? nullptr : *std::prev(element->place);
      } else {
        next = q->head;
        while (next != nullptr && comparator(record, next->record) >= 0) {
          previous = next;
          next = next->next;
        }
      }
    } catch (...) {
      DropHash(inside, element);
      delete element;
      throw;
    }
    element->next = next;
    element->previous = previous;
    (previous != nullptr ? previous->next : q->head) = element;
    if (next != nullptr) {
      next->previous = element;
    }
    return 1;
  });
}

void *peek_Q(queue *q, queue_element **cursor, int mode) {
  if (q == nullptr || mode != Q_NEXT || cursor == nullptr || *cursor == nullptr) {
    return nullptr;
  }
  void *record = (*cursor)->record;
  *cursor = (*cursor)->next;
  return record;
}

void *remove_Q(queue *q, int mode) {
  if (q == nullptr || mode != Q_FIRST || q->head == nullptr) {
    return nullptr;
  }
  void *record = q->head->record;
  Unlink(q, q->head);
  return record;
}

void *keyremove_Q(queue *q, const void *key, key_fn comparator) {
  if (q == nullptr || comparator == nullptr) {
    return nullptr;
  }
  queue_element *element = Find(q, key, comparator);
  if (element == nullptr) {
    return nullptr;
  }
  void *record = element->record;
  Unlink(q, element);
  return record;
}

void *findkey_Q(queue *q, const void *key, key_fn comparator) {
  if (q == nullptr || comparator == nullptr) {
    return nullptr;
  }
  const queue_element *element = Find(q, key, comparator);
  return element == nullptr ? nullptr : element->record;
}

int index_Q(queue *q, const char *(*key_of)(const void *record)) {
  return vex::Guarded(-1, [&] {
    if (q == nullptr || q->head != nullptr) {
      return -1;
    }
    if (key_of == nullptr) {
      delete InsideOf(q);
      q->framework = nullptr;
      return 0;
    }
    if (q->framework == nullptr) {
      q->framework = new Inside;
    }
    InsideOf(q)->key_of = key_of;
    return 0;
  });
}

void rekey_Q(queue *q, void *record) {
  vex::Guarded(0, [&] {
    if (q == nullptr || q->head == nullptr || InsideOf(q)->key_of == nullptr) {
      return 0;
    }
    Inside &inside = *InsideOf(q);
    queue_element *element = nullptr;
    if (inside.one_order) {
      const auto [begin, end] = inside.tree.equal_range(Sought{record});
      for (auto at = begin; at != end && element == nullptr; ++at) {
        element = (*at)->record == record ? *at : nullptr;
      }
    }
    for (queue_element *e = q->head; e != nullptr && element == nullptr; e = e->next) {
      element = e->record == record ? e : nullptr;
    }
    if (element != nullptr) {
      DropHash(inside, element);
      AddHash(inside, element);
    }
    return 0;
  });
}
