// GETNEXT inside the framework: one step of a walk over a table of seven columns.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "framework/snmp/mib_index.h"
#include "platform/framework.h"

namespace {

using vex::Image;
using vex::Layout;
using vex::MibIndex;
using vex::MibVariable;
using vex::SubId;

constexpr const char *kColumns[] = {"tlxHoFileSysIndex",
                                    "tlxHoFileSysDesc",
                                    "tlxHoFileSysSpaceTotal",
                                    "tlxHoFileSysSpaceUsed",
                                    "tlxHoFileSysPercentSpaceUsed",
                                    "tlxHoFileSysAllocUnitsTotal",
                                    "tlxHoFileSysAllocUnitsUsed"};

std::shared_ptr<const Layout> RowLayout() {
  auto layout = std::make_shared<Layout>();
  uint32_t offset = 0;
  int slot = 0;
  for (const char *name : kColumns) {
    const MibVariable *mib = vex::FindMibVariable(name);
    const int size = mib->type == VAR_INTEGER ? 4 : 256;
    layout->variables.push_back({mib, slot++, size, offset, mib->type, false});
    offset += static_cast<uint32_t>(size);
  }
  return layout;
}

void GetNextStep(benchmark::State &state) {
  MibIndex index(vex::MibVariables());
  const std::shared_ptr<const Layout> layout = RowLayout();
  for (int64_t row = 0; row < state.range(0); row++) {
    auto image = std::make_shared<Image>();
    image->layout = layout;
    image->object_id = static_cast<uint64_t>(row) + 1;
    image->instance = static_cast<uint32_t>(row);
    image->data.resize(280);
    image->octet_lengths.resize(layout->variables.size());
    index.Put(std::move(image));
  }
  const auto root = vex::FindMibVariable(kColumns[0])->Oid();
  const std::vector<SubId> start(root.begin(), root.end());
  std::vector<SubId> at = start;
  for (auto _ : state) {
    vex::Cell cell;
    if (!index.Next({at.data(), at.size()}, false, &cell)) {
      at = start;
      continue;
    }
    at.assign(cell.mib->Oid().begin(), cell.mib->Oid().end());
    at.push_back(cell.instance);
  }
}
BENCHMARK(GetNextStep)->Arg(10)->Arg(1000)->Arg(10000);

}  // namespace
