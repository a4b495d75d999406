#include "firmware/controller.h"

#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/util.h"
#include "platform/framework.h"

// ---- Channel ------------------------------------------------------------------------------------

static constexpr unsigned reopen_pause = 5;      // seconds
static constexpr uint32_t reply_timeout = 5000;  // milliseconds

// Whether what was last asked took its whole limit, or a pause. That is said when it begins and
// when it ends: each poll is late by as much.
static bool waited;
static bool waited_before;

static void report_wait() {
  if (agent_ending() != 0 || waited == waited_before) {
    return;
  }
  waited_before = waited;
  if (waited) {
    agentlog_fprintf(stderr,
                     "%s: The management controller does not answer: each poll waits %u seconds "
                     "for it\n",
                     agent, reopen_pause);
  } else {
    agentlog_fprintf(stderr, "%s: Polls no longer wait for the management controller\n", agent);
  }
}

static void reopen(controller_link *link) {
  waited = true;
  sleep_whole(reopen_pause);
  if (agent_ending() == 0) {
    reinitializeRemoteVantix(&link->channel, &link->device);
  }
}

// A signal breaks an operation off. It counts only when it ends the agent: what is left of the time
// is waited for otherwise.

static int send_packet(tlxci_channel *channel, const void *packet, uint32_t length) {
  int status = TLXCI_OK;
  do {
    TlxCiSend(channel, packet, length, &status, nullptr);
  } while (status == EINTR && agent_ending() == 0);
  return status;
}

static uint32_t receive_packet(tlxci_channel *channel, void *reply, uint32_t size, int *status) {
  const shared_limit limit(reply_timeout);
  uint32_t timeout = reply_timeout;
  for (;;) {
    const uint32_t received = TlxCiRecv(channel, reply, size, status, &timeout);
    if (*status != EINTR || agent_ending() != 0) {
      return received;
    }
    timeout = static_cast<uint32_t>(limit.left());
  }
}

int controller_send(controller_link *link, const void *packet, uint32_t length) {
  int status = send_packet(link->channel, packet, length);
  if (status == TLXCI_REOPEN) {
    reopen(link);
    status = send_packet(link->channel, packet, length);
  }
  return status;
}

int controller_receive(controller_link *link, void *reply, uint32_t size) {
  int status = TLXCI_OK;
  memset(reply, 0, size);
  receive_packet(link->channel, reply, size, &status);
  if (status == TLXCI_REOPEN) {
    reopen(link);
    receive_packet(link->channel, reply, size, &status);
  }
  return status;
}

static constexpr uint32_t header_size = 8;

int controller_transact(tlxci_channel *channel, uint8_t *request, void *reply,
                        uint32_t reply_size) {
  static uint16_t sequence;
  if (channel == nullptr) {
    return TLXCI_NO_CHANNEL;
  }
  const uint32_t length = request != nullptr ? request[0] | uint32_t{request[1]} << 8 : 0;
  if (length < header_size) {
    return TLXCI_BAD_REQUEST;
  }
  request[2] = static_cast<uint8_t>(sequence);
  request[3] = static_cast<uint8_t>(sequence >> 8);
  sequence++;
  request[6] = 0;
  request[7] = 0;
  int status = send_packet(channel, request, length);
  if (status != TLXCI_OK) {
    return status;
  }
  const uint32_t received = receive_packet(channel, reply, reply_size, &status);
  return status == TLXCI_OK && received < length ? static_cast<int>(TLXCI_SHORT_REPLY) : status;
}

// ---- Firmware version ---------------------------------------------------------------------------

// Length 8, sequence 0, command 2.
static constexpr uint8_t version_request[] = {0x08, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00};
static constexpr uint32_t version_reply_size = 256;

// Where the reply has its facts, each a signed byte.
static constexpr int minor_version = 16;
static constexpr int major_version = 17;
static constexpr int generation = 68;

static const char *key_of_generation(int8_t value) {
  switch (value) {
    case 6:
      return "ZQ10";
    case 5:
      return "ZQ9";
    case 4:
      return "ZQ7";
    default:
      return "ZQ5";
  }
}

static void fill(firmware_record *record, const int8_t *reply, const char *location,
                 const char *key, const char *display_name) {
  record->category = 4;
  record->device_type = 25;
  record->update_method = usual_update_method;
  snprintf(record->version, sizeof(record->version), "%d.%02d", reply[major_version],
           reply[minor_version]);
  copy_field(record->location, location);
  copy_field(record->key, key);
  copy_field(record->display_name, display_name);
}

// 0, or -1 without an integrated controller or an answer of it.
static int ask_integrated_controller(int8_t (&reply)[version_reply_size]) {
  controller_link link = {nullptr, -1};
  if (initializeRemoteVantix(&link.channel, &link.device) != TLXCI_INTEGRATED) {
    return -1;
  }
  int status = controller_send(&link, version_request, sizeof(version_request));
  if (status == TLXCI_OK) {
    status = controller_receive(&link, reply, sizeof(reply));
  }
  waited = waited || status == TLXCI_TIMED_OUT;
  return status == TLXCI_OK ? 0 : -1;
}

int collect_integrated_controller(FILE *, const char *, firmware_record *record, int *more) {
  *more = 0;
  int8_t reply[version_reply_size];
  waited = false;
  const int result = ask_integrated_controller(reply);
  report_wait();
  if (result != 0) {
    return -1;
  }
  fill(record, reply, system_board, key_of_generation(reply[generation]),
       "Integrated Farwatch Firmware");
  return 0;
}

int collect_remote_card(FILE *, const char *, firmware_record *record, int *more) {
  *more = 0;
  controller_link link = {nullptr, -1};
  const int kind = initializeRemoteVantix(&link.channel, &link.device);
  if (kind == TLXCI_INTEGRATED || kind == TLXCI_NONE) {
    return -1;
  }
  int8_t reply[version_reply_size] = {};
  tlxrmc_transaction transaction = {version_request, sizeof(version_request), 0,
                                    reply,           sizeof(reply),           0};
  if (ioctl(link.device, TLXRMC_TRANSACT, &transaction) != 0) {
    return -1;
  }
  fill(record, reply, "ZENTA Board", "ZENTA Board", "Remote Farwatch Firmware");
  return 0;
}
