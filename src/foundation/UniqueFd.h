// SPDX-License-Identifier: Apache-2.0
// CUniqueFd: one file descriptor that closes itself.
#pragma once

#include <unistd.h>

// Owns a descriptor (-1 for none) and closes it on destruction and on Reset, so that every
// way out of a function closes it. Movable, not copyable; one thread at a time.
class CUniqueFd {
public:
    CUniqueFd() = default;
    explicit CUniqueFd(int fd) : m_fd(fd) {}
    ~CUniqueFd() { Reset(); }
    CUniqueFd(CUniqueFd&& other) noexcept : m_fd(other.Release()) {}
    CUniqueFd& operator=(CUniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    CUniqueFd(const CUniqueFd&) = delete;
    CUniqueFd& operator=(const CUniqueFd&) = delete;

    // The descriptor held, -1 for none.
    int Get() const { return m_fd; }
    // Gives up ownership; returns the descriptor.
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    // Closes the descriptor held, if any, and takes `fd`.
    void Reset(int fd = -1) {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};
