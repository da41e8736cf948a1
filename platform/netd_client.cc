// Host replacement of the network client: a network is a routing mark, so
// binding a socket to network N marks it with SO_MARK = N, which policy
// routing rules can then select on. Marking needs CAP_NET_ADMIN.
#include "netd_client.h"

#include <sys/socket.h>

#include <cerrno>

extern "C" int setNetworkForSocket(unsigned netId, int socketFd) {
  if (setsockopt(socketFd, SOL_SOCKET, SO_MARK, &netId, sizeof netId) != 0) return -errno;
  return 0;
}
