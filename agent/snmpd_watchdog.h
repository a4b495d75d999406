// A guard against a growing snmpd: restarts it when its virtual size has more than doubled.
#ifndef VEX_AGENT_SNMPD_WATCHDOG_H
#define VEX_AGENT_SNMPD_WATCHDOG_H

// Off until this is called.
void enable_snmpd_watchdog();

// Looks at snmpd's size, at most every half hour.
void check_snmpd_memory();

// The number that `ps -o vsz` printed, with a suffix K or M applied as a power of two; 0 when there
// is none.
long parse_snmpd_size(const char *output);

#endif
