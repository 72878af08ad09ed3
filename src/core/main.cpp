// SPDX-License-Identifier: Apache-2.0
// Entry point of the tsc_swgagent service.
int main() { return 0; }
