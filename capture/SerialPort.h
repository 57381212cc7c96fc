// One serial port of the sniffer, a USB virtual serial port (or a
// pseudo-terminal of the emulator), behind six operations. Every call returns
// within its own time-out: reads wait at most 50 ms, writes at most 20 ms.
//
// Safe to use from several threads: the reader thread reads while another thread
// writes commands; Close waits for a read or write under way, so a call never
// touches a descriptor that has already been closed and reused.
#pragma once

#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include <string>

class SerialPort {
public:
    static constexpr int kReadTimeoutMs = 50;
    static constexpr int kWriteTimeoutMs = 20;

    SerialPort() = default;
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;
    ~SerialPort();

    // Opens path for reading and writing at baud, 8 data bits, no parity, one
    // stop bit, raw. hardwareFlow turns on RTS/CTS handshake. The input queue is
    // purged. Returns 1 when open, 0 when the path does not open or is no
    // terminal, -1 when the purge failed (the port is then open nonetheless).
    // A port already open is closed first.
    int Open(const std::string& path, int baud, bool hardwareFlow);
    bool IsOpen() const;
    void Close();
    // Bytes the driver holds for reading; 0 when closed or when the query fails.
    int BytesAvailable();
    // Reads up to n bytes, waiting at most 50 ms for them all; returns the bytes
    // read, 0 when closed or gone.
    int Read(uint8_t* buffer, int n);
    // Writes n bytes, waiting at most 20 ms for room; returns the bytes written,
    // 0 when closed or gone.
    int Write(const uint8_t* buffer, int n);

private:
    std::atomic<int> m_fd{-1};
    // Reads and writes share it; Close takes it alone.
    mutable std::shared_mutex m_useMutex;
};
