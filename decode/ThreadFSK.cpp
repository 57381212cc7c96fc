#include "decode/ThreadFSK.h"

#include "common/TimeText.h"
#include "decode/CaptureFile.h"
#include "services/SettingParams.h"

#include <algorithm>
#include <chrono>
#include <thread>

CThreadFSK::CThreadFSK(PortFactory factory, SettingParams* settings)
    : m_tracker(SettingParams::Or(settings).m_min_freq, SettingParams::Or(settings).m_max_freq),
      m_factory(std::move(factory)),
      m_settings(settings)
{
    m_tracker.SetCallback(this);
}

CThreadFSK::~CThreadFSK()
{
    Close();
    if (m_captureFile)
        std::fclose(m_captureFile);
}

int CThreadFSK::Open(const std::string& portName, bool writeHeader, int baud, int queueMode)
{
    const bool alreadyOpen = m_port != nullptr;
    const int opened = OpenWithoutLoop(portName, writeHeader, baud);
    if (!alreadyOpen)
        Start();
    return opened;
}

int CThreadFSK::OpenWithoutLoop(const std::string& portName, bool writeHeader, int baud)
{
    const SettingParams& settings = SettingParams::Or(m_settings);
    if (settings.m_fsk_capture_data) {
        // A file of an earlier run is complete (every chunk was flushed); it is
        // closed here rather than left open behind an overwritten handle.
        if (m_captureFile)
            std::fclose(m_captureFile);
        m_captureFile = OpenCaptureFile(settings.capturePath, ".fsk.bin", writeHeader);
        m_captureHeader = writeHeader;
    }
    m_tracker.Reset();
    m_divider = 5;
    {
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_chainOpenFrom = 0;
    }
    if (m_port)
        return 1;
    m_replay.clear();
    m_replayIndex = 0;
    m_port = OpenDataPort(m_factory, portName, baud);
    const int opened = m_port ? 1 : 0;
    // The parser starts on a frame header. (Cleared before the loop starts, so
    // that the loop never sees a half-cleared parser.)
    m_parser.Reset();
    return opened;
}

void CThreadFSK::Close()
{
    Stop();
    CloseDataPort(m_port);
    std::lock_guard<std::mutex> lock(m_displayMutex);
    m_display.clear();
    m_decimation = 0;
}

void CThreadFSK::BeginAcquisition()
{
    const bool looping = IsRunning();
    Stop();
    if (SettingParams::Or(m_settings).m_fsk_capture_data)
        RenewCaptureFile(m_captureFile, SettingParams::Or(m_settings).capturePath, ".fsk.bin", m_captureHeader);
    if (m_port) {
        std::list<DataPtr> stale;
        m_port->WaitReplies(stale, 0, 0);
    }
    m_parser.Reset();
    m_tracker.Reset();
    m_ticks = 0;
    m_chunkSum = 0;
    m_decimation = 0;
    m_stampCopy.store(0, std::memory_order_relaxed);
    m_replay.clear();
    m_replayIndex = 0;
    m_wireWords.clear();
    m_wireTicks.clear();
    {
        std::lock_guard<std::mutex> lock(m_wireMutex);
        m_wireOutWords.clear();
        m_wireOutTicks.clear();
    }
    {
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_packets.clear();
        m_pings.clear();
        m_chainOpenFrom = 0;
        m_decoding = 0;
    }
    {
        std::lock_guard<std::mutex> lock(m_displayMutex);
        m_display.clear();
    }
    if (looping)
        Start();
}

void CThreadFSK::Run()
{
    m_ticks = 0;
    while (m_running.load(std::memory_order_relaxed)) {
        if (RunPass() == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

size_t CThreadFSK::RunPass()
{
    size_t bytes = 0;
    if (m_port) {
        std::list<DataPtr> chunks;
        m_port->WaitReplies(chunks, 0, 0);
        for (const DataPtr& chunk : chunks) {
            const int32_t n = chunk->length;
            if (n <= 0)
                continue;
            bytes += static_cast<size_t>(n);
            if (m_captureFile) {
                std::fwrite(chunk->buffer.get(), 1, static_cast<size_t>(n), m_captureFile);
                std::fflush(m_captureFile);
            }
            ParseChunk(chunk->buffer.get(), static_cast<size_t>(n / 2));
        }
    }
    const size_t left = m_replay.size() - m_replayIndex;
    const size_t take = std::min<size_t>(left, 3000);
    for (size_t k = 0; k < take; ++k)
        Word(m_replay[m_replayIndex++]);
    PassWireWords();
    return bytes;
}

void CThreadFSK::PassWireWords()
{
    if (m_wireWords.empty())
        return;
    std::lock_guard<std::mutex> lock(m_wireMutex);
    if (m_wireOutWords.empty()) {
        m_wireOutWords.swap(m_wireWords);
        m_wireOutTicks.swap(m_wireTicks);
    } else {
        m_wireOutWords.insert(m_wireOutWords.end(), m_wireWords.begin(), m_wireWords.end());
        m_wireOutTicks.insert(m_wireOutTicks.end(), m_wireTicks.begin(), m_wireTicks.end());
    }
    m_wireWords.clear();
    m_wireTicks.clear();
}

bool CThreadFSK::TakeWire(std::vector<uint16_t>& words, std::vector<int64_t>& ticks)
{
    words.clear();
    ticks.clear();
    std::lock_guard<std::mutex> lock(m_wireMutex);
    if (m_wireOutWords.empty())
        return false;
    words.swap(m_wireOutWords);
    ticks.swap(m_wireOutTicks);
    return true;
}

std::shared_ptr<TriggerData> CThreadFSK::TakePacketToDecode()
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    if (m_packets.empty())
        return nullptr;
    auto p = m_packets.front();
    m_packets.pop_front();
    m_decoding += 1;
    return p;
}

void CThreadFSK::PacketDecoded()
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    if (m_decoding > 0)
        m_decoding -= 1;
}

bool CThreadFSK::ChainPassed(uint64_t& us)
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    if (!m_packets.empty() || m_decoding > 0)
        return false;
    us = m_chainOpenFrom > 0 ? static_cast<uint64_t>(m_chainOpenFrom / 60) : 0;
    return true;
}

void CThreadFSK::LoadReplay(const std::vector<uint16_t>& words)
{
    m_replay = words;
    m_replayIndex = 0;
}

void CThreadFSK::ParseChunk(const uint8_t* bytes, size_t words)
{
    m_chunkSum = 0;
    for (size_t k = 4; k < words; ++k)
        m_chunkSum += WordAt(bytes, k);
    for (size_t k = 0; k < words; ++k) {
        const uint32_t w = WordAt(bytes, k);
        switch (m_parser.Take(w)) {
        case StreamFrameParser::kHeader:
            break;
        case StreamFrameParser::kStampComplete:
            // The stamp is the device's time at the end of the frame's data.
            m_ticks = static_cast<int64_t>(m_parser.stamp) * 60000 - m_chunkSum;
            m_stampCopy.store(m_parser.stamp, std::memory_order_relaxed);
            break;
        case StreamFrameParser::kPayload:
            Word(static_cast<uint16_t>(w));
            m_parser.PayloadTaken();
            break;
        }
    }
    PassWireWords();
}

void CThreadFSK::Word(uint16_t w)
{
    m_ticks += w;
    m_tracker.Feed(w, m_ticks);
    if (m_wireFeed.load(std::memory_order_relaxed)) {
        m_wireWords.push_back(w);
        m_wireTicks.push_back(m_ticks);
        // After each block the tracker has judged, how far the chain has got
        // (a packet it finished is in the list by now).
        if (m_tracker.BlockJustJudged()) {
            const int64_t from = m_tracker.OpenFrom(m_ticks);
            std::lock_guard<std::mutex> lock(m_listMutex);
            m_chainOpenFrom = from;
        }
    }
    if (m_decimation++ == m_divider) {
        m_decimation = 0;
        std::lock_guard<std::mutex> lock(m_displayMutex);
        m_display.push_back(w);
        if (m_display.size() > kDisplayLimit)
            m_display.pop_front();
    }
}

std::list<uint16_t> CThreadFSK::TakeDisplayWords()
{
    std::lock_guard<std::mutex> lock(m_displayMutex);
    std::list<uint16_t> out(m_display.begin(), m_display.end());
    m_display.clear();
    return out;
}

std::shared_ptr<TriggerData> CThreadFSK::TakePacket()
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    if (m_packets.empty())
        return nullptr;
    auto p = m_packets.front();
    m_packets.pop_front();
    return p;
}

void CThreadFSK::PutPacket(std::shared_ptr<TriggerData> packet)
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_packets.push_back(std::move(packet));
}

DigitalPingInfoPtr CThreadFSK::TakeDigitalPing()
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    if (m_pings.empty())
        return nullptr;
    auto p = m_pings.front();
    m_pings.pop_front();
    return p;
}

void CThreadFSK::TakeCarrierEdges(std::vector<::CarrierEdge>& out)
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    out.insert(out.end(), m_edges.begin(), m_edges.end());
    m_edges.clear();
}

void CThreadFSK::CarrierEdge(bool on, int64_t ticks)
{
    ::CarrierEdge edge;
    edge.on = on;
    edge.us = ticks / 60;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_edges.push_back(edge);
}

size_t CThreadFSK::PendingPackets()
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_packets.size();
}

size_t CThreadFSK::PendingPings()
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_pings.size();
}

void CThreadFSK::DigitalPing(int64_t startTicks, int64_t endTicks, int64_t period)
{
    const int64_t durationUs = (endTicks - startTicks) / 60;
    // A digital ping lasts from 50 to 200 ms; anything else is no ping.
    if (durationUs < 50000 || durationUs > 200000 || period <= 0)
        return;
    auto ping = std::make_shared<DigitalPingInfo>();
    ping->durationUs = durationUs;
    ping->frequency = static_cast<int32_t>(960000000LL / period);
    ping->startUs = startTicks / 60;
    ping->endUs = endTicks / 60;
    ping->durationText = TimeText(ping->durationUs);
    ping->startText = TimeText(ping->startUs);
    ping->endText = TimeText(ping->endUs);
    ping->label = "Digital Ping ";
    ping->detail = std::to_string(durationUs / 1000) + "ms @ " + std::to_string(ping->frequency) + "HZ";
    ping->text = ping->label + ping->detail;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_pings.push_back(ping);
}

void CThreadFSK::FskPacket(std::shared_ptr<TriggerData> packet)
{
    // The start time is formatted and the text thrown away, as ever.
    (void)TimeText(static_cast<int64_t>(packet ? packet->startTime : 0));
    std::lock_guard<std::mutex> lock(m_listMutex);
    auto taken = m_tracker.TakePacket();
    if (taken)
        m_packets.push_back(taken);
}
