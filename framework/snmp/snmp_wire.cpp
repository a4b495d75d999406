#include "framework/snmp/snmp_wire.h"

#include <algorithm>
#include <cstring>

#include "framework/snmp/mib_table.h"
#include "framework/snmp/notifications.h"
#include "platform/framework.h"

namespace vex {
namespace {

// Of a set. The longest frame has no room for more.
constexpr uint32_t kMostItems = 4096;

std::vector<uint8_t> Octets(std::string_view text) {
  return {text.begin(), text.end()};
}

}  // namespace

void Put(FrameWriter *frame, const Configured &configured) {
  frame->Put(int32_t{configured.settings.poll_interval})
      .PutText(configured.settings.community)
      .PutText(configured.master.target)
      .PutText(configured.master.unix_path)
      .PutText(configured.master.tcp ? configured.master.tcp->ipv4 : "")
      .Put(configured.master.tcp ? configured.master.tcp->port : uint16_t{0});
}

bool Take(FrameReader *frame, Configured *configured) {
  configured->settings.poll_interval = frame->Take<int32_t>();
  configured->settings.community = frame->TakeText();
  configured->master.target = frame->TakeText();
  configured->master.unix_path = frame->TakeText();
  MasterAddress::Tcp tcp;
  tcp.ipv4 = frame->TakeText();
  tcp.port = frame->Take<uint16_t>();
  if (!tcp.ipv4.empty()) {
    configured->master.tcp = std::move(tcp);
  }
  return frame->Whole();
}

void Put(FrameWriter *frame, const Notification &notification) {
  frame->Put(notification.number)
      .PutText(notification.description)
      .Put(static_cast<uint32_t>(notification.variables.size()));
  for (const NotificationVariable &variable : notification.variables) {
    frame->Put(static_cast<uint32_t>(variable.mib - MibVariables().data()))
        .Put(variable.instance)
        .PutOctets(variable.value);
  }
}

bool Take(FrameReader *frame, Notification *notification) {
  notification->number = frame->Take<uint32_t>();
  notification->description = frame->TakeText();
  const auto count = frame->Take<uint32_t>();
  if (count > kMostTrapVariables) {
    return false;
  }
  for (uint32_t i = 0; i < count && frame->Good(); i++) {
    const auto variable = frame->Take<uint32_t>();
    const auto instance = frame->Take<uint32_t>();
    std::vector<uint8_t> value = Octets(frame->TakeText());
    if (variable >= MibVariables().size()) {
      return false;
    }
    notification->variables.push_back({&MibVariables()[variable], instance, std::move(value)});
  }
  return frame->Whole();
}

void Put(FrameWriter *frame, const std::vector<SetItem> &items) {
  frame->Put(static_cast<uint32_t>(items.size()));
  for (const SetItem &item : items) {
    frame->Put(item.object_id)
        .Put(int32_t{item.slot})
        .Put(int32_t{item.length})
        .PutOctets(item.value);
  }
}

bool Take(FrameReader *frame, std::vector<SetItem> *items) {
  const auto count = frame->Take<uint32_t>();
  if (count == 0 || count > kMostItems) {
    return false;
  }
  for (uint32_t i = 0; i < count && frame->Good(); i++) {
    SetItem item;
    item.object_id = frame->Take<uint64_t>();
    item.slot = frame->Take<int32_t>();
    item.length = frame->Take<int32_t>();
    item.value = Octets(frame->TakeText());
    items->push_back(std::move(item));
  }
  return frame->Whole();
}

bool MaySet(const Image &image, const SetItem &item) {
  const std::vector<ServedVariable> &variables = image.layout->variables;
  const auto served = std::find_if(variables.begin(), variables.end(),
                                   [&item](const auto &v) { return v.slot == item.slot; });
  if (image.object_id != item.object_id || served == variables.end() || !served->writable ||
      served->mib->access != MibAccess::kReadWrite || item.length < 0) {
    return false;
  }
  const auto length = static_cast<size_t>(item.length);
  if (served->type == VAR_INTEGER) {
    return length == sizeof(int32_t) && item.value.size() == length;
  }
  // Octets have a NUL behind them, and a text none within.
  return served->size >= 0 && length <= static_cast<size_t>(served->size) &&
         length <= served->mib->max_length && item.value.size() == length + 1 &&
         item.value[length] == 0 &&
         (served->type != VAR_DISPLAY_STRING || length == 0 ||
          memchr(item.value.data(), 0, length) == nullptr);
}

}  // namespace vex
