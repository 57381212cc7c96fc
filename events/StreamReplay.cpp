#include "events/StreamReplay.h"

#include "common/Clock.h"
#include "common/StreamFrame.h"
#include "decode/AskDecoding.h"
#include "decode/CaptureFile.h"
#include "decode/FskDecoding.h"
#include "services/SettingParams.h"

#include <algorithm>

namespace {

// The stream bytes of a capture file from its first whole frame: the header,
// if present, and a frame cut by the start of the capture are dropped. Adds the
// bytes dropped before the first frame (the header aside) to `skipped`.
std::vector<uint8_t> FromFirstFrame(std::vector<uint8_t> bytes, size_t& skipped)
{
    if (HasCaptureHeader(bytes.data(), bytes.size()))
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kCaptureHeaderBytes));
    skipped = FirstChainedFrame(bytes.data(), bytes.size());
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(skipped));
    return bytes;
}

}  // namespace

StreamReplay::StreamReplay(std::vector<uint8_t> askBytes, std::vector<uint8_t> fskBytes, SettingParams* settings)
    : m_ask(FromFirstFrame(std::move(askBytes), m_askSkipped)),
      m_fsk(FromFirstFrame(std::move(fskBytes), m_fskSkipped)),
      m_fskThread(nullptr, settings),
      m_link(m_manager)
{
    m_askFrames = FrameStarts(m_ask);
    m_fskFrames = FrameStarts(m_fsk);
    if (settings)
        m_askThread.SetSettings(settings);
    m_manager.SetSecondAskReader(SettingParams::Or(settings).m_ask_second_reader != 0);
    m_manager.SetSecondFskReader(SettingParams::Or(settings).m_fsk_second_reader != 0);
    m_manager.SetFskBand(SettingParams::Or(settings).m_min_freq, SettingParams::Or(settings).m_max_freq);
    m_link.SetAcquiring(true);
}

std::vector<size_t> StreamReplay::FrameStarts(const std::vector<uint8_t>& bytes)
{
    std::vector<size_t> starts;
    StreamFrameParser parser;
    const size_t words = bytes.size() / 2;
    for (size_t k = 0; k < words; ++k) {
        if (parser.state == 0)
            starts.push_back(2 * k);
        if (parser.Take(WordAt(bytes.data(), k)) == StreamFrameParser::kPayload)
            parser.PayloadTaken();
    }
    return starts;
}

double StreamReplay::DurationMs() const
{
    // ASK: 40000 samples a second, four header words a frame.
    const double ask = static_cast<double>(m_ask.size() / 2) / 40.0;
    uint32_t lastStamp = 0;
    if (!m_fskFrames.empty() && m_fskFrames.back() + 8 <= m_fsk.size()) {
        const size_t at = m_fskFrames.back() / 2;
        lastStamp = WordAt(m_fsk.data(), at + 2) | (WordAt(m_fsk.data(), at + 3) << 16);
    }
    return std::max(ask, static_cast<double>(lastStamp));
}

void StreamReplay::Run(const std::function<void(std::vector<MsgInfoPtr>&)>& batch,
                       const std::function<void(double)>& progress)
{
    ManualClock clock(1);
    SetClock(&clock);
    m_askThread.Stream().SetWireFeed(m_manager.SecondAskReader());
    m_fskThread.SetWireFeed(m_manager.SecondFskReader());
    size_t ai = 0, fi = 0;
    double askMs = 0.0;  // capture time reached on the ASK stream
    double nextRefresh = 30.0;
    const double total = std::max(1.0, DurationMs());
    auto frameEnd = [](const std::vector<uint8_t>& bytes, const std::vector<size_t>& starts, size_t i) {
        return i + 1 < starts.size() ? starts[i + 1] : bytes.size();
    };
    double lastMs = 0.0;
    auto refresh = [&](double nowMs) {
        // The two streams take turns; the clock never goes back.
        nowMs = std::max(nowMs, lastMs);
        lastMs = nowMs;
        clock.Set(1 + static_cast<int64_t>(nowMs));
        while (AskDecodingPass(m_askThread.Stream(), m_link) == 0) {
        }
        while (FskDecodingPass(m_fskThread, m_link) == 0) {
        }
        if (nowMs >= nextRefresh) {
            std::vector<MsgInfoPtr> events;
            m_manager.GetEvents(events);
            if ((!events.empty() || everyRefresh) && batch)
                batch(events);
            if (progress)
                progress(nowMs / total);
            nextRefresh = nowMs + 30.0;
        }
    };
    while (ai < m_askFrames.size() || fi < m_fskFrames.size()) {
        // The FSK frame's stamp is its time; an ASK frame's time is its samples.
        double fskMs = 1e300;
        if (fi < m_fskFrames.size() && m_fskFrames[fi] + 8 <= m_fsk.size()) {
            const size_t at = m_fskFrames[fi] / 2;
            fskMs = static_cast<double>(WordAt(m_fsk.data(), at + 2) | (WordAt(m_fsk.data(), at + 3) << 16));
        } else if (fi < m_fskFrames.size()) {
            fskMs = 1e299;  // a truncated last frame goes last
        }
        const bool takeAsk = ai < m_askFrames.size() && (askMs <= fskMs || fi >= m_fskFrames.size());
        if (takeAsk) {
            const size_t from = m_askFrames[ai], to = frameEnd(m_ask, m_askFrames, ai);
            m_askThread.ParseWords(m_ask.data() + from, (to - from) / 2);
            m_askThread.Stream().Process();
            askMs += static_cast<double>((to - from) / 2 - std::min<size_t>(4, (to - from) / 2)) / 40.0;
            ++ai;
            refresh(askMs);
        } else {
            const size_t from = m_fskFrames[fi], to = frameEnd(m_fsk, m_fskFrames, fi);
            m_fskThread.ParseChunk(m_fsk.data() + from, (to - from) / 2);
            ++fi;
            refresh(fskMs < 1e299 ? fskMs : askMs);
        }
    }
    // No more samples come: the frames that the first and second readers hold
    // for each other are settled with what they have; everything still queued leaves a
    // second later.
    m_manager.SettleHeldFrames();
    const double end = std::max(askMs, nextRefresh);
    for (double t = end; t <= end + 1100.0; t += 30.0) {
        nextRefresh = t;
        refresh(t);
    }
    SetClock(nullptr);
}
