// SPDX-License-Identifier: Apache-2.0
// What GetPreferredInterface finds for a destination.
#pragma once

#include <string>

struct InterfaceInfo {
    std::string strInterfaceName;  // as if_indextoname gives it
    std::string strReserved;       // not written
    std::string strDnsDomain;      // only when asked for
    std::string strIpAddress;      // the interface's address as text
};
