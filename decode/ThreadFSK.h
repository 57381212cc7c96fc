// Owner of the FSK data port: unpacks the device's stream frames into carrier
// period words on a 60 MHz time base, feeds the carrier tracker and keeps the
// packets and digital pings that it finds for the decoding threads.
#pragma once

#include "common/CarrierEdge.h"
#include "common/DigitalPingInfo.h"
#include "common/MyThread.h"
#include "common/StreamFrame.h"
#include "common/StreamPort.h"
#include "decode/FskStream.h"

#include <atomic>
#include <cstdio>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct SettingParams;

class CThreadFSK : public MyThread, public TriggerFskCallback {
public:
    using PortFactory = StreamPortFactory;

    // The tracker's frequency band is read from the settings record here, once.
    explicit CThreadFSK(PortFactory factory = nullptr, SettingParams* settings = nullptr);
    ~CThreadFSK() override;

    int Open(const std::string& portName, bool writeHeader, int baud, int queueMode);
    // Everything Open does but starting the run loop (replay, tests).
    int OpenWithoutLoop(const std::string& portName, bool writeHeader, int baud);
    void Close();
    // A new acquisition on the open port: the run loop pauses, whatever the
    // port queued before now is dropped, and the frame parser, the carrier
    // tracker, the tick counter and the lists of packets, pings and wire
    // words start afresh. Called while no decoding thread takes packets.
    void BeginAcquisition();

    void Run() override;
    // One pass: every queued chunk parsed, then up to 3000 replay words.
    // Returns the bytes read.
    size_t RunPass();
    // Parses the words of one chunk; S is taken from this chunk as the device's
    // pacing makes each chunk begin with a frame header.
    void ParseChunk(const uint8_t* bytes, size_t words);

    std::list<uint16_t> TakeDisplayWords();
    std::shared_ptr<TriggerData> TakePacket();
    // Queues a packet made elsewhere (a recorded one, for instance).
    void PutPacket(std::shared_ptr<TriggerData> packet);
    DigitalPingInfoPtr TakeDigitalPing();
    // The carrier's edges since the last call, oldest first (capture time).
    void TakeCarrierEdges(std::vector<::CarrierEdge>& out);
    int64_t CurrentFrequency() const { return m_tracker.DisplayFrequency(); }

    // ---- the second FSK reader
    // The wire feed: every period word with its capture time (60 MHz ticks at
    // the word's end), as the parser delivers them, for the second reader.
    void SetWireFeed(bool on) { m_wireFeed.store(on, std::memory_order_relaxed); }
    bool WireFeed() const { return m_wireFeed.load(std::memory_order_relaxed); }
    // The words handed over since the last call, oldest first; false if none.
    bool TakeWire(std::vector<uint16_t>& words, std::vector<int64_t>& ticks);
    // The two decoding loops take turns at feeding the reader, so that it
    // reads the words in order.
    std::mutex& WireTurn() { return m_wireTurn; }
    // A packet taken for decoding, counted until PacketDecoded: while one is
    // being decoded, the chain has not passed it.
    std::shared_ptr<TriggerData> TakePacketToDecode();
    void PacketDecoded();
    // When no packet is waiting or being decoded: true, with the capture time
    // in microseconds before which every packet of the chain has been decoded.
    bool ChainPassed(uint64_t& us);

    // Words to feed back into the tracker, taken 3000 a pass.
    void LoadReplay(const std::vector<uint16_t>& words);

    void DigitalPing(int64_t startTicks, int64_t endTicks, int64_t period) override;
    void FskPacket(std::shared_ptr<TriggerData> packet) override;
    void CarrierEdge(bool on, int64_t ticks) override;

    FskCarrierTracker& Tracker() { return m_tracker; }
    int64_t Ticks() const { return m_ticks; }
    uint32_t Stamp() const { return m_stampCopy.load(std::memory_order_relaxed); }
    int ParserState() const { return m_parser.state; }
    size_t PendingPackets();
    size_t PendingPings();

    static constexpr size_t kDisplayLimit = 3000;

private:
    void Word(uint16_t w);
    void PassWireWords();

    std::mutex m_clearMutex;
    std::mutex m_displayMutex;
    std::deque<uint16_t> m_display;
    std::FILE* m_captureFile = nullptr;
    bool m_captureHeader = false;  // the capture file begins with the header
    std::vector<uint16_t> m_replay;
    size_t m_replayIndex = 0;
    int64_t m_ticks = 0;
    std::mutex m_listMutex;
    std::list<std::shared_ptr<TriggerData>> m_packets;
    std::list<DigitalPingInfoPtr> m_pings;
    std::vector<::CarrierEdge> m_edges;  // under m_listMutex
    FskCarrierTracker m_tracker;
    int m_divider = 5;
    int m_decimation = 0;
    StreamFrameParser m_parser;
    int64_t m_chunkSum = 0;
    std::atomic<uint32_t> m_stampCopy{0};
    // The wire feed: words gathered by the run loop, handed over at the end
    // of each pass under the wire mutex.
    std::atomic<bool> m_wireFeed{false};
    std::vector<uint16_t> m_wireWords;
    std::vector<int64_t> m_wireTicks;
    std::mutex m_wireMutex;
    std::vector<uint16_t> m_wireOutWords;  // guarded by m_wireMutex
    std::vector<int64_t> m_wireOutTicks;   // guarded by m_wireMutex
    std::mutex m_wireTurn;
    // The chain's progress: under m_listMutex.
    int64_t m_chainOpenFrom = 0;
    int m_decoding = 0;
    std::unique_ptr<StreamPort> m_port;
    PortFactory m_factory;
    SettingParams* m_settings;
};
