#include "events/DataManager.h"

#include "common/AskFrameBits.h"
#include "common/Clock.h"
#include "common/TimeText.h"
#include "decode/MessageLength.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace {

std::string FloatText(double v)
{
    std::ostringstream out;
    out << v;
    return out.str();
}

QString Q(const std::string& s)
{
    return QString::fromUtf8(s.data(), static_cast<int>(s.size()));
}

std::string FrameHex(const CMsgData& frame)
{
    const auto area = frame.FrameArea();
    return SpacedHex(area.data(), std::min<size_t>(frame.size, area.size()));
}

}  // namespace

CDataManager::CDataManager()
{
    m_dispatcher.SetCallback(this);
    m_dispatcher.SetPowerReference(5);
}

CDataManager::~CDataManager() = default;

// ------------------------------------------------------------------ workers

int CDataManager::DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst, int flag)
{
    return m_askFilter.DecodeBurst(pulses, burst, static_cast<uint64_t>(FrequencyHz()), flag);
}

void CDataManager::DecodeFsk(std::vector<PulseRecord>& levelChanges, const std::shared_ptr<TriggerData>& packet)
{
    m_fskFilter.DecodeBurst(levelChanges, packet, static_cast<uint64_t>(FrequencyHz()));
}

void CDataManager::AddDigitalPing(const DigitalPingInfoPtr& ping)
{
    if (!ping)
        return;
    auto e = std::make_shared<MsgInfo>();
    e->str = Q(ping->text);
    e->common.logData = ping->text;
    e->common.Summary = ping->detail;
    e->common.typeString = ping->label;
    e->timing.startTime = static_cast<uint64_t>(ping->startUs);
    e->timing.startTimeStamp = ping->startText;
    e->timing.endTime = static_cast<uint64_t>(ping->endUs);
    e->timing.endTimeStamp = ping->endText;
    e->timing.bitTimesUs = static_cast<uint64_t>(ping->durationUs);
    e->timing.duration = ping->durationText;
    e->timing.carrierCurrentHz = static_cast<uint64_t>(ping->frequency);
    e->type = kTypeDigitalPing;
    e->direction = 1;
    e->eventG.eventCount = 1;
    Enqueue(e);
}

void CDataManager::AddCepTimeout()
{
    auto e = std::make_shared<MsgInfo>();
    e->str = QStringLiteral("Violation: CEP Timeout");
    e->common.logData = "Violation: CEP Timeout";
    e->common.typeString = "Violation";
    e->common.Summary = "CEP Timeout";
    e->type = kTypeViolation;
    e->direction = 0;
    e->eventG.eventCount = 1;
    Enqueue(e);
}

void CDataManager::ResetLink()
{
    m_askFilter.Reset();
    m_resetPending.store(true, std::memory_order_relaxed);
    m_powerFraction.store(0.0, std::memory_order_relaxed);
    m_powerRaw.store(0, std::memory_order_relaxed);
    m_powerValue.store(0.0, std::memory_order_relaxed);
    m_controlError.store(0.0, std::memory_order_relaxed);
    m_lastLevelChange.store(0, std::memory_order_relaxed);
}

void CDataManager::PushFrequency(double first, double second)
{
    std::lock_guard<std::mutex> lock(m_historyMutex);
    m_history1.push_back(first);
    m_history2.push_back(second);
    while (m_history1.size() > 5)
        m_history1.pop_front();
    while (m_history2.size() > 5)
        m_history2.pop_front();
}

void CDataManager::AddCarrierEdges(const std::vector<CarrierEdge>& edges)
{
    std::lock_guard<std::mutex> lock(m_edgeMutex);
    m_edges.insert(m_edges.end(), edges.begin(), edges.end());
}

void CDataManager::TakeCarrierEdges(std::vector<CarrierEdge>& out)
{
    std::lock_guard<std::mutex> lock(m_edgeMutex);
    out.insert(out.end(), m_edges.begin(), m_edges.end());
    m_edges.clear();
}

double CDataManager::FirstHistoryValue()
{
    std::lock_guard<std::mutex> lock(m_historyMutex);
    return m_history1.empty() ? 0.0 : m_history1.front();
}

double CDataManager::CarrierFrequency()
{
    std::lock_guard<std::mutex> lock(m_historyMutex);
    return m_history2.empty() ? 0.0 : m_history2.front();
}

int CDataManager::FrequencyHz()
{
    return static_cast<int>(CarrierFrequency());
}

uint64_t CDataManager::FilterCounters() const
{
    const uint64_t failed = static_cast<uint32_t>(m_askFilter.FailedBursts());
    const uint64_t frames = static_cast<uint32_t>(m_askFilter.DecodedFrames());
    return (failed << 32) | frames;
}

// ------------------------------------------------------------ the event queue

void CDataManager::Enqueue(const MsgInfoPtr& event)
{
    std::lock_guard<std::mutex> lock(m_queueMutex);
    event->enqueueTick = TickMs();
    if (event->capture) {
        const uint64_t start = event->capture->startTime;
        for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
            if ((*it)->capture && (*it)->capture->startTime > start) {
                m_queue.insert(it, event);
                return;
            }
        }
    }
    m_queue.push_back(event);
}

size_t CDataManager::QueuedEvents()
{
    std::lock_guard<std::mutex> lock(m_queueMutex);
    return m_queue.size();
}

void CDataManager::TakeAllEvents(std::vector<MsgInfoPtr>& out)
{
    SettleHeldFrames();
    GetEventsReleasing(out, true);
}

void CDataManager::BeginAcquisition()
{
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_queue.clear();
    }
    {
        std::lock_guard<std::mutex> lock(m_edgeMutex);
        m_edges.clear();
    }
    while (m_askFilter.TakeFrame()) {
    }
    while (m_fskFilter.TakeFrame()) {
    }
    for (MergeLane* lane : {&m_ask, &m_fsk}) {
        lane->Clear();
        lane->wireSettled.store(0, std::memory_order_relaxed);
        lane->firstPassed.store(0, std::memory_order_relaxed);
    }
    m_settleAll.store(false, std::memory_order_relaxed);
    m_wireReader.Reset();
    {
        std::lock_guard<std::mutex> lock(m_wireRingMutex);
        m_wireRingNext = 0;
        m_wireRingOldest = 0;
    }
    m_fskWireReader = FskWireReader(m_fskReaderMin, m_fskReaderMax);
    m_fskRingNext = 0;
}

void CDataManager::GetEvents(std::vector<MsgInfoPtr>& out)
{
    GetEventsReleasing(out, false);
}

void CDataManager::GetEventsReleasing(std::vector<MsgInfoPtr>& out, bool releaseAll)
{
    if (m_resetPending.exchange(false, std::memory_order_relaxed))
        m_dispatcher.Reset();

    const bool all = m_settleAll.exchange(false, std::memory_order_relaxed);
    if (SecondAskReader()) {
        ReleaseHeld(
            m_ask, [this] { return m_askFilter.TakeFrame(); }, 25, all,
            [this](const std::shared_ptr<CMsgData>& frame) { m_dispatcher.Receive(frame); });
    } else {
        while (auto frame = m_askFilter.TakeFrame())
            m_dispatcher.Receive(frame);
    }

    if (SecondFskReader()) {
        ReleaseHeld(
            m_fsk, [this] { return m_fskFilter.TakeFrame(); }, 1, all,
            [this](const std::shared_ptr<CMsgData>& frame) { DeliverFsk(frame); });
    } else {
        while (auto frame = m_fskFilter.TakeFrame())
            DeliverFsk(frame);
    }

    std::vector<MsgInfoPtr> ready;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        const int64_t now = TickMs();
        while (!m_queue.empty()) {
            const MsgInfoPtr& head = m_queue.front();
            const bool old = now - head->enqueueTick > 1000;
            const bool markerInCrowd = m_queue.size() >= 3 && !head->capture;
            if (!old && !markerInCrowd && !releaseAll)
                break;
            ready.push_back(head);
            m_queue.pop_front();
        }
    }
    out = std::move(ready);
}

void CDataManager::DeliverFsk(const std::shared_ptr<CMsgData>& frame)
{
    auto e = std::make_shared<MsgInfo>();
    const std::string hex = FrameHex(*frame);
    e->str = Q(hex);
    if (!frame->pattern) {
        m_dispatcher.Receive(frame);
        return;
    }
    const uint8_t byte = frame->FrameByte(0);
    // Only answers during negotiation: a NAK or an ND elsewhere is dropped.
    if ((byte == 0x00 || byte == 0xBB) && m_askFilter.Phase() != 3)
        return;
    const std::string name = PatternName(byte);
    e->type = kTypeTxPattern;
    e->direction = 1;
    e->eventG.eventCount = 1;
    e->common.Summary = name;
    e->common.typeString = "Tx Pattern";
    e->common.logData = "Tx Pattern: " + name;
    e->str = Q("Pattern: " + name);
    e->packet = frame->packet;
    e->timing = frame->timing;
    e->capture = frame->capture;
    Enqueue(e);
}

void CDataManager::MergeLane::Clear()
{
    {
        std::lock_guard<std::mutex> lock(wireMutex);
        wireOut.clear();
    }
    held.clear();
}

void CDataManager::Clear()
{
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_queue.clear();
    }
    {
        std::lock_guard<std::mutex> lock(m_edgeMutex);
        m_edges.clear();
    }
    m_ask.Clear();
    m_fsk.Clear();
    m_settleAll.store(false, std::memory_order_relaxed);
    m_askFilter.Clear();
    m_fskFilter.Clear();
    m_askFilter.ResetCounters();
}

// ------------------------------------------------- the second readers

// Each first reader (the ASK list decoder, the FSK frame decoder) is merged
// with its second reader frame by frame. Each frame waits until both readers
// have looked past its span (the first reader has decoded every burst or
// packet there, the second reader has read every sample or word), then the
// frames whose spans overlap are settled together:
//  - a frame of the second reader where the first reader gave nothing becomes
//    an event of its own, marked "recovered";
//  - where both read the same bytes, the first reader's frame stands as it is;
//  - where the first reader read other bytes, the second reading stands (it
//    checked the parity of every byte and the checksum and forgives nothing;
//    the list decoder checks no parity and forks on ties, the frame decoder
//    forgives checksums), marked "corrected", with the first reader's bytes
//    beside it;
//  - but where the first reader's frame was good too and the second reading
//    is not firmly on its bit clock (a transition further than kFirmDrift
//    from it), the signal does not settle which reading is right: the packet
//    goes out as an error frame with both readings, marked "disputed";
//  - a good ASK frame of the list decoder against the Qi length rule goes
//    out as an error frame, marked "refused" (the list decoder checks no
//    length, and a reading shifted by a bit can still pass its XOR);
//  - a good ASK frame of the list decoder over the span of a packet that the
//    second reader began (start bit found) but could not finish, whose bits
//    contradict the bits the second reader read there, goes out as an error
//    frame, marked "disputed", with the bytes the second reader read whole;
//  - a good ASK frame of the list decoder over a span where the second reader
//    read nothing at all is read again by a fresh second reader from the
//    newest samples: the same bytes confirm it, other good bytes correct it
//    as above, and no packet at all leaves the reading unsupported by the
//    signal: it goes out as an error frame, marked "unconfirmed".
// A false frame misleads more than a missed one: where the readers contradict
// each other and the signal cannot tell, the user sees an error.
// Everything goes on in capture order, as any frame: ASK frames to the
// dispatcher, FSK frames to the dispatcher or, for response patterns, named
// by the pattern table.

namespace {

// The newest samples the second ASK reader was given, for the capture records
// of its frames: 2^17 samples are 3.3 s, far more than the longest packet.
constexpr size_t kWireRing = size_t{1} << 17;
// The newest words the second FSK reader was given: 2^15 words are about 3 s
// at the lowest carrier, more than the longest packet at 512 cycles a bit.
constexpr size_t kFskRing = size_t{1} << 15;

bool Overlap(uint64_t a0, uint64_t a1, uint64_t b0, uint64_t b1)
{
    return a0 <= b1 && b0 <= a1;
}

}  // namespace

std::shared_ptr<CMsgData> CDataManager::WireFrame(const AskWireFrame& w)
{
    auto frame = std::make_shared<CMsgData>();
    frame->SetFrame(w.bytes.data(), w.bytes.size());
    const double spb = w.samplesPerBit > 0.0 ? w.samplesPerBit : 20.0;
    const double preamble = static_cast<double>(w.startBitSample - std::min(w.startBitSample, w.firstSample)) / spb;
    frame->packet.premambleCount = static_cast<uint64_t>(std::lround(preamble));
    frame->packet.PacketData = SpacedHex(w.bytes.data(), w.bytes.size());
    frame->packet.numbytesInPacket = w.bytes.size();
    frame->packet.Status = "NoError";
    frame->packet.reading = "recovered";

    auto capture = std::make_shared<TriggerData>();
    capture->startTime = w.firstSample * 25;
    capture->endTime = w.endSample * 25;
    // The samples of the packet, when the ring still holds them all.
    if (CopyWireSamples(w.firstSample, w.endSample, capture->samples)) {
        capture->rawSamples = capture->samples;
        const auto range = std::minmax_element(capture->samples.begin(), capture->samples.end());
        capture->amplitude = *range.second - *range.first;
    }
    FillTiming(*frame, *capture, static_cast<uint64_t>(FrequencyHz()));
    frame->direction = 2;
    frame->pattern = 0;
    frame->capture = capture;
    return frame;
}

bool CDataManager::CopyWireSamples(uint64_t first, uint64_t last, std::vector<int32_t>& out)
{
    std::lock_guard<std::mutex> lock(m_wireRingMutex);
    if (last < first || first < m_wireRingOldest || last >= m_wireRingNext || m_wireRingNext - first > kWireRing ||
        m_wireRing.size() != kWireRing)
        return false;
    out.resize(static_cast<size_t>(last - first + 1));
    for (uint64_t k = first; k <= last; ++k)
        out[static_cast<size_t>(k - first)] = m_wireRing[static_cast<size_t>(k & (kWireRing - 1))];
    return true;
}

bool CDataManager::ReadAgain(uint64_t first, uint64_t last, std::vector<AskWireFrame>& frames, long minPreambleHalves)
{
    // 240 samples (6 ms) before the span: the fresh reader measures the idle
    // level and its noise before the packet's first transition, even where
    // the list decoder's burst began a little late. 240 after: its quiet end.
    // Without 64 samples of the stream before the span (a capture that
    // begins inside the packet) the idle level can't be measured: no look.
    constexpr uint64_t kMargin = 240;
    constexpr uint64_t kLeast = 64;
    uint64_t from = first > kMargin ? first - kMargin : 0;
    std::vector<int32_t> samples;
    {
        std::lock_guard<std::mutex> lock(m_wireRingMutex);
        if (m_wireRingNext == 0 || first < m_wireRingOldest + kLeast)
            return false;
        from = std::max(from, m_wireRingOldest);
        last = std::min(last + kMargin, m_wireRingNext - 1);
    }
    if (!CopyWireSamples(from, last, samples))
        return false;
    AskWireReader reader;
    if (minPreambleHalves > 0)
        reader.SetMinPreambleHalves(minPreambleHalves);
    reader.Feed(samples.data(), samples.size(), from);
    // The end of the samples ends the packet under way: quiet after it.
    const std::vector<int32_t> quiet(kMargin, samples.empty() ? 0 : samples.back());
    reader.Feed(quiet.data(), quiet.size(), last + 1);
    frames = reader.Take();
    return true;
}

void CDataManager::ReadWire(const int32_t* samples, size_t n, uint64_t first)
{
    if (n == 0 || !samples)
        return;
    {
        std::lock_guard<std::mutex> lock(m_wireRingMutex);
        if (m_wireRing.size() != kWireRing)
            m_wireRing.assign(kWireRing, 0);
        // Numbers that go back are a new capture: the reader starts over.
        if (first < m_wireRingNext)
            m_wireReader.Reset();
        // What the ring holds from before a new capture or a gap is not this
        // stream's.
        if (m_wireRingNext == 0 || first != m_wireRingNext)
            m_wireRingOldest = first;
        // Into the ring in at most two runs (the newest kWireRing samples).
        size_t skip = n > kWireRing ? n - kWireRing : 0;
        while (skip < n) {
            const size_t at = static_cast<size_t>((first + skip) & (kWireRing - 1));
            const size_t run = std::min(n - skip, kWireRing - at);
            std::copy(samples + skip, samples + skip + run, m_wireRing.begin() + static_cast<std::ptrdiff_t>(at));
            skip += run;
        }
        m_wireRingNext = first + n;
    }
    m_wireReader.Feed(samples, n, first);
    std::vector<AskWireFrame> frames = m_wireReader.Take();
    std::vector<AskWireFrame> failed = m_wireReader.TakeFailed();
    frames.insert(frames.end(), std::make_move_iterator(failed.begin()), std::make_move_iterator(failed.end()));
    AddWireFrames(frames, m_wireReader.SettledThrough());
}

CDataManager::Held CDataManager::WireHeld(const AskWireFrame& w)
{
    Held h;
    h.frame = WireFrame(w);
    h.first = w.firstSample;
    h.last = std::max(w.firstSample, w.endSample);
    h.wire = true;
    h.failed = !w.good;
    h.bits = w.bits;
    h.drift = w.drift;
    if (h.failed)
        h.frame->packet.Status = "Error";
    return h;
}

void CDataManager::MarkReplacement(MergeLane& lane, CMsgData& second, const CMsgData& first, double drift)
{
    second.packet.otherReading = first.packet.PacketData;
    if (first.packet.Status == "NoError" && drift > kFirmDrift) {
        // Two good readings, and the second is not firm on its clock:
        // nothing tells which is right.
        second.packet.reading = "disputed";
        second.packet.Status = "Error";
        lane.counts.disputed += 1;
    } else {
        second.packet.reading = "corrected";
        lane.counts.corrected += 1;
    }
}

void CDataManager::AddWireFrames(const std::vector<AskWireFrame>& frames, uint64_t settledThrough)
{
    if (!frames.empty()) {
        std::vector<Held> made;
        made.reserve(frames.size());
        for (const AskWireFrame& w : frames)
            made.push_back(WireHeld(w));
        std::lock_guard<std::mutex> lock(m_ask.wireMutex);
        for (Held& h : made)
            m_ask.wireOut.push_back(std::move(h));
    }
    // Told after the frames are in hand: whoever sees this mark finds them.
    m_ask.wireSettled.store(settledThrough, std::memory_order_release);
}

void CDataManager::ListDecoderPassed(uint64_t sample)
{
    m_ask.firstPassed.store(sample, std::memory_order_release);
}

std::shared_ptr<CMsgData> CDataManager::FskWireMsg(const FskWireFrame& w)
{
    auto frame = std::make_shared<CMsgData>();
    frame->SetFrame(w.bytes.data(), w.bytes.size());
    frame->packet.PacketData = SpacedHex(w.bytes.data(), w.bytes.size());
    frame->packet.numbytesInPacket = w.bytes.size();
    frame->packet.Status = "NoError";
    frame->packet.premambleCount = 0;
    frame->packet.reading = "recovered";

    auto capture = std::make_shared<TriggerData>();
    capture->startTime = w.startTicks > 0 ? static_cast<uint64_t>(w.startTicks / 60) : 0;
    capture->endTime = w.endTicks > 0 ? static_cast<uint64_t>(w.endTicks / 60) : 0;
    capture->highPeriod = std::max(w.carrierPeriod, w.modulatedPeriod);
    capture->lowPeriod = std::min(w.carrierPeriod, w.modulatedPeriod);
    // The frame decoder's convention: 0 where the modulated period is the
    // shorter one.
    capture->polarity = w.polarity < 0 ? 0 : 1;
    // The words of the packet, when the ring still holds them all: those that
    // end after its start and begin before its end.
    if (m_fskRingWords.size() == kFskRing && m_fskRingNext > 0) {
        const uint64_t oldest = m_fskRingNext > kFskRing ? m_fskRingNext - kFskRing : 0;
        uint64_t k = m_fskRingNext;
        while (k > oldest) {
            const size_t at = static_cast<size_t>((k - 1) & (kFskRing - 1));
            if (m_fskRingTicks[at] <= w.startTicks)
                break;
            --k;
        }
        if (k > oldest) {
            for (; k < m_fskRingNext; ++k) {
                const size_t at = static_cast<size_t>(k & (kFskRing - 1));
                if (m_fskRingTicks[at] - m_fskRingWords[at] >= w.endTicks)
                    break;
                capture->samples.push_back(m_fskRingWords[at]);
            }
        }
    }
    const uint64_t hz = w.carrierPeriod > 0 ? static_cast<uint64_t>(960000000LL / w.carrierPeriod) : 0;
    FillTiming(*frame, *capture, hz);
    frame->direction = 1;
    frame->pattern = w.pattern ? 1 : 0;
    frame->capture = capture;
    return frame;
}

void CDataManager::ReadFskWire(const uint16_t* words, const int64_t* ticks, size_t n)
{
    if (n == 0 || !words || !ticks)
        return;
    const int32_t bandMin = m_fskBandMin.load(std::memory_order_relaxed);
    const int32_t bandMax = m_fskBandMax.load(std::memory_order_relaxed);
    if (bandMin != m_fskReaderMin || bandMax != m_fskReaderMax) {
        m_fskWireReader = FskWireReader(bandMin, bandMax);
        m_fskReaderMin = bandMin;
        m_fskReaderMax = bandMax;
    }
    if (m_fskRingWords.size() != kFskRing) {
        m_fskRingWords.assign(kFskRing, 0);
        m_fskRingTicks.assign(kFskRing, 0);
    }
    for (size_t i = 0; i < n; ++i) {
        const size_t at = static_cast<size_t>(m_fskRingNext & (kFskRing - 1));
        m_fskRingWords[at] = words[i];
        m_fskRingTicks[at] = ticks[i];
        ++m_fskRingNext;
    }
    m_fskWireReader.Feed(words, ticks, n);
    AddFskWireFrames(m_fskWireReader.Take(), m_fskWireReader.SettledThrough());
}

void CDataManager::AddFskWireFrames(const std::vector<FskWireFrame>& frames, int64_t settledThroughTicks)
{
    if (!frames.empty()) {
        std::vector<Held> made;
        made.reserve(frames.size());
        for (const FskWireFrame& w : frames) {
            Held h;
            h.frame = FskWireMsg(w);
            h.first = h.frame->capture->startTime;
            h.last = std::max(h.first, h.frame->capture->endTime);
            h.wire = true;
            made.push_back(std::move(h));
        }
        std::lock_guard<std::mutex> lock(m_fsk.wireMutex);
        for (Held& h : made)
            m_fsk.wireOut.push_back(std::move(h));
    }
    // Told after the frames are in hand: whoever sees this mark finds them.
    m_fsk.wireSettled.store(settledThroughTicks > 0 ? static_cast<uint64_t>(settledThroughTicks / 60) : 0,
                            std::memory_order_release);
}

void CDataManager::FskChainPassed(uint64_t us)
{
    m_fsk.firstPassed.store(us, std::memory_order_release);
}

void CDataManager::ReleaseHeld(MergeLane& lane, const std::function<std::shared_ptr<CMsgData>()>& takeFirst,
                               uint64_t unitUs, bool all,
                               const std::function<void(const std::shared_ptr<CMsgData>&)>& deliver)
{
    // The marks are read before the frames are taken: each is told after the
    // frames behind it were handed over, so every frame below a mark read
    // here is among those taken next.
    const uint64_t firstPassed = lane.firstPassed.load(std::memory_order_acquire);
    const uint64_t settled = lane.wireSettled.load(std::memory_order_acquire);
    const int64_t now = TickMs();
    while (auto frame = takeFirst()) {
        Held h;
        h.frame = frame;
        if (frame->capture) {
            h.first = frame->capture->startTime / unitUs;
            h.last = std::max(h.first, frame->capture->endTime / unitUs);
        }
        h.heldSince = now;
        lane.held.push_back(std::move(h));
    }
    std::vector<Held> wire;
    {
        std::lock_guard<std::mutex> lock(lane.wireMutex);
        wire.swap(lane.wireOut);
    }
    for (Held& h : wire) {
        h.heldSince = now;
        lane.held.push_back(std::move(h));
    }
    std::stable_sort(lane.held.begin(), lane.held.end(), [](const Held& a, const Held& b) { return a.first < b.first; });

    while (!lane.held.empty()) {
        uint64_t end = lane.held.front().last;
        size_t k = 1;
        while (k < lane.held.size() && lane.held[k].first <= end) {
            end = std::max(end, lane.held[k].last);
            ++k;
        }
        const bool passed = firstPassed > end && settled > end;
        if (!all && !passed && now - lane.held.front().heldSince <= kHoldLimitMs)
            break;
        std::vector<Held> cluster(std::make_move_iterator(lane.held.begin()),
                                  std::make_move_iterator(lane.held.begin() + static_cast<std::ptrdiff_t>(k)));
        lane.held.erase(lane.held.begin(), lane.held.begin() + static_cast<std::ptrdiff_t>(k));
        ResolveCluster(lane, cluster, deliver);
    }
}

void CDataManager::ResolveCluster(MergeLane& lane, std::vector<Held>& cluster,
                                  const std::function<void(const std::shared_ptr<CMsgData>&)>& deliver)
{
    std::vector<Held*> wire, list, failed;
    for (Held& h : cluster)
        (h.failed ? failed : h.wire ? wire : list).push_back(&h);
    std::vector<bool> listMatched(list.size(), false), listDropped(list.size(), false);
    std::vector<bool> wireDropped(wire.size(), false);
    std::deque<Held> reread;  // frames the second reader found reading a span again

    // Both read the same bytes: the first reader's frame stands.
    for (size_t i = 0; i < wire.size(); ++i) {
        for (size_t j = 0; j < list.size(); ++j) {
            if (listMatched[j] || list[j]->frame->packet.PacketData != wire[i]->frame->packet.PacketData)
                continue;
            listMatched[j] = true;
            wireDropped[i] = true;
            lane.counts.agreed += 1;
            break;
        }
    }
    for (size_t i = 0; i < wire.size(); ++i) {
        Held& w = *wire[i];
        bool corrected = false;
        for (size_t j = 0; j < list.size(); ++j) {
            if (listMatched[j] || listDropped[j] || !Overlap(w.first, w.last, list[j]->first, list[j]->last))
                continue;
            // The first reader read other bytes over this span: the checked
            // reading stands (or, where the first reader also read the packet
            // right in another candidate, that one does) and this one goes.
            listDropped[j] = true;
            if (!wireDropped[i] && !corrected) {
                MarkReplacement(lane, *w.frame, *list[j]->frame, w.drift);
                corrected = true;
            }
        }
        if (!wireDropped[i] && !corrected)
            lane.counts.recovered += 1;
    }

    // What stands of the first reader's good ASK frames is checked against
    // the length rule and against what the second reader read of the same
    // span where it began a packet and could not finish it.
    if (&lane == &m_ask) {
        for (size_t j = 0; j < list.size(); ++j) {
            CMsgData& f = *list[j]->frame;
            if (listMatched[j] || listDropped[j] || f.packet.Status != "NoError")
                continue;
            std::vector<uint8_t> bytes;
            for (size_t k = 0; k < f.size && k < CMsgData::kFrameArea; ++k)
                bytes.push_back(f.FrameByte(k));
            if (bytes.empty() || static_cast<size_t>(QiMessageLength(bytes[0])) + 2 != bytes.size()) {
                f.packet.Status = "Error";
                f.packet.reading = "refused";
                lane.counts.refused += 1;
                continue;
            }
            std::vector<uint8_t> sent;
            AppendAskByteBits(sent, bytes);
            bool looked = false;  // the second reader began a packet here
            for (const Held* x : failed) {
                if (!Overlap(x->first, x->last, list[j]->first, list[j]->last))
                    continue;
                looked = true;
                // Contradicted where a bit differs, or where the envelope
                // carried bits on past the end of this reading.
                const size_t n = std::min(sent.size(), x->bits.size());
                if (x->bits.size() <= sent.size() &&
                    std::equal(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(n), x->bits.begin()))
                    continue;
                f.packet.Status = "Error";
                f.packet.reading = "disputed";
                f.packet.otherReading = x->frame->packet.PacketData;
                lane.counts.disputed += 1;
                break;
            }
            if (looked)
                continue;
            // The second reader read nothing of this span in the stream (a
            // look at noise or at a step of the idle level can hold its
            // front end past a packet's start). It reads the span again on
            // its own: the same bytes confirm the list decoder's reading,
            // other good bytes correct it as above, and where it finds no
            // packet at all nothing in the signal supports the reading: the
            // list decoder's quirks can read a packet shifted by a bit with
            // a checksum that still holds.
            const auto overList = [&](const AskWireFrame& w) {
                return Overlap(w.firstSample, std::max(w.firstSample, w.endSample), list[j]->first, list[j]->last);
            };
            std::vector<AskWireFrame> again;
            if (!ReadAgain(list[j]->first, list[j]->last, again))
                continue;
            const AskWireFrame* other = nullptr;
            bool same = false;
            for (const AskWireFrame& w : again) {
                if (!overList(w))
                    continue;
                if (w.bytes == bytes)
                    same = true;
                else if (!other)
                    other = &w;
            }
            if (same) {
                lane.counts.agreed += 1;
            } else if (other) {
                reread.push_back(WireHeld(*other));
                MarkReplacement(lane, *reread.back().frame, f, other->drift);
                listDropped[j] = true;
            } else {
                // A preamble shorter than the second reader takes in a stream
                // (a receiver that breaks the Qi timing): read once more
                // taking preambles down to six ones, which can only confirm
                // the list decoder's own bytes, never put others in their
                // place.
                std::vector<AskWireFrame> shortPreamble;
                bool confirmed = false;
                if (ReadAgain(list[j]->first, list[j]->last, shortPreamble, kShortPreambleHalves))
                    for (const AskWireFrame& w : shortPreamble)
                        confirmed = confirmed || (w.bytes == bytes && overList(w));
                if (confirmed) {
                    lane.counts.agreed += 1;
                } else {
                    f.packet.Status = "Error";
                    f.packet.reading = "unconfirmed";
                    lane.counts.unconfirmed += 1;
                }
            }
        }
    }

    std::vector<Held*> out;
    for (Held& h : reread)
        out.push_back(&h);
    for (size_t i = 0; i < wire.size(); ++i)
        if (!wireDropped[i])
            out.push_back(wire[i]);
    for (size_t j = 0; j < list.size(); ++j)
        if (!listDropped[j])
            out.push_back(list[j]);
    std::stable_sort(out.begin(), out.end(), [](const Held* a, const Held* b) { return a->first < b->first; });
    for (Held* h : out)
        deliver(h->frame);
}

// ------------------------------------------------------------------- slots

MsgInfoPtr CDataManager::Make(CMsgData& packet, Form form)
{
    std::string name, value;
    packet.typeString(name);
    packet.Summary(value);
    auto e = std::make_shared<MsgInfo>();
    e->common.Summary = value;
    e->common.typeString = name;
    e->type = packet.header;
    e->direction = static_cast<int32_t>(packet.direction);
    e->eventG.eventCount = 1;
    e->packet = packet.packet;
    e->timing = packet.timing;
    e->capture = packet.capture;
    const int hz = FrequencyHz();
    std::string text;
    switch (form) {
    case Form::Plain:
        text = name + value;
        break;
    case Form::Spoken:
    case Form::SpokenHz:
        text = name + value + " @" + std::to_string(hz) + "HZ";
        break;
    case Form::Named:
        text = name + ": " + value;
        break;
    }
    if (form == Form::SpokenHz)
        e->packet.controlErrorFreq = hz;
    e->common.logData = text;
    e->str = Q(text);
    return e;
}

MsgInfoPtr CDataManager::RawEvent(const CMsgData& frame, const char* name)
{
    const std::string hex = FrameHex(frame);
    auto e = std::make_shared<MsgInfo>();
    const std::string text = std::string(name) + " " + hex;
    e->str = Q(text);
    e->common.logData = text;
    e->common.Summary = hex;
    e->common.typeString = name;
    e->type = kTypeChecksumOrProprietary;
    e->direction = static_cast<int32_t>(frame.direction);
    e->eventG.eventCount = 1;
    e->packet = frame.packet;
    e->timing = frame.timing;
    e->capture = frame.capture;
    return e;
}

void CDataManager::OnChecksumError(std::shared_ptr<CMsgData> frame)
{
    auto e = RawEvent(*frame, "ChecksumError");
    e->eventG.failureCount = 1;
    Enqueue(e);
}

void CDataManager::OnProprietary(std::shared_ptr<CMsgData> frame)
{
    auto e = RawEvent(*frame, "Proprietary");
    e->eventG.warningCount = 1;
    Enqueue(e);
}

void CDataManager::OnSignalStrength(CMsgData& packet)
{
    auto e = Make(packet, Form::Plain);
    // The frequency here is printed as a float, with no " @".
    e->str = Q(e->common.typeString + e->common.Summary + "%" + FloatText(CarrierFrequency()) + "HZ");
    Enqueue(e);
}

void CDataManager::OnEndPowerTransfer(CMsgData& packet)
{
    if (packet.message[1] <= 9)
        Enqueue(Make(packet, Form::Plain));
}

void CDataManager::OnPowerControlHoldOff(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Plain));
}

void CDataManager::OnConfiguration(CMsgData& packet)
{
    // The dispatcher calls this slot with a Configuration only; any other
    // packet counts as an empty one.
    const auto* typed = dynamic_cast<const Configuration*>(&packet);
    const Configuration empty;
    const Configuration& conf = typed ? *typed : empty;
    m_dispatcher.SetPowerReference(packet.message[0] & 0x3F);
    auto e = Make(packet, Form::Plain);
    Enqueue(e);

    const Identification& id = m_dispatcher.HeldIdentification();
    auto status = std::make_shared<MsgInfo>();
    status->common.Summary = id.manufacturerText.empty()
                                 ? conf.maxPowerText
                                 : id.versionText + ", " + id.manufacturerText + ", " + id.deviceText + ", " +
                                       conf.maxPowerText;
    status->common.typeString = "Receiver Device Status";
    status->common.logData = status->common.typeString + " : " + status->common.Summary;
    status->str = Q(status->common.logData);
    status->type = kTypeDeviceStatus;
    status->eventG.eventCount = 1;
    status->timing = packet.timing;
    Enqueue(status);

    auto contract = std::make_shared<MsgInfo>();
    contract->common.Summary = conf.contractText;
    contract->common.typeString = "Power Transfer Contract";
    contract->common.logData = contract->common.typeString + " : " + contract->common.Summary;
    contract->str = Q(contract->common.logData);
    contract->type = kTypeContract;
    contract->eventG.eventCount = 1;
    contract->timing = packet.timing;
    Enqueue(contract);
}

void CDataManager::OnIdentification(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Plain));
}

void CDataManager::OnExtendedIdentification(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Plain));
}

void CDataManager::OnReserved7(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Plain));
}

void CDataManager::SetControlError(CMsgData& packet, MsgInfo& event)
{
    const float value = static_cast<float>(static_cast<int8_t>(packet.message[0]));
    event.packet.controlErrorValue = value;
    m_controlError.store(value, std::memory_order_relaxed);
}

void CDataManager::OnControlError(CMsgData& packet)
{
    auto e = Make(packet, Form::SpokenHz);
    SetControlError(packet, *e);
    Enqueue(e);
}

void CDataManager::OnReceivedPower(CMsgData& packet)
{
    const auto* p = dynamic_cast<const ReceivedPower*>(&packet);
    auto e = Make(packet, Form::Spoken);
    const int64_t raw = packet.message[0];
    m_powerRaw.store(raw, std::memory_order_relaxed);
    m_powerFraction.store(static_cast<double>(raw) / 128.0, std::memory_order_relaxed);
    m_powerValue.store(p ? p->power : 0.0, std::memory_order_relaxed);
    Enqueue(e);
}

void CDataManager::OnChargeStatus(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Plain));
}

void CDataManager::OnReceivedPower1_2_2(CMsgData& packet)
{
    const auto* p = dynamic_cast<const ReceivedPower1_2_2*>(&packet);
    auto e = Make(packet, Form::Spoken);
    const int64_t raw = (static_cast<int64_t>(packet.message[1]) << 8) | packet.message[2];
    m_powerRaw.store(raw, std::memory_order_relaxed);
    m_powerFraction.store(static_cast<double>(raw) / 32768.0, std::memory_order_relaxed);
    m_powerValue.store(p ? p->power : 0.0, std::memory_order_relaxed);
    Enqueue(e);
}

void CDataManager::OnGeneralRequest(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnRenegotiate(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnSpecificRequest(CMsgData& packet)
{
    if (packet.powerValue > 0)
        m_dispatcher.SetPowerReference(static_cast<int>(packet.powerValue));
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnFODStatus(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnWPIDMost(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnWPIDLast(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnExControlError(CMsgData& packet)
{
    Enqueue(Make(packet, Form::SpokenHz));
}

void CDataManager::OnSimultaneousDataStreamResponse(CMsgData& packet)
{
    Enqueue(Make(packet, Form::SpokenHz));
}

void CDataManager::OnSimultaneousAuxiliaryDataControl(CMsgData& packet)
{
    auto e = Make(packet, Form::SpokenHz);
    SetControlError(packet, *e);
    Enqueue(e);
}

void CDataManager::OnFSKDataNotAvailable(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnFSKIdentification(CMsgData& packet)
{
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnFSKCapability(CMsgData& packet)
{
    const int guaranteed = packet.message[0] & 0x3F;
    const int potential = packet.message[1] & 0x3F;
    m_dispatcher.SetPowerReference(std::max(guaranteed, potential));
    Enqueue(Make(packet, Form::Named));
}

void CDataManager::OnPacket(CMsgData& packet)
{
    Enqueue(Make(packet, Form::SpokenHz));
}
