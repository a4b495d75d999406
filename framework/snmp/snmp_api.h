// What the rest of the framework's agent thread may ask of snmp_api.cpp.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_API_H
#define VEX_FRAMEWORK_SNMP_SNMP_API_H

namespace vex {

// A hook begins: its queries have two seconds in all.
void BeginQueries();

// After each poll: reads what an earlier process kept of its notifications if that has not been
// possible yet, removes it once the master has it, and keeps what waits for a master that is away,
// so that a kill loses none.
void RetryUnsent() noexcept;
// Ends the SNMP side, at the end of the process, and keeps what it could not send for the next one.
// False when its thread hangs, as SnmpStop() says.
bool EndSnmp();

}  // namespace vex

#endif
