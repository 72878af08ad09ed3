// SPDX-License-Identifier: Apache-2.0
// Linked into every test binary: an agent that a test starts without its own redirector
// seams gets no redirector, never one on the host's packet filter; and files that tests
// write pass the agent's trust check whatever the caller's umask.
#include <sys/stat.h>

#include <cerrno>

#include "platform/SocketRedirectorApi.h"
#include "redirect/RedirectTypes.h"

namespace {

int RefuseRedirector(ISocketRedirectorApi** /*out*/) { return ENODEV; }

// The default factory is constant-initialised, so this runs after it whatever the order.
[[maybe_unused]] const bool g_guarded = (SetDefaultRedirectorFactory(&RefuseRedirector), true);

// A umask of 002 (usual for users with a group of their own) makes group-writable files,
// which the agent refuses to read.
[[maybe_unused]] const mode_t g_previousUmask = ::umask(022);

}  // namespace
