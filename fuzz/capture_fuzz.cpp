// A capture from a stranger: its archive, description and figures; and net-snmp's configuration,
// whose secrets it must not have. The first byte says which.
#include <cstdlib>
#include <string>

#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/figures.h"
#include "tools/vexreg/secrets.h"

namespace {

void Require(bool holds) {
  if (!holds) {
    abort();
  }
}

void Look(std::vector<vex::Member> members) {
  for (const vex::Member &member : members) {
    Require(vex::IsMemberName(member.name));
    Require(member.bytes.size() <= vex::kMostMemberBytes);
  }
  std::string error;
  if (const auto capture = vex::CaptureOf(std::move(members), &error)) {
    Require(vex::CaptureOf({{vex::kDescriptionMember, 0, vex::DescriptionJson(*capture)}}, &error)
                .has_value());
  }
}

void LookForSecret(const std::string &text) {
  // Whatever stands before it, the value of such a line goes.
  constexpr char kSecret[] = "s3cretword";
  vex::Secrets secrets;
  const std::string kept =
      vex::WithoutSnmpSecrets(text + "\nrocommunity " + kSecret + "\n", &secrets);
  Require(kept.find(kSecret) == std::string::npos || text.find(kSecret) != std::string::npos ||
          text.ends_with('\\'));
  vex::WithoutSecrets(text, secrets);
  Require(vex::ObjectFileWithoutPasswords(text, &secrets).size() == text.size());
  vex::WithoutAssignedSecrets(text, &secrets);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  std::string error;
  switch (data[0]) {
    case 'a':
      if (auto members = vex::UnpackMembers(text, &error)) {
        Look(std::move(*members));
      }
      break;
    case 't':
      if (auto members = vex::ReadTar(text, &error)) {
        Look(std::move(*members));
      }
      break;
    case 'j':
      Look({{vex::kDescriptionMember, 0, text}});
      break;
    case 'f': {
      const auto figures = vex::ParseFigures(text);
      const std::string written = vex::FiguresText(figures);
      Require(vex::FiguresText(vex::ParseFigures(written)) == written);
      vex::AskedDirectories(text);
      break;
    }
    default:
      LookForSecret(text);
  }
  return 0;
}
