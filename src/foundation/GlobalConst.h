// SPDX-License-Identifier: Apache-2.0
// Result codes and fixed names shared by every area of the agent.
#pragma once

// Results are 0 for success or a 32-bit code. They travel in `long`, as the
// operations that return them are declared.
constexpr long SWG_S_OK = 0;
constexpr long SWG_E_FAIL = 0x80004005L;          // general failure
constexpr long SWG_E_OUTOFMEMORY = 0x8007000EL;   // allocation failed
constexpr long SWG_E_INVALIDARG = 0x80070057L;    // bad argument
constexpr long SWG_E_POINTER = 0x80004003L;       // null pointer
constexpr long SWG_E_NOTIMPL = 0x80004001L;       // not implemented

// Module codes of the common library (0xFE...).
constexpr unsigned long SWG_E_MODULE_INVALID_ARG = 0xFE000002UL;
constexpr unsigned long SWG_E_MODULE_NO_INSTANCE = 0xFE00000AUL;

// Fixed strings of the process.
extern const char g_szPRODUCT_NAME[];          // "SWG"
extern const char g_szAPP_PROCESS_NAME[];      // "tsc_swgagent"
extern const char g_szAPlusServiceLogFile[];   // "swg.log"
extern const char g_szSERVICE_MUTEX_NAME[];    // "Global\$SS$srvco$"
extern const char g_szHTTPHeaderTerminator[];  // "\r\n"
