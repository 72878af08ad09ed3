// SPDX-License-Identifier: Apache-2.0
// Steps of the connection job whose pieces are not built yet: mode selection. Each keeps its
// place in HandleConnection and does what the absent piece would: nothing is sniffed, so every
// connection is relayed straight to its destination. Remove an entry here when its piece lands.
#include "proxy/ConnectionThread.h"

#include "foundation/Trace.h"

// TODO(lead): mode selection; until then no byte is looked at and CMode and TMode stay 0.
long CDnConnectionThread::SelectInitialMode() { return 0; }
// TODO(lead): HTTP header block, with CDnHttpHeaders; CMode 2 is never chosen until then.
long CDnConnectionThread::ReadHttpHeaders() { return 0; }
void CDnConnectionThread::SetupHost() {}
bool CDnConnectionThread::ModifyHttpHeaders(CDnHttpHeaders* /*headers*/) { return false; }
// TODO(lead): stand-ins for m_headers.Reset(), &m_headers and m_headers.Write(outgoing socket)
// until the member lands with the header class.
void CDnConnectionThread::ResetHttpHeaders() {}
CDnHttpHeaders* CDnConnectionThread::ClientHeaders() { return nullptr; }
long CDnConnectionThread::WriteClientHeaders() { return 0; }
