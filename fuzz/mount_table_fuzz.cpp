// Passes of the file-system table: lines of /etc/mtab, what file systems (a hostile FUSE server's
// too) say of themselves, and what VMware's vdf prints. The input is two texts, ended by zeros, and
// the figures.
#include <string>

// With its state in reach.
#include "fuzz/fake_objects.h"
#include "monitors/filesys.cpp"

namespace {

bool inside;
std::string vdf_text;
const uint8_t *figures;
size_t figures_left;

std::string TakeText(const uint8_t **data, size_t *size) {
  const size_t length = strnlen(reinterpret_cast<const char *>(*data), *size);
  std::string text(reinterpret_cast<const char *>(*data), length);
  const size_t taken = length < *size ? length + 1 : length;
  *data += taken;
  *size -= taken;
  return text;
}

}  // namespace

extern "C" {

int stat_mounts(const char *const *paths, size_t count, mount_stats *results) {
  for (size_t i = 0; i < count; i++) {
    Require(strnlen(paths[i], mount_name_size) < mount_name_size);
    results[i] = {};
    const size_t n = figures_left < sizeof(results[i]) ? figures_left : sizeof(results[i]);
    memcpy(&results[i], figures, n);
    figures += n;
    figures_left -= n;
    results[i].state = static_cast<int>(static_cast<unsigned>(results[i].state) % 4);
  }
  return 0;
}

// The fuzzer's own calls, between inputs, are left alone.
DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path) {
  if (!inside) {
    return __real_opendir(path);
  }
  return strcmp(path, vmfs_volumes_directory) == 0 ? __real_opendir("/") : nullptr;
}

int run_command(const char *command, int, char *output, size_t size, size_t *length) {
  Require(strcmp(command, vdf_command) == 0);
  *length = vdf_text.size() < size ? vdf_text.size() : size - 1;
  memcpy(output, vdf_text.data(), *length);
  output[*length] = '\0';
  return vdf_text.empty() ? COMMAND_NOT_RUN : 0;
}

FILE *mount_text;
FILE *__wrap_setmntent(const char *, const char *) {
  return mount_text;
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  inside = true;
  std::string table_text = TakeText(&data, &size);
  vdf_text = TakeText(&data, &size);
  for (int pass = 0; pass < 3; pass++) {
    figures = data;
    figures_left = size;
    mount_text = table_text.empty() ? nullptr : fmemopen(table_text.data(), table_text.size(), "r");
    vmware_phase = pass == 2 ? 1 : 0;
    do_filesys();
    queue_element *cursor = table.rows.head;
    int rows = 0;
    while (filesys_row *row = table.next(&cursor)) {
      const filesys_block *block = block_of(row);
      Require(memchr(block->description, '\0', sizeof(block->description)) != nullptr);
      rows++;
    }
    Require(rows == fake::live);
  }
  Require(remove_filesys_rows(nullptr) == 0 && fake::live == 0);
  inside = false;
  return 0;
}
