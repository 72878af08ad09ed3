/* SPDX-License-Identifier: Apache-2.0
 * Test stand-in for a host whose nftables lacks a feature, preloaded into the agent
 * (LD_PRELOAD): scripts that use what SWG_TEST_NFT_REFUSE names go to libnftables with
 * that word spoiled, so that libnftables refuses them with its own error text.
 *   owner  tables owned by a socket ("flags owner"), as on kernels before 5.12
 *   nat    the NAT chain type ("type nat")
 */
#define _GNU_SOURCE /* NOLINT(bugprone-reserved-identifier): glibc asks for it, for RTLD_NEXT */
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

struct nft_ctx;

int nft_run_cmd_from_buffer(struct nft_ctx* ctx, const char* buf) {
    int (*real)(struct nft_ctx*, const char*) =
        (int (*)(struct nft_ctx*, const char*))dlsym(RTLD_NEXT, "nft_run_cmd_from_buffer");
    const char* refuse = getenv("SWG_TEST_NFT_REFUSE");
    const char* word = NULL;
    if (refuse != NULL && strcmp(refuse, "owner") == 0) word = "flags owner";
    if (refuse != NULL && strcmp(refuse, "nat") == 0) word = "type nat ";
    if (word == NULL || strstr(buf, word) == NULL) return real(ctx, buf);
    char* spoiled = strdup(buf);
    if (spoiled == NULL) return -1;
    /* "flags owner" -> "flags 0wner", "type nat " -> "type n@t " */
    for (char* at = strstr(spoiled, word); at != NULL; at = strstr(at + 1, word)) {
        at[strlen(word) - (word[0] == 'f' ? 5 : 3)] = word[0] == 'f' ? '0' : '@';
    }
    const int result = real(ctx, spoiled);
    free(spoiled);
    return result;
}
