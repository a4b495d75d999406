// net-snmp transports over sockets that are opened here: close-on-exec from the first moment (a
// shell command may be started at any time), and never blocking, neither to connect nor to send.
#ifndef VEX_FRAMEWORK_SNMP_SOCKET_TRANSPORT_H
#define VEX_FRAMEWORK_SNMP_SOCKET_TRANSPORT_H

#include <net-snmp/net-snmp-config.h>
// After it:
#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace vex {

// A connection to a listening Unix stream socket. -1 with errno: nobody listens, or its queue is
// full. The descriptor is the caller's.
int ConnectUnix(const std::string &path);
// The same over TCP, except that the connection may still be under way; that it failed is then told
// as its end.
int ConnectTcp(const std::string &ipv4_address, uint16_t port);
// A connected UDP socket, so that a port nobody listens on is told at once.
int ConnectUdp(const std::string &ipv4_address, uint16_t port);

// A transport over a connected socket, which it takes over whatever happens; for -1, and without
// memory, null with errno. It belongs to the caller until a session takes it.
netsnmp_transport *StreamTransport(int fd);
netsnmp_transport *DatagramTransport(int fd);

// What could not be sent yet waits here; Flush() when the socket is writable. Only for transports
// of this file.
bool HasUnsent(const netsnmp_transport *transport);
// 0, or -1 when the connection is broken.
int Flush(netsnmp_transport *transport);

}  // namespace vex

#endif
