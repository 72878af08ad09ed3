// SPDX-License-Identifier: Apache-2.0
namespace swg_core { int linked() { return 1; } }
