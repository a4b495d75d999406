// The management controller: its firmware's version, and transactions with it.
#ifndef VEX_FIRMWARE_CONTROLLER_H
#define VEX_FIRMWARE_CONTROLLER_H

#include <stdint.h>

#include "firmware/fwver.h"
#include "platform/channel.h"

// The integrated controller, through the channel.
int collect_integrated_controller(FILE *stream, const char *name, firmware_record *record,
                                  int *more);

// A plug-in remote management card, through its device.
int collect_remote_card(FILE *stream, const char *name, firmware_record *record, int *more);

// A way to the controller. What an operation opens again stands here afterwards.
struct controller_link {
  tlxci_channel *channel;
  int device;
};

// Sends the packet / receives up to size bytes of a reply into a zeroed buffer. When the channel
// has to be opened again: waits five seconds, opens it, and tries once more. Return a tlxci_status.
int controller_send(controller_link *link, const void *packet, uint32_t length);
int controller_receive(controller_link *link, void *reply, uint32_t size);

// One request and its reply, for any command. The request begins with four little-endian 16-bit
// words: its length in bytes, a sequence number and 0, both stamped here, around the command.
// Returns a tlxci_status: TLXCI_NO_CHANNEL, TLXCI_BAD_REQUEST (none, or a length below 8),
// TLXCI_SHORT_REPLY (a reply shorter than the request), or what sending or receiving gave.
int controller_transact(tlxci_channel *channel, uint8_t *request, void *reply, uint32_t reply_size);

#endif
