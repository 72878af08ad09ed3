// SPDX-License-Identifier: Apache-2.0
// Lines that go straight to the system log, for use before (or beside) the trace object.
#pragma once

// Writes one formatted line to syslog at `priority` under the process identity, with
// the same options as the trace (so SWG_LOG_STDERR=1 copies it to standard error).
void SwgSyslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
