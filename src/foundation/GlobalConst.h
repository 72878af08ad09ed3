// SPDX-License-Identifier: Apache-2.0
// Result codes and fixed names shared by every area of the agent.
#pragma once

// Results are 0 for success or a 32-bit code. They travel in `long` (64 bits here), so
// the 0x8... and 0xFE... codes stay positive and compare without sign warnings.
constexpr long SWG_S_OK = 0;
constexpr long SWG_E_FAIL = 0x80004005L;         // general failure
constexpr long SWG_E_OUTOFMEMORY = 0x8007000EL;  // allocation failed
constexpr long SWG_E_INVALIDARG = 0x80070057L;   // bad argument
constexpr long SWG_E_POINTER = 0x80004003L;      // null pointer
constexpr long SWG_E_NOTIMPL = 0x80004001L;      // not implemented

// Module codes of the common library (0xFE...). Codes at or above this value are the
// system's own; below it a code may be an errno value.
constexpr long SWG_E_MODULE_BASE = 0xFE000000L;
constexpr long SWG_E_MODULE_INVALID_ARG = 0xFE000002L;  // bad argument or buffer too small
constexpr long SWG_E_MODULE_NO_INSTANCE = 0xFE00000AL;  // no CAppLog instance exists

// Custom debug log configuration (debuglogconfig.json).
constexpr long SWG_E_LOGCFG_NOT_READABLE = 0xFEDE000AL;  // exists, but reading failed
constexpr long SWG_E_LOGCFG_OPEN_FAILED = 0xFEDE000BL;   // exists, but cannot be opened
constexpr long SWG_E_LOGCFG_NOT_PRESENT = 0xFEDE000CL;   // no file there

// HTTP text helpers.
constexpr int SWG_E_HTTP_NO_STATUS_CODE = 30002;  // GetStatusCodeFromHTTPHeader found no code
constexpr int SWG_E_HTTP_BAD_URL = 30004;         // GetHostAndRequestFromURL got no usable URL

// Fixed strings of the process.
extern const char g_szPRODUCT_NAME[];          // "SWG"
extern const char g_szAPP_PROCESS_NAME[];      // "tsc_swgagent"
extern const char g_szAPlusServiceLogFile[];   // "swg.log"
extern const char g_szSERVICE_MUTEX_NAME[];    // "Global\$SS$srvco$"
extern const char g_szHTTPHeaderTerminator[];  // "\r\n"
