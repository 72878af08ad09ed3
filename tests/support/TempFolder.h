// SPDX-License-Identifier: Apache-2.0
// Test helper: a fresh folder under /tmp, with everything in it removed on destruction.
#pragma once

#include <string>

namespace swg_test {

class TempFolder {
public:
    TempFolder();  // throws std::runtime_error when the folder cannot be made
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_path; }
    std::string PathOf(const std::string& name) const { return m_path + "/" + name; }
    // Writes `text` to `name` in place (truncate and write), as an editor would; throws on
    // failure.
    void Write(const std::string& name, const std::string& text) const;
    // Writes `text` to a temporary name and renames it over `name`, as an atomic writer would.
    void Replace(const std::string& name, const std::string& text) const;
    void Remove(const std::string& name) const;

private:
    std::string m_path;
};

}  // namespace swg_test
