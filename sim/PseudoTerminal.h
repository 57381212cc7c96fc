// One emulated serial port: a pseudo-terminal whose master side the emulator
// keeps, in raw mode, with the slave side held open as well so that the
// terminal never hangs up while no host has it open.
//
// Writes never block. What the terminal can't take at once waits in a
// bounded queue, as it would in the host's driver behind a real device; a
// stream frame that finds the queue full is dropped whole, so that the host
// only ever sees whole frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace coilsim {

class PseudoTerminal {
public:
    // Bytes of stream frames queued at most, per port, unless set otherwise.
    static constexpr size_t kMaxQueuedFrameBytes = 256 * 1024;
    // Replies may queue a little beyond the frames.
    static constexpr size_t kReplyHeadroomBytes = 64 * 1024;

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

    // A reply, sent after whatever is queued. False only when the queue is
    // full (the host has long stopped reading).
    bool SendReply(const std::vector<uint8_t>& bytes);
    // A stream frame, sent after whatever is queued; false when it was
    // dropped because the queue is full.
    bool SendFrame(const std::vector<uint8_t>& bytes);
    // Forgets the queued frames that haven't begun to go out (a frame under
    // way is finished, so the stream stays whole). Returns how many.
    size_t DropQueuedFrames();
    // Moves queued bytes on; true when nothing is left queued.
    bool Flush();
    bool HasQueued() const { return !queue_.empty(); }

    // How many bytes of stream frames may wait; a larger queue lets a host
    // that stalls for a moment catch up without losing frames.
    void SetFrameQueueLimit(size_t bytes) { frameQueueLimit_ = bytes; }

    // Called with the bytes of stream frames as they go out to the terminal.
    void SetFrameSink(std::function<void(const uint8_t*, size_t)> sink) { frameSink_ = std::move(sink); }

private:
    struct Chunk {
        std::vector<uint8_t> bytes;
        size_t sent = 0;
        bool frame = false;
    };

    // Writes what it can of bytes; returns the count written.
    size_t WriteSome(const uint8_t* bytes, size_t n);

    int master_ = -1;
    int slaveKeeper_ = -1;
    std::string slavePath_;
    std::deque<Chunk> queue_;
    size_t queuedBytes_ = 0;
    size_t frameQueueLimit_ = kMaxQueuedFrameBytes;
    std::function<void(const uint8_t*, size_t)> frameSink_;
};

}  // namespace coilsim
