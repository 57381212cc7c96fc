#include "sim/PseudoTerminal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace coilsim {

namespace {

// Replies queue behind a stalled host up to this many bytes.
constexpr size_t kMaxPending = 65536;

std::string SystemError(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

PseudoTerminal::~PseudoTerminal() { Close(); }

bool PseudoTerminal::Open(std::string& error) {
    Close();
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0) {
        error = SystemError("posix_openpt");
        return false;
    }
    char name[256];
    if (::grantpt(master) != 0 || ::unlockpt(master) != 0 || ::ptsname_r(master, name, sizeof name) != 0) {
        error = SystemError("pseudo-terminal setup");
        ::close(master);
        return false;
    }
    // Non-blocking and not inherited by programs started from here.
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    const int keeper = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (keeper < 0) {
        error = SystemError("opening the pseudo-terminal's slave");
        ::close(master);
        return false;
    }
    termios tio{};
    if (::tcgetattr(keeper, &tio) == 0) {
        ::cfmakeraw(&tio);
        tio.c_cc[VMIN] = 1;
        tio.c_cc[VTIME] = 0;
        ::tcsetattr(keeper, TCSANOW, &tio);
    }
    master_ = master;
    slaveKeeper_ = keeper;
    slavePath_ = name;
    pending_.clear();
    return true;
}

void PseudoTerminal::Close() {
    if (slaveKeeper_ >= 0) ::close(slaveKeeper_);
    if (master_ >= 0) ::close(master_);
    slaveKeeper_ = master_ = -1;
    slavePath_.clear();
    pending_.clear();
}

size_t PseudoTerminal::Read(uint8_t* buffer, size_t n) {
    if (master_ < 0 || n == 0) return 0;
    for (;;) {
        const ssize_t got = ::read(master_, buffer, n);
        if (got > 0) return static_cast<size_t>(got);
        if (got < 0 && errno == EINTR) continue;
        return 0;
    }
}

size_t PseudoTerminal::WriteSome(const uint8_t* bytes, size_t n) {
    size_t done = 0;
    while (done < n && master_ >= 0) {
        const ssize_t put = ::write(master_, bytes + done, n - done);
        if (put > 0) {
            done += static_cast<size_t>(put);
            continue;
        }
        if (put < 0 && errno == EINTR) continue;
        break;  // full (EAGAIN) or failed: the rest waits
    }
    return done;
}

bool PseudoTerminal::Flush() {
    if (pending_.empty()) return true;
    const size_t done = WriteSome(pending_.data(), pending_.size());
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(done));
    return pending_.empty();
}

bool PseudoTerminal::SendReply(const std::vector<uint8_t>& bytes) {
    if (master_ < 0) return false;
    if (!Flush()) {
        if (pending_.size() + bytes.size() > kMaxPending) return false;
        pending_.insert(pending_.end(), bytes.begin(), bytes.end());
        return true;
    }
    const size_t done = WriteSome(bytes.data(), bytes.size());
    pending_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(done), bytes.end());
    return true;
}

bool PseudoTerminal::SendFrame(const std::vector<uint8_t>& bytes) {
    if (master_ < 0 || !Flush()) return false;
    const size_t done = WriteSome(bytes.data(), bytes.size());
    if (done == 0 && !bytes.empty()) return false;  // nothing went: drop it whole
    pending_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(done), bytes.end());
    return true;
}

}  // namespace coilsim
