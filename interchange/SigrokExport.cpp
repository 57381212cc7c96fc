#include "interchange/SigrokExport.h"

#include "analysis/WaveTrace.h"
#include "common/StreamFrame.h"
#include "common/TimeText.h"
#include "decode/CaptureFile.h"
#include "events/RecordStore.h"
#include "events/SessionFile.h"
#include "events/StreamReplay.h"
#include "interchange/SigrokImport.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace interchange {

namespace {

constexpr uint64_t kTicksPerSample = 1500;  // 25 us at 60 MHz
// Gaps between the device's FSK frames (its millisecond stamps) are not a
// loss of carrier: the frequency holds across gaps up to this long.
constexpr size_t kFskHoldSamples = 80;  // 2 ms
constexpr size_t kFskLeadInSamples = 8000;  // 200 ms before the first FSK record
// Silence kept after the last record of a session.
constexpr size_t kTailSamples = 400;  // 10 ms

// A capture file's stream bytes from its first whole frame, as the replay
// takes them.
void FromFirstFrame(const uint8_t*& bytes, size_t& size)
{
    if (HasCaptureHeader(bytes, size)) {
        bytes += kCaptureHeaderBytes;
        size -= kCaptureHeaderBytes;
    }
    const size_t skip = FirstChainedFrame(bytes, size);
    bytes += skip;
    size -= skip;
}

// Puts one word's frequency on the samples its span covers.
void PutWord(std::vector<float>& khz, int64_t endTicks, uint32_t word, int64_t& lastSample)
{
    if (word == 0 || endTicks <= 0)
        return;
    const float f = static_cast<float>(960000.0 / word);
    const int64_t begin = std::max<int64_t>(0, endTicks - static_cast<int64_t>(word));
    const int64_t first = (begin + static_cast<int64_t>(kTicksPerSample) - 1) / static_cast<int64_t>(kTicksPerSample);
    const int64_t last = endTicks / static_cast<int64_t>(kTicksPerSample);
    if (last >= static_cast<int64_t>(khz.size()))
        khz.resize(static_cast<size_t>(last) + 1, 0.0f);
    // A short gap before this word (between two device frames) holds the
    // frequency before it.
    if (lastSample >= 0 && first > lastSample + 1 && first - lastSample <= static_cast<int64_t>(kFskHoldSamples))
        std::fill(khz.begin() + lastSample + 1, khz.begin() + first, khz[static_cast<size_t>(lastSample)]);
    for (int64_t s = first; s <= last; ++s)
        khz[static_cast<size_t>(s)] = f;
    lastSample = std::max(lastSample, last);
}

bool ReadFile(const std::string& path, std::vector<uint8_t>& bytes)
{
    bytes.clear();
    if (path.empty())
        return true;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

}  // namespace

void LinkSignals::Resize(size_t n)
{
    ask.resize(n, ask.empty() ? 0.0f : ask.back());
    qi.resize(n, 1);
    fskKHz.resize(n, fskKHz.empty() ? 0.0f : fskKHz.back());
}

bool IsAskRecord(const MsgInfo& event)
{
    return event.capture && analysis::IsAskEvent(event);
}

LinkSignals SignalsFromStreams(const uint8_t* ask, size_t askSize, const uint8_t* fsk, size_t fskSize)
{
    LinkSignals s;
    if (ask && askSize) {
        FromFirstFrame(ask, askSize);
        s.ask.reserve(askSize / 2);
        StreamFrameParser parser;
        for (size_t k = 0; k < askSize / 2; ++k) {
            if (parser.Take(WordAt(ask, k)) == StreamFrameParser::kPayload) {
                s.ask.push_back(static_cast<float>(WordAt(ask, k)));
                parser.PayloadTaken();
            }
        }
    }
    if (fsk && fskSize) {
        FromFirstFrame(fsk, fskSize);
        StreamFrameParser parser;
        int64_t ticks = 0;
        int64_t lastSample = -1;
        const size_t words = fskSize / 2;
        size_t frameStart = 0;
        for (size_t k = 0; k < words; ++k) {
            if (parser.state == 0)
                frameStart = k;
            const uint32_t w = WordAt(fsk, k);
            const StreamFrameParser::Word kind = parser.Take(w);
            if (kind == StreamFrameParser::kStampComplete) {
                // As the FSK thread counts: the stamp is the end of the frame's
                // words, so their sum is taken off (the replay feeds one frame
                // a chunk).
                const size_t payload = std::min<size_t>(parser.remaining / 2, words - frameStart - 4);
                int64_t sum = 0;
                for (size_t i = 0; i < payload; ++i)
                    sum += WordAt(fsk, frameStart + 4 + i);
                ticks = static_cast<int64_t>(parser.stamp) * 60000 - sum;
            } else if (kind == StreamFrameParser::kPayload) {
                ticks += w;
                PutWord(s.fskKHz, ticks, w, lastSample);
                parser.PayloadTaken();
            }
        }
    }
    s.Resize(std::max(s.ask.size(), s.fskKHz.size()));
    return s;
}

LinkSignals SignalsFromRecords(const std::vector<MsgInfoPtr>& events)
{
    LinkSignals s;
    std::vector<std::pair<uint64_t, const TriggerData*>> askRecords, fskRecords;
    size_t end = 0;
    for (const MsgInfoPtr& e : events) {
        if (!e || !e->capture || e->capture->samples.empty())
            continue;
        const TriggerData& r = *e->capture;
        const uint64_t first = r.startTime / 25;
        if (IsAskRecord(*e)) {
            askRecords.emplace_back(first, &r);
            end = std::max<size_t>(end, first + r.samples.size());
        } else {
            fskRecords.emplace_back(first, &r);
            uint64_t ticks = r.startTime * 60;
            for (int32_t w : r.samples)
                ticks += static_cast<uint64_t>(std::max(0, w));
            end = std::max<size_t>(end, ticks / kTicksPerSample + 1);
        }
    }
    if (end == 0 || end > kMaxExportSamples)
        return s;
    end += kTailSamples;
    std::sort(askRecords.begin(), askRecords.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::sort(fskRecords.begin(), fskRecords.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    s.ask.assign(end, askRecords.empty() ? 0.0f : static_cast<float>(askRecords.front().second->samples.front()));
    s.qi.assign(end, 1);
    s.fskKHz.assign(end, 0.0f);
    // The envelope: each record at its place. A record begins with the link
    // at rest, before its first edge, and ends at or just after its last
    // one: the gap after it holds the level it began with.
    size_t filled = 0;
    float rest = s.ask.empty() ? 0.0f : s.ask.front();
    for (const auto& [first, r] : askRecords) {
        if (first > filled)
            std::fill(s.ask.begin() + static_cast<std::ptrdiff_t>(filled),
                      s.ask.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(first, end)), rest);
        for (size_t i = 0; i < r->samples.size() && first + i < end; ++i)
            s.ask[first + i] = static_cast<float>(r->samples[i]);
        filled = std::max<size_t>(filled, std::min<size_t>(end, first + r->samples.size()));
        rest = static_cast<float>(r->samples.front());
    }
    std::fill(s.ask.begin() + static_cast<std::ptrdiff_t>(filled), s.ask.end(), rest);
    // The carrier: each record's words, the last frequency held up to the next.
    int64_t lastSample = -1;
    for (const auto& rec : fskRecords) {
        const TriggerData& r = *rec.second;
        int64_t ticks = static_cast<int64_t>(r.startTime) * 60;
        // The carrier held since the record before.
        const int64_t first = ticks / static_cast<int64_t>(kTicksPerSample);
        if (lastSample >= 0 && first > lastSample + 1 && first <= static_cast<int64_t>(s.fskKHz.size()))
            std::fill(s.fskKHz.begin() + lastSample + 1, s.fskKHz.begin() + first,
                      s.fskKHz[static_cast<size_t>(lastSample)]);
        for (int32_t w : r.samples) {
            if (w <= 0)
                continue;
            ticks += w;
            PutWord(s.fskKHz, ticks, static_cast<uint32_t>(w), lastSample);
        }
    }
    if (lastSample >= 0 && static_cast<size_t>(lastSample) + 1 < s.fskKHz.size())
        std::fill(s.fskKHz.begin() + lastSample + 1, s.fskKHz.end(), s.fskKHz[static_cast<size_t>(lastSample)]);
    // The transmitter's carrier is on before its first answer, but its
    // record begins with the answer: the FSK chain that reads the file needs
    // the carrier at rest before a packet to learn its frequency, or it
    // loses that first packet. The record's resting period (the carrier's,
    // by the record's polarity) is held for 200 ms before it.
    if (!fskRecords.empty()) {
        const TriggerData& r = *fskRecords.front().second;
        const int64_t period = r.polarity == 0 ? r.highPeriod : r.lowPeriod;
        const size_t first = static_cast<size_t>(static_cast<int64_t>(r.startTime) * 60 /
                                                 static_cast<int64_t>(kTicksPerSample));
        const size_t from = first > kFskLeadInSamples ? first - kFskLeadInSamples : 0;
        if (period > 0 && first <= s.fskKHz.size())
            std::fill(s.fskKHz.begin() + static_cast<std::ptrdiff_t>(from),
                      s.fskKHz.begin() + static_cast<std::ptrdiff_t>(first),
                      static_cast<float>(960000.0 / static_cast<double>(period)));
    }
    s.Resize(std::max(end, s.fskKHz.size()));
    return s;
}

std::vector<uint8_t> SliceEnvelope(const std::vector<int32_t>& samples)
{
    const auto range = std::minmax_element(samples.begin(), samples.end());
    // A record without a swing holds no packet: the line rests.
    if (samples.empty() || *range.second - *range.first < 40)
        return std::vector<uint8_t>(samples.size(), 1);
    std::vector<uint8_t> line = analysis::SliceLine(std::vector<double>(samples.begin(), samples.end()));
    // The last bit of a packet, the stop bit of its last byte, has its second
    // half cell ended by no edge when the receiver stops modulating on the
    // level at rest. A reader that times bits between edges (sigrok's qi
    // decoder does) never completes it, and loses the packet's last byte: the
    // cell is closed with the edge where it ends, half a bit after the last.
    std::vector<size_t> edges;
    for (size_t i = 1; i < line.size(); ++i)
        if (line[i] != line[i - 1])
            edges.push_back(i);
    if (edges.size() >= 8) {
        std::vector<size_t> runs;
        for (size_t k = 1; k < edges.size(); ++k)
            runs.push_back(edges[k] - edges[k - 1]);
        std::nth_element(runs.begin(), runs.begin() + static_cast<std::ptrdiff_t>(runs.size() / 4), runs.end());
        const size_t half = runs[runs.size() / 4];  // a packet's runs are mostly half cells
        // A record ends at its last edge or soon after: the line goes on
        // past it, on the closing level for three half cells more (longer
        // than a bit, so that a reader takes the line as at rest again).
        const size_t close = edges.back() + half;
        const uint8_t after = line[edges.back()] ? 0 : 1;
        line.resize(std::max(line.size(), close + 3 * half), line.back());
        std::fill(line.begin() + static_cast<std::ptrdiff_t>(close), line.end(), after);
    }
    return line;
}

void DrawReceiverLine(const std::vector<MsgInfoPtr>& events, LinkSignals& signals)
{
    for (const MsgInfoPtr& e : events) {
        if (!e || !IsAskRecord(*e) || e->capture->samples.empty())
            continue;
        const TriggerData& r = *e->capture;
        const size_t first = static_cast<size_t>(r.startTime / 25);
        const std::vector<uint8_t> line = SliceEnvelope(r.samples);
        if (first + line.size() > signals.Size())
            signals.Resize(first + line.size());
        std::copy(line.begin(), line.end(), signals.qi.begin() + static_cast<std::ptrdiff_t>(first));
    }
}

SigrokCapture CaptureFromSignals(const LinkSignals& signals)
{
    SigrokCapture c;
    c.samplerate = kAskRate;
    c.unitsize = 1;
    c.channels = {{kQiChannel, false, 1}, {kAskChannel, true, 2}, {kFskChannel, true, 3}};
    c.logic.assign(signals.qi.begin(), signals.qi.end());
    c.analog[2] = signals.ask;
    c.analog[3] = signals.fskKHz;
    return c;
}

bool LoadSessionWithRecords(const std::string& sidPath, std::vector<MsgInfoPtr>& events, std::string& error)
{
    if (!OpenSessionFile(sidPath, events, error))
        return false;
    RecordStore records;
    if (!records.Open(RecordStore::PathBeside(sidPath)))
        return true;  // a session without its records: its events alone
    for (const MsgInfoPtr& e : events) {
        if (e->capture || e->id <= 0)
            continue;
        TriggerDataPtr r = records.Load(static_cast<uint64_t>(e->id));
        // A record belongs to its event when it starts where the event says
        // it does (the .sid keeps that time as text whatever its size).
        if (r && TimeText(static_cast<int64_t>(r->startTime)) == e->timing.startTimeStamp)
            e->capture = std::move(r);
    }
    return true;
}

bool ExportStreams(const std::string& askPath, const std::string& fskPath, const std::string& outPath,
                   std::string& error)
{
    std::vector<uint8_t> ask, fsk;
    if (!ReadFile(askPath, ask)) {
        error = "cannot open " + askPath;
        return false;
    }
    if (!ReadFile(fskPath, fsk)) {
        error = "cannot open " + fskPath;
        return false;
    }
    // Two bytes a sample on disk; the ASK stream sets the span.
    if (ask.size() / 2 > kMaxExportSamples || fsk.size() / 2 > kMaxExportSamples / 4) {
        error = "the capture is too long to export as one sigrok session (56 minutes at most)";
        return false;
    }
    LinkSignals signals = SignalsFromStreams(ask.data(), ask.size(), fsk.data(), fsk.size());
    // The receiver's line is sliced from the packets the decoders find.
    std::vector<MsgInfoPtr> events;
    StreamReplay replay(ask.data(), ask.size(), fsk.data(), fsk.size());
    replay.Run([&](std::vector<MsgInfoPtr>& batch) { events.insert(events.end(), batch.begin(), batch.end()); });
    DrawReceiverLine(events, signals);
    return WriteSigrokSession(outPath, CaptureFromSignals(signals), error);
}

bool ExportSession(const std::string& sidPath, const std::string& outPath, std::string& error)
{
    std::vector<MsgInfoPtr> events;
    if (!LoadSessionWithRecords(sidPath, events, error))
        return false;
    LinkSignals signals = SignalsFromRecords(events);
    if (signals.Size() == 0) {
        for (const MsgInfoPtr& e : events) {
            if (e->capture && e->capture->startTime / 25 > kMaxExportSamples) {
                error = "the session is too long to export as one sigrok session (56 minutes at most)";
                return false;
            }
        }
        error = "the session has no capture records to export (the .rec beside " + sidPath + " is missing or empty)";
        return false;
    }
    DrawReceiverLine(events, signals);
    return WriteSigrokSession(outPath, CaptureFromSignals(signals), error);
}

}  // namespace interchange
