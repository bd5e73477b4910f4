// Orvet::socketAt: open a socket inside a named network namespace.
//
// The calling thread enters the namespace (setns), opens the socket and
// returns to the namespace it was in; the socket stays bound to the
// namespace it was created in. The name is a file under /run/netns (as made
// by "ip netns add"), or an absolute path to a namespace file; the empty name
// opens the socket in the caller's own namespace.
//
// Thread-safety: changes the namespace of the calling thread only, and only
// for the duration of the call. Needs CAP_SYS_ADMIN for a named namespace.
#pragma once

#include <string>

#include "mroute/runtime/net/namespace_name.h"

namespace Orvet {

// The descriptor, or -1 with errno set (ENOENT: no such namespace). Failing
// to return to the caller's namespace is fatal: the thread would go on in the
// wrong one.
int socketAt(int domain, int type, int protocol, const NamespaceName& ns);

// The file that names a namespace: "/run/netns/<name>", or the name itself
// when it is an absolute path.
std::string namespacePath(const NamespaceName& ns);

}  // namespace Orvet
