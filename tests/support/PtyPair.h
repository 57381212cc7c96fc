// A pseudo-terminal pair for tests of the serial transport: the test holds the
// master side (the far end, where the device would be) and the code under test
// opens the slave by its path.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

inline int64_t MsSince(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

// For a bound on how long a call takes: measure() runs the call once and
// returns the milliseconds it took; it runs up to `tries` times, until a run
// comes within limitMs, and the least time measured is returned. A call that
// gets the processor whenever it asks keeps the bound every time; on a loaded
// machine any one run may be kept waiting past it, hardly every run of a few.
template <class Measure>
int64_t FastestOf(int tries, int64_t limitMs, Measure measure)
{
    int64_t fastest = std::numeric_limits<int64_t>::max();
    for (int k = 0; k < tries && fastest > limitMs; ++k)
        fastest = std::min<int64_t>(fastest, measure());
    return fastest;
}

// A pseudo-terminal pair; the master is the far end.
class PtyPair {
public:
    PtyPair()
    {
        m_master = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master < 0)
            return;
        char name[128] = {};
        if (::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0 || ::ptsname_r(m_master, name, sizeof name) != 0) {
            CloseFar();
            return;
        }
        ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
        m_slave = name;
    }
    ~PtyPair() { CloseFar(); }

    bool Ok() const { return m_master >= 0 && !m_slave.empty(); }
    const std::string& SlavePath() const { return m_slave; }

    void WriteFar(const std::vector<uint8_t>& bytes)
    {
        size_t put = 0;
        const auto t0 = std::chrono::steady_clock::now();
        while (put < bytes.size() && MsSince(t0) < 10000) {
            const ssize_t r = ::write(m_master, bytes.data() + put, bytes.size() - put);
            if (r > 0) {
                put += static_cast<size_t>(r);
                continue;
            }
            pollfd p{m_master, POLLOUT, 0};
            ::poll(&p, 1, 10);
        }
        ASSERT_EQ(put, bytes.size());
    }

    // Reads from the far end until want bytes came or timeoutMs passed.
    std::vector<uint8_t> ReadFar(size_t want, int timeoutMs)
    {
        std::vector<uint8_t> got;
        const auto t0 = std::chrono::steady_clock::now();
        uint8_t buf[4096];
        while (got.size() < want && MsSince(t0) < timeoutMs) {
            const ssize_t r = ::read(m_master, buf, sizeof buf);
            if (r > 0) {
                got.insert(got.end(), buf, buf + r);
                continue;
            }
            pollfd p{m_master, POLLIN, 0};
            ::poll(&p, 1, 5);
        }
        return got;
    }

    void CloseFar()
    {
        if (m_master >= 0)
            ::close(m_master);
        m_master = -1;
    }

private:
    int m_master = -1;
    std::string m_slave;
};
