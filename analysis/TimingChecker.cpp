#include "analysis/TimingChecker.h"

#include "analysis/Dissect.h"
#include "analysis/EventFields.h"
#include "services/SettingParams.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace analysis {

namespace {

const char* const kNames[kTimingRuleCount] = {
    "ping-to-first-packet", "config-packet-gap", "config-packet-length", "ce-interval",         "ce-timeout",
    "holdoff-range",        "ask-bit-rate",      "ask-preamble",         "fsk-response-window", "terminate-after-ept",
};

uint16_t Bit(TimingRule r)
{
    return static_cast<uint16_t>(1u << static_cast<int>(r));
}

bool HasOwnTime(const MsgInfo& e)
{
    return e.type != kTypeViolation && e.type != kTypeDeviceStatus && e.type != kTypeContract &&
           (e.timing.startTime > 0 || e.timing.endTime > 0);
}

}  // namespace

const char* RuleName(TimingRule rule)
{
    const int i = static_cast<int>(rule);
    return i >= 0 && i < kTimingRuleCount ? kNames[i] : "";
}

bool RuleByName(const std::string& name, TimingRule& rule)
{
    for (int i = 0; i < kTimingRuleCount; ++i)
        if (name == kNames[i]) {
            rule = static_cast<TimingRule>(i);
            return true;
        }
    return false;
}

Severity RuleSeverity(TimingRule rule)
{
    switch (rule) {
    case TimingRule::CeInterval:
    case TimingRule::FskResponseWindow:
    case TimingRule::TerminateAfterEpt:
        return Severity::Warning;
    default:
        return Severity::Error;
    }
}

const char* SeverityWord(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

TimingLimits TimingLimits::FromSettings(const SettingParams& s)
{
    TimingLimits l;
    l.pingToFirstPacketMs = s.m_timing_ping_first_ms;
    l.configGapMs = s.m_timing_config_gap_ms;
    l.configLengthMs = s.m_timing_config_length_ms;
    l.ceIntervalMs = s.m_timing_ce_interval_ms;
    l.ceTimeoutMs = s.m_timing_ce_timeout_ms;
    l.holdoffMinMs = s.m_timing_holdoff_min_ms;
    l.holdoffMaxMs = s.m_timing_holdoff_max_ms;
    l.bitRateHz = s.m_timing_bit_rate_hz;
    l.bitRateTolerancePct = s.m_timing_bit_rate_tolerance_pct;
    l.preambleMin = s.m_timing_preamble_min;
    l.preambleMax = s.m_timing_preamble_max;
    l.responseMs = s.m_timing_response_ms;
    l.terminateMs = s.m_timing_terminate_ms;
    return l;
}

std::string FindingNumber(double value)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.3f", value);
    std::string s = buf;
    if (s.find('.') != std::string::npos) {
        while (!s.empty() && s.back() == '0')
            s.pop_back();
        if (!s.empty() && s.back() == '.')
            s.pop_back();
    }
    if (s == "-0")
        s = "0";
    return s;
}

std::string TimingFinding::Text() const
{
    const std::string u = unit.empty() ? std::string() : " " + unit;
    return FindingNumber(measured) + u + " " + op + " " + FindingNumber(limit) + u;
}

std::string TimingFinding::Line() const
{
    char time[48];
    std::snprintf(time, sizeof time, "%.3f", static_cast<double>(timeUs) / 1000.0);
    return std::string(time) + " " + RuleName(rule) + " " + Text() + " event " + std::to_string(event);
}

Json::Value TimingFinding::ToJson() const
{
    Json::Value v(Json::objectValue);
    char time[48];
    std::snprintf(time, sizeof time, "%.3f", static_cast<double>(timeUs) / 1000.0);
    v["time_ms"] = std::strtod(time, nullptr);
    v["time_us"] = Json::Int64(timeUs);
    v["rule"] = RuleName(rule);
    v["severity"] = SeverityWord(severity);
    v["measured"] = std::strtod(FindingNumber(measured).c_str(), nullptr);
    v["unit"] = unit;
    v["op"] = op;
    v["limit"] = std::strtod(FindingNumber(limit).c_str(), nullptr);
    v["event"] = Json::Int64(event);
    Json::Value list(Json::arrayValue);
    for (int64_t n : events)
        list.append(Json::Int64(n));
    v["events"] = list;
    v["text"] = Text();
    return v;
}

bool TimingFinding::FromJson(const Json::Value& v, TimingFinding& out)
{
    if (!v.isObject() || !v["rule"].isString() || !v["measured"].isNumeric() || !v["limit"].isNumeric() ||
        !v["event"].isIntegral())
        return false;
    TimingFinding f;
    if (!RuleByName(v["rule"].asString(), f.rule))
        return false;
    f.severity = RuleSeverity(f.rule);
    if (v["severity"].isString())
        f.severity = v["severity"].asString() == "warning" ? Severity::Warning : Severity::Error;
    if (v["time_us"].isIntegral())
        f.timeUs = v["time_us"].asInt64();
    else if (v["time_ms"].isNumeric())
        f.timeUs = std::llround(v["time_ms"].asDouble() * 1000.0);
    f.measured = v["measured"].asDouble();
    f.limit = v["limit"].asDouble();
    f.unit = v["unit"].isString() ? v["unit"].asString() : std::string();
    f.op = v["op"].isString() ? v["op"].asString() : std::string(">");
    f.event = v["event"].asInt64();
    if (v["events"].isArray())
        for (const Json::Value& n : v["events"])
            if (n.isIntegral())
                f.events.push_back(n.asInt64());
    out = std::move(f);
    return true;
}

void SortFindings(std::vector<TimingFinding>& findings)
{
    std::stable_sort(findings.begin(), findings.end(), [](const TimingFinding& a, const TimingFinding& b) {
        return a.timeUs != b.timeUs ? a.timeUs < b.timeUs : a.event < b.event;
    });
}

// ---------------------------------------------------------------- measures

int64_t TimingChecker::TxStartUs(const MsgInfo& e)
{
    const int64_t start = static_cast<int64_t>(e.timing.startTime);
    const TriggerData* c = e.capture.get();
    if (!c || c->samples.size() < 2 || c->highPeriod - c->lowPeriod < 10)
        return start;
    // The frame decoder's convention: polarity 0 where the modulated period
    // is the shorter one.
    const int64_t modulated = c->polarity == 0 ? c->lowPeriod : c->highPeriod;
    const int64_t carrier = c->polarity == 0 ? c->highPeriod : c->lowPeriod;
    int64_t ticks = 0;
    for (int32_t w : c->samples) {
        if (std::llabs(w - modulated) < std::llabs(w - carrier))
            return static_cast<int64_t>(c->startTime) + ticks / 60;
        ticks += w;
    }
    return start;
}

double TimingChecker::AskBitRateHz(const MsgInfo& e)
{
    const int64_t span = static_cast<int64_t>(e.timing.endTime) - static_cast<int64_t>(e.timing.startTime);
    if (span <= 0 || e.packet.premambleCount == 0 || e.packet.numbytesInPacket == 0)
        return 0.0;
    const double bits =
        static_cast<double>(e.packet.premambleCount) + 11.0 * static_cast<double>(e.packet.numbytesInPacket);
    return bits * 1e6 / static_cast<double>(span);
}

bool TimingChecker::MeasureAsk(const MsgInfo& e, AskMeasure& out)
{
    const TriggerData* c = e.capture.get();
    if (!c)
        return false;
    if (c->samples.size() < 8 && c->rawSamples.size() < 8)
        return false;
    const std::vector<uint8_t> bytes = ParseSpacedHex(e.packet.PacketData);
    if (bytes.empty())
        return false;
    // The record's samples (the decoding thread cuts its raw samples to
    // the bytes found and fills them up with zeros; the smoothed ones, by a
    // symmetric filter, keep the whole burst and its transitions' times).
    const std::vector<int32_t>& y = c->samples.size() >= 8 ? c->samples : c->rawSamples;
    const auto range = std::minmax_element(y.begin(), y.end());
    const double lo = *range.first, hi = *range.second;
    if (hi - lo < 50)
        return false;
    // (A smoothed record's half-bit pulses swing less than its whole bits.)
    const double mid = (lo + hi) / 2.0, band = (hi - lo) / 10.0;
    const double t0 = static_cast<double>(c->startTime);
    const double start = static_cast<double>(e.timing.startTime);
    // Mid-level crossings with hysteresis (a side counts once the envelope
    // is a tenth of its swing beyond the middle), each at the middle
    // between the samples around it.
    std::vector<double> times;
    int side = 0;
    for (size_t i = 0; i < y.size(); ++i) {
        const double v = y[i];
        const int now = v > mid + band ? 1 : v < mid - band ? -1 : 0;
        if (now == 0 || now == side)
            continue;
        if (side == 0) {
            side = now;
            continue;
        }
        size_t j = i;
        while (j > 0 && ((y[j - 1] > mid) == (now > 0)))
            --j;
        double at = static_cast<double>(j);
        if (j > 0 && y[j] != y[j - 1])
            at = static_cast<double>(j - 1) + (mid - y[j - 1]) / (y[j] - y[j - 1]);
        times.push_back(t0 + at * 25.0);
        side = now;
    }
    // The run of transitions around the event's start: none more than a
    // millisecond after the one before (a bit lasts half of one).
    const double gap = 1000.0;
    size_t first = 0, last = 0;
    bool found = false;
    while (first < times.size()) {
        last = first;
        while (last + 1 < times.size() && times[last + 1] - times[last] <= gap)
            ++last;
        if (times[last] >= start - 200.0) {
            found = times[first] <= start + 2000.0;
            break;
        }
        first = last + 1;
    }
    if (!found || last - first < 8)
        return false;
    // The preamble's transitions are half a bit apart; the start bit of the
    // first byte is the first that a whole bit follows.
    double half = 0.0;
    for (size_t i = first; i < first + 4; ++i)
        half += (times[i + 1] - times[i]) / 4.0;
    size_t startBit = first;
    while (startBit < last && times[startBit + 1] - times[startBit] < 1.5 * half)
        ++startBit;
    if (startBit >= last)
        return false;
    // Two transitions a preamble one: a record that begins inside the
    // packet's first pulse missed the first of them.
    const int missed = (startBit - first) % 2 == 1 ? 1 : 0;
    const int64_t before = static_cast<int64_t>(startBit - first) + missed;
    if (before < 2)
        return false;
    const int64_t preamble = before / 2;
    // Every transition of the packet at its place in half bits: the
    // preamble's ones, then each byte's start bit, data bits (least
    // significant first), odd parity and stop bit; a bit begins with a
    // transition and a one has another in its middle.
    std::vector<int64_t> place;
    int64_t bit = 0;
    for (; bit < preamble; ++bit) {
        place.push_back(2 * bit);
        place.push_back(2 * bit + 1);
    }
    for (uint8_t b : bytes) {
        int ones = 0;
        uint8_t bits[11];
        bits[0] = 0;
        for (int k = 0; k < 8; ++k) {
            bits[1 + k] = (b >> k) & 1;
            ones += bits[1 + k];
        }
        bits[9] = (ones % 2 == 0) ? 1 : 0;
        bits[10] = 1;
        for (uint8_t v : bits) {
            place.push_back(2 * bit);
            if (v)
                place.push_back(2 * bit + 1);
            ++bit;
        }
    }
    const int64_t bits = bit;
    // The transitions seen, in order, against their places (a record cut
    // short of the packet's end has fewer): the half bit by least squares.
    const size_t seen = std::min(last - first + 1, place.size() - static_cast<size_t>(missed));
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < seen; ++i) {
        const double px = static_cast<double>(place[i + static_cast<size_t>(missed)]);
        const double py = times[first + i];
        sx += px;
        sy += py;
        sxx += px * px;
        sxy += px * py;
    }
    const double n = static_cast<double>(seen);
    const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    const double intercept = (sy - slope * sx) / n;
    if (!(slope > 0.0))
        return false;
    // Every transition where its place says, within a third of a half bit.
    for (size_t i = 0; i < seen; ++i) {
        const double px = static_cast<double>(place[i + static_cast<size_t>(missed)]);
        if (std::fabs(times[first + i] - (intercept + slope * px)) > slope / 3.0)
            return false;
    }
    const double bitUs = 2.0 * slope;
    out.rateHz = 1e6 / bitUs;
    out.preamble = static_cast<int>(preamble);
    out.startUs = static_cast<int64_t>(std::llround(intercept));
    out.endUs = static_cast<int64_t>(std::llround(intercept + static_cast<double>(bits) * bitUs));
    return true;
}

int64_t StreamsEndUs(const std::vector<uint8_t>& ask, const std::vector<uint8_t>& fsk)
{
    // ASK: 40000 samples a second after each frame's four header words; FSK:
    // the last frame's stamp (milliseconds at the end of its words).
    int64_t askUs = 0, fskUs = 0;
    size_t at = 0;
    while (at + 8 <= ask.size()) {
        const uint32_t len = ask[at] | (ask[at + 1] << 8) | (ask[at + 2] << 16) | (static_cast<uint32_t>(ask[at + 3]) << 24);
        const size_t n = std::min<size_t>(len, ask.size() - at - 8);
        askUs += static_cast<int64_t>(n / 2) * 25;
        at += 8 + n;
        if (len == 0)
            break;
    }
    at = 0;
    while (at + 8 <= fsk.size()) {
        const uint32_t len = fsk[at] | (fsk[at + 1] << 8) | (fsk[at + 2] << 16) | (static_cast<uint32_t>(fsk[at + 3]) << 24);
        const uint32_t stamp =
            fsk[at + 4] | (fsk[at + 5] << 8) | (fsk[at + 6] << 16) | (static_cast<uint32_t>(fsk[at + 7]) << 24);
        fskUs = std::max<int64_t>(fskUs, static_cast<int64_t>(stamp) * 1000);
        at += 8 + len;
    }
    return std::max(askUs, fskUs);
}

// ---------------------------------------------------------------- checker

TimingChecker::TimingChecker(const TimingLimits& limits) : m_limits(limits) {}

void TimingChecker::Reset()
{
    const TimingLimits limits = m_limits;
    auto callback = std::move(onFinding);
    *this = TimingChecker(limits);
    onFinding = std::move(callback);
}

void TimingChecker::AddCarrierEdge(const CarrierEdge& edge)
{
    // Edges come in order but for the odd pair that two loops passed on.
    auto it = m_heldEdges.end();
    while (it != m_heldEdges.begin() && std::prev(it)->us > edge.us)
        --it;
    m_heldEdges.insert(it, edge);
}

void TimingChecker::AddCarrierEdges(const std::vector<CarrierEdge>& edges)
{
    for (const CarrierEdge& e : edges)
        AddCarrierEdge(e);
}

void TimingChecker::ApplyEdgesUpTo(int64_t us)
{
    while (!m_heldEdges.empty() && m_heldEdges.front().us <= us) {
        const CarrierEdge e = m_heldEdges.front();
        m_heldEdges.pop_front();
        ApplyEdge(e);
    }
}

void TimingChecker::ApplyEdge(const CarrierEdge& edge)
{
    m_haveCarrier = true;
    m_lastUs = std::max(m_lastUs, edge.us);
    if (edge.on) {
        if (!m_carrierOn) {
            m_carrierOn = true;
            m_carrierOnUs = edge.us;
        }
        return;
    }
    if (!m_carrierOn)
        return;
    m_carrierOn = false;
    if (m_ept.valid) {
        const double ms = static_cast<double>(edge.us - m_ept.endUs) / 1000.0;
        PacketTiming* p = Packet(m_ept.number);
        Judge(TimingRule::TerminateAfterEpt, p);
        if (ms > m_limits.terminateMs)
            Report(TimingRule::TerminateAfterEpt, ms, "ms", ">", m_limits.terminateMs, m_ept.startUs, m_ept.number,
                   {m_ept.number}, p);
        m_ept.valid = false;
    }
    CloseSilence(edge.us, 0);
    EndLink(edge.us);
}

void TimingChecker::EndLink(int64_t us)
{
    m_link = false;
    m_configDone = false;
    m_linkEndUs = us;
    m_prevRx.valid = false;
    m_awaitResponse.valid = false;
}

void TimingChecker::CloseSilence(int64_t endUs, int64_t endingEvent)
{
    if (!m_lastCe.valid)
        return;
    const double ms = static_cast<double>(endUs - m_lastCe.startUs) / 1000.0;
    if (ms > m_limits.ceTimeoutMs) {
        std::vector<int64_t> events{m_lastCe.number};
        if (m_silenceViolation > 0)
            events.push_back(m_silenceViolation);
        if (endingEvent > 0)
            events.push_back(endingEvent);
        PacketTiming* p = Packet(m_lastCe.number);
        Report(TimingRule::CeTimeout, ms, "ms", ">", m_limits.ceTimeoutMs, m_lastCe.startUs, m_lastCe.number,
               std::move(events), p);
    }
    m_lastCe.valid = false;
    m_silenceViolation = 0;
}

PacketTiming* TimingChecker::Packet(int64_t number)
{
    return const_cast<PacketTiming*>(TimingOf(number));
}

const PacketTiming* TimingChecker::TimingOf(int64_t number) const
{
    if (m_packets.empty())
        return nullptr;
    // Numbers rise through a session; a run that starts over (a new
    // acquisition numbered anew) is searched from the back.
    auto it = std::upper_bound(m_packets.begin(), m_packets.end(), number,
                               [](int64_t n, const PacketTiming& p) { return n < p.number; });
    if (it != m_packets.begin() && std::prev(it)->number == number)
        return &*std::prev(it);
    for (auto r = m_packets.rbegin(); r != m_packets.rend(); ++r)
        if (r->number == number)
            return &*r;
    return nullptr;
}

void TimingChecker::Judge(TimingRule rule, PacketTiming* packet)
{
    if (packet)
        packet->judged |= Bit(rule);
}

void TimingChecker::Report(TimingRule rule, double measured, const char* unit, const char* op, double limit,
                           int64_t timeUs, int64_t event, std::vector<int64_t> events, PacketTiming* packet)
{
    TimingFinding f;
    f.rule = rule;
    f.severity = RuleSeverity(rule);
    f.timeUs = timeUs;
    f.measured = measured;
    f.unit = unit;
    f.op = op;
    f.limit = limit;
    f.event = event;
    f.events = std::move(events);
    if (packet)
        packet->judged |= Bit(rule), packet->broken |= Bit(rule);
    m_perRule[static_cast<int>(rule)] += 1;
    (f.severity == Severity::Error ? m_errors : m_warnings) += 1;
    m_findings.push_back(std::move(f));
    if (onFinding)
        onFinding(m_findings.back());
}

void TimingChecker::Add(const MsgInfo& e, int64_t number)
{
    const bool timed = HasOwnTime(e);
    int64_t start = static_cast<int64_t>(e.timing.startTime);
    int64_t end = std::max(start, static_cast<int64_t>(e.timing.endTime));
    if (timed)
        ApplyEdgesUpTo(start);

    if (e.type == kTypeViolation) {
        // The data manager's CEP timeout: the link's end. It counts only
        // through the silence it ends (a timeout after End Power Transfer,
        // when no silence is open, is no finding).
        if (m_lastCe.valid)
            m_silenceViolation = number;
        EndLink(m_lastUs);
        return;
    }
    if (!timed)
        return;
    m_lastUs = std::max(m_lastUs, end);
    if (e.type == kTypeDigitalPing)
        return;

    const bool frame = e.type < kTypeTxPattern || e.type == kTypeTxPattern || e.type == kTypeChecksumOrProprietary;
    if (!frame)
        return;
    const int dir = InferDirection(e);
    if (dir != kDirRx && dir != kDirTx)
        return;

    m_packetsChecked += 1;
    if (!m_packets.empty() && number <= m_packets.back().number)
        m_packets.clear();  // numbered anew
    // A receiver packet measured on its envelope: its bit rate and its end
    // (a burst that ran on into the next packet ends too late).
    AskMeasure m;
    const bool measured = dir == kDirRx && MeasureAsk(e, m) && m.endUs > m.startUs;
    if (measured) {
        start = m.startUs;
        end = m.endUs;
    }
    PacketTiming pt;
    pt.number = number;
    pt.rx = dir == kDirRx;
    pt.startUs = dir == kDirTx ? TxStartUs(e) : start;
    pt.endUs = end;
    if (m_prevPacket.valid)
        pt.gapBeforeMs = static_cast<float>(pt.startUs - m_prevPacket.endUs) / 1000.0f;
    m_packets.push_back(pt);
    PacketTiming* p = &m_packets.back();
    m_prevPacket = {true, number, pt.startUs, pt.endUs};

    if (dir == kDirTx) {
        if (m_awaitResponse.valid && pt.startUs >= m_awaitResponse.endUs) {
            const double ms = static_cast<double>(pt.startUs - m_awaitResponse.endUs) / 1000.0;
            Judge(TimingRule::FskResponseWindow, p);
            if (ms > m_limits.responseMs)
                Report(TimingRule::FskResponseWindow, ms, "ms", ">", m_limits.responseMs, pt.startUs, number,
                       {m_awaitResponse.number, number}, p);
        }
        m_awaitResponse.valid = false;
        return;
    }

    // ---- a receiver packet
    // A frame whose checksum held: a known packet, or a proprietary one (a
    // header no table lists), whose header is its first byte.
    const bool proprietary = e.type == kTypeChecksumOrProprietary && e.eventG.failureCount == 0 &&
                             (e.eventG.warningCount > 0 || e.common.typeString == "Proprietary");
    const bool good = e.type < kTypeTxPattern || proprietary;
    uint8_t header = static_cast<uint8_t>(e.type < kTypeTxPattern ? e.type : 0);
    if (proprietary) {
        const std::vector<uint8_t> bytes = ParseSpacedHex(e.packet.PacketData);
        header = bytes.empty() ? 0 : bytes[0];
    }
    if (good) {
        // Measured on the envelope where the event has its capture record
        // (where that fails, the rate is not judged: the decoders' span can
        // be cut or joined); from the decoders' span and preamble count for
        // an event without one (a session without its record file).
        const double rate = measured ? m.rateHz : e.capture ? 0.0 : AskBitRateHz(e);
        const int64_t preamble = measured ? m.preamble : static_cast<int64_t>(std::min<uint64_t>(e.packet.premambleCount, 32767));
        if (preamble > 0) {
            p->preamble = static_cast<int16_t>(preamble);
            const double ones = static_cast<double>(preamble);
            Judge(TimingRule::AskPreamble, p);
            if (preamble < m_limits.preambleMin)
                Report(TimingRule::AskPreamble, ones, "bits", "<", m_limits.preambleMin, start, number, {number}, p);
            else if (preamble > m_limits.preambleMax)
                Report(TimingRule::AskPreamble, ones, "bits", ">", m_limits.preambleMax, start, number, {number}, p);
        }
        if (rate > 0.0) {
            p->bitRateHz = static_cast<float>(rate);
            Judge(TimingRule::AskBitRate, p);
            // Judged as the finding writes it (three decimals).
            const double shown = std::round(rate * 1000.0) / 1000.0;
            if (shown > m_limits.BitRateHigh())
                Report(TimingRule::AskBitRate, rate, "Hz", ">", m_limits.BitRateHigh(), start, number, {number}, p);
            else if (shown < m_limits.BitRateLow())
                Report(TimingRule::AskBitRate, rate, "Hz", "<", m_limits.BitRateLow(), start, number, {number}, p);
        }
        if (header == 0x06) {
            const std::vector<uint8_t> bytes = ParseSpacedHex(e.packet.PacketData);
            if (bytes.size() >= 2) {
                const double ms = bytes[1];
                Judge(TimingRule::HoldoffRange, p);
                if (ms < m_limits.holdoffMinMs)
                    Report(TimingRule::HoldoffRange, ms, "ms", "<", m_limits.holdoffMinMs, start, number, {number}, p);
                else if (ms > m_limits.holdoffMaxMs)
                    Report(TimingRule::HoldoffRange, ms, "ms", ">", m_limits.holdoffMaxMs, start, number, {number}, p);
            }
        }
    }

    const bool first = !m_link;
    if (first) {
        // A Control Error silence open across a link's end (the CEP timeout)
        // ends with the receiver's next packet.
        CloseSilence(start, number);
        m_link = true;
        // A link begins with identification and configuration when its first
        // packet is of the ping or of that phase; a receiver that goes on
        // after the data manager declared its link lost is in power transfer.
        m_configDone = !(header == 0x01 || header == 0x71 || header == 0x81 || header == 0x06 || header == 0x51 ||
                         proprietary);
        m_prevRx.valid = false;
        m_lastCe.valid = false;
        m_silenceViolation = 0;
        // Measured from a carrier that came on after the last link ended:
        // a receiver that talks on under a carrier that never went off
        // answers no ping.
        if (m_haveCarrier && m_carrierOn && m_carrierOnUs <= start && m_carrierOnUs > m_linkEndUs) {
            const double ms = static_cast<double>(start - m_carrierOnUs) / 1000.0;
            Judge(TimingRule::PingToFirstPacket, p);
            if (ms > m_limits.pingToFirstPacketMs)
                Report(TimingRule::PingToFirstPacket, ms, "ms", ">", m_limits.pingToFirstPacketMs, start, number,
                       {number}, p);
        }
    }

    // Identification and configuration: the packets after the ping's answer
    // up to and with the Configuration.
    if (good && !m_configDone && header != 0x01 && header != 0x02) {
        const double length = static_cast<double>(end - start) / 1000.0;
        Judge(TimingRule::ConfigPacketLength, p);
        if (length > m_limits.configLengthMs)
            Report(TimingRule::ConfigPacketLength, length, "ms", ">", m_limits.configLengthMs, start, number,
                   {number}, p);
        if (m_prevRx.valid && start >= m_prevRx.endUs) {
            const double gap = static_cast<double>(start - m_prevRx.endUs) / 1000.0;
            Judge(TimingRule::ConfigPacketGap, p);
            if (gap > m_limits.configGapMs)
                Report(TimingRule::ConfigPacketGap, gap, "ms", ">", m_limits.configGapMs, start, number,
                       {m_prevRx.number, number}, p);
        }
        if (header == 0x51)
            m_configDone = true;
    }

    if (header == 0x03) {
        if (m_lastCe.valid) {
            const double ms = static_cast<double>(start - m_lastCe.startUs) / 1000.0;
            if (ms > m_limits.ceTimeoutMs) {
                CloseSilence(start, number);
            } else {
                Judge(TimingRule::CeInterval, p);
                if (ms > m_limits.ceIntervalMs)
                    Report(TimingRule::CeInterval, ms, "ms", ">", m_limits.ceIntervalMs, start, number,
                           {m_lastCe.number, number}, p);
            }
        }
        Judge(TimingRule::CeTimeout, p);
        m_lastCe = {true, number, start, end};
        m_silenceViolation = 0;
    } else if (header == 0x02) {
        // End Power Transfer: the link ends here, and the carrier must follow.
        m_lastCe.valid = false;
        m_silenceViolation = 0;
        if (m_haveCarrier && m_carrierOn)
            m_ept = {true, number, start, end};
        EndLink(end);
        m_awaitResponse = {true, number, start, end};
        return;
    } else if (header == 0x09) {
        // Renegotiation: no Control Error is due until power transfer resumes.
        m_lastCe.valid = false;
        m_silenceViolation = 0;
    }
    m_prevRx = {true, number, start, end};
    m_awaitResponse = {true, number, start, end};
}

void TimingChecker::Finish(int64_t endUs)
{
    while (!m_heldEdges.empty()) {
        const CarrierEdge e = m_heldEdges.front();
        m_heldEdges.pop_front();
        ApplyEdge(e);
    }
    m_lastUs = std::max(m_lastUs, endUs);
    if (m_ept.valid && m_haveCarrier && m_carrierOn) {
        const double ms = static_cast<double>(m_lastUs - m_ept.endUs) / 1000.0;
        PacketTiming* p = Packet(m_ept.number);
        Judge(TimingRule::TerminateAfterEpt, p);
        if (ms > m_limits.terminateMs)
            Report(TimingRule::TerminateAfterEpt, ms, "ms", ">", m_limits.terminateMs, m_ept.startUs, m_ept.number,
                   {m_ept.number}, p);
    }
    m_ept.valid = false;
    CloseSilence(m_lastUs, 0);
}

}  // namespace analysis
