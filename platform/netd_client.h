// The platform network client's one call that the socket helpers use. On
// Android it comes from libnetd_client; elsewhere platform/netd_client.cc
// replaces it. Stateless; safe from any thread.
#ifndef TPA_PLATFORM_NETD_CLIENT_H_
#define TPA_PLATFORM_NETD_CLIENT_H_

// Binds the socket `socketFd` to the network `netId`. Returns 0 or -errno.
extern "C" int setNetworkForSocket(unsigned netId, int socketFd);

#endif  // TPA_PLATFORM_NETD_CLIENT_H_
