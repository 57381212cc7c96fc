#include "decode/FskFrameDecoder.h"

#include "common/TimeText.h"

#include <cmath>
#include <cstdlib>

std::vector<PulseRecord> SliceLevels(const TriggerData& packet)
{
    std::vector<PulseRecord> changes;
    const int64_t hi = packet.highPeriod;
    const int64_t lo = packet.lowPeriod;
    int s = 0;
    const auto& w = packet.samples;
    for (size_t i = 4; i < w.size(); ++i) {
        const uint64_t sum = static_cast<uint64_t>(static_cast<uint32_t>(w[i - 1])) + static_cast<uint32_t>(w[i - 2]) +
                             static_cast<uint32_t>(w[i - 3]) + static_cast<uint32_t>(w[i - 4]);
        const int64_t m = static_cast<int64_t>(sum / 4);
        const int64_t dLo = std::llabs(m - lo);
        const int64_t dHi = std::llabs(m - hi);
        int level = -1;
        if (dLo > dHi && s != 1) {
            s = 1;
            level = 0;
        } else if (dLo < dHi && s != -1) {
            s = -1;
            level = 1;
        }
        if (level >= 0) {
            PulseRecord c;
            c.duration = static_cast<int64_t>(i);
            c.level = static_cast<uint8_t>(level);
            c.mark = static_cast<uint32_t>(i);
            changes.push_back(c);
        }
    }
    return changes;
}

FskFrameDecoder::FskFrameDecoder()
{
    ResetTable();
}

void FskFrameDecoder::ResetTable()
{
    m_table.fill(-1);
    m_levels.fill(0);
    m_count = 0;
}

void FskFrameDecoder::LoadDurations(const std::vector<int64_t>& durations, double bitPeriod)
{
    ResetTable();
    const size_t n = std::min<size_t>(durations.size(), 949);
    for (size_t i = 0; i < n; ++i)
        m_table[i] = durations[i];
    m_count = static_cast<int>(n);
    m_bitPeriod = bitPeriod;
}

void FskFrameDecoder::DecodeBurst(const std::vector<PulseRecord>& changes, const std::shared_ptr<TriggerData>& packet,
                                  uint64_t frequency)
{
    if (changes.size() > 950)
        return;
    std::lock_guard<std::mutex> turn(m_decodeMutex);
    const int polarity = packet && packet->polarity != 0 ? 1 : 0;

    // From the first change of the level that begins a packet.
    const uint8_t first = polarity == 0 ? 1 : 0;
    size_t k = 0;
    while (k < changes.size() && changes[k].level != first)
        ++k;
    std::vector<int64_t> shortOnes;
    m_count = 0;
    if (k < changes.size()) {
        m_lastPosition = static_cast<double>(changes[k].duration);
        for (++k; k < changes.size() && m_count < 999; ++k) {
            const int64_t d = static_cast<int64_t>(static_cast<double>(changes[k].duration) - m_lastPosition);
            m_table[static_cast<size_t>(m_count)] = d;
            m_levels[static_cast<size_t>(m_count)] = changes[k].level;
            ++m_count;
            m_lastPosition = static_cast<double>(changes[k].duration);
            if (d < 64)
                shortOnes.push_back(d);
        }
    }

    int c8 = 0, c32 = 0;
    for (int64_t x : shortOnes) {
        if (std::llabs(x - 4) <= 1 || std::llabs(x - 8) <= 1)
            ++c8;
        if (std::llabs(x - 16) <= 1 || std::llabs(x - 32) <= 1)
            ++c32;
    }
    if (c8 > 0 || c32 > 0)
        m_bitPeriod = c8 > c32 ? 8.0 : 32.0;

    const int n = m_count;
    const double B = m_bitPeriod;
    do {
        if (n < 8)
            break;
        int good = 0;
        for (int i = 0; i < n; ++i) {
            const double d = static_cast<double>(D(i));
            if (std::fabs(d - B / 2) <= 1 || std::fabs(d - B) <= 1)
                ++good;
        }
        if (n < 20) {
            // Only a one-byte response is this short.
            if (good > 0.75 * n)
                DecodePattern(static_cast<double>(D(0)) <= 1.3 * B ? 0 : 1, packet, frequency);
            break;
        }
        if (B == 32.0) {
            const uint8_t wanted = polarity == 0 ? 0 : 1;
            int start = 0;
            for (int i = 0; i < 4; ++i) {
                if (m_levels[static_cast<size_t>(i)] == wanted) {
                    start = i + 1;
                    break;
                }
            }
            DecodeFrame(start, packet, frequency);
            break;
        }
        int j = 0;
        while (j < 12 && !(D(j) >= 7 && D(j) <= 9))
            ++j;
        if (j > 7 && good > 0.75 * n)
            DecodeFrame(j + 1, packet, frequency);
    } while (false);
    ResetTable();
}

void FskFrameDecoder::DecodePattern(int i, const std::shared_ptr<TriggerData>& packet, uint64_t frequency)
{
    const double B = m_bitPeriod;
    uint8_t v = 0;
    const int limit = m_count - 1;
    while (i < limit) {
        const double s = static_cast<double>(D(i) + D(i + 1));
        bool fitted = false;
        for (int t = 1; t <= 5 && !fitted; ++t) {
            if (std::fabs(s - B) < t) {
                v = static_cast<uint8_t>(v * 2 + 1);
                i += 2;
                fitted = true;
            } else if (std::fabs(s - 2 * B) < t) {
                v = static_cast<uint8_t>(v * 4);
                i += 2;
                fitted = true;
            } else if (std::fabs(static_cast<double>(D(i)) - B) < t) {
                v = static_cast<uint8_t>(v * 2);
                i += 1;
                fitted = true;
            }
        }
        if (!fitted)
            return;  // gave up
    }
    uint8_t reported;
    switch (v) {
    case 0x44:
        reported = 0x88;
        break;
    case 0x7F:
        reported = 0xFF;
        break;
    case 0x00:
    case 0x55:
        reported = v;
        break;
    default:
        return;
    }
    auto frame = Complete(&reported, 1, packet, frequency, true);
    frame->pattern = 1;
    Emit(frame);
}

void FskFrameDecoder::DecodeFrame(int i, const std::shared_ptr<TriggerData>& packet, uint64_t frequency)
{
    m_assembler.Reset();
    for (int b : {1, 1, 1, 1, 0})
        m_assembler.Bit(b);
    const double B = m_bitPeriod;
    const double H = B / 2;
    const int n = m_count;
    while (i < n - 2) {
        const double a = static_cast<double>(D(i));
        const double b = static_cast<double>(D(i + 1));
        const double c = static_cast<double>(D(i + 2));
        bool fitted = false;
        for (int t = 1; t <= 20 && !fitted; ++t) {
            if (std::fabs(a + b - B) < t) {
                m_assembler.Bit(1);
                i += 2;
                fitted = true;
            } else if (std::llabs(static_cast<int64_t>(a + b + c) - static_cast<int64_t>(2 * B)) < t) {
                const int64_t cost01 = static_cast<int64_t>(std::fabs(b - H) + std::fabs(a - B) + std::fabs(c - H));
                const int64_t cost10 = static_cast<int64_t>(std::fabs(b - H) + std::fabs(a - H) + std::fabs(c - B));
                if (cost01 <= cost10) {
                    m_assembler.Bit(0);
                    m_assembler.Bit(1);
                } else {
                    m_assembler.Bit(1);
                    m_assembler.Bit(0);
                }
                i += 3;
                fitted = true;
            } else if (std::fabs(a + b - 2 * B) < t) {
                m_assembler.Bit(0);
                m_assembler.Bit(0);
                i += 2;
                fitted = true;
            }
        }
        if (!fitted)
            break;
    }
    if (m_assembler.state == 10) {
        // The parity bit of the last byte is still to come.
        const double x = static_cast<double>(D(i));
        if (std::fabs(x - H) > std::fabs(x - B))
            m_assembler.Bit(0);
        else if (std::fabs(static_cast<double>(D(i + 1)) + x - B) < H)
            m_assembler.Bit(1);
    }
    const int length = m_assembler.length;
    if (length == 0)
        return;
    if (m_assembler.bytes[0] == m_lastHeader) {
        m_headerRepeats += 1;
    } else {
        m_headerRepeats = 1;
        m_lastHeader = m_assembler.bytes[0];
    }
    uint8_t x = 0;
    for (int k = 0; k + 1 < length; ++k)
        x ^= m_assembler.bytes[k];
    bool good;
    if (x == m_assembler.bytes[length - 1]) {
        good = true;
    } else {
        const uint8_t h = m_assembler.bytes[0];
        // A checksum failure is forgiven for every header but these.
        good = !(h == 0x00 || h == 0x30 || h == 0x31);
    }
    (good ? m_good : m_errors).fetch_add(1, std::memory_order_relaxed);
    Emit(Complete(m_assembler.bytes, static_cast<size_t>(length), packet, frequency, good));
}

std::shared_ptr<CMsgData> FskFrameDecoder::Complete(const uint8_t* bytes, size_t n,
                                                    const std::shared_ptr<TriggerData>& packet, uint64_t frequency,
                                                    bool good)
{
    auto frame = std::make_shared<CMsgData>();
    frame->SetFrame(bytes, n);
    frame->packet.PacketData = SpacedHex(bytes, n);
    frame->packet.numbytesInPacket = n;
    frame->packet.Status = good ? "NoError" : "Error";
    frame->packet.premambleCount = 0;
    if (packet)
        FillTiming(*frame, *packet, frequency);
    else
        frame->timing.carrierCurrentHz = frequency;
    frame->direction = 1;
    frame->pattern = 0;
    frame->capture = packet;
    return frame;
}

void FskFrameDecoder::Emit(std::shared_ptr<CMsgData> frame)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_output.push_back(std::move(frame));
}

std::shared_ptr<CMsgData> FskFrameDecoder::TakeFrame()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_output.empty())
        return nullptr;
    auto f = m_output.front();
    m_output.pop_front();
    return f;
}

void FskFrameDecoder::Clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_output.clear();
}
