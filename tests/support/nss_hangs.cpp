// A directory service whose answer never comes: libnss_hangs.so.2 for nsswitch.conf(5).
#include <netdb.h>
#include <nss.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) nss_status _nss_hangs_getservbyname_r(
    const char *, const char *, servent *, char *, size_t, int *) {
  for (;;) {
    pause();
  }
}
