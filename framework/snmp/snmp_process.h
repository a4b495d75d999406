// The SNMP process: everything that decodes what comes from the master or the network, with no
// rights to do anything else.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_PROCESS_H
#define VEX_FRAMEWORK_SNMP_SNMP_PROCESS_H

#include <chrono>

#include "framework/process/descriptor.h"
#include "framework/snmp/agentx_session.h"
#include "framework/snmp/confinement.h"

namespace vex {

// What the process allows itself at its end, after kStop.
inline constexpr std::chrono::milliseconds kProcessGoodbye{150};

// In a fresh process with one thread: gives up its rights and serves until the channel ends or says
// so. images, control: of an ImageRingWriter.
[[noreturn]] void RunSnmpProcess(const AgentxSession::Settings &settings, Descriptor channel,
                                 Descriptor images, Descriptor control, const SnmpUser &user);

}  // namespace vex

#endif
