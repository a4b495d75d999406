#include "agent/snmpd_watchdog.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "common/util.h"
#include "platform/framework.h"

// ---- State --------------------------------------------------------------------------------------

static constexpr char size_command[] =
    "SNMPDPID=`/sbin/pidof snmpd`; [ ! -z \"$SNMPDPID\" ] && ps -o vsz $SNMPDPID | grep -v SZ | "
    "sort -u";
static constexpr char restart_command[] =
    "[ -f /etc/rc.d/init.d/snmpd ] && /etc/rc.d/init.d/snmpd restart";
static constexpr int output_size = 64;
static constexpr time_t interval = 1800;  // seconds

static bool disabled = true;
static time_t last_check;
static int32_t baseline = -1;  // negative: none yet

// ---- Reading ------------------------------------------------------------------------------------

long parse_snmpd_size(const char *output) {
  char *behind;
  const long number = strtol(output, &behind, 10);
  // A size without suffix stays as it is, in kilobytes, on purpose: the message calls all of them
  // K, and only the ratio to the size before counts.
  int bits = 0;
  if (*behind == 'M') {
    bits = 20;
  } else if (*behind == 'K') {
    bits = 10;
  }
  if (number > LONG_MAX >> bits) {
    return LONG_MAX;
  }
  return number < LONG_MIN >> bits ? LONG_MIN : number << bits;
}

static long snmpd_size() {
  char output[output_size] = "";
  int length = sizeof(output);
  process_linux_cmd(size_command, output, &length);
  return parse_snmpd_size(output);
}

// ---- Acting -------------------------------------------------------------------------------------

static void restart_snmpd(long size) {
  // The word "ealier" is what log filters look for.
  agentlog_fprintf(stderr, "Restarting snmpd. Current size = %ldK. size captured ealier = %ldK\n",
                   size, static_cast<long>(baseline));
  char output[output_size] = "";
  int length = sizeof(output);
  process_linux_cmd(restart_command, output, &length);
  baseline = -1;
}

void enable_snmpd_watchdog() {
  disabled = false;
}

void check_snmpd_memory() {
  const time_t now = time(nullptr);
  if (disabled) {
    return;
  }
  if (now < last_check) {
    last_check = now;  // the clock was set back: the interval begins anew
  }
  if (now - last_check < interval) {
    return;
  }
  last_check = now;
  const long size = snmpd_size();
  if (size == 0) {
    return;
  }
  // Compared as it is kept: a size beyond the baseline's range has not grown by being so.
  if (baseline < 0) {
    baseline = clamp_int32(size);
  } else if (clamp_int32(size) > int64_t{2} * baseline) {
    restart_snmpd(size);
  }
}
