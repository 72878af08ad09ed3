// SPDX-License-Identifier: Apache-2.0
// The upstream proxy the agent knows of: the record, its process-wide copy and its accessors.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/CSLock.h"

// Where a proxy record came from (`proxy_mode`).
constexpr std::uint32_t ProxyModeObserved = 1;  // seen in a client's traffic; the default
constexpr std::uint32_t ProxyModeSystem = 2;    // read from the system's proxy settings

enum PROXY_TYPE : std::int32_t {
    PROXY_TYPE_UNSET = 0,             // no proxy known, or a system proxy just read
    PROXY_TYPE_OBSERVED = 1,          // seen in traffic, no stored credentials for it
    PROXY_TYPE_STORED_PLAIN = 2,      // stored credentials of the plain kind
    PROXY_TYPE_STORED_QUALIFIED = 3,  // stored credentials of the qualified kind
};

enum PROXY_STATE : std::int32_t {
    PROXY_STATE_IN_USE = 0,       // a proxy is recorded; no new look for stored credentials
    PROXY_STATE_UNSET = 1,        // the default; the next observed proxy looks for credentials
    PROXY_STATE_CREDENTIALS = 4,  // the stored credentials match the recorded proxy
};

// One upstream proxy. The default values are the "no proxy" record; copying copies every
// field.
struct LOCAL_PROXY_INFO {
    std::uint32_t proxy_mode = ProxyModeObserved;
    std::string proxy_host = "0.0.0.0";  // dotted IPv4 address
    std::string proxy_realm;
    std::uint16_t proxy_port = 0;  // host byte order
    PROXY_TYPE proxy_type = PROXY_TYPE_UNSET;
    PROXY_STATE proxy_state = PROXY_STATE_UNSET;
};

// The process's proxy record, written by connection threads and the main thread alike.
// Only through the functions below, which hold g_lockProxyInfo.
extern LOCAL_PROXY_INFO g_ProxyInfo;
extern CCSLock g_lockProxyInfo;

// Replaces g_ProxyInfo by `info`, unless `info` names the host and port already recorded:
// then nothing changes, so the first record of a proxy keeps its mode, type and state. Any
// thread; never fails.
void SetProxyInfo(const LOCAL_PROXY_INFO& info);
// A copy of g_ProxyInfo. Any thread.
LOCAL_PROXY_INFO GetProxyInfo();
// Puts g_ProxyInfo back to the default record. Any thread.
void ResetProxyInfo();

// Single fields of g_ProxyInfo. The setters change their field only while the record holds a
// system proxy (ProxyModeSystem) and do nothing otherwise. Any thread.
void SetProxyType(const PROXY_TYPE& type);
PROXY_TYPE GetProxyType();
void SetProxyState(const PROXY_STATE& state);
PROXY_STATE GetProxyState();
void SetProxyRealm(std::string& realm);
std::string GetProxyRealm();
