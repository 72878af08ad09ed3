// SPDX-License-Identifier: Apache-2.0
// Direct syslog writes under the process identity.
#include "foundation/DirectSyslog.h"

#include <syslog.h>

#include <cstdarg>

#include "foundation/GlobalConst.h"
#include "foundation/SSTrace.h"

void SwgSyslog(int priority, const char* format, ...) {
    openlog(g_szAPP_PROCESS_NAME, SwgSyslogOptions(), LOG_DAEMON);
    va_list args;
    va_start(args, format);
    SwgVsyslog(priority, format, args);
    va_end(args);
}
