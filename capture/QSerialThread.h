// The reader of one serial port: a worker that moves whatever the driver holds
// into a queue of chunks (queue mode 0, the data ports) or into a reply
// assembler that cuts the bytes into replies (modes 1 and 2, the command port),
// so that nobody ever waits for the port itself.
#pragma once

#include "capture/SerialPort.h"
#include "common/Data.h"
#include "common/MyThread.h"
#include "common/StreamPort.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>

// Collects the bytes of the command port and hands them out as whole replies.
// Mode 1: each 0x00 ends a reply. Mode 2: a 0x10 followed by 15 more bytes is a
// fixed 16-byte reply. All operations lock, so the reader thread adds while a
// consumer takes.
class ReplyAssembler {
public:
    static constexpr int32_t kBufferSize = 20480;
    // A chunk is accepted only while fill plus its size stays below this.
    static constexpr int32_t kAcceptLimit = 15360;
    static constexpr int32_t kFixedReplySize = 16;
    static constexpr uint8_t kFixedReplyStart = 0x10;

    void SetMode(int32_t mode);
    int32_t Mode() const;
    // Appends n bytes; a chunk that would bring the fill to the limit or beyond
    // is dropped whole. Returns whether it was kept.
    bool Add(const uint8_t* bytes, int32_t n);
    // Appends the complete replies held to out (by the rules of the mode); what
    // is left of an unfinished reply stays for the next call.
    void Take(std::list<DataPtr>& out);
    int32_t Fill() const;
    void ClearFill();

private:
    void TakeTerminated(std::list<DataPtr>& out);
    void TakeFixed(std::list<DataPtr>& out);

    int32_t m_mode = 0;
    int32_t m_fill = 0;
    uint8_t m_buffer[kBufferSize] = {};
    mutable std::mutex m_mutex;
};

class QSerialThread : public StreamPort, public MyThread {
public:
    static constexpr int kPassSleepUs = 5000;
    static constexpr int kWaitPassMs = 15;

    QSerialThread() = default;
    ~QSerialThread() override;

    // Opens the port; on success sets the open flag, takes queueMode for both
    // the queue and the assembler, and starts the reader. Returns whether the
    // port opened; when it did not, no thread starts.
    bool OpenPort(const std::string& path, int baud, int queueMode, bool hardwareFlow) override;
    // Closes the port if open, then stops and joins the reader.
    void ClosePort() override;
    // Reads are cut to multiples of n bytes (n below 1 counts as 1).
    void SetGranularity(int n) override;
    // Writes at once on the caller's thread; timeout is not used. Returns the
    // bytes written, 0 when the port is closed or gone.
    int Send(const uint8_t* bytes, int n, int timeout = 0);
    // Moves what has arrived to the end of out: chunks in queue mode 0, whole
    // replies in the other modes. Returns once out holds something and more
    // than firstMs have passed, or when totalMs have passed; 0 and 0 is one
    // sweep that never waits.
    void WaitReplies(std::list<DataPtr>& out, int firstMs, int totalMs) override;
    // Throws away everything that arrives for ms milliseconds, letting the
    // application's event loop run on each pass, then empties the assembler.
    void DrainFor(int ms);

    bool IsPortOpen() const { return m_open.load(std::memory_order_relaxed); }
    int Granularity() const { return m_granularity.load(std::memory_order_relaxed); }
    int QueueMode() const { return m_queueMode.load(std::memory_order_relaxed); }
    // Bytes waiting in the assembler for their reply to end.
    int32_t AssemblerFill() const { return m_assembler.Fill(); }

    void Run() override;

private:
    // One sweep of what has arrived into out; never waits for the queue mutex.
    void Sweep(std::list<DataPtr>& out);

    SerialPort m_port;
    std::list<DataPtr> m_queue;
    std::mutex m_queueMutex;
    std::mutex m_readMutex;
    std::atomic<bool> m_open{false};
    ReplyAssembler m_assembler;
    std::atomic<int32_t> m_granularity{1};
    std::atomic<int32_t> m_queueMode{0};
};
