// SPDX-License-Identifier: Apache-2.0
// Keeps the platform library non-empty while no adapter is built yet.
namespace swg_platform {
int linked() { return 1; }
}  // namespace swg_platform
