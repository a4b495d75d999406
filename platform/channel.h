/* The management controller (libtlxci) as the Host Agent sees it.
 *
 * The open build reaches an integrated controller through the SOCK_SEQPACKET Unix socket
 * /run/quorix/tlxci.sock, one packet a message, and a remote management card through the character
 * device /dev/tlxrmc0. Channel and device belong to the library: there is one of each, opened again
 * by every initialization, and neither is inherited by a program that the process starts.
 *
 * Agent thread only; nothing is thrown, nothing is logged.
 */
#ifndef VEX_PLATFORM_CHANNEL_H
#define VEX_PLATFORM_CHANNEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct tlxci_channel; /* opaque; owned by the library */

/* The kind of controller present. Any other value means a remote management card too. */
enum tlxci_kind { TLXCI_NONE = 0, TLXCI_REMOTE_CARD = 1, TLXCI_INTEGRATED = 5 };

/* Status of an operation on the channel; any other value is a failure too, an errno among them:
 * EINTR when a signal broke off the wait. */
enum tlxci_status {
  TLXCI_OK = 0,
  TLXCI_NO_CHANNEL = 2,
  TLXCI_SHORT_REPLY = 22,
  TLXCI_REOPEN = 38, /* the connection broke: reinitialize, then try again */
  TLXCI_BAD_REQUEST = 39,
  TLXCI_TIMED_OUT = 110
};

/* Looks for a controller and opens the way to it, closing what an earlier call had opened.
 * *channel is the channel with TLXCI_INTEGRATED, else null; *device is the card's descriptor with a
 * remote card, else -1. Both are the library's and valid until the next (re)initialization.
 * Returns a tlxci_kind. */
int initializeRemoteVantix(struct tlxci_channel **channel, int *device);

/* Opens again what was reset; arguments and result as above. */
int reinitializeRemoteVantix(struct tlxci_channel **channel, int *device);

/* Sends one packet. *status receives a tlxci_status (TLXCI_NO_CHANNEL for a null channel); a null
 * timeout (milliseconds) means the library's own of five seconds. Returns the status. */
int TlxCiSend(struct tlxci_channel *channel, const void *packet, uint32_t length, int *status,
              const uint32_t *timeout);

/* Receives one packet; what does not fit the buffer is dropped. *status and timeout as above.
 * Returns the number of bytes stored, 0 on failure. */
uint32_t TlxCiRecv(struct tlxci_channel *channel, void *buffer, uint32_t size, int *status,
                   const uint32_t *timeout);

/* A remote card's ioctl(2): request code, and the argument passed by address. It sends the request
 * and stores the card's reply; 0 on success. */
#define TLXRMC_TRANSACT 0x5A00

struct tlxrmc_transaction {
  const void *request;
  uint16_t request_length;
  uint16_t request_zero;
  void *reply;
  uint16_t reply_length;
  uint16_t reply_zero;
};

#ifdef __cplusplus
}
#endif

#endif
