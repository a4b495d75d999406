#include "framework/snmp/mib_index.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/framework.h"

namespace vex {

bool StartsWith(OidView name, std::span<const uint32_t> prefix) {
  return name.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), name.begin(),
                                                    [](uint32_t a, SubId b) { return a == b; });
}

int32_t Cell::Integer() const {
  int32_t value;
  memcpy(&value, image->data.data() + Served().offset, sizeof(value));
  return value;
}

std::span<const uint8_t> Cell::Octets() const {
  const ServedVariable &served = Served();
  const uint8_t *data = image->data.data() + served.offset;
  auto size = static_cast<size_t>(served.size);
  size_t length = size;
  if (served.type == VAR_DISPLAY_STRING) {
    length = strnlen(reinterpret_cast<const char *>(data), size);
  } else if (position < image->octet_lengths.size()) {
    length = std::min<size_t>(size, image->octet_lengths[position]);
  }
  return {data, length};
}

MibIndex::MibIndex(std::span<const MibVariable> table) : table_(table) {
  table_of_.reserve(table.size());
  for (size_t i = 0; i < table.size(); i++) {
    std::span<const uint32_t> oid = table[i].Oid();
    bool same_parent = false;
    if (i > 0 && table[i - 1].column == table[i].column) {
      std::span<const uint32_t> before = table[i - 1].Oid();
      same_parent =
          before.size() == oid.size() && std::equal(oid.begin(), oid.end() - 1, before.begin());
    }
    if (!same_parent) {
      rows_.emplace_back();
    }
    table_of_.push_back(static_cast<uint32_t>(rows_.size() - 1));
  }
}

// Fills in what the object's image serves.
void MibIndex::Describe(Object *object) const {
  const Image &image = *object->image;
  const std::vector<ServedVariable> &variables = image.layout->variables;
  object->columns.reserve(variables.size());
  for (size_t position = 0; position < variables.size(); position++) {
    const ServedVariable &served = variables[position];
    size_t least = served.type == VAR_INTEGER ? sizeof(int32_t) : 0;
    bool inside = served.size >= 0 && static_cast<size_t>(served.size) >= least &&
                  served.offset <= image.data.size() &&
                  static_cast<size_t>(served.size) <= image.data.size() - served.offset;
    bool ours = served.mib >= table_.data() && served.mib < table_.data() + table_.size();
    if (!inside || !ours || served.mib->access == MibAccess::kNotify) {
      continue;
    }
    auto variable = static_cast<uint32_t>(served.mib - table_.data());
    object->columns.push_back({variable, static_cast<uint32_t>(position)});
    object->tables.push_back(table_of_[variable]);
  }
  // Of two slots with one variable the first counts.
  std::sort(object->columns.begin(), object->columns.end(), [](const Column &a, const Column &b) {
    return a.variable != b.variable ? a.variable < b.variable : a.position < b.position;
  });
  std::sort(object->tables.begin(), object->tables.end());
  object->tables.erase(std::unique(object->tables.begin(), object->tables.end()),
                       object->tables.end());
  object->tables.shrink_to_fit();
}

void MibIndex::Unlink(uint64_t object_id, const Object &object) noexcept {
  for (uint32_t table : object.tables) {
    rows_[table].erase({object.image->instance, object_id, nullptr});
    rows_[table].erase({0, object_id, nullptr});
  }
}

void MibIndex::Put(const std::shared_ptr<const Image> &image) {
  if (!image || !image->layout) {
    return;
  }
  const uint64_t id = image->object_id;
  auto place = objects_.find(id);
  if (place != objects_.end()) {
    Object &object = place->second;
    if (object.image->layout == image->layout && object.image->instance == image->instance &&
        object.image->data.size() == image->data.size()) {
      object.image = image;
      return;
    }
  }
  // All that needs memory comes first: half an object would stay so for as long as its layout does.
  Object fresh;
  fresh.image = image;
  Describe(&fresh);
  std::vector<std::pair<uint32_t, Rows::node_type>> rows;
  rows.reserve(fresh.columns.size());
  Rows row;
  for (const Column &column : fresh.columns) {
    uint32_t instance = table_[column.variable].column ? image->instance : 0;
    row.insert({instance, id, nullptr});
    rows.emplace_back(table_of_[column.variable], row.extract(row.begin()));
  }
  if (place == objects_.end()) {
    place = objects_.try_emplace(id).first;
  } else {
    Unlink(id, place->second);
  }
  place->second = std::move(fresh);
  for (auto &[table, node] : rows) {
    node.value().object = &place->second;
    rows_[table].insert(std::move(node));
  }
}

void MibIndex::Remove(uint64_t object_id) noexcept {
  auto place = objects_.find(object_id);
  if (place != objects_.end()) {
    Unlink(object_id, place->second);
    objects_.erase(place);
  }
}

const Image *MibIndex::ImageOf(uint64_t object_id) const {
  const auto place = objects_.find(object_id);
  return place != objects_.end() ? place->second.image.get() : nullptr;
}

// Index of the first variable whose OID comes after name.
size_t MibIndex::FirstAfter(OidView name) const {
  auto place = std::partition_point(table_.begin(), table_.end(), [&](const MibVariable &variable) {
    std::span<const uint32_t> oid = variable.Oid();
    return !std::lexicographical_compare(name.begin(), name.end(), oid.begin(), oid.end());
  });
  return static_cast<size_t>(place - table_.begin());
}

const MibVariable *MibIndex::Variable(OidView name) const {
  size_t after = FirstAfter(name);
  if (after == 0 || !StartsWith(name, table_[after - 1].Oid()) ||
      table_[after - 1].access == MibAccess::kNotify) {
    return nullptr;
  }
  return &table_[after - 1];
}

bool MibIndex::CellIn(size_t variable, const RowKey &row, Cell *cell) const {
  const std::vector<Column> &columns = row.object->columns;
  auto column =
      std::lower_bound(columns.begin(), columns.end(), variable,
                       [](const Column &c, size_t wanted) { return c.variable < wanted; });
  if (column == columns.end() || column->variable != variable) {
    return false;
  }
  *cell = {&table_[variable], row.instance, row.object->image.get(), column->position};
  return true;
}

// The first instance of one variable that is not below `instance`.
bool MibIndex::FirstFrom(size_t variable, uint64_t instance, Cell *cell) const {
  if (instance > UINT32_MAX) {
    return false;
  }
  const Rows &rows = rows_[table_of_[variable]];
  for (auto row = rows.lower_bound({static_cast<uint32_t>(instance), 0, nullptr});
       row != rows.end(); ++row) {
    if (CellIn(variable, *row, cell)) {
      return true;
    }
  }
  return false;
}

Lookup MibIndex::Get(OidView name, Cell *cell) const {
  const MibVariable *mib = Variable(name);
  if (mib == nullptr) {
    return Lookup::kNoSuchObject;
  }
  SubId instance = name[name.size() - 1];
  if (name.size() != mib->oid_length + 1U || instance > UINT32_MAX) {
    return Lookup::kNoSuchInstance;
  }
  auto variable = static_cast<size_t>(mib - table_.data());
  const Rows &rows = rows_[table_of_[variable]];
  for (auto row = rows.lower_bound({static_cast<uint32_t>(instance), 0, nullptr});
       row != rows.end() && row->instance == instance; ++row) {
    if (CellIn(variable, *row, cell)) {
      return Lookup::kFound;
    }
  }
  return Lookup::kNoSuchInstance;
}

bool MibIndex::Next(OidView name, bool inclusive, Cell *cell) const {
  size_t variable = FirstAfter(name);
  if (variable > 0 && StartsWith(name, table_[variable - 1].Oid())) {
    // Instances are one number long: x follows x.y.z only when it is greater.
    OidView suffix = name.subspan(table_[variable - 1].oid_length);
    uint64_t from = 0;
    if (!suffix.empty()) {
      // Nothing follows the greatest, which net-snmp may have read with a sign, as 64 bits of ones.
      from = std::min<uint64_t>(suffix[0], UINT32_MAX) + (inclusive && suffix.size() == 1 ? 0 : 1);
    }
    if (FirstFrom(variable - 1, from, cell)) {
      return true;
    }
  }
  for (; variable < table_.size(); variable++) {
    if (FirstFrom(variable, 0, cell)) {
      return true;
    }
  }
  return false;
}

}  // namespace vex
