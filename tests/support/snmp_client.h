// A manager's single GETs, made in this process: cheap enough to time answers by the thousand.
#ifndef VEX_TESTS_SUPPORT_SNMP_CLIENT_H
#define VEX_TESTS_SUPPORT_SNMP_CLIENT_H

#include <cstdint>
#include <optional>
#include <string>

namespace made_up {

struct Answer {
  int error = 0;       // error-status of the response
  uint8_t tag = 0;     // of the first variable's value: 2 INTEGER, 0x80 noSuchObject,
                       // 0x81 noSuchInstance, 0x82 endOfMibView, 4 octets
  int64_t number = 0;  // of an integer type
  std::string octets;
  double seconds = 0;  // between the request and its answer
};

// One GET (or GETNEXT) of one OID in numeric form at 127.0.0.1:161; nothing when there was no
// answer in time. Nothing is sent twice.
std::optional<Answer> QuickGet(const std::string &oid, double seconds = 1, bool next = false);

}  // namespace made_up

#endif
