// Removing what lies in directories, without following a symbolic link. Agent thread.
#ifndef VEX_FRAMEWORK_REGISTRY_CLEARING_H
#define VEX_FRAMEWORK_REGISTRY_CLEARING_H

namespace vex {

// Removes what is in the directory (a descriptor that can be read), whatever its depth, but the
// entry `spared` of the directory itself (null: none). 0, or -1 with errno; goes on after an entry
// that cannot be removed.
int ClearDirectory(int directory, const char *spared = nullptr);

// Removes what `name` in the directory `parent` is, with all that is in it. 0 (also when it is not
// there), or -1 with errno.
int RemoveTree(int parent, const char *name);

}  // namespace vex

#endif
