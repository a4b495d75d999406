// The two arrays that sum up the suite's agents on this host: the MIB status array (present,
// condition and revision of each agent's MIB) and the MIB health status array (the condition of
// each health component). Who is asked, and how, stands in two tables in mib_status.cpp.
#ifndef VEX_STATUS_MIB_STATUS_H
#define VEX_STATUS_MIB_STATUS_H

#include <stdint.h>

enum mib_status_sizes {
  STATUS_ARRAY_SIZE = 256,
  STATUS_ARRAY_LENGTH = 108,    // octets in use: indexes 0 to 26, four octets each
  HEALTH_TRAP_TEXT_SIZE = 868,  // 52 characters, 16 octets of 5, 15 blanks, 15 lines of 48, a NUL
};

// Scans the processes, asks the peers that changed, and writes the array. Octet 3 and the octets of
// indexes without a peer are left as they are.
void build_status_array(unsigned char array[STATUS_ARRAY_SIZE]);

// The same for the health array, except that every peer's condition is read at each call. Sends the
// health trap when the worst condition differs from the one in the array, unless that was 0.
void build_health_array(unsigned char array[STATUS_ARRAY_SIZE]);

// What the arrays say of one peer, by its place in the table: from 0. False beyond the last one.
struct peer_view {
  int32_t index;  // its place in the status array
  bool present;
  int32_t condition;
  int32_t major;
  int32_t minor;
  int32_t health;  // the worst condition of the parts that it judges; 0: none
};
bool get_peer(int place, peer_view *view);

// The text of the health trap.
void format_health_trap(const unsigned char array[STATUS_ARRAY_SIZE],
                        char text[HEALTH_TRAP_TEXT_SIZE]);

#endif
