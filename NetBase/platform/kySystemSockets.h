#pragma once

/// The system's own calls of sockets and addresses, for sources of platform/ that systems share:
/// the calls are the same, and stand in other headers.

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif
