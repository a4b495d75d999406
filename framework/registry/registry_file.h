// The registry on disk: one file per published object, read and written by any process of the
// suite. The format is described in docs/registry-format.md. No state, no threads of its own, and
// nothing of the framework is needed: tools link this alone.
#ifndef VEX_FRAMEWORK_REGISTRY_REGISTRY_FILE_H
#define VEX_FRAMEWORK_REGISTRY_REGISTRY_FILE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/registry/registry_path.h"

namespace vex {

struct FileVariable {
  std::string name;
  uint8_t type = 0;     // enum variable_type; 0: a slot that was never defined
  uint8_t access = 0;   // enum variable_access
  uint32_t size = 0;    // bytes in the data block
  uint32_t offset = 0;  // of the value in the data block
  uint16_t length = 0;  // current length (octet strings), at most size
};

// One published state of one object.
struct FileObject {
  std::vector<FileVariable> variables;  // in slot order
  std::vector<uint8_t> data;
  uint64_t sequence = 0;     // of the publication, from 1
  int64_t published_ns = 0;  // CLOCK_REALTIME of the publication
};

// Reads the newest complete state; nothing when the file is absent, truncated, of another version,
// not a regular file, or fails its checks. Never blocks on a special file, never follows a symbolic
// link below the root. `name` as for ResolveObjectName().
std::optional<FileObject> ReadObjectFile(std::string_view name,
                                         std::string_view root = kRegistryRoot);

// What has become of an object's file since it was written.
enum class FileState {
  kIntact,
  kLost,    // gone, replaced, damaged, or its mode or owner changed: the next publication makes it
            // anew
  kUnknown  // it could not be looked at (errno): ask again later
};

// Writes the states of one object. Keep one per live object: it remembers the file's layout and
// which slot is the older one. All of a process's writers belong to one thread. Neither copied nor
// assigned, but moved.
class ObjectFileWriter {
 public:
  // `relative` is a result of ResolveObjectName().
  explicit ObjectFileWriter(std::string relative, const std::string &root = kRegistryRoot);
  ~ObjectFileWriter();
  ObjectFileWriter(ObjectFileWriter &&) noexcept;

  // The layout of the states to come; a change after the first publication makes the next one
  // replace the file (by rename) instead of writing in place. Only type, access, size, offset and
  // name are taken.
  void SetLayout(const std::vector<FileVariable> &variables, uint32_t data_size);
  // Publishes one state: a rename the first time, one pwrite into the older slot afterwards.
  // `lengths` has the current one of each slot's variable. 0, or -1 with errno. Never syncs.
  int Publish(const uint8_t *data, const uint16_t *lengths);
  // Looks whether the file is still there as this writer left it: one statx(2), by which a change
  // of the content shows as well. The content itself is compared after a publication, after any
  // other change, and with read_back. directory: Directory(), open.
  FileState Check(int directory, bool read_back);
  // The directory of the object below the root.
  std::string_view Directory() const;
  // Unlinks the file that this writer made; never one that somebody else has put in its place. 0
  // (also when there is none) or -1 with errno.
  int Remove();

 private:
  struct State;
  State *state_;
};

// Unlinks an object's file, whoever made it. relative: a result of ResolveObjectName(). 0 (also
// when there is none) or -1 with errno.
int RemoveObjectFile(const std::string &relative, const std::string &root = kRegistryRoot);

// An object's name from the root, and its newest complete state; none when the file is damaged or
// may not be read.
struct NamedFile {
  std::string name;
  std::optional<FileObject> object;
};
// Reads the objects that stand in one directory itself ("host"), in the order of ListObjects(): for
// thousands of them a small part of what ListObjects() and ReadObjectFile() cost. Empty when there
// is no such directory.
std::vector<NamedFile> ReadObjectsOf(std::string_view directory,
                                     std::string_view root = kRegistryRoot);

// Names of all object files below the root (relative, sorted by name with numbers by value);
// temporary files of writers are left out.
std::vector<std::string> ListObjects(std::string_view root = kRegistryRoot);

}  // namespace vex

#endif
