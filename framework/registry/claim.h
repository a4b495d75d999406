// The directory of the registry that this process has for itself, and the root above it. Agent
// thread.
#ifndef VEX_FRAMEWORK_REGISTRY_CLAIM_H
#define VEX_FRAMEWORK_REGISTRY_CLAIM_H

#include <string>

namespace vex {

// What the path of the registry's root, and of the directory that this process has claimed below
// it, leads to.
enum class RootState {
  kSame,     // the directories that are held
  kRenewed,  // others: they are held now, and what was written is not there
  kFailed    // nothing that can be used now; *problem says why
};
RootState KeepRoot(std::string *problem);

// Whether claim_dir() has been told that another process has the directory.
bool ClaimRefused();
// The name of the lock file when this is the directory that this process has claimed, else null: it
// stays when the directory is cleared, and does not make it full.
const char *OwnLockFile(int directory);
// Gives up what claim_dir() took.
void ForgetClaim();

}  // namespace vex

#endif
