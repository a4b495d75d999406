// What the rest of the framework's agent thread may ask of snmp_api.cpp.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_API_H
#define VEX_FRAMEWORK_SNMP_SNMP_API_H

namespace vex {

// A hook begins: its queries have two seconds in all.
void BeginQueries();

}  // namespace vex

#endif
