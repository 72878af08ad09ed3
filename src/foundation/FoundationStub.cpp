// SPDX-License-Identifier: Apache-2.0
namespace swg_foundation { int linked() { return 1; } }
