#include "sim/PseudoTerminal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace coilsim {

namespace {

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
    queue_.clear();
    queuedBytes_ = 0;
    return true;
}

void PseudoTerminal::Close() {
    if (slaveKeeper_ >= 0) ::close(slaveKeeper_);
    if (master_ >= 0) ::close(master_);
    slaveKeeper_ = master_ = -1;
    slavePath_.clear();
    queue_.clear();
    queuedBytes_ = 0;
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
    while (!queue_.empty()) {
        Chunk& c = queue_.front();
        const size_t done = WriteSome(c.bytes.data() + c.sent, c.bytes.size() - c.sent);
        if (done > 0 && c.frame && frameSink_) frameSink_(c.bytes.data() + c.sent, done);
        c.sent += done;
        queuedBytes_ -= done;
        if (c.sent < c.bytes.size()) return false;
        queue_.pop_front();
    }
    return true;
}

bool PseudoTerminal::SendReply(const std::vector<uint8_t>& bytes) {
    if (master_ < 0) return false;
    Flush();
    if (queuedBytes_ + bytes.size() > frameQueueLimit_ + kReplyHeadroomBytes) return false;
    queue_.push_back(Chunk{bytes, 0, false});
    queuedBytes_ += bytes.size();
    Flush();
    return true;
}

bool PseudoTerminal::SendFrame(const std::vector<uint8_t>& bytes) {
    if (master_ < 0) return false;
    Flush();
    if (queuedBytes_ + bytes.size() > frameQueueLimit_) return false;
    queue_.push_back(Chunk{bytes, 0, true});
    queuedBytes_ += bytes.size();
    Flush();
    return true;
}

size_t PseudoTerminal::DropQueuedFrames() {
    size_t dropped = 0;
    for (auto it = queue_.begin(); it != queue_.end();) {
        if (it->frame && it->sent == 0) {
            queuedBytes_ -= it->bytes.size();
            it = queue_.erase(it);
            ++dropped;
        } else {
            ++it;
        }
    }
    return dropped;
}

}  // namespace coilsim
