// SPDX-License-Identifier: Apache-2.0
// Values of the fixed strings of the process.
#include "foundation/GlobalConst.h"

const char g_szPRODUCT_NAME[] = "SWG";
const char g_szAPP_PROCESS_NAME[] = "tsc_swgagent";
const char g_szAPlusServiceLogFile[] = "swg.log";
const char g_szSERVICE_MUTEX_NAME[] = "Global\\$SS$srvco$";
const char g_szHTTPHeaderTerminator[] = "\r\n";
