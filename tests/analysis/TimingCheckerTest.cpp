// The timing checker rule by rule, on synthesized event streams: each holds
// one packet at the limit (no finding) or just over it (exactly one finding).
#include "analysis/TimingChecker.h"
#include "analysis/TimingFile.h"
#include "common/TimeText.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <memory>
#include <vector>

using analysis::TimingChecker;
using analysis::TimingFinding;
using analysis::TimingRule;

namespace {

// A good receiver packet: header and message (the checksum is added), its
// span and preamble.
MsgInfoPtr Rx(std::vector<uint8_t> bytes, int64_t startUs, int64_t endUs, int preamble = 11)
{
    uint8_t x = 0;
    for (uint8_t b : bytes)
        x ^= b;
    bytes.push_back(x);
    auto e = std::make_shared<MsgInfo>();
    e->type = bytes[0];
    e->direction = 2;
    e->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
    e->packet.numbytesInPacket = bytes.size();
    e->packet.premambleCount = static_cast<uint64_t>(preamble);
    e->packet.Status = "NoError";
    e->timing.startTime = static_cast<uint64_t>(startUs);
    e->timing.endTime = static_cast<uint64_t>(endUs);
    e->eventG.eventCount = 1;
    return e;
}

// A receiver packet at 2 kHz: its end follows from its bits.
MsgInfoPtr Rx2k(std::vector<uint8_t> bytes, int64_t startUs, int preamble = 11)
{
    const int64_t bits = preamble + 11 * static_cast<int64_t>(bytes.size() + 1);
    return Rx(std::move(bytes), startUs, startUs + bits * 500, preamble);
}

MsgInfoPtr Pattern(int64_t startUs)
{
    auto e = std::make_shared<MsgInfo>();
    e->type = kTypeTxPattern;
    e->direction = 1;
    e->packet.PacketData = "FF ";
    e->packet.numbytesInPacket = 1;
    e->timing.startTime = static_cast<uint64_t>(startUs);
    e->timing.endTime = static_cast<uint64_t>(startUs + 32000);
    return e;
}

MsgInfoPtr Violation()
{
    auto e = std::make_shared<MsgInfo>();
    e->type = kTypeViolation;
    e->str = "Violation: CEP Timeout";
    return e;
}

struct Stream {
    TimingChecker checker;
    int64_t number = 0;
    void Edge(bool on, int64_t us) { checker.AddCarrierEdge({on, us}); }
    void Add(const MsgInfoPtr& e) { checker.Add(*e, ++number); }
    std::vector<TimingFinding> Done()
    {
        checker.Finish();
        auto f = checker.Findings();
        analysis::SortFindings(f);
        return f;
    }
};

// A link up to power transfer: ping at 1 s, signal strength 20 ms later,
// identification, configuration; returns the end of the configuration.
int64_t Link(Stream& r, int64_t pingUs = 1000000)
{
    r.Edge(true, pingUs);
    auto ss = Rx2k({0x01, 0x80}, pingUs + 20000);
    r.Add(ss);
    auto id = Rx2k({0x71, 0x13, 0x00, 0x5A, 0x80, 0x01, 0x02, 0x03}, ss->timing.endTime + 8000);
    r.Add(id);
    auto cfg = Rx2k({0x51, 0x0A, 0x00, 0x00, 0x0A, 0x00}, id->timing.endTime + 8000);
    r.Add(cfg);
    return static_cast<int64_t>(cfg->timing.endTime);
}

void ExpectOnly(const std::vector<TimingFinding>& f, TimingRule rule, const std::string& text)
{
    ASSERT_EQ(f.size(), 1u) << (f.empty() ? std::string("none") : f[0].Line());
    EXPECT_EQ(f[0].rule, rule);
    EXPECT_EQ(f[0].Text(), text);
}

}  // namespace

TEST(TimingChecker, ACleanLinkHasNoFinding)
{
    Stream r;
    const int64_t end = Link(r);
    int64_t t = end + 20000;
    for (int k = 0; k < 20; ++k, t += 250000)
        r.Add(Rx2k({0x03, 0x00}, t));
    auto ept = Rx2k({0x02, 0x01}, t);
    r.Add(ept);
    r.Edge(false, ept->timing.endTime + 10000);
    r.Add(Violation());
    EXPECT_TRUE(r.Done().empty());
    EXPECT_EQ(r.checker.PacketsChecked(), 24u);
}

TEST(TimingChecker, PingToFirstPacketAtTheLimitAndJustOver)
{
    for (int64_t late : {65000, 65001}) {
        Stream r;
        r.Edge(true, 1000000);
        r.Add(Rx2k({0x01, 0x80}, 1000000 + late));
        const auto f = r.Done();
        if (late == 65000)
            EXPECT_TRUE(f.empty());
        else
            ExpectOnly(f, TimingRule::PingToFirstPacket, "65.001 ms > 65 ms");
    }
}

TEST(TimingChecker, ConfigPacketGapAtTheLimitAndJustOver)
{
    for (int64_t gap : {21000, 21001}) {
        Stream r;
        r.Edge(true, 1000000);
        auto ss = Rx2k({0x01, 0x80}, 1020000);
        r.Add(ss);
        r.Add(Rx2k({0x71, 0x13, 0x00, 0x5A, 0x80, 0x01, 0x02, 0x03}, ss->timing.endTime + gap));
        const auto f = r.Done();
        if (gap == 21000)
            EXPECT_TRUE(f.empty());
        else {
            ExpectOnly(f, TimingRule::ConfigPacketGap, "21.001 ms > 21 ms");
            EXPECT_EQ(f[0].events, (std::vector<int64_t>{1, 2}));
            EXPECT_EQ(f[0].severity, analysis::Severity::Error);
        }
    }
}

TEST(TimingChecker, ConfigPacketLengthAtTheLimitAndJustOver)
{
    for (int64_t length : {170000, 170001}) {
        Stream r;
        r.Edge(true, 1000000);
        auto ss = Rx2k({0x01, 0x80}, 1020000);
        r.Add(ss);
        // A proprietary packet of the phase (the longest header, 29 bytes
        // with its checksum) with 21 preamble ones: 340 bits, 2 kHz over 170 ms.
        std::vector<uint8_t> bytes{0xFF};
        bytes.resize(28, 0x11);
        auto p = Rx(bytes, ss->timing.endTime + 8000, static_cast<int64_t>(ss->timing.endTime) + 8000 + length, 21);
        p->type = kTypeChecksumOrProprietary;
        p->eventG.warningCount = 1;
        p->common.typeString = "Proprietary";
        r.Add(p);
        const auto f = r.Done();
        if (length == 170000)
            EXPECT_TRUE(f.empty());
        else
            ExpectOnly(f, TimingRule::ConfigPacketLength, "170.001 ms > 170 ms");
    }
}

TEST(TimingChecker, ControlErrorIntervalAtTheLimitAndJustOver)
{
    for (int64_t interval : {350000, 350001}) {
        Stream r;
        const int64_t t = Link(r) + 20000;
        r.Add(Rx2k({0x03, 0x00}, t));
        r.Add(Rx2k({0x03, 0x00}, t + interval));
        const auto f = r.Done();
        if (interval == 350000)
            EXPECT_TRUE(f.empty());
        else {
            ExpectOnly(f, TimingRule::CeInterval, "350.001 ms > 350 ms");
            EXPECT_EQ(f[0].severity, analysis::Severity::Warning);
            EXPECT_EQ(f[0].event, 5);
        }
    }
}

TEST(TimingChecker, ControlErrorTimeoutAtTheLimitAndJustOver)
{
    // The carrier stays on for the silence, then goes off.
    for (int64_t silence : {1800000, 1800001}) {
        Stream r;
        const int64_t t = Link(r) + 20000;
        r.Add(Rx2k({0x03, 0x00}, t));
        r.Edge(false, t + silence);
        r.Add(Violation());
        const auto f = r.Done();
        if (silence == 1800000)
            EXPECT_TRUE(f.empty());
        else {
            ExpectOnly(f, TimingRule::CeTimeout, "1800.001 ms > 1800 ms");
            EXPECT_EQ(f[0].event, 4);
        }
    }
}

TEST(TimingChecker, ATimeoutAfterEndPowerTransferIsNoFinding)
{
    Stream r;
    const int64_t t = Link(r) + 20000;
    r.Add(Rx2k({0x03, 0x00}, t));
    auto ept = Rx2k({0x02, 0x01}, t + 50000);
    r.Add(ept);
    r.Add(Violation());
    r.Edge(false, ept->timing.endTime + 5000000);  // the carrier stays on, far too long
    const auto f = r.Done();
    ExpectOnly(f, TimingRule::TerminateAfterEpt, "5000 ms > 28 ms");
}

TEST(TimingChecker, HoldOffOutsideItsRange)
{
    for (int value : {5, 4, 205, 206}) {
        Stream r;
        r.Edge(true, 1000000);
        auto ss = Rx2k({0x01, 0x80}, 1020000);
        r.Add(ss);
        r.Add(Rx2k({0x06, static_cast<uint8_t>(value)}, ss->timing.endTime + 8000));
        const auto f = r.Done();
        if (value == 5 || value == 205)
            EXPECT_TRUE(f.empty()) << value;
        else
            ExpectOnly(f, TimingRule::HoldoffRange, value == 4 ? "4 ms < 5 ms" : "206 ms > 205 ms");
    }
}

TEST(TimingChecker, BitRateAtEitherLimitAndJustBeyond)
{
    // 52 bits over 25000 us are 2080 Hz; 48 bits over 25000 us 1920 Hz.
    struct Case {
        int preamble;
        int64_t span;
        const char* text;
    } cases[] = {
        {19, 25000, nullptr}, {19, 24988, "2080.999 Hz > 2080 Hz"},
        {15, 25000, nullptr}, {15, 25001, "1919.923 Hz < 1920 Hz"},
    };
    for (const Case& c : cases) {
        Stream r;
        const int64_t t = Link(r) + 20000;
        r.Add(Rx({0x03, 0x00}, t, t + c.span, c.preamble));
        const auto f = r.Done();
        if (!c.text)
            EXPECT_TRUE(f.empty()) << c.span;
        else
            ExpectOnly(f, TimingRule::AskBitRate, c.text);
    }
}

TEST(TimingChecker, PreambleOutsideItsRange)
{
    for (int preamble : {11, 10, 25, 26}) {
        Stream r;
        const int64_t t = Link(r) + 20000;
        r.Add(Rx2k({0x03, 0x00}, t, preamble));
        const auto f = r.Done();
        if (preamble == 11 || preamble == 25)
            EXPECT_TRUE(f.empty()) << preamble;
        else
            ExpectOnly(f, TimingRule::AskPreamble, preamble == 10 ? "10 bits < 11 bits" : "26 bits > 25 bits");
    }
}

TEST(TimingChecker, ResponseWindowAtTheLimitAndJustOver)
{
    for (int64_t wait : {10000, 10001}) {
        Stream r;
        const int64_t t = Link(r) + 20000;
        auto request = Rx2k({0x20, 0x01, 0x0A}, t);
        r.Add(request);
        r.Add(Pattern(request->timing.endTime + wait));
        const auto f = r.Done();
        if (wait == 10000)
            EXPECT_TRUE(f.empty());
        else
            ExpectOnly(f, TimingRule::FskResponseWindow, "10.001 ms > 10 ms");
    }
}

TEST(TimingChecker, TerminateAfterEndPowerTransferAtTheLimitAndJustOver)
{
    for (int64_t wait : {28000, 28001}) {
        Stream r;
        const int64_t t = Link(r) + 20000;
        auto ept = Rx2k({0x02, 0x01}, t);
        r.Add(ept);
        r.Edge(false, ept->timing.endTime + wait);
        const auto f = r.Done();
        if (wait == 28000)
            EXPECT_TRUE(f.empty());
        else
            ExpectOnly(f, TimingRule::TerminateAfterEpt, "28.001 ms > 28 ms");
    }
}

TEST(TimingChecker, RulesThatNeedTheCarrierAreNotJudgedWithoutIt)
{
    Stream r;
    r.Add(Rx2k({0x01, 0x80}, 1500000));  // no carrier edge: no ping to measure from
    auto ept = Rx2k({0x02, 0x01}, 1600000);
    r.Add(ept);
    EXPECT_TRUE(r.Done().empty());
    EXPECT_FALSE(r.checker.HaveCarrier());
}

TEST(TimingChecker, LimitsComeFromTheSettings)
{
    SettingParams s;
    s.m_timing_ce_interval_ms = 100;
    Stream r;
    r.checker.SetLimits(analysis::TimingLimits::FromSettings(s));
    const int64_t t = Link(r) + 20000;
    r.Add(Rx2k({0x03, 0x00}, t));
    r.Add(Rx2k({0x03, 0x00}, t + 250000));
    ExpectOnly(r.Done(), TimingRule::CeInterval, "250 ms > 100 ms");
}

TEST(TimingChecker, PacketTimingTellsGapDurationRateAndRules)
{
    Stream r;
    const int64_t t = Link(r) + 20000;
    r.Add(Rx2k({0x03, 0x00}, t, 15));
    r.Done();
    const analysis::PacketTiming* p = r.checker.TimingOf(4);
    ASSERT_NE(p, nullptr);
    EXPECT_NEAR(p->gapBeforeMs, 20.0, 1e-3);
    EXPECT_NEAR(p->DurationMs(), 24.0, 1e-3);
    EXPECT_NEAR(p->bitRateHz, 2000.0, 1e-3);
    EXPECT_EQ(p->preamble, 15);
    EXPECT_TRUE(p->Judged(TimingRule::AskBitRate));
    EXPECT_TRUE(p->Judged(TimingRule::CeTimeout));
    EXPECT_FALSE(p->Judged(TimingRule::ConfigPacketGap));
    EXPECT_EQ(p->broken, 0);
    EXPECT_EQ(r.checker.TimingOf(99), nullptr);
}

TEST(TimingFinding, LineAndJsonAsTheCommandLinePrintsThem)
{
    TimingFinding f;
    f.rule = TimingRule::CeInterval;
    f.severity = analysis::Severity::Warning;
    f.timeUs = 12034125;
    f.measured = 412;
    f.unit = "ms";
    f.op = ">";
    f.limit = 350;
    f.event = 57;
    f.events = {56, 57};
    EXPECT_EQ(f.Line(), "12034.125 ce-interval 412 ms > 350 ms event 57");
    TimingFinding back;
    ASSERT_TRUE(TimingFinding::FromJson(f.ToJson(), back));
    EXPECT_EQ(back.Line(), f.Line());
    EXPECT_EQ(back.events, f.events);
    EXPECT_EQ(back.severity, f.severity);
    EXPECT_FALSE(TimingFinding::FromJson(Json::Value("x"), back));
}

TEST(TimingFile, EdgesAndFindingsComeBack)
{
    QTemporaryDir dir;
    const std::string sid = dir.path().toStdString() + "/EventWindow_x.sid";
    const std::string path = analysis::TimingFile::PathBeside(sid);
    EXPECT_EQ(path, dir.path().toStdString() + "/EventWindow_x.timing");
    TimingFinding f;
    f.rule = TimingRule::AskPreamble;
    f.measured = 9;
    f.unit = "bits";
    f.op = "<";
    f.limit = 11;
    f.event = 3;
    {
        analysis::TimingFile file;
        ASSERT_TRUE(file.Create(path));
        file.WriteEdge({true, 100});
        file.WriteFinding(f);
        file.WriteEdge({false, 250});
    }
    std::vector<CarrierEdge> edges;
    std::vector<TimingFinding> findings;
    ASSERT_TRUE(analysis::TimingFile::Read(path, edges, findings));
    ASSERT_EQ(edges.size(), 2u);
    EXPECT_TRUE(edges[0].on);
    EXPECT_EQ(edges[1].us, 250);
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].Line(), f.Line());
    EXPECT_FALSE(analysis::TimingFile::Read(path + ".missing", edges, findings));
}

namespace {

// A receiver packet as the envelope of its capture record: idle, the packet
// at the bit rate with the preamble, idle; the event's start where given.
MsgInfoPtr OnEnvelope(std::vector<uint8_t> bytes, double rateHz, int preamble, int64_t eventStartUs, int cutHead = 0,
                      int cutTail = 0)
{
    uint8_t x = 0;
    for (uint8_t b : bytes)
        x ^= b;
    bytes.push_back(x);
    std::vector<int> bits(static_cast<size_t>(preamble), 1);
    for (uint8_t b : bytes) {
        int ones = 0;
        bits.push_back(0);
        for (int k = 0; k < 8; ++k) {
            bits.push_back((b >> k) & 1);
            ones += (b >> k) & 1;
        }
        bits.push_back(ones % 2 == 0 ? 1 : 0);
        bits.push_back(1);
    }
    // Levels in half bits, then sampled every 25 us from 1 ms before.
    std::vector<int> halves;
    int level = 0;
    for (int b : bits) {
        level ^= 1;
        halves.push_back(level);
        if (b)
            level ^= 1;
        halves.push_back(level);
    }
    const double halfUs = 500000.0 / rateHz;
    const double packetUs = halfUs * static_cast<double>(halves.size());
    auto capture = std::make_shared<TriggerData>();
    const int64_t t0 = 1000000;  // the packet's first transition
    capture->startTime = static_cast<uint64_t>(t0 - 1000 + 25 * cutHead);
    for (double t = -1000.0 + 25 * cutHead; t < packetUs + 1000.0 - 25 * cutTail; t += 25.0) {
        int v = 0;
        if (t >= 0 && t < packetUs)
            v = halves[static_cast<size_t>(t / halfUs)];
        capture->samples.push_back(600 + 3000 * v);
    }
    auto e = Rx({0x03}, eventStartUs, eventStartUs + 20000, 11);
    e->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
    e->packet.numbytesInPacket = bytes.size();
    e->type = bytes[0];
    e->capture = capture;
    return e;
}

}  // namespace

TEST(TimingChecker, APacketIsMeasuredOnItsEnvelope)
{
    TimingChecker::AskMeasure m;
    ASSERT_TRUE(TimingChecker::MeasureAsk(*OnEnvelope({0x03, 0x0B}, 2000.0, 13, 1000000), m));
    EXPECT_NEAR(m.rateHz, 2000.0, 2.0);
    EXPECT_EQ(m.preamble, 13);
    EXPECT_NEAR(static_cast<double>(m.startUs), 1000000.0, 15.0);
    EXPECT_NEAR(static_cast<double>(m.endUs), 1000000.0 + (13 + 33) * 500.0, 30.0);
    ASSERT_TRUE(TimingChecker::MeasureAsk(*OnEnvelope({0x71, 0x13, 0x00, 0x5A, 0x80, 0x01, 0x02, 0x03}, 2120.0, 11,
                                                      1000000),
                                          m));
    EXPECT_NEAR(m.rateHz, 2120.0, 3.0);
    EXPECT_EQ(m.preamble, 11);
}

TEST(TimingChecker, ARecordCutAtEitherEndIsStillMeasuredWhole)
{
    // The record begins inside the first pulse (its first transition is
    // not in it) and ends before the packet's last half bit: the decoders'
    // start is late and their preamble count one short, as a burst cut that
    // way gives them.
    TimingChecker::AskMeasure m;
    auto e = OnEnvelope({0x03, 0x0B}, 1880.0, 12, 1000150, 44, 48);
    e->packet.premambleCount = 11;
    ASSERT_TRUE(TimingChecker::MeasureAsk(*e, m));
    EXPECT_NEAR(m.rateHz, 1880.0, 3.0);
    EXPECT_EQ(m.preamble, 12);
    EXPECT_NEAR(static_cast<double>(m.startUs), 1000000.0, 20.0);
    // Judged with the envelope's numbers: the bit rate is too slow, the
    // preamble is fine.
    Stream r;
    r.Add(e);
    const auto f = r.Done();
    ASSERT_EQ(f.size(), 1u);
    EXPECT_EQ(f[0].rule, TimingRule::AskBitRate);
    EXPECT_EQ(f[0].op, "<");
}
