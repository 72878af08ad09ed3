// SPDX-License-Identifier: Apache-2.0
// Test helper: temporary folders.
#include "support/TempFolder.h"

#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace swg_test {

TempFolder::TempFolder() {
    char pattern[] = "/tmp/swg-test-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempFolder::~TempFolder() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(m_path, ignored);
}

void TempFolder::Write(const std::string& name, const std::string& text) const {
    std::ofstream out(PathOf(name), std::ios::binary | std::ios::trunc);
    if (!(out << text).flush()) throw std::runtime_error("cannot write " + name);
}

void TempFolder::Replace(const std::string& name, const std::string& text) const {
    Write(name + ".part", text);
    if (std::rename(PathOf(name + ".part").c_str(), PathOf(name).c_str()) != 0)
        throw std::runtime_error("cannot rename over " + name);
}

void TempFolder::Remove(const std::string& name) const { std::remove(PathOf(name).c_str()); }

}  // namespace swg_test
