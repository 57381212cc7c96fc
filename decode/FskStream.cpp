#include "decode/FskStream.h"

#include "services/SettingParams.h"

#include <cmath>
#include <cstdlib>
#include <numeric>

int32_t DistanceAverager::Feed(int32_t w)
{
    if (count >= window) {
        const int32_t mean = sum / count;
        sum = 0;
        count = 0;
        return mean;
    }
    sum += std::abs(w - target);
    count += 1;
    return -1;
}

std::vector<int32_t> Despike(const std::vector<int32_t>& block)
{
    std::vector<int32_t> v(block.size());
    if (block.empty())
        return v;
    v[0] = block[0];
    int32_t previous = block[0];
    int64_t total = block[0];
    for (size_t i = 1; i < block.size(); ++i) {
        total += block[i];
        if (std::abs(block[i] - previous) < 201) {
            v[i] = block[i];
            previous = block[i];
        } else {
            v[i] = static_cast<int32_t>(total / static_cast<int64_t>(i + 1));
        }
    }
    return v;
}

void KMeans2(const std::vector<int32_t>& x, double& first, double& second)
{
    const size_t n = x.size();
    if (n == 0) {
        first = second = 0.0;
        return;
    }
    double c[2] = {static_cast<double>(x[0]), static_cast<double>(x[n / 2])};
    double previousCost = -1.0;
    for (int iteration = 0; iteration < 100; ++iteration) {
        double sum[2] = {0.0, 0.0};
        size_t count[2] = {0, 0};
        double cost = 0.0;
        for (int32_t v : x) {
            const double d0 = std::fabs(v - c[0]);
            const double d1 = std::fabs(v - c[1]);
            const int k = d1 < d0 ? 1 : 0;
            sum[k] += v;
            count[k] += 1;
            cost += (v - c[k]) * (v - c[k]);
        }
        for (int k = 0; k < 2; ++k)
            if (count[k] > 0)
                c[k] = sum[k] / static_cast<double>(count[k]);
        if (previousCost >= 0.0 && std::fabs(previousCost - cost) < 0.001 * cost)
            break;
        if (cost == 0.0)
            break;
        previousCost = cost;
    }
    first = c[0];
    second = c[1];
}

FskCarrierTracker::FskCarrierTracker(int32_t minFreqHz, int32_t maxFreqHz)
    : m_maxPeriod(minFreqHz > 0 ? 960000000LL / minFreqHz : 0),
      m_minPeriod(maxFreqHz > 0 ? 960000000LL / maxFreqHz : 0)
{
}

void FskCarrierTracker::Reset()
{
    m_current.clear();
    m_previous.clear();
    m_words = 0;
    m_stable = true;
    m_pingInProgress = false;
    m_pingStart = m_pingEnd = m_pingPeriod = m_pingFrequency = 0;
    m_carrierOn = false;
    m_displayFrequency.store(0, std::memory_order_relaxed);
    m_blockStartTicks = 0;
    m_a = DistanceAverager();
    m_b = DistanceAverager();
    m_highCentre = m_lowCentre = 0;
    m_history.clear();
    m_detectorWords = 0;
    DropPacket();
}

void FskCarrierTracker::Fit(const std::vector<int32_t>& block, double& intercept, double& sd)
{
    const size_t n = block.size();
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    int64_t total = 0;
    for (size_t i = 0; i < n; ++i) {
        const double x = static_cast<double>(i);
        const double y = block[i];
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
        total += block[i];
    }
    const double dn = static_cast<double>(n);
    const double slope = (dn * sxy - sx * sy) / (dn * sxx - sx * sx);
    intercept = (sy - slope * sx) / dn;
    const int64_t mean = total / static_cast<int64_t>(n);
    double squares = 0;
    for (int32_t v : block)
        squares += static_cast<double>(v - mean) * static_cast<double>(v - mean);
    sd = std::sqrt(squares / (dn - 1.0));
}

bool FskCarrierTracker::IsStable(double intercept, double sd) const
{
    return intercept > static_cast<double>(m_minPeriod) && intercept < static_cast<double>(m_maxPeriod) &&
           static_cast<int64_t>(sd) < 300;
}

void FskCarrierTracker::Feed(int32_t w, int64_t t)
{
    m_words += 1;
    m_current.push_back(w);
    if (m_current.size() < 64) {
        if (m_current.size() == 1)
            m_blockStartTicks = t;
        return;
    }

    double p = 0, sd = 0;
    Fit(m_current, p, sd);
    const bool stableBlock = IsStable(p, sd);
    if (stableBlock) {
        const int64_t f = static_cast<int64_t>(960000000.0 / p);
        if (m_pingInProgress) {
            if (std::llabs(f - m_pingFrequency) >= 5000) {
                // The carrier jumped: this is no ping, and nothing is reported.
                m_pingFrequency = 0;
                m_pingInProgress = false;
                m_stable = false;
                m_current.clear();
                m_previous.clear();
            } else {
                m_pingEnd = t;
            }
        } else {
            m_pingFrequency = f;
            m_displayFrequency.store(f, std::memory_order_relaxed);
            m_pingInProgress = true;
            m_stable = true;
            m_pingStart = t;
            m_pingPeriod = static_cast<int64_t>(p);
            // The ping began where the words before this block still had its
            // period.
            m_previous.insert(m_previous.end(), m_current.begin(), m_current.end());
            int64_t v = 0;
            for (auto it = m_previous.rbegin(); it != m_previous.rend(); ++it) {
                if (std::llabs(*it - m_pingPeriod) > 10)
                    break;
                v += *it;
            }
            m_pingStart -= v;
            m_pingEnd = t + v + static_cast<int64_t>(m_current.size());
            if (!m_carrierOn && m_callback)
                m_callback->CarrierEdge(true, m_pingStart);
            m_carrierOn = true;
        }
    } else {
        m_stable = false;
        const bool carrierWasOn = m_carrierOn;
        m_carrierOn = false;
        int64_t offTicks = 0;
        if (m_pingInProgress) {
            m_pingInProgress = false;
            m_pingFrequency = 0;
            int64_t v = 0;
            for (int32_t word : m_current) {
                if (std::llabs(word - m_pingPeriod) > 10)
                    break;
                v += word;
            }
            m_pingEnd += v;
            if (m_callback)
                m_callback->DigitalPing(m_pingStart, m_pingEnd, m_pingPeriod);
            DropPacket();
        }
        if (carrierWasOn) {
            // The words of the block that still had a carrier in the band.
            offTicks = m_blockStartTicks - m_current.front();
            for (int32_t word : m_current) {
                if (word <= m_minPeriod || word >= m_maxPeriod)
                    break;
                offTicks += word;
            }
        }
        if (carrierWasOn && m_callback)
            m_callback->CarrierEdge(false, offTicks);
    }

    m_previous = m_current;
    m_current.clear();
    if (m_stable)
        ProcessBlock(m_previous, m_blockStartTicks);
}

void FskCarrierTracker::ProcessBlock(const std::vector<int32_t>& block, int64_t t0)
{
    if (block.empty())
        return;
    const std::vector<int32_t> v = Despike(block);

    double c0 = 0, c1 = 0;
    KMeans2(v, c0, c1);
    m_highCentre = static_cast<int32_t>(std::max(c0, c1));
    m_lowCentre = static_cast<int32_t>(std::min(c0, c1));
    // No modulation in the block: keep a low centre apart all the same.
    if (m_highCentre - m_lowCentre < 21)
        m_lowCentre = m_highCentre - 30;
    m_a.target = m_highCentre;
    m_b.target = m_lowCentre;

    int64_t t = t0;
    for (int32_t w : v) {
        Detect(w, t);
        t += w;
    }
}

void FskCarrierTracker::Detect(int32_t w, int64_t t)
{
    m_detectorWords += 1;
    m_history.push_back(w);
    if (m_history.size() > 50)
        m_history.pop_front();
    const int32_t a = m_a.Feed(w);
    const int32_t b = m_b.Feed(w);
    if (m_highCentre == 0 || m_lowCentre == 0)
        return;

    if (!m_active) {
        if (b >= a - 5)
            return;
        m_active = true;
        m_packetStartCount = m_lastLowCount = m_detectorWords;
        m_packetStartTicks = t;
        m_packet = std::make_shared<TriggerData>();
        m_packet->samples.assign(m_history.begin(), m_history.end());
        m_history.clear();
        m_packet->samples.push_back(w);
        m_packetFromTicks = t - std::accumulate(m_packet->samples.begin(), m_packet->samples.end(), int64_t{0});
        return;
    }

    if (b > a) {
        if (m_detectorWords - m_lastLowCount > 50) {
            m_packet->samples.push_back(w);
            const int64_t sum = std::accumulate(m_packet->samples.begin(), m_packet->samples.end(), int64_t{0});
            m_packet->endTime = static_cast<uint64_t>(t / 60);
            m_packet->startTime = static_cast<uint64_t>((t - sum) / 60);
            m_packet->highPeriod = m_highCentre;
            m_packet->lowPeriod = m_lowCentre;
            double c0 = 0, c1 = 0;
            KMeans2(m_packet->samples, c0, c1);
            m_packet->highPeriod = static_cast<int64_t>(std::max(c0, c1));
            m_packet->lowPeriod = static_cast<int64_t>(std::min(c0, c1));
            const int32_t detected = SettingParams::Instance().detectedPolarity.load(std::memory_order_relaxed);
            if (detected == -1)
                m_packet->polarity = 0;
            else if (detected != 0)
                m_packet->polarity = 1;
            else
                m_packet->polarity = SettingParams::Instance().m_Polarity ? 1 : 0;
            if (m_callback)
                m_callback->FskPacket(m_packet);
            DropPacket();
            return;
        }
    } else if (b < a) {
        m_lastLowCount = m_detectorWords;
    }
    m_packet->samples.push_back(w);
}

int64_t FskCarrierTracker::OpenFrom(int64_t now) const
{
    // A packet under way began where its start time will be reckoned from.
    if (m_active)
        return m_packetFromTicks;
    // A packet found later starts in a block still to come, at the earliest
    // with the words of the history before it (its time is reckoned back over
    // them from the word that starts it); a word of margin for the de-spiking.
    int64_t from = m_current.empty() ? now : m_blockStartTicks - m_current.front();
    for (int32_t w : m_history)
        from -= w;
    return from - (m_history.empty() ? 0 : m_history.back());
}

std::shared_ptr<TriggerData> FskCarrierTracker::TakePacket()
{
    auto p = std::move(m_packet);
    m_packet.reset();
    return p;
}

void FskCarrierTracker::DropPacket()
{
    m_active = false;
    m_packet.reset();
}
