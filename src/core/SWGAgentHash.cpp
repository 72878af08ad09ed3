// SPDX-License-Identifier: Apache-2.0
// The hash manager's place in the start and stop order.
#include "core/HashManagerImp.h"
#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"

namespace {
constexpr unsigned long kHashCacheSize = 0x200;
}

long CSWGAgent::InitializeHashManagerInterface() {
    if (m_pHashManager != nullptr) return SWG_S_OK;
    m_pHashManager = CHashManagerClassFactory::CreateInstance();
    if (m_pHashManager == nullptr) {
        DNTRACE(ERR, "Failed to create the hash manager, System Out Of Memory");
        return SWG_E_OUTOFMEMORY;
    }
    m_pHashManager->SetCacheSize(kHashCacheSize);
    return SWG_S_OK;
}

void CSWGAgent::ReleaseHashManager() { CHashManagerClassFactory::ReleaseInstance(&m_pHashManager); }
