// SPDX-License-Identifier: Apache-2.0
// Anchor of the test support library; the helpers live beside it.
namespace swg_test {
int support_linked() { return 1; }
}  // namespace swg_test
