// What one object costs: publishing to its file and to the SNMP side, finding it, reading it.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/registry/objects.h"
#include "framework/registry/registry_file.h"
#include "framework/snmp/image_ring.h"
#include "framework/snmp/snmp_shared.h"
#include "platform/framework.h"

namespace {

// Objects with the variables of a software row: 764 bytes, six texts of which are served.
class Rows {
 public:
  explicit Rows(int count) {
    const char *const names[] = {"tlxHoSwVerName", "tlxHoSwVerDescription", "tlxHoSwVerVersion",
                                 "tlxHoSwVerLocation"};
    for (int i = 0; i < count; i++) {
      const std::string name = REGISTRY_ROOT "/bench/row." + std::to_string(i);
      registry_object *object = create_obj(&obj_Q, get_id(), name.c_str(), 1, 764, 5);
      init_info(0, &object->desc[0], "tlxHoSwVerIndex", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1,
                object->data, nullptr);
      for (int slot = 1; slot <= 4; slot++) {
        init_info(slot, &object->desc[slot], names[slot - 1], 128, VAR_DISPLAY_STRING,
                  ACCESS_READ_ONLY, 1, object->data + 4 + (slot - 1) * 128, nullptr);
      }
      objects_.push_back(object);
      log_data(object);
    }
  }
  ~Rows() {
    delete_obj(&obj_Q, nullptr, 0);
  }
  Rows(const Rows &) = delete;
  Rows &operator=(const Rows &) = delete;
  registry_object *operator[](size_t i) const {
    return objects_[i % objects_.size()];
  }
  size_t size() const {
    return objects_.size();
  }

 private:
  std::vector<registry_object *> objects_;
};

// log_data() of one object after the other, each changed.
void PublishRow(benchmark::State &state) {
  const Rows rows(static_cast<int>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    registry_object *object = rows[i];
    memcpy(object->data, &i, 4);
    benchmark::DoNotOptimize(log_data(object));
    i++;
  }
}
BENCHMARK(PublishRow)->Arg(1)->Arg(100)->Arg(10000);

// The same while there is an SNMP process, for which the image is copied into shared memory; what
// the process does with it is left out.
void PublishRowToProcess(benchmark::State &state) {
  const Rows rows(static_cast<int>(state.range(0)));
  auto ring = std::make_unique<vex::ImageRingWriter>();
  vex::ImageRingReader reader;
  if (!ring->Open() || !reader.Open(ring->ImagesFd(), ring->ControlFd())) {
    state.SkipWithError("no shared memory");
    return;
  }
  vex::Side().ring = std::move(ring);
  vex::MibIndex index(vex::MibVariables());
  constexpr size_t kUntilTaken = 200;
  size_t i = 0;
  for (auto _ : state) {
    registry_object *object = rows[i];
    memcpy(object->data, &i, 4);
    benchmark::DoNotOptimize(log_data(object));
    if (++i % kUntilTaken == 0) {
      state.PauseTiming();
      reader.Take(&index);
      state.ResumeTiming();
    }
  }
  vex::Side().ring.reset();
}
BENCHMARK(PublishRowToProcess)->Arg(1)->Arg(100)->Arg(10000);

// The part of it that goes to the file.
void PublishFile(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  vex::ObjectFileWriter writer("bench/file");
  writer.SetLayout({{"value", 3, 2, size, 0, 0}}, size);
  std::vector<uint8_t> data(size);
  const auto length = static_cast<uint16_t>(size);
  size_t i = 0;
  for (auto _ : state) {
    memcpy(data.data(), &i, 8);
    benchmark::DoNotOptimize(writer.Publish(data.data(), &length));
    i++;
  }
  writer.Remove();
}
BENCHMARK(PublishFile)->Arg(16)->Arg(300)->Arg(2124);

// What follows each poll: a look at every object's file, none of which has changed.
void LookAtFiles(benchmark::State &state) {
  const Rows rows(static_cast<int>(state.range(0)));
  vex::RetryFiles();
  for (auto _ : state) {
    vex::RetryFiles();
  }
  state.counters["per_object"] = benchmark::Counter(
      static_cast<double>(rows.size()),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(LookAtFiles)->Arg(1)->Arg(20)->Arg(10000);

void CreateAndDeleteRow(benchmark::State &state) {
  const Rows rows(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    registry_object *object = create_obj(&obj_Q, get_id(), REGISTRY_ROOT "/bench/one", 1, 764, 0);
    log_data(object);
    delete_obj(&obj_Q, object, 0);
  }
}
BENCHMARK(CreateAndDeleteRow)->Arg(1)->Arg(10000);

void FindObject(benchmark::State &state) {
  const Rows rows(static_cast<int>(state.range(0)));
  std::vector<std::string> names;
  for (size_t i = 0; i < rows.size(); i++) {
    names.push_back("bench/row." + std::to_string(i));
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(find_obj(&obj_Q, 0, names[i % names.size()].c_str()));
    i++;
  }
}
BENCHMARK(FindObject)->Arg(1)->Arg(10000);

// A snapshot of a sibling's object from its file.
void GetObject(benchmark::State &state) {
  const Rows rows(1);
  for (auto _ : state) {
    free(get_obj("bench/row.0"));
  }
}
BENCHMARK(GetObject);

}  // namespace
