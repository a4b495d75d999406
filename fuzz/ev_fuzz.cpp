// EVs: a raw file, or an UEFI variable with its attributes before it, and what is made of the
// values: versions of the utilities. The first byte chooses the place and the length that is asked
// for.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common/sources.h"
#include "fuzz/fake_objects.h"
#include "hardware/qvev/ev_source.h"
// With its state in reach: an EV is read once in the process's life.
#include "software/components.cpp"

namespace {

std::string directory;
std::string raw;
std::string uefi;

void Put(const std::string &path, const uint8_t *data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Require(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
  close(fd);
}

const uint8_t *ev;
size_t ev_size;
swver_row the_row;
bool row_given;
int updates;

}  // namespace

extern "C" int get_ev(const char *name, void *buffer, uint32_t *length) {
  Require(strcmp(name, version_ev) == 0 && *length == version_ev_size);
  if (ev_size == 0) {
    return -1;
  }
  *length = static_cast<uint32_t>(ev_size < *length ? ev_size : *length);
  memcpy(buffer, ev, *length);
  return 0;
}

queue_element *swver_first() {
  row_given = false;
  return nullptr;
}

swver_row *swver_next(queue_element **) {
  swver_row *row = row_given ? nullptr : &the_row;
  row_given = true;
  return row;
}

void swver_update(swver_row *, const char *version, const char *, const char *, int32_t type,
                  int32_t status) {
  // Two numbers and one more byte, whatever it is.
  Require(strlen(version) <= 8 && strchr(version, '.') != nullptr);
  Require(type == SWVER_TYPE_COMPONENT && status == SWVER_STATUS_FOUND);
  updates++;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  char made[] = "/dev/shm/ev-fuzz-XXXXXX";
  Require(mkdtemp(made) != nullptr);
  directory = made;
  raw = directory + "/raw";
  uefi = directory + "/uefi";
  mkdir(raw.c_str(), 0700);
  mkdir(uefi.c_str(), 0700);
  atexit([] {
    for (const std::string &path :
         {raw + "/EV", uefi + "/EV-01234567-89ab-cdef-0123-456789abcdef"}) {
      unlink(path.c_str());
    }
    for (const std::string &path : {raw, uefi, directory}) {
      rmdir(path.c_str());
    }
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const bool is_raw = (data[0] & 1) != 0;
  const size_t asked = data[0] >> 1;
  const uint8_t *value = data + 1;
  const size_t value_size = size - 1;
  const std::string raw_file = raw + "/EV";
  const std::string variable = uefi + "/EV-01234567-89ab-cdef-0123-456789abcdef";
  unlink(raw_file.c_str());
  unlink(variable.c_str());
  Put(is_raw ? raw_file : variable, value, value_size);
  std::string buffer(asked + 1, 'x');
  std::string problem;
  const int64_t got =
      vex::ReadEv({raw.c_str(), uefi.c_str()}, "EV", buffer.data(), asked, &problem);
  Require(got <= static_cast<int64_t>(asked) && buffer[asked] == 'x');
  const size_t skipped = is_raw ? 0 : 4;
  if (got > 0) {
    Require(static_cast<size_t>(got) <= value_size - skipped &&
            memcmp(buffer.data(), value + skipped, static_cast<size_t>(got)) == 0);
  }
  // A name from elsewhere never leads out of the directories.
  const std::string name(reinterpret_cast<const char *>(value), value_size < 64 ? value_size : 64);
  problem.clear();
  if (vex::ReadEv({raw.c_str(), uefi.c_str()}, name.c_str(), buffer.data(), asked, &problem) > 0) {
    Require(strchr(name.c_str(), '/') == nullptr);
  }

  swver_data block = {};
  registry_object object = {};
  object.data = reinterpret_cast<unsigned char *>(&block);
  block.type = SWVER_TYPE_COMPONENT;
  the_row.object = &object;
  const auto &entry = entries[value_size % (sizeof(entries) / sizeof(*entries))];
  memcpy(block.name, entry.name, strlen(entry.name));
  read_attempted = false;
  memset(versions, 0, sizeof(versions));
  ev = value;
  ev_size = value_size;
  updates = 0;
  const int result = update_component_versions();
  Require(result == (value_size == 0 ? -1 : 0) && updates <= 1);
  return 0;
}
