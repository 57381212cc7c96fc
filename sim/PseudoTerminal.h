// One emulated serial port: a pseudo-terminal whose master side the emulator
// keeps, in raw mode, with the slave side held open as well so that the
// terminal never hangs up while no host has it open. Writes never block: what
// the terminal can't take at once waits in a small pending buffer, and a
// stream frame that finds the buffer busy is dropped whole, so that the host
// always sees whole frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace coilsim {

class PseudoTerminal {
public:
    PseudoTerminal() = default;
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    // Creates the pair. False with a message when the system refuses.
    bool Open(std::string& error);
    void Close();
    bool IsOpen() const { return master_ >= 0; }

    int MasterFd() const { return master_; }
    const std::string& SlavePath() const { return slavePath_; }

    // Reads what the host wrote, at most n bytes; 0 when there is nothing.
    size_t Read(uint8_t* buffer, size_t n);

    // A reply: sent now, or after what is pending. False only when the
    // pending buffer is full (the host has stopped reading).
    bool SendReply(const std::vector<uint8_t>& bytes);
    // A stream frame: sent whole (possibly finishing later from the pending
    // buffer), or dropped when something is still pending. Returns whether
    // it was taken.
    bool SendFrame(const std::vector<uint8_t>& bytes);
    // Moves pending bytes on; true when nothing is left pending.
    bool Flush();
    bool HasPending() const { return !pending_.empty(); }

private:
    // Writes what it can of bytes; returns the count written.
    size_t WriteSome(const uint8_t* bytes, size_t n);

    int master_ = -1;
    int slaveKeeper_ = -1;
    std::string slavePath_;
    std::vector<uint8_t> pending_;
};

}  // namespace coilsim
