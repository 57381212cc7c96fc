#include "capture/SerialPort.h"

#include "capture/SerialSpeed.h"

#include <cerrno>
#include <chrono>
#include <mutex>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

// Milliseconds left until deadline, rounded up so that a poll never returns
// just short of it; 0 once it has passed.
int MsLeft(SteadyTime deadline)
{
    using namespace std::chrono;
    const auto left = deadline - steady_clock::now();
    if (left <= steady_clock::duration::zero())
        return 0;
    return static_cast<int>(duration_cast<milliseconds>(left + milliseconds(1) - nanoseconds(1)).count());
}

// Waits until fd is ready for events or the deadline passes. Returns false when
// the deadline passed or the port reports an error or hang-up without being
// ready, true when it is worth trying the call again.
bool WaitReady(int fd, short events, SteadyTime deadline)
{
    for (;;) {
        const int ms = MsLeft(deadline);
        if (ms <= 0)
            return false;
        pollfd p{fd, events, 0};
        const int r = ::poll(&p, 1, ms);
        if (r < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (r == 0)
            return false;
        if (p.revents & events)
            return true;
        return false;  // POLLERR, POLLHUP or POLLNVAL alone: the other end is gone
    }
}

}  // namespace

SerialPort::~SerialPort()
{
    Close();
}

int SerialPort::Open(const std::string& path, int baud, bool hardwareFlow)
{
    std::unique_lock<std::shared_mutex> lock(m_useMutex);
    const int old = m_fd.exchange(-1, std::memory_order_relaxed);
    if (old >= 0) {
        ::ioctl(old, TIOCNXCL);
        ::close(old);
    }

    // Non-blocking: an open never waits for a carrier, and every read and write
    // below waits through poll with its own time-out.
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return 0;

    termios tio{};
    if (::tcgetattr(fd, &tio) != 0) {
        ::close(fd);
        return 0;
    }
    ::cfmakeraw(&tio);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    tio.c_cflag |= CS8 | CREAD | CLOCAL;
    if (hardwareFlow)
        tio.c_cflag |= CRTSCTS;
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    if (::tcsetattr(fd, TCSANOW, &tio) != 0) {
        ::close(fd);
        return 0;
    }
    // The rate goes through the arbitrary-rate interface, 1024000 having no
    // standard constant. A pseudo-terminal has no line rate; whatever it makes
    // of the request, the port stays usable.
    SetArbitraryBaud(fd, baud);

    // DTR on; RTS is the handshake line with flow control and off without it.
    // Pseudo-terminals have no modem lines, so these are best effort.
    int dtr = TIOCM_DTR;
    ::ioctl(fd, TIOCMBIS, &dtr);
    if (!hardwareFlow) {
        int rts = TIOCM_RTS;
        ::ioctl(fd, TIOCMBIC, &rts);
    }
    // No sharing: further opens of this terminal are refused until Close.
    ::ioctl(fd, TIOCEXCL);

    m_fd.store(fd, std::memory_order_relaxed);
    if (::tcflush(fd, TCIFLUSH) != 0)
        return -1;
    return 1;
}

bool SerialPort::IsOpen() const
{
    return m_fd.load(std::memory_order_relaxed) >= 0;
}

void SerialPort::Close()
{
    std::unique_lock<std::shared_mutex> lock(m_useMutex);
    const int fd = m_fd.exchange(-1, std::memory_order_relaxed);
    if (fd < 0)
        return;
    ::ioctl(fd, TIOCNXCL);
    ::close(fd);
}

int SerialPort::BytesAvailable()
{
    std::shared_lock<std::shared_mutex> lock(m_useMutex);
    const int fd = m_fd.load(std::memory_order_relaxed);
    if (fd < 0)
        return 0;
    int n = 0;
    if (::ioctl(fd, FIONREAD, &n) != 0)
        return 0;
    return n > 0 ? n : 0;
}

int SerialPort::Read(uint8_t* buffer, int n)
{
    if (buffer == nullptr || n <= 0)
        return 0;
    std::shared_lock<std::shared_mutex> lock(m_useMutex);
    const int fd = m_fd.load(std::memory_order_relaxed);
    if (fd < 0)
        return 0;
    const SteadyTime deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadTimeoutMs);
    int got = 0;
    bool saidReady = false;
    while (got < n) {
        const ssize_t r = ::read(fd, buffer + got, static_cast<size_t>(n - got));
        if (r > 0) {
            got += static_cast<int>(r);
            saidReady = false;
            continue;
        }
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            break;  // EIO and the like: the device went away
        // Nothing to read. With VMIN and VTIME 0 that is a read of 0, and a
        // hung-up terminal reads 0 as well: if the port said it was readable
        // and still gives nothing, the other end is gone.
        if (r == 0 && saidReady)
            break;
        if (!WaitReady(fd, POLLIN, deadline))
            break;
        saidReady = true;
    }
    return got;
}

int SerialPort::Write(const uint8_t* buffer, int n)
{
    if (buffer == nullptr || n <= 0)
        return 0;
    std::shared_lock<std::shared_mutex> lock(m_useMutex);
    const int fd = m_fd.load(std::memory_order_relaxed);
    if (fd < 0)
        return 0;
    const SteadyTime deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWriteTimeoutMs);
    int put = 0;
    while (put < n) {
        const ssize_t r = ::write(fd, buffer + put, static_cast<size_t>(n - put));
        if (r > 0) {
            put += static_cast<int>(r);
            continue;
        }
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            break;
        if (!WaitReady(fd, POLLOUT, deadline))
            break;
    }
    return put;
}
