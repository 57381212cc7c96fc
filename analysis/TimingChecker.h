// The timing checker: judges every packet of a session against the timing
// rules of the Qi link (ping to first packet, the identification and
// configuration phase's gaps and lengths, the Control Error interval and
// timeout, the hold-off value, the ASK bit rate and preamble, the
// transmitter's response window, the carrier's end after End Power Transfer)
// and tells each breach as a finding. Engine code, with no widget: the window
// and coilscope-cli both feed it.
//
// It takes the events in the order the event log takes them, each with its
// number, and the carrier's edges as the FSK side saw them (in any order and
// ahead of the events: it holds them and applies each one when an event at or
// after its time comes, or at the end). Times are the capture clock's
// microseconds; a finding's time is the start of the event it names.
//
// Without carrier edges (an ASK capture alone, a session saved before the
// checker or without its timing file) the rules that need the carrier
// (ping-to-first-packet, terminate-after-ept) are not judged, and a Control
// Error silence is judged as if the carrier had stayed on.
#pragma once

#include "common/CarrierEdge.h"
#include "events/MsgInfo.h"

#include <json/json.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

struct SettingParams;

namespace analysis {

enum class TimingRule : int {
    PingToFirstPacket = 0,
    ConfigPacketGap,
    ConfigPacketLength,
    CeInterval,
    CeTimeout,
    HoldoffRange,
    AskBitRate,
    AskPreamble,
    FskResponseWindow,
    TerminateAfterEpt,
};
constexpr int kTimingRuleCount = 10;

enum class Severity : int { Warning = 0, Error = 1 };

// "ping-to-first-packet", "config-packet-gap", ...
const char* RuleName(TimingRule rule);
// A rule by its name; false when there is none of that name.
bool RuleByName(const std::string& name, TimingRule& rule);
Severity RuleSeverity(TimingRule rule);
const char* SeverityWord(Severity severity);  // "error" or "warning"

// The limits, every one a setting (the settings keys m_timing_*).
struct TimingLimits {
    double pingToFirstPacketMs = 65.0;   // at most
    double configGapMs = 21.0;           // at most
    double configLengthMs = 170.0;       // at most
    double ceIntervalMs = 350.0;         // at most
    double ceTimeoutMs = 1800.0;         // a silence longer than this is a timeout
    double holdoffMinMs = 5.0;
    double holdoffMaxMs = 205.0;
    double bitRateHz = 2000.0;
    double bitRateTolerancePct = 4.0;    // either way
    int preambleMin = 11;
    int preambleMax = 25;
    double responseMs = 10.0;            // at most
    double terminateMs = 28.0;           // at most

    static TimingLimits FromSettings(const SettingParams& settings);
    double BitRateLow() const { return bitRateHz * (1.0 - bitRateTolerancePct / 100.0); }
    double BitRateHigh() const { return bitRateHz * (1.0 + bitRateTolerancePct / 100.0); }
};

struct TimingFinding {
    TimingRule rule = TimingRule::PingToFirstPacket;
    Severity severity = Severity::Error;
    int64_t timeUs = 0;    // start of the event it names
    double measured = 0.0;
    std::string unit;      // "ms", "Hz" or "bits"
    std::string op;        // how the measured value stands to the limit: ">" or "<"
    double limit = 0.0;
    int64_t event = 0;            // the number of the event it names
    std::vector<int64_t> events;  // every event it concerns, in capture order

    // "412 ms > 350 ms"
    std::string Text() const;
    // The command line's line: "12034.125 ce-interval 412 ms > 350 ms event 57".
    std::string Line() const;
    Json::Value ToJson() const;
    // False when the object is not a finding (the finding is then untouched).
    static bool FromJson(const Json::Value& v, TimingFinding& out);
};

// A number as a finding writes it: at most three decimals, trailing zeros
// dropped ("412", "412.5", "2121.212").
std::string FindingNumber(double value);

// The end of two raw capture streams (stream frames of ASK samples and of FSK
// period words), microseconds of capture time.
int64_t StreamsEndUs(const std::vector<uint8_t>& ask, const std::vector<uint8_t>& fsk);

// Findings in capture order: by time, then by event number (stable).
void SortFindings(std::vector<TimingFinding>& findings);

// What the checker tells of one packet, for its "Timing" group.
struct PacketTiming {
    int64_t number = 0;
    int64_t startUs = 0;
    int64_t endUs = 0;
    float gapBeforeMs = -1.0f;  // from the end of the packet before it (either side); < 0: none
    float bitRateHz = 0.0f;     // receiver packets: measured over the packet; 0 unknown
    int16_t preamble = -1;      // receiver packets: preamble ones; < 0 unknown
    uint16_t judged = 0;        // bit i: judged by rule i
    uint16_t broken = 0;        // bit i: found breaking rule i
    bool rx = false;

    bool Judged(TimingRule r) const { return (judged >> static_cast<int>(r)) & 1; }
    bool Broken(TimingRule r) const { return (broken >> static_cast<int>(r)) & 1; }
    float DurationMs() const { return static_cast<float>(endUs - startUs) / 1000.0f; }
};

class TimingChecker {
public:
    explicit TimingChecker(const TimingLimits& limits = TimingLimits());

    void SetLimits(const TimingLimits& limits) { m_limits = limits; }
    const TimingLimits& Limits() const { return m_limits; }
    // Forgets the session: findings, packets, the link, held edges.
    void Reset();

    // The carrier's edges (held until an event at or after their time comes).
    void AddCarrierEdge(const CarrierEdge& edge);
    void AddCarrierEdges(const std::vector<CarrierEdge>& edges);
    // One event as the event log took it, with its number.
    void Add(const MsgInfo& event, int64_t number);
    // The end of the session: the held edges are applied and what is still
    // open (a silence, an End Power Transfer whose carrier did not go off) is
    // judged at the last time seen, or at endUs when that is later (the end
    // of the capture).
    void Finish(int64_t endUs = -1);

    // Findings as they were found (a timeout is found after the events that
    // follow the Control Error it names): SortFindings gives capture order.
    const std::vector<TimingFinding>& Findings() const { return m_findings; }
    size_t PacketsChecked() const { return m_packetsChecked; }
    size_t Errors() const { return m_errors; }
    size_t Warnings() const { return m_warnings; }
    size_t CountOf(TimingRule rule) const { return m_perRule[static_cast<int>(rule)]; }
    bool HaveCarrier() const { return m_haveCarrier; }

    // The timing of a packet by its event number; null for an event that is
    // no packet or was not seen. Looked up by number (packets are kept in
    // number order; numbers that go back start a new run).
    const PacketTiming* TimingOf(int64_t number) const;
    // Every packet's timing, in the order they came.
    const std::deque<PacketTiming>& Packets() const { return m_packets; }

    // Told of each finding as it is made.
    std::function<void(const TimingFinding&)> onFinding;

    // The measured start of a transmitter packet or pattern: the first word
    // of its capture record that is nearer the modulated period than the
    // carrier's (the frame decoder's records begin with the carrier before
    // the packet); the event's start time when it has no such record.
    static int64_t TxStartUs(const MsgInfo& event);
    // The bit rate of a receiver packet measured over it: its preamble and
    // 11 bits a byte over its span; 0 when it cannot be told.
    static double AskBitRateHz(const MsgInfo& event);
    // A receiver packet measured on the envelope of its capture record,
    // where the record holds it: its transitions (each bit begins with one,
    // a one has another at its middle) in the run around the event's start
    // that silence of a millisecond or more bounds. Its bytes tell how many
    // transitions its data make, so the rest tell its preamble ones; its
    // first transition is its start, the last (in the middle of the last
    // stop bit) tells its bit rate and its end. The decoders' own start,
    // end and preamble count can be off for a packet cut or joined by the
    // burst cutting; these are not. False when the record does not hold
    // such a run.
    struct AskMeasure {
        double rateHz = 0.0;
        int preamble = 0;
        int64_t startUs = 0;
        int64_t endUs = 0;
    };
    static bool MeasureAsk(const MsgInfo& event, AskMeasure& out);

private:
    struct Mark {
        bool valid = false;
        int64_t number = 0;
        int64_t startUs = 0;
        int64_t endUs = 0;
    };
    void ApplyEdgesUpTo(int64_t us);
    void ApplyEdge(const CarrierEdge& edge);
    void EndLink(int64_t us);
    void Judge(TimingRule rule, PacketTiming* packet);
    void Report(TimingRule rule, double measured, const char* unit, const char* op, double limit, int64_t timeUs,
                int64_t event, std::vector<int64_t> events, PacketTiming* packet);
    void CloseSilence(int64_t endUs, int64_t endingEvent);
    PacketTiming* Packet(int64_t number);

    TimingLimits m_limits;
    std::vector<TimingFinding> m_findings;
    std::deque<PacketTiming> m_packets;
    size_t m_packetsChecked = 0, m_errors = 0, m_warnings = 0;
    size_t m_perRule[kTimingRuleCount] = {};

    std::deque<CarrierEdge> m_heldEdges;  // by time
    bool m_haveCarrier = false;
    bool m_carrierOn = false;
    int64_t m_carrierOnUs = 0;
    int64_t m_lastUs = 0;  // the latest time seen

    bool m_link = false;        // a receiver is talking
    bool m_configDone = false;  // its Configuration came
    int64_t m_linkEndUs = -1;   // when the last link ended
    Mark m_prevRx;              // the link's receiver packet before
    Mark m_prevPacket;          // the packet before, either side
    Mark m_lastCe;              // the link's last Control Error, while a silence after it counts
    int64_t m_silenceViolation = 0;  // a CEP timeout event during that silence
    Mark m_awaitResponse;       // the receiver packet the next transmitter packet answers
    Mark m_ept;                 // an End Power Transfer whose carrier has not gone off
};

}  // namespace analysis
