// SPDX-License-Identifier: Apache-2.0
// The main loop's wait, dispatch and address-change debounce, apart from the agent so
// that its timing can be driven by a fake clock.
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

// What the loop needs from its surroundings. Called on the main thread only.
class IMessageLoopHost {
public:
    virtual ~IMessageLoopHost() = default;
    // Waits any-of on (0: message event, 1: address-change event) for `timeoutMs`
    // (WAIT_INFINITE for no limit); returns the index or WAIT_TIMEOUT_CODE.
    virtual long WaitForEvents(unsigned long timeoutMs) = 0;
    // The current UTC time.
    virtual boost::posix_time::ptime Now() = 0;
    // Acts on a settled run of address changes.
    virtual void TakeActionOnAddrChange() = 0;
    // Clears the address-change event.
    virtual void ResetAddrChangeEvent() = 0;
    // Drains every queued message; true when MSG_ID_QUIT was among them.
    virtual bool DrainMessages() = 0;
};

// A run of address changes is acted on once, `windowMs` after the last of them; a
// message in the middle of the window leaves the deadline where it was.
class CMessageLoop {
public:
    explicit CMessageLoop(IMessageLoopHost& host, unsigned long windowMs = 5000);

    // Runs rounds until a round sees MSG_ID_QUIT.
    void Run();
    // One wait and its dispatch; true when the loop must end.
    bool RunOnce();
    // The timeout the next wait will use.
    unsigned long Timeout() const { return m_timeoutMs; }

private:
    IMessageLoopHost& m_host;
    const unsigned long m_windowMs;
    unsigned long m_timeoutMs;
    boost::posix_time::ptime m_lastChange;
};
