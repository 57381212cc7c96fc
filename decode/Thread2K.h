// Owner of the ASK data port: unpacks the device's stream frames into envelope
// samples, feeds the display queue and the burst cutter.
#pragma once

#include "common/MyThread.h"
#include "common/StreamFrame.h"
#include "common/StreamPort.h"
#include "decode/AskStream.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct SettingParams;

class CThread2K : public MyThread {
public:
    using PortFactory = StreamPortFactory;

    explicit CThread2K(PortFactory factory = nullptr);
    ~CThread2K() override;

    // Opens the port and starts the run loop; non-zero on success. The run loop
    // starts even when the port does not open, and idles.
    int Open(const std::string& portName, bool writeHeader, int baud, int queueMode);
    // Everything Open does but starting the run loop: the caller drives the
    // passes itself with RunPass (replay of recorded streams, tests).
    int OpenWithoutLoop(const std::string& portName, bool writeHeader, int baud);
    void Close();
    // A new acquisition on the open port: the run loop pauses, whatever the
    // port queued before now is dropped, and the frame parser, the sample
    // count, the burst cutter and the display start afresh, so that nothing
    // of an earlier acquisition reaches this one and its samples are counted
    // from its start. Called while no decoding thread takes bursts.
    void BeginAcquisition();

    void Run() override;

    // One pass of the run loop: every queued chunk is parsed, then the burst
    // cutter runs once. Returns the number of words parsed.
    size_t RunPass();

    // Parses n 16-bit little-endian words of stream bytes.
    void ParseWords(const uint8_t* bytes, size_t words);

    std::list<uint16_t> TakeDisplaySamples();
    void ClearDisplaySamples();

    AskStream& Stream() { return m_stream; }

    // Range statistics of the envelope since their last reset.
    int32_t RangeMax() const { return m_rangeMax; }
    int32_t RangeMin() const { return m_rangeMin; }
    int32_t RangeCount() const { return m_rangeCount; }
    uint64_t SampleCounter() const { return m_sampleCounter.load(std::memory_order_relaxed); }
    int64_t BytesSeen() const { return m_bytesSeen; }
    uint32_t TimeStamp() const { return m_parser.stamp; }
    int ParserState() const { return m_parser.state; }
    uint32_t Remaining() const { return m_parser.remaining; }

    void SetSettings(SettingParams* settings) { m_settings = settings; }

    static constexpr size_t kDisplayLimit = 3000;

private:
    std::mutex m_displayMutex;
    std::deque<uint16_t> m_display;
    SettingParams* m_settings = nullptr;
    std::FILE* m_captureFile = nullptr;
    bool m_captureHeader = false;  // the capture file begins with the header
    int64_t m_bytesSeen = 0;
    // Written by the run loop only; read by others (the views, tests).
    std::atomic<uint64_t> m_sampleCounter{0};
    std::vector<uint16_t> m_replay;

    StreamFrameParser m_parser;
    int m_divider = 5;
    int m_decimation = 0;

    int32_t m_rangeMax = 0;
    int32_t m_rangeMin = 4096;
    int32_t m_rangeCount = 0;

    AskStream m_stream;
    std::unique_ptr<StreamPort> m_port;
    PortFactory m_factory;
    // The interface thread asks for the sample vector to be emptied; the run
    // loop, which owns the vector, does it at the top of its next pass.
    std::atomic<bool> m_clearRequested{false};
};
