// SPDX-License-Identifier: Apache-2.0
// libnftables behind one call.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftCommand.h"

#include <nftables/libnftables.h>

#include <memory>

namespace {
struct NftContextDeleter {
    void operator()(nft_ctx* context) const { nft_ctx_free(context); }
};
}  // namespace

int RunNftCommand(const std::string& script, std::string* output, std::string* error) {
    std::unique_ptr<nft_ctx, NftContextDeleter> context(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!context) return -1;
    // Buffered so that nothing reaches the service's standard streams.
    nft_ctx_buffer_output(context.get());
    nft_ctx_buffer_error(context.get());
    const int result = nft_run_cmd_from_buffer(context.get(), script.c_str());
    if (output != nullptr) {
        const char* text = nft_ctx_get_output_buffer(context.get());
        *output = text != nullptr ? text : "";
    }
    if (error != nullptr) {
        const char* text = nft_ctx_get_error_buffer(context.get());
        *error = text != nullptr ? text : "";
    }
    return result == 0 ? 0 : 1;
}
