// SPDX-License-Identifier: Apache-2.0
// Runs nft scripts through libnftables in the calling thread's network namespace.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <memory>
#include <string>

struct nft_ctx;

// What nft said about one script: `result` 0 when it was applied (or, in a dry run, would
// have been), otherwise non-zero with the reason in `error`.
struct NftOutcome {
    int result = 0;
    std::string output;
    std::string error;
};

// How a refused script failed, as far as the agent acts on it.
enum class NftErrorKind {
    NotFound,   // the kernel has no such table, set or chain (ENOENT)
    Transient,  // a shortage or an interruption that may pass: retry later
    Refused,    // anything else: syntax, missing support, no permission
};

// Classifies the error text of a refused script by the system error it names (libnftables
// reports the kernel's errno as its strerror text). A text naming no known error is Refused;
// an empty one (no context could be had) is Transient. Pure.
NftErrorKind ClassifyNftError(const std::string& error);

// One libnftables context and its netlink socket, opened in the calling thread's network
// namespace. A table created with `flags owner` through it belongs to its socket: the kernel
// removes that table when the context is freed or the process dies, and refuses changes to
// it from any other socket, also another context of this process. Not thread-safe: the owner
// serialises its calls. Each Run blocks for the netlink round trips.
class CNftContext {
public:
    ~CNftContext();
    CNftContext(const CNftContext&) = delete;
    CNftContext& operator=(const CNftContext&) = delete;

    // A new context, or null with the reason in `why`. libnftables ends the whole process when
    // it cannot open its socket, so the socket is tried first (out of descriptors, no memory).
    static std::unique_ptr<CNftContext> Open(std::string& why);
    // Runs `script` (one transaction). With `dryRun` the kernel checks every command and then
    // discards the transaction: nothing changes.
    NftOutcome Run(const std::string& script, bool dryRun = false);

private:
    explicit CNftContext(nft_ctx* context) : m_context(context) {}
    nft_ctx* m_context;
};

// Runs `script` through a context of its own, freed at once, and returns 0 or non-zero as
// NftOutcome::result; output and error text go where given. For reading and for checks only:
// a table owned by the redirector refuses changes from any other context. Any thread.
int RunNftCommand(const std::string& script, std::string* output = nullptr,
                  std::string* error = nullptr, bool dryRun = false);

// The first line of `text`.
std::string FirstNftLine(const std::string& text);
