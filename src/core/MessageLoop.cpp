// SPDX-License-Identifier: Apache-2.0
// Wait, dispatch and debounce of the main loop.
#include "core/MessageLoop.h"

#include "foundation/ConditionEvent.h"
#include "foundation/Trace.h"

CMessageLoop::CMessageLoop(IMessageLoopHost& host, unsigned long windowMs)
    : m_host(host), m_windowMs(windowMs), m_timeoutMs(WAIT_INFINITE) {}

void CMessageLoop::Run() {
    while (!RunOnce()) {
    }
}

bool CMessageLoop::RunOnce() {
    const long result = m_host.WaitForEvents(m_timeoutMs);

    // Something arrived inside a debounce window: keep the deadline, or act now if it
    // has already passed. The dispatch below still follows.
    if (m_timeoutMs != WAIT_INFINITE && result != WAIT_TIMEOUT_CODE) {
        const boost::posix_time::ptime now = m_host.Now();
        const boost::posix_time::ptime deadline =
            m_lastChange + boost::posix_time::milliseconds(m_windowMs);
        if (now < deadline) {
            m_timeoutMs = static_cast<unsigned long>((deadline - now).total_milliseconds());
        } else {
            m_host.TakeActionOnAddrChange();
            m_timeoutMs = WAIT_INFINITE;
        }
    }

    bool quit = false;
    switch (result) {
        case WAIT_TIMEOUT_CODE:
            // Also the empty wake-up of an infinite wait: it reads as a timeout.
            m_host.TakeActionOnAddrChange();
            m_timeoutMs = WAIT_INFINITE;
            break;
        case 1:
            DNTRACE(TRACE, "CSWGAgent: IPAddr change event, wait %d milliseconds before actioning",
                    static_cast<int>(m_windowMs));
            m_host.ResetAddrChangeEvent();
            m_lastChange = m_host.Now();
            m_timeoutMs = m_windowMs;
            break;
        case 0:
            quit = m_host.DrainMessages();
            break;
        default:
            DNTRACE(ERR, "Error occurred in CSWGAgent::RunMessageLoop. Code : %d",
                    static_cast<int>(result));
            break;
    }
    return quit;
}
