#include "decode/Thread2K.h"

#include "decode/CaptureFile.h"
#include "services/SettingParams.h"

#include <chrono>

CThread2K::CThread2K(PortFactory factory) : m_factory(std::move(factory)) {}

CThread2K::~CThread2K()
{
    Close();
}

int CThread2K::Open(const std::string& portName, bool writeHeader, int baud, int queueMode)
{
    const bool alreadyOpen = m_port != nullptr;
    const int opened = OpenWithoutLoop(portName, writeHeader, baud);
    if (!alreadyOpen)
        Start();
    return opened;
}

int CThread2K::OpenWithoutLoop(const std::string& portName, bool writeHeader, int baud)
{
    m_bytesSeen = 0;
    m_sampleCounter = 0;
    const SettingParams& settings = SettingParams::Or(m_settings);
    if (settings.m_ask_capture_data) {
        if (m_captureFile)
            std::fclose(m_captureFile);
        m_captureFile = OpenCaptureFile(settings.capturePath, ".2k.bin", writeHeader);
        m_captureHeader = writeHeader;
    }
    m_divider = 5;
    if (m_port)
        return 1;

    m_replay.clear();
    m_port = OpenDataPort(m_factory, portName, baud);
    const int opened = m_port ? 1 : 0;
    m_rangeMax = 0;
    m_rangeMin = 4096;
    m_rangeCount = 0;
    m_parser.Reset();
    return opened;
}

void CThread2K::Close()
{
    Stop();
    CloseDataPort(m_port);
    {
        std::lock_guard<std::mutex> lock(m_displayMutex);
        m_display.clear();
    }
    m_stream.Clear();
    if (m_captureFile) {
        std::fclose(m_captureFile);
        m_captureFile = nullptr;
    }
}

void CThread2K::BeginAcquisition()
{
    const bool looping = IsRunning();
    Stop();
    if (SettingParams::Or(m_settings).m_ask_capture_data)
        RenewCaptureFile(m_captureFile, SettingParams::Or(m_settings).capturePath, ".2k.bin", m_captureHeader);
    if (m_port) {
        std::list<DataPtr> stale;
        m_port->WaitReplies(stale, 0, 0);
    }
    m_bytesSeen = 0;
    m_sampleCounter = 0;
    m_parser.Reset();
    m_decimation = 0;
    m_rangeMax = 0;
    m_rangeMin = 4096;
    m_rangeCount = 0;
    m_clearRequested.store(false, std::memory_order_relaxed);
    m_stream.Clear();
    {
        std::lock_guard<std::mutex> lock(m_displayMutex);
        m_display.clear();
    }
    if (looping)
        Start();
}

void CThread2K::Run()
{
    m_sampleCounter = 0;
    while (m_running.load(std::memory_order_relaxed)) {
        if (RunPass() == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

size_t CThread2K::RunPass()
{
    if (m_clearRequested.exchange(false, std::memory_order_relaxed))
        m_stream.Clear();
    size_t words = 0;
    if (m_port) {
        std::list<DataPtr> chunks;
        m_port->WaitReplies(chunks, 0, 0);
        for (const DataPtr& chunk : chunks) {
            const int32_t n = chunk->length;
            if (n <= 0)
                continue;
            m_bytesSeen += n;
            if (m_captureFile) {
                std::fwrite(chunk->buffer.get(), 1, static_cast<size_t>(n), m_captureFile);
                std::fflush(m_captureFile);
            }
            ParseWords(chunk->buffer.get(), static_cast<size_t>(n / 2));
            words += static_cast<size_t>(n / 2);
        }
    }
    m_stream.Process();
    return words;
}

void CThread2K::ParseWords(const uint8_t* bytes, size_t words)
{
    // The display's samples of this chunk go over under one lock at its end.
    thread_local std::vector<uint16_t> display;
    display.clear();
    uint64_t counter = m_sampleCounter.load(std::memory_order_relaxed);
    for (size_t k = 0; k < words; ++k) {
        const uint32_t w = WordAt(bytes, k);
        if (m_parser.Take(w) != StreamFrameParser::kPayload)
            continue;
        const uint64_t number = counter++;
        m_stream.Add(static_cast<int32_t>(w), number);
        const int32_t value = static_cast<int32_t>(w);
        if (value > m_rangeMax)
            m_rangeMax = value;
        if (value < m_rangeMin)
            m_rangeMin = value;
        m_rangeCount += 1;
        if (m_rangeCount > 8000) {
            m_rangeMax = 0;
            m_rangeMin = 4096;
            m_rangeCount = 0;
        }
        // One sample in six reaches the display.
        if (m_decimation++ == m_divider) {
            m_decimation = 0;
            display.push_back(static_cast<uint16_t>(w));
        }
        m_parser.PayloadTaken();
    }
    m_sampleCounter.store(counter, std::memory_order_relaxed);
    if (display.empty())
        return;
    std::lock_guard<std::mutex> lock(m_displayMutex);
    m_display.insert(m_display.end(), display.begin(), display.end());
    while (m_display.size() > kDisplayLimit)
        m_display.pop_front();
}

std::list<uint16_t> CThread2K::TakeDisplaySamples()
{
    std::lock_guard<std::mutex> lock(m_displayMutex);
    std::list<uint16_t> out(m_display.begin(), m_display.end());
    m_display.clear();
    return out;
}

void CThread2K::ClearDisplaySamples()
{
    {
        std::lock_guard<std::mutex> lock(m_displayMutex);
        m_display.clear();
    }
    m_clearRequested.store(true, std::memory_order_relaxed);
    // The output list is guarded by its own lock and can go at once.
    while (m_stream.Take()) {
    }
}
