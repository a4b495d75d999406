// The objects that a selection stands for, read again only where a file has changed.
#ifndef VEX_TOOLS_VEXREG_FOLLOWER_H
#define VEX_TOOLS_VEXREG_FOLLOWER_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "framework/registry/registry_file.h"
#include "tools/vexreg/names.h"

namespace vex {

// What an object has become since the look before; null: it is no longer there.
struct ObjectStep {
  std::string name;
  std::shared_ptr<const FileObject> object;
};

// What a look has found.
struct Look {
  int error = 0;                     // of opening the root (errno); 0: it is there
  std::vector<ObjectStep> steps;     // those that stay as they were are not among them
  std::vector<std::string> missing;  // names of the selection that stand for nothing at the moment
  std::vector<std::string> damaged;  // files that hold no object now but say that they do
};

// One thread. A look costs one fstatat(2) for each file below the root, and a reading for each that
// has changed.
class Follower {
 public:
  // also: objects that are followed besides, whether they are there or not.
  Follower(Selection selection, std::vector<std::string> also);

  Look LookAgain();
  // Files read in the last look.
  size_t reads() const;

 private:
  // By which a file shows that it was written.
  struct Stamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modified_ns = 0;
    int64_t changed_ns = 0;
    bool operator==(const Stamp &) const = default;
  };
  struct File {
    Stamp stamp;
    bool settled = false;    // written so long ago that another write would show in the stamp
    bool is_object = false;  // `object` is what the file holds
    bool damaged = false;
    bool given = false;  // the object has been told of
    std::shared_ptr<const FileObject> object;
  };
  // In the order of the names.
  using Stamps = std::vector<std::pair<std::string, Stamp>>;

  static void List(int parent, const char *name, const std::string &prefix, int depth,
                   Stamps *stamps);
  void Choose(const Stamps &stamps, Look *look);
  void Read(const std::string &name, const Stamp &stamp, File *file);
  std::shared_ptr<const FileObject> Narrowed(const std::string &name, const File &file) const;

  const Selection selection_;
  const std::vector<std::string> also_;
  std::vector<std::string> names_;      // as of the last choice
  bool chosen_ = false;                 // names_ and what follows are of use
  std::set<std::string> whole_;         // objects of which all is wanted
  std::vector<std::string> variables_;  // wanted of whatever object has them
  std::vector<std::string> missing_;
  std::map<std::string, File> files_;
  std::vector<File *> places_;  // by the place in names_; null: not wanted
  size_t reads_ = 0;
};

}  // namespace vex

#endif
