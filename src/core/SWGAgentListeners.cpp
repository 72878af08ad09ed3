// SPDX-License-Identifier: Apache-2.0
// The agent's two listeners: created by the main loop, started and stopped in the component order.
#include <new>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "proxy/ListenThread.h"

bool CSWGAgent::CreateListeners(long& error) {
    error = 0;
    bool ipv4Failed = false;
    if (m_pIPv4Listener == nullptr) {
        m_pIPv4Listener = new (std::nothrow) CDnListenThread();
        if (m_pIPv4Listener == nullptr) {
            DNTRACE(ERR, "Error : Failed to create listener object, System Out Of Memory!!!");
            ipv4Failed = true;
        }
    }
    m_bIPv6Present = false;
    if (m_pIPv6Listener == nullptr) {
        if (!IsIPv6Installed()) {
            DNTRACE(WARN, "IPv6 not installed");
        } else {
            m_pIPv6Listener = new (std::nothrow) CDnListenThread();
            m_bIPv6Present = true;
            if (m_pIPv6Listener == nullptr) {
                DNTRACE(ERR,
                        "Error : Failed to create IPv6 listener object, System Out Of Memory!!!");
                error = SWG_E_FAIL;
                return false;
            }
        }
    }
    if (ipv4Failed) error = SWG_E_FAIL;
    return error == 0;
}

int CSWGAgent::StartListener(bool ipv6) {
    CDnListenThread* listener = ipv6 ? m_pIPv6Listener : m_pIPv4Listener;
    if (listener == nullptr || !listener->Initialize(ipv6)) return 1;
    if (listener->StartThread() != 0) {
        listener->Deinitialize();
        return 2;
    }
    return 0;
}

void CSWGAgent::StopListener(bool ipv6) {
    CDnListenThread* listener = ipv6 ? m_pIPv6Listener : m_pIPv4Listener;
    if (listener != nullptr) listener->Deinitialize();
}
