// SPDX-License-Identifier: Apache-2.0
// The seam around the host's proxy settings store.
#pragma once

#include <map>
#include <string>

// The system's HTTPS proxy as a settings store gives it: up to three keys, "HTTPSEnable"
// (a number, 0 for off), "HTTPSProxy" (the host as written) and "HTTPSPort" (a number), each
// held as text. A missing key is absent from the map; a value that could not be read is
// present and not a number.
using ProxySettingsDictionary = std::map<std::string, std::string>;

// Reads the host's proxy settings. Tests give the keys of their choosing.
class ISystemProxySettings {
public:
    virtual ~ISystemProxySettings() = default;

    // The settings as they are now. Blocks for a small file read at most; never fails (what
    // cannot be read is reported as above). Any thread, any number at once.
    virtual ProxySettingsDictionary CopyProxies() = 0;
};

// The host's settings. Lives until the process ends.
ISystemProxySettings& SystemProxySettings();
