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
// Gives up what claim_dir() took.
void ForgetClaim();

}  // namespace vex

#endif
