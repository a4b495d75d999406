// Starting net-snmp's libraries and what their configuration files say. SNMP side only.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_CONFIG_H
#define VEX_FRAMEWORK_SNMP_SNMP_CONFIG_H

#include <string>

#include "framework/snmp/agentx_session.h"
#include "framework/snmp/snmp_files.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

// Initialises the libraries for `application` and reads its configuration. Opens nothing. Throws
// std::runtime_error that says why it cannot.
void LoadSnmpConfiguration(const std::string &application, SnmpSettings *settings,
                           AgentxSession::Settings *session);
// The address of "tcp:A.B.C.D:PORT" and "tcp:localhost:PORT"; nothing for any other target.
std::optional<MasterAddress::Tcp> TcpAddressOf(const std::string &target);
void UnloadSnmp(const std::string &application);

}  // namespace vex

#endif
