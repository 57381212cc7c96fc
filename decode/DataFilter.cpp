#include "decode/DataFilter.h"

#include "common/TimeText.h"
#include "services/Log.h"

#include <algorithm>
#include <cmath>

// ------------------------------------------------------------------- RecvDec

void RecvDec::Bit(int b)
{
    const uint8_t bit = b ? 1 : 0;
    if (state == 1) {
        ones += 1;
        current = 0;
        parity = 0;
        if (bit == 0 && ones > 2)
            state = 2;
    } else if (state >= 2 && state <= 9) {
        current = static_cast<uint8_t>(current | (bit << (state - 2)));
        parity ^= bit;
        state += 1;
    } else if (state == 10) {
        if (checkParity && bit != parity) {
            // A parity failure loses the byte.
            state = 1;
            return;
        }
        bytes[length] = current;
        length = static_cast<uint8_t>(length + 1);
        state = 11;
    } else if (state == 11) {
        // Nor is the stop bit's.
        state = 1;
    }
}

bool RecvDec::ChecksumHolds() const
{
    if (length <= 2)
        return false;
    uint8_t x = 0;
    for (int k = 0; k + 1 < length; ++k)
        x ^= bytes[k];
    return x == bytes[length - 1];
}

// ---------------------------------------------------------------- CDataFilter

CDataFilter::CDataFilter()
{
    ResetTable();
}

void CDataFilter::ResetTable()
{
    for (TableEntry& e : m_table) {
        e.duration = -1;
        e.pristine = -1;
        e.mark = -1;
    }
    m_count = 0;
}

void CDataFilter::LoadDurations(const std::vector<int64_t>& durations, double bitPeriod)
{
    ResetTable();
    const size_t n = std::min<size_t>(durations.size(), 900);
    for (size_t i = 0; i < n; ++i)
        m_table[i].duration = m_table[i].pristine = durations[i];
    m_count = static_cast<int>(n);
    m_bitPeriod = bitPeriod;
}

int CDataFilter::DecodeBurst(const std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst,
                             uint64_t frequency, int flag)
{
    const size_t n = pulses.size();
    if (n < 8 || n > 900)
        return 0;

    int c14 = 0, c20 = 0;
    for (size_t i = 0; i < n; ++i) {
        TableEntry& e = m_table[i];
        e.duration = e.pristine = pulses[i].duration;
        e.level = pulses[i].level;
        e.mark = pulses[i].mark;
        const int64_t x = pulses[i].duration;
        if (x >= 64)
            continue;
        if (std::llabs(x - 7) <= 1 || std::llabs(x - 14) <= 1)
            ++c14;
        if (std::llabs(x - 10) <= 1 || std::llabs(x - 20) <= 1)
            ++c20;
    }
    m_count = static_cast<int>(n);
    // 20 samples are 500 microseconds, the 2 kHz rate; 14 samples 350.
    m_bitPeriod = c14 > c20 ? 14.0 : 20.0;

    int result = 0;
    do {
        if (m_count < 6)
            break;
        // A weak burst is noise once decoding has proved itself.
        if (burst && burst->amplitude < 501 && DecodedFrames() >= 50)
            break;
        const int s = PreambleSearch();
        if (s < 1)
            break;
        bool decoded = false;
        for (int c : {0, 4}) {
            for (int start : {s, s + 1}) {
                for (int k = 0; k < m_count; ++k)
                    m_table[static_cast<size_t>(k)].duration = m_table[static_cast<size_t>(k)].pristine;
                if (TryDecode(start, c)) {
                    decoded = true;
                    break;
                }
            }
            if (decoded)
                break;
        }
        if (decoded) {
            result = SyncHeadEnd(burst, s + 1, frequency);
        } else if (flag != 0 && DecodedFrames() >= 11) {
            m_failed.fetch_add(1, std::memory_order_relaxed);
        }
    } while (false);

    ResetTable();
    return result;
}

int CDataFilter::PreambleSearch() const
{
    const double B = m_bitPeriod;
    const int n = m_count;
    auto d = [this](int i) { return m_table[static_cast<size_t>(i)].duration; };

    int run = 0;
    int i = 0;
    for (; i <= n - 2; ++i) {
        const int64_t pair = d(i) + d(i + 1);
        if (pair >= B - 2 && pair <= B + 2)
            run += 1;
        else
            run = 0;
        if (B == 14.0 ? run >= 5 : run > 8)
            break;
    }
    if (B == 14.0 && run < 4)
        return -2;
    if (B != 14.0 && run < 9)
        return -2;

    // The first pair longer than 1.3 bit holds the long start-bit pulse.
    const double limit = static_cast<double>(1.3f) * B;
    int j = i;
    while (j < n) {
        if (static_cast<double>(d(j) + d(j + 1)) > limit && j > 1)
            break;
        ++j;
    }
    if (j >= n)
        return -1;
    return j - 1;
}

void CDataFilter::Feed(int b)
{
    for (auto& h : m_hypotheses)
        h->Bit(b);
}

namespace {

// Integer part of |x| + 1.
double T(double x)
{
    return std::trunc(std::fabs(x) + 1.0);
}

float Cost(double first, double p1, double p2)
{
    return static_cast<float>(std::trunc(std::fabs(first) + 1.0 + T(p1) + T(p2)));
}

float Cost(double first, double p1, double p2, double p3)
{
    return static_cast<float>(std::trunc(std::fabs(first) + 1.0 + T(p1) + T(p2) + T(p3)));
}

int64_t Limit(double e, int c)
{
    const int64_t v = static_cast<int64_t>(std::trunc(e));
    return std::max<int64_t>(-c, std::min<int64_t>(c, v));
}

}  // namespace

bool CDataFilter::TryDecode(int start, int c)
{
    m_hypotheses.clear();
    m_hypotheses.push_back(std::make_shared<RecvDec>());
    // The tail of the preamble and the start bit of the first byte.
    Feed(1);
    Feed(1);
    Feed(1);
    Feed(1);
    Feed(0);

    const double B = m_bitPeriod;
    const double H = B / 2;
    const int64_t iB = static_cast<int64_t>(B);
    const int64_t iH = static_cast<int64_t>(H);
    auto d = [this](int i) -> int64_t& { return m_table[static_cast<size_t>(i)].duration; };

    if (c != 0) {
        const int64_t e = Limit(static_cast<double>(d(start + 1)) - B, c);
        d(start + 2) += e;
        d(start + 1) = iB;
    }

    const int n = m_count;
    int i = start + 2;
    while (i < n - 2) {
        const double a = static_cast<double>(d(i));
        const double b = static_cast<double>(d(i + 1));
        const double e3 = static_cast<double>(d(i + 2));

        const float one = Cost(a + b - B, a - H, b - H);
        const float zeroZero = Cost(a + b - 2 * B, a - B, b - B);
        const float oneZero = Cost(a + b + e3 - 2 * B, a - H, b - H, e3 - B);
        const float zeroOne = Cost(a + b + e3 - 2 * B, a - B, b - H, e3 - H);
        // The triple's pulse terms use the half bit; that asymmetry is part of
        // the scoring.
        const float triple = Cost(a + b + e3 - 3 * B, a - H, b - H, e3 - H);

        enum { kOne, kZeroZero, kOneZero, kZeroOne, kTriple } winner2 = kOne, winner3 = kOneZero;
        float m2 = one;
        if (zeroZero < m2) {
            m2 = zeroZero;
            winner2 = kZeroZero;
        }
        float m3 = oneZero;
        if (zeroOne < m3) {
            m3 = zeroOne;
            winner3 = kZeroOne;
        }
        if (triple < m3) {
            m3 = triple;
            winner3 = kTriple;
        }
        const auto winner = m3 > m2 + 2 ? winner2 : winner3;

        switch (winner) {
        case kOne:
            Feed(1);
            if (c != 0) {
                d(i + 2) += Limit(a + b - B, c);
                d(i) = d(i + 1) = iH;
            }
            i += 2;
            break;
        case kZeroZero:
            Feed(0);
            Feed(0);
            if (c != 0) {
                d(i + 2) += Limit(a + b - 2 * B, c);
                d(i) = d(i + 1) = iB;
            }
            i += 2;
            break;
        case kOneZero:
        case kZeroOne:
            if (oneZero == zeroOne) {
                // A tie: keep both readings.
                const size_t present = m_hypotheses.size();
                for (size_t k = 0; k < present; ++k)
                    m_hypotheses.push_back(std::make_shared<RecvDec>(*m_hypotheses[k]));
                for (size_t k = 0; k < present; ++k) {
                    m_hypotheses[k]->Bit(0);
                    m_hypotheses[k]->Bit(1);
                    m_hypotheses[present + k]->Bit(1);
                    m_hypotheses[present + k]->Bit(0);
                }
            } else if (winner == kOneZero) {
                Feed(1);
                Feed(0);
            } else {
                Feed(0);
                Feed(1);
            }
            if (c != 0) {
                if (winner == kOneZero) {
                    d(i + 3) += Limit(a + b + e3 - 2 * B, c);
                    d(i) = d(i + 1) = iH;
                    d(i + 2) = iB;
                } else {
                    d(i + 3) += std::max<int64_t>(-3, std::min<int64_t>(3, Limit(a + b + e3 - 2 * B, c)));
                    d(i) = iB;
                    d(i + 1) = d(i + 2) = iH;
                }
            }
            i += 3;
            break;
        case kTriple:
            Feed(0);
            Feed(0);
            Feed(0);
            if (c != 0) {
                d(i + 3) += Limit(a + b + e3 - 3 * B, c);
                d(i) = d(i + 1) = d(i + 2) = iB;
            }
            i += 3;
            break;
        }
        if (m_hypotheses.size() > 8)
            break;
    }

    const double x = static_cast<double>(d(i));
    const double y = static_cast<double>(d(i + 1));
    if (std::fabs(x - H) > std::fabs(x - B))
        Feed(0);
    else if (std::fabs(x + y - B) < H)
        Feed(1);

    for (const auto& h : m_hypotheses)
        if (h->ChecksumHolds())
            return true;
    return false;
}

int CDataFilter::PhaseFor(int code, int phase)
{
    switch (code) {
    case 1:
    case 253:
        return 1;
    case 6:
    case 81:
    case 113:
    case 129:
    case 258:
        return 2;
    case 7:
    case 9:
    case 32:
    case 34:
    case 84:
    case 85:
        return 3;
    case 2:
    case 3:
    case 4:
    case 5:
    case 49:
    case 256:
        return 5;
    default:
        return phase;
    }
}

std::shared_ptr<CMsgData> CDataFilter::CompleteFrame(const RecvDec& dec, const std::shared_ptr<TriggerData>& burst,
                                                     int start, uint64_t frequency, bool good)
{
    auto frame = std::make_shared<CMsgData>();
    frame->SetFrame(dec.bytes, dec.length);
    frame->packet.premambleCount = static_cast<uint64_t>((start + 1) / 2);
    frame->packet.PacketData = SpacedHex(dec.bytes, dec.length);
    frame->packet.numbytesInPacket = dec.length;
    frame->packet.Status = good ? "NoError" : "Error";
    if (burst)
        FillTiming(*frame, *burst, frequency);
    else
        frame->timing.carrierCurrentHz = frequency;
    frame->direction = 2;
    frame->pattern = 0;
    frame->capture = burst;
    return frame;
}

int CDataFilter::SyncHeadEnd(const std::shared_ptr<TriggerData>& burst, int start, uint64_t frequency)
{
    if (m_hypotheses.empty())
        return 0;

    int result = 0;
    bool stopped = false;
    for (const auto& h : m_hypotheses) {
        if (!h->ChecksumHolds())
            continue;
        auto frame = CompleteFrame(*h, burst, start, frequency, true);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_output.push_back(frame);
        }
        const int header = h->bytes[0];
        const int phase = Phase();
        if (phase == 0) {
            if (header != 2)
                SetPhase(PhaseFor(header, phase));
        } else if (phase == 5 && header == 6) {
            // A hold-off cannot follow power transfer: its effect on the phase is
            // ignored, the frame is still shown, and a later candidate may win.
            Log::Printf("CDataFilter::SyncHeadEnd ignore type:%d in phase:%d", 6, 5);
            continue;
        } else {
            SetPhase(PhaseFor(header, phase));
        }
        stopped = true;
        m_decoded.fetch_add(1, std::memory_order_relaxed);
        result = h->length;
        break;
    }

    if (!stopped) {
        const RecvDec& first = *m_hypotheses.front();
        if (first.bytes[0] != 0) {
            // A bad frame is shown, not dropped.
            auto frame = CompleteFrame(first, burst, start, frequency, false);
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_output.push_back(frame);
            }
            m_decoded.fetch_add(1, std::memory_order_relaxed);
        }
        result = 0;
    }
    m_hypotheses.clear();
    return result;
}

std::shared_ptr<CMsgData> CDataFilter::TakeFrame()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_output.empty())
        return nullptr;
    auto frame = m_output.front();
    m_output.pop_front();
    return frame;
}

void CDataFilter::PutFrame(std::shared_ptr<CMsgData> frame)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_output.push_back(std::move(frame));
}

void CDataFilter::Clear()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_output.clear();
    }
    SetPhase(0);
}

size_t CDataFilter::PendingFrames()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_output.size();
}
