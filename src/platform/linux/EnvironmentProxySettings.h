// SPDX-License-Identifier: Apache-2.0
// The system proxy of a Linux host: https_proxy of the service, else of /etc/environment.
#pragma once

#if !defined(__linux__)
#error "Linux adapter"
#endif

#include <functional>
#include <string>

#include "platform/SystemProxySettings.h"

// Reads `https_proxy`, then `HTTPS_PROXY`, from the service's environment; when neither is
// set, the same names from the environment file (pam_env's KEY=value lines; comments, quotes
// and a leading "export" are accepted, the last assignment wins). The value is a proxy URL
// ("http://198.18.0.5:3128", scheme optional) and becomes the three keys:
//
//   not set anywhere, or empty        HTTPSEnable "0"
//   a scheme other than http, https   HTTPSEnable "0" (logged)
//   host[:port]                       HTTPSEnable "1", HTTPSProxy host, HTTPSPort the port as
//                                     written ("" without one, so that it reads as not found)
//
// A user:password part is dropped, logged without its text, and never stored; the agent sends
// no proxy credentials. Any thread.
class CEnvironmentProxySettings : public ISystemProxySettings {
public:
    // `getenv` looks a name up in the service's environment (null: not set); `environmentFile`
    // is read on each call.
    CEnvironmentProxySettings(std::function<const char*(const char*)> getenv,
                              std::string environmentFile);

    ProxySettingsDictionary CopyProxies() override;

private:
    std::function<const char*(const char*)> m_getenv;
    std::string m_environmentFile;
};
