// What is published as OpenMetrics text (https://openmetrics.io), version 1.0.
#ifndef VEX_TOOLS_VEXREG_OPEN_METRICS_H
#define VEX_TOOLS_VEXREG_OPEN_METRICS_H

#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tools/vexreg/tables.h"

namespace vex {

// Name and value; values are bytes as an object has them.
using MetricLabels = std::vector<std::pair<std::string_view, std::string>>;

// The labels as they stand in a sample, braces included; empty without any.
std::string LabelsText(const MetricLabels &labels);

// One metric family: a gauge with its samples.
class MetricFamily {
 public:
  // unit: the name's last part, or empty.
  MetricFamily(std::string name, std::string_view unit, std::string_view help);
  // Another sample; one with the same labels stands already and remains.
  void Add(const MetricLabels &labels, double value) {
    AddLabelled(LabelsText(labels), value);
  }
  // The same with what LabelsText() gave: for labels that several families share.
  void AddLabelled(const std::string &labels, double value);
  // Its lines; empty without a sample.
  std::string Text() const;

 private:
  std::string name_;
  std::string head_;
  std::string samples_;
  std::unordered_set<std::string> seen_;
};

// The metrics of the Host Agent's objects among these, up to "# EOF". Bytes, seconds and ratios;
// no sample where a value is not known. File systems get device, directory and type from
// host/mount.N, else the first two from their description.
std::string OpenMetrics(const std::vector<NamedObject> &objects);

// "/dev/sda1 on /" is "/dev/sda1" and "/".
std::pair<std::string, std::string> SplitDescription(std::string_view description);

}  // namespace vex

#endif
