// Texts of net-snmp's configuration and object identifiers as text: a token and a line.
#include <cstdio>
#include <string>

#include "framework/snmp/oid_text.h"
#include "framework/snmp/snmp_files.h"
#include "fuzz/require.h"

extern "C" int agentlog_fprintf(FILE *, const char *, ...) {
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const size_t blank = text.find(' ');
  const std::string token = text.substr(0, blank);
  const std::string line = blank == std::string::npos ? "" : text.substr(blank + 1);
  size_t length = 0;
  for (const std::string &word : vex::WordsOf(line)) {
    length += word.size();
  }
  Require(length <= line.size());
  const std::string community = vex::CommunityOfLine(token, line);
  Require(community.size() <= line.size());
  const std::string path = vex::UnixPathOf(text);
  Require(path.empty() || text.ends_with(path));
  const auto oid = vex::ParseOid(text);
  Require(!oid || (oid->size() >= 2 && oid->size() <= vex::kMaxOidLength));
  return 0;
}
