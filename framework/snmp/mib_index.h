// The published images in OID order: what GET, GETNEXT and SET look up. Pure: no net-snmp, no
// threads; used by the SNMP side alone.
#ifndef VEX_FRAMEWORK_SNMP_MIB_INDEX_H
#define VEX_FRAMEWORK_SNMP_MIB_INDEX_H

#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <unordered_map>
#include <vector>

#include "framework/registry/image.h"
#include "framework/snmp/mib_table.h"

namespace vex {

using SubId = unsigned long;  // net-snmp's oid
using OidView = std::span<const SubId>;

// One instance of one variable; valid until the index changes.
struct Cell {
  const MibVariable *mib = nullptr;
  uint32_t instance = 0;
  const Image *image = nullptr;
  size_t position = 0;  // in image->layout->variables

  const ServedVariable &Served() const {
    return image->layout->variables[position];
  }
  // The current value: of an integer, or the octets as they go out (a display string without its
  // terminator, at most as long as its field).
  int32_t Integer() const;
  std::span<const uint8_t> Octets() const;
};

enum class Lookup {
  kFound,
  kNoSuchInstance,  // a variable of the MIB, but nobody has published that instance
  kNoSuchObject     // no variable of the MIB
};

class MibIndex {
 public:
  // table: in OID order, outlives the index.
  explicit MibIndex(std::span<const MibVariable> table);
  MibIndex(const MibIndex &) = delete;
  MibIndex &operator=(const MibIndex &) = delete;

  // Adds an object's image, or replaces the one it had. O(log rows). Throws std::bad_alloc, and has
  // then changed nothing.
  void Put(const std::shared_ptr<const Image> &image);
  void Remove(uint64_t object_id) noexcept;

  // O(log rows) each. Where two objects serve one instance, the older object answers.
  Lookup Get(OidView name, Cell *cell) const;
  // The first instance after name (or name itself, when inclusive); false at the end.
  bool Next(OidView name, bool inclusive, Cell *cell) const;
  // The variable that name is, or would be, an instance of; null if none is.
  const MibVariable *Variable(OidView name) const;

  // The image that an object has; null for one that is not there.
  const Image *ImageOf(uint64_t object_id) const;

 private:
  struct Column {
    uint32_t variable;  // index in table_
    uint32_t position;  // in the image's layout
  };
  struct Object {
    std::shared_ptr<const Image> image;
    std::vector<Column> columns;  // by variable
    std::vector<uint32_t> tables;
  };
  // A row: one object's part of a table. Scalars are rows with the instance 0.
  struct RowKey {
    uint32_t instance;
    uint64_t object_id;
    const Object *object;
    bool operator<(const RowKey &other) const {
      return instance != other.instance ? instance < other.instance : object_id < other.object_id;
    }
  };
  using Rows = std::set<RowKey>;

  size_t FirstAfter(OidView name) const;
  bool CellIn(size_t variable, const RowKey &row, Cell *cell) const;
  bool FirstFrom(size_t variable, uint64_t instance, Cell *cell) const;
  void Describe(Object *object) const;
  void Unlink(uint64_t object_id, const Object &object) noexcept;

  std::span<const MibVariable> table_;
  std::vector<uint32_t> table_of_;  // variable -> index in rows_
  std::vector<Rows> rows_;          // one a table: variables with the same parent OID
  std::unordered_map<uint64_t, Object> objects_;
};

bool StartsWith(OidView name, std::span<const uint32_t> prefix);

}  // namespace vex

#endif
