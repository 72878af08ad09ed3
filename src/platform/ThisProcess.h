// SPDX-License-Identifier: Apache-2.0
// The seam for facts about the running process itself.
#pragma once

#include <string>

// The kernel's id of the calling thread, as the system log and ps show it. Never fails;
// any thread.
int CurrentThreadId();

// The full path of the running program's executable; "" when it cannot be read. Any thread.
std::string OwnExecutablePath();
