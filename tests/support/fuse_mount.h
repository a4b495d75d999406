// A FUSE file system that answers statvfs() with given figures, or not at all, and has one file
// that nobody gets to read: the server is a thread of the test that speaks fuse(4) itself.
#ifndef VEX_TESTS_SUPPORT_FUSE_MOUNT_H
#define VEX_TESTS_SUPPORT_FUSE_MOUNT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace made_up {

class FuseMount {
 public:
  // The file below the directory. Its reads are not answered until Recover(), then with EIO. Who
  // opens it for reading and writing has it without the page cache, so that mapping it waits for
  // all reads.
  static constexpr char kFile[] = "file";

  // Mounts on the directory, which is made; its figures: 4 KiB blocks.
  FuseMount(const std::string &directory, uint64_t blocks, uint64_t free_blocks,
            uint64_t files = 100, uint64_t free_files = 40);
  ~FuseMount();  // unmounts lazily and lets go who still waits
  FuseMount(const FuseMount &) = delete;
  FuseMount &operator=(const FuseMount &) = delete;

  // From now on statvfs() is not answered: the server takes the request and says nothing.
  void Hang();
  // From now on statvfs() is answered that much later, with the figures of then; not a growing one.
  void Delay(std::chrono::milliseconds delay);
  // From now on nothing is answered: whoever touches the mount waits, and cannot be killed.
  void HangAll();
  // Answers, also those who wait; what was no statvfs(), with EIO.
  void Recover();
  // Calls that wait now.
  size_t Waiting() const;
  // How often it was asked.
  size_t Asked() const;
  void SetFree(uint64_t free_blocks);
  // Lazily: who waits goes on waiting.
  void Unmount();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace made_up

#endif
