// SPDX-License-Identifier: Apache-2.0
// libnftables behind one context class and one call.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftCommand.h"

#include <linux/netlink.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/GlobalUtils.h"

namespace {

// The errors of the kernel or of the socket that say "not now" rather than "never".
constexpr int kTransientErrors[] = {ENOMEM, ENOBUFS, EMFILE, ENFILE,
                                    EINTR,  EAGAIN,  EBUSY,  ETIMEDOUT};

bool Names(const std::string& text, int error) {
    return text.find(ErrnoText(error)) != std::string::npos;
}

}  // namespace

NftErrorKind ClassifyNftError(const std::string& error) {
    if (error.empty()) return NftErrorKind::Transient;
    if (Names(error, ENOENT)) return NftErrorKind::NotFound;
    for (const int transient : kTransientErrors) {
        if (Names(error, transient)) return NftErrorKind::Transient;
    }
    return NftErrorKind::Refused;
}

std::string FirstNftLine(const std::string& text) { return text.substr(0, text.find('\n')); }

CNftContext::~CNftContext() { nft_ctx_free(m_context); }

std::unique_ptr<CNftContext> CNftContext::Open(std::string& why) {
    // nft_ctx_new calls exit() when its netlink socket cannot be had; try one first.
    const int probe = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    if (probe < 0) {
        why = std::string("no netlink socket: ") + ErrnoText(errno);
        return nullptr;
    }
    ::close(probe);
    nft_ctx* context = nft_ctx_new(NFT_CTX_DEFAULT);
    if (context == nullptr) {
        why = "no nftables context";
        return nullptr;
    }
    // Buffered so that nothing reaches the service's standard streams.
    nft_ctx_buffer_output(context);
    nft_ctx_buffer_error(context);
    return std::unique_ptr<CNftContext>(new CNftContext(context));
}

NftOutcome CNftContext::Run(const std::string& script, bool dryRun) {
    nft_ctx_set_dry_run(m_context, dryRun);
    NftOutcome outcome;
    outcome.result = nft_run_cmd_from_buffer(m_context, script.c_str()) == 0 ? 0 : 1;
    // Reading a buffer also empties it for the next script.
    const char* output = nft_ctx_get_output_buffer(m_context);
    const char* error = nft_ctx_get_error_buffer(m_context);
    outcome.output = output != nullptr ? output : "";
    outcome.error = error != nullptr ? error : "";
    nft_ctx_set_dry_run(m_context, false);
    return outcome;
}

int RunNftCommand(const std::string& script, std::string* output, std::string* error, bool dryRun) {
    std::string why;
    const std::unique_ptr<CNftContext> context = CNftContext::Open(why);
    if (!context) {
        if (error != nullptr) *error = why;
        return 1;
    }
    NftOutcome outcome = context->Run(script, dryRun);
    if (output != nullptr) *output = std::move(outcome.output);
    if (error != nullptr) *error = std::move(outcome.error);
    return outcome.result;
}
