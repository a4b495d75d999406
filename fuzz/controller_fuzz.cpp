// The controller's collectors on any behaviour of a controller: which kind it is, how each send and
// receive ends, and what it answers.
#include <cstdarg>
#include <cstring>

#include "firmware/controller.h"
// With its state in reach: one wrong answer ends the programmable logic's for the process's life.
#include "firmware/programmable_logic.cpp"
#include "fuzz/require.h"
#include "platform/channel.h"
#include "platform/framework.h"

const char *agent = "fuzz";

struct tlxci_channel {
  int unused;
};

namespace {

const uint8_t *input;
size_t input_left;
tlxci_channel channel_of_all;
unsigned pauses;

uint8_t Byte() {
  if (input_left == 0) {
    return 0;
  }
  input_left--;
  return *input++;
}

// Up to `size` bytes of the input, as many as its next byte says.
size_t Take(void *to, size_t size) {
  size_t length = Byte();
  length = length < size ? length : size;
  length = length < input_left ? length : input_left;
  if (length > 0) {
    memcpy(to, input, length);
  }
  input += length;
  input_left -= length;
  return length;
}

int Status() {
  constexpr int kStatuses[] = {TLXCI_OK, TLXCI_OK, TLXCI_OK, TLXCI_REOPEN, TLXCI_TIMED_OUT, 1};
  return kStatuses[Byte() % 6];
}

int Open(tlxci_channel **channel, int *device) {
  constexpr int kKinds[] = {TLXCI_INTEGRATED, TLXCI_REMOTE_CARD, TLXCI_NONE, 99};
  const int kind = kKinds[Byte() % 4];
  *channel = kind == TLXCI_INTEGRATED ? &channel_of_all : nullptr;
  *device = kind == TLXCI_INTEGRATED || kind == TLXCI_NONE ? -1 : 1000;
  return kind;
}

template <size_t Size>
bool Ends(const char (&field)[Size]) {
  return memchr(field, '\0', Size) != nullptr;
}

}  // namespace

extern "C" {

int agentlog_fprintf(FILE *, const char *, ...) {
  return 0;
}

int initializeRemoteVantix(tlxci_channel **channel, int *device) {
  return Open(channel, device);
}

int reinitializeRemoteVantix(tlxci_channel **channel, int *device) {
  return Open(channel, device);
}

int TlxCiSend(tlxci_channel *channel, const void *packet, uint32_t length, int *status,
              const uint32_t *) {
  uint8_t sent[256];
  Require(length >= 8 && length <= sizeof(sent));
  memcpy(sent, packet, length);
  Require(sent[0] >= 8 && sent[6] == 0 && sent[7] == 0);
  *status = channel == nullptr ? static_cast<int>(TLXCI_NO_CHANNEL) : Status();
  return *status;
}

uint32_t TlxCiRecv(tlxci_channel *channel, void *buffer, uint32_t size, int *status,
                   const uint32_t *) {
  *status = channel == nullptr ? static_cast<int>(TLXCI_NO_CHANNEL) : Status();
  return *status == TLXCI_OK ? static_cast<uint32_t>(Take(buffer, size)) : 0;
}

int agent_ending(void) {
  return 0;
}

unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
  if (seconds != 5) {
    return __real_sleep(seconds);  // the fuzzer's own
  }
  pauses++;
  return 0;
}

int __wrap_ioctl(int device, unsigned long code, ...) {
  va_list arguments;
  va_start(arguments, code);
  const auto *transaction = va_arg(arguments, tlxrmc_transaction *);
  va_end(arguments);
  Require(device == 1000 && code == TLXRMC_TRANSACT);
  const int status = Status();
  if (status == 0) {
    Take(transaction->reply, transaction->reply_length);
  }
  return status;
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  input = data;
  input_left = size;
  const firmware_collector collectors[] = {collect_integrated_controller, collect_remote_card};
  for (const firmware_collector collect : collectors) {
    pauses = 0;
    int more = 1;
    firmware_record record = {};
    const int result = collect(nullptr, "row", &record, &more);
    Require(more == 0 && (result == 0 || result == -1));
    Require(result != 0 || (Ends(record.version) && record.key[0] != '\0'));
    Require(pauses <= 2);
  }
  refresh = true;
  current = 0;
  for (int i = 0; i < 2 * device_count; i++) {
    int more = 1;
    firmware_record record = {};
    const int result =
        collect_programmable_logic(nullptr, "Servala KX770 R7 SPI Board PAL", &record, &more);
    Require(more == 0 && (result == 0 || result == -1));
    Require(Ends(record.xml) && (result == -1 || strlen(record.xml) > 60));
  }
  uint8_t any_request[256] = {};
  Take(any_request, sizeof(any_request));
  any_request[1] = 0;
  uint8_t any_reply[64];
  controller_transact(&channel_of_all, any_request, any_reply, sizeof(any_reply));
  return 0;
}
