// SPDX-License-Identifier: Apache-2.0
// Cost of one licence header, which every gateway request carries.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config/OrgInfo.h"
#include "upstream/LicenceHeader.h"

int main(int argc, char** argv) {
    const char* pemPath = argc > 1 ? argv[1] : "packaging/sample/licence-test-public.pem";
    std::ifstream in(pemPath);
    std::stringstream pem;
    pem << in.rdbuf();
    if (pem.str().empty()) {
        std::fprintf(stderr, "usage: LicenceBench [public key PEM]; run from the source root\n");
        return 2;
    }
    OrgInfoRecord org;
    org.strpKeyPem = pem.str();
    org.strpKeyId = "bench-key";
    org.strOrgId = "org-4711";
    org.strDeviceId = "device-9f1c";
    org.strPstrUserId = "Hjane.doe@corp.example";
    std::vector<std::string> lines;
    std::string error;
    if (!BuildLicenceHeaderLines(org, "198.18.0.2", lines, error)) {
        std::fprintf(stderr, "licence header: %s\n", error.c_str());
        return 1;
    }
    constexpr int kHeaders = 20000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kHeaders; ++i) (void)BuildLicenceHeaderLines(org, "198.18.0.2", lines, error);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    std::printf("licence header: %.1f us each (%d headers, %zu-byte payload line)\n",
                std::chrono::duration<double, std::micro>(elapsed).count() / kHeaders, kHeaders,
                lines.size() > 1 ? lines[1].size() : 0);
    return 0;
}
