// SPDX-License-Identifier: Apache-2.0
// Linked into every test binary: an agent that a test starts without its own redirector
// seams gets no redirector, never one on the host's packet filter.
#include <cerrno>

#include "platform/SocketRedirectorApi.h"
#include "redirect/RedirectTypes.h"

namespace {

int RefuseRedirector(ISocketRedirectorApi** /*out*/) { return ENODEV; }

// The default factory is constant-initialised, so this runs after it whatever the order.
[[maybe_unused]] const bool g_guarded = (SetDefaultRedirectorFactory(&RefuseRedirector), true);

}  // namespace
