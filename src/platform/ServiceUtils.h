// SPDX-License-Identifier: Apache-2.0
// Look-ups of other processes on this host.
#pragma once

#include <string>

namespace ServiceUtils {

// The id of a running process whose command name is exactly `name` (the first one found),
// or -1 when none runs or the process table cannot be read. Names longer than the kernel
// keeps (15 characters) never match. Any thread; reads /proc.
int GetPIDFromProcessName(const std::string& name);

}  // namespace ServiceUtils
