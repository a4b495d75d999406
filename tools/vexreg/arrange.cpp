#include "tools/vexreg/arrange.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <variant>

#include "framework/process/clock.h"
#include "platform/framework.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kNumberColumn[] = "#";

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::vector<std::string> Split(std::string_view list) {
  std::vector<std::string> names;
  while (!list.empty()) {
    const size_t comma = std::min(list.find(','), list.size());
    if (comma > 0) {
      names.emplace_back(list.substr(0, comma));
    }
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return names;
}

// The object with a variable more.
void AddVariable(FileObject *object, const char *name, const std::string &text) {
  FileVariable variable;
  variable.name = name;
  variable.type = VAR_DISPLAY_STRING;
  variable.access = ACCESS_READ_ONLY;
  variable.size = static_cast<uint32_t>(text.size()) + 1;
  variable.offset = static_cast<uint32_t>(object->data.size());
  object->data.insert(object->data.end(), text.c_str(), text.c_str() + variable.size);
  object->variables.push_back(std::move(variable));
}

void AddColumns(bool for_programs, NamedObject *object) {
  const int64_t published = object->object.published_ns / kNsPerSecond;
  AddVariable(&object->object, kObjectColumn, object->name);
  AddVariable(&object->object, kPublishedColumn,
              for_programs ? IsoTime(published) : ZonedTimeText(published));
}

// The place of a column among the object's variables.
std::optional<size_t> FindColumn(const FileObject &object,
                                 const std::vector<std::string_view> &short_names,
                                 std::string_view column) {
  for (size_t i = 0; i < object.variables.size(); i++) {
    if (object.variables[i].type != 0 &&
        (SameName(short_names[i], column) || SameName(object.variables[i].name, column))) {
      return i;
    }
  }
  // The end of a name, where it is one's alone: a variable that was asked for by itself has no
  // other heading, and people know it by the one that it has beside the others.
  std::optional<size_t> found;
  for (size_t i = 0; i < object.variables.size(); i++) {
    const std::string_view name = object.variables[i].name;
    const size_t at = name.size() - std::min(column.size(), name.size());
    if (object.variables[i].type != 0 && at > 0 && name[at] >= 'A' && name[at] <= 'Z' &&
        SameName(name.substr(at), column)) {
      if (found) {
        return std::nullopt;
      }
      found = i;
    }
  }
  return found;
}

// What rows are sorted by. No value comes before any.
using Key = std::variant<std::monostate, int64_t, std::string>;

Key KeyOf(const NamedObject &object, const std::string &column) {
  if (column == kNumberColumn) {
    // Rows alone are sorted.
    const std::string_view digits = ParseRowName(object.name)->number;
    int64_t number = INT64_MAX;  // stays where it has too many digits
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
  }
  const auto place = FindColumn(object.object, ShortNames(object.object), column);
  if (!place) {
    return {};
  }
  const FileVariable &variable = object.object.variables[*place];
  if (const auto number = IntegerOf(object.object, variable)) {
    return int64_t{*number};
  }
  const auto bytes = BytesOf(object.object, variable);
  return bytes ? Key(std::string(*bytes)) : Key();
}

struct Order {
  std::string column;
  bool descending;
};

void SortRows(std::vector<NamedObject>::iterator first, std::vector<NamedObject>::iterator last,
              const std::vector<Order> &orders) {
  struct Row {
    std::vector<Key> keys;
    NamedObject object;
  };
  std::vector<Row> rows;
  for (auto object = first; object != last; ++object) {
    Row row;
    for (const Order &order : orders) {
      row.keys.push_back(KeyOf(*object, order.column));
    }
    row.object = std::move(*object);
    rows.push_back(std::move(row));
  }
  std::stable_sort(rows.begin(), rows.end(), [&](const Row &a, const Row &b) {
    for (size_t i = 0; i < orders.size(); i++) {
      if (a.keys[i] != b.keys[i]) {
        return orders[i].descending ? b.keys[i] < a.keys[i] : a.keys[i] < b.keys[i];
      }
    }
    return false;
  });
  for (Row &row : rows) {
    *first++ = std::move(row.object);
  }
}

void Sort(const std::vector<Order> &orders, std::vector<NamedObject> *objects) {
  for (auto first = objects->begin(); first != objects->end();) {
    const auto row = ParseRowName(first->name);
    // The name itself moves away while its rows are sorted.
    const std::string group(row ? row->group : "");
    const auto last = std::find_if(first, objects->end(), [&](const NamedObject &object) {
      const auto next = ParseRowName(object.name);
      return !row || !next || next->group != group;
    });
    SortRows(first, last, orders);
    first = last == first ? first + 1 : last;
  }
}

// Leaves the named columns of an object, or what it has and then those.
void Choose(const std::vector<std::string> &columns, bool more, NamedObject *named) {
  FileObject *const object = &named->object;
  named->beginning = BeginningOf(*object);
  const std::vector<std::string_view> short_names = ShortNames(*object);
  std::vector<FileVariable> chosen;
  if (more) {
    std::copy_if(object->variables.begin(), object->variables.end(), std::back_inserter(chosen),
                 [](const FileVariable &variable) {
                   return variable.name != kObjectColumn && variable.name != kPublishedColumn;
                 });
  }
  for (const std::string &column : columns) {
    const auto place = FindColumn(*object, short_names, column);
    const auto is_there = [&](const FileVariable &variable) {
      return variable.name == object->variables[*place].name;
    };
    if (place && std::none_of(chosen.begin(), chosen.end(), is_there)) {
      chosen.push_back(object->variables[*place]);
    }
  }
  object->variables = std::move(chosen);
}

bool IsKnown(const std::string &column, const std::vector<NamedObject> &objects) {
  return std::any_of(objects.begin(), objects.end(), [&](const NamedObject &object) {
    return FindColumn(object.object, ShortNames(object.object), column).has_value();
  });
}

std::string Unknown(const std::string &column, const std::vector<NamedObject> &objects) {
  std::vector<std::string> names;
  for (const NamedObject &object : objects) {
    const std::vector<std::string_view> short_names = ShortNames(object.object);
    for (size_t i = 0; i < short_names.size(); i++) {
      if (object.object.variables[i].type != 0 &&
          std::find(names.begin(), names.end(), short_names[i]) == names.end()) {
        names.emplace_back(short_names[i]);
      }
    }
  }
  std::string text = column + ": no such column; there are " + kNumberColumn;
  for (const std::string &name : names) {
    text += " " + name;
  }
  return text;
}

}  // namespace

bool Arrange(const Arrangement &arrangement, std::vector<NamedObject> *objects,
             std::string *error) {
  const bool more = arrangement.columns.starts_with('+');
  const std::vector<std::string> columns =
      Split(std::string_view(arrangement.columns).substr(more ? 1 : 0));
  std::vector<Order> orders;
  for (const std::string &word : Split(arrangement.sort)) {
    const bool descending = word.starts_with('-');
    orders.push_back({word.substr(descending ? 1 : 0), descending});
  }
  if ((orders.empty() && columns.empty()) || objects->empty()) {
    return true;
  }
  for (NamedObject &object : *objects) {
    AddColumns(arrangement.for_programs, &object);
  }
  std::vector<std::string> named = columns;
  for (const Order &order : orders) {
    named.push_back(order.column);
  }
  for (const std::string &column : named) {
    if (column != kNumberColumn && !IsKnown(column, *objects)) {
      *error = Unknown(column, *objects);
      return false;
    }
  }
  Sort(orders, objects);
  for (NamedObject &object : *objects) {
    Choose(columns, more || columns.empty(), &object);
  }
  if (!columns.empty() && !more) {
    const bool numbers = std::find(columns.begin(), columns.end(), kNumberColumn) != columns.end();
    std::erase_if(*objects, [numbers](const NamedObject &object) {
      return object.object.variables.empty() && !(numbers && ParseRowName(object.name));
    });
  }
  return true;
}

}  // namespace vex
