// The second ASK reader refuses readings the signal does not support: a start
// bit off the preamble's clock, a transition between two cells of the bit
// clock, an edge pattern the bi-phase code can't make, a packet longer or
// shorter than its header allows; and it keeps what it read of a packet that
// failed. Then the condition grid of ask_wire_rates on fewer packets.
#include "AskConditions.h"
#include "decode/AskWireReader.h"
#include "sim/AskSynth.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

// Transition times of a bit list in differential bi-phase, half a bit h apart
// at the finest: every bit begins with one, a one has another in its middle.
std::vector<double> EdgeTimes(const std::vector<uint8_t>& bits, double h, double t0 = 100.0)
{
    std::vector<double> t;
    for (size_t k = 0; k < bits.size(); ++k) {
        t.push_back(t0 + 2.0 * h * static_cast<double>(k));
        if (bits[k])
            t.push_back(t0 + 2.0 * h * static_cast<double>(k) + h);
    }
    return t;
}

struct BitRun {
    std::vector<AskWireFrame> frames;
    std::vector<AskWireFrame> failed;
};

// Feeds the transitions, expiring the run wherever the next one lies past the
// deadline, and at the end.
BitRun ReadEdges(const std::vector<double>& edges)
{
    AskWireBitReader r;
    BitRun out;
    auto take = [&](AskWireBitReader::Step s) {
        if (s == AskWireBitReader::Step::Frame)
            out.frames.push_back(r.TakeFrame());
        else if (s == AskWireBitReader::Step::Failed)
            out.failed.push_back(r.TakeFailed());
    };
    for (double t : edges) {
        if (t > r.Deadline())
            take(r.Expire());
        take(r.Edge(t));
    }
    if (r.Running())
        take(r.Expire());
    return out;
}

std::vector<double> Packet(const std::vector<uint8_t>& bytes, int preamble = 11, double h = 10.0)
{
    return EdgeTimes(qisim::AskPacketBits(bytes, preamble), h);
}

// Index in the transition list of the first transition of bit `bit`.
size_t EdgeOfBit(const std::vector<uint8_t>& bits, size_t bit)
{
    size_t e = 0;
    for (size_t k = 0; k < bit; ++k)
        e += bits[k] ? 2 : 1;
    return e;
}

std::vector<uint8_t> Sent(std::vector<uint8_t> m) { return qisim::WithChecksum(std::move(m)); }

}  // namespace

TEST(AskWireRefusal, ACleanPacketIsReadWithItsBitsAndNoDrift)
{
    const auto bytes = Sent({0x03, 0x42});
    const BitRun r = ReadEdges(Packet(bytes));
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_EQ(r.frames[0].bytes, bytes);
    EXPECT_TRUE(r.frames[0].good);
    const auto all = qisim::AskPacketBits(bytes, 0);
    EXPECT_EQ(r.frames[0].bits, all);
    EXPECT_LT(r.frames[0].drift, 0.05);
}

TEST(AskWireRefusal, ATransitionBetweenTwoCellsOfTheClockEndsThePacket)
{
    const auto bytes = Sent({0x03, 0x42});
    const auto bits = qisim::AskPacketBits(bytes, 11);
    // The first transition of the message byte's third data bit.
    const size_t e = EdgeOfBit(bits, 11 + 11 + 3);
    auto edges = Packet(bytes);
    // 0.3 half bits off: still on the clock, read, with its drift.
    edges[e] += 3.0;
    BitRun r = ReadEdges(edges);
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_NEAR(r.frames[0].drift, 0.3, 0.1);
    // Half way between two cells (0.48 half bits): no frame, and what was
    // read up to there is kept, with the header whole.
    edges[e] += 1.8;
    r = ReadEdges(edges);
    EXPECT_TRUE(r.frames.empty());
    ASSERT_EQ(r.failed.size(), 1u);
    EXPECT_FALSE(r.failed[0].good);
    EXPECT_EQ(r.failed[0].bytes, std::vector<uint8_t>{0x03});
    ASSERT_GE(r.failed[0].bits.size(), 11u);
    EXPECT_EQ(std::vector<uint8_t>(r.failed[0].bits.begin(), r.failed[0].bits.begin() + 11),
              qisim::AskPacketBits({0x03}, 0));
}

TEST(AskWireRefusal, AStartBitOffThePreamblesClockIsNoStartBit)
{
    const auto bytes = Sent({0x03, 0x42});
    const auto bits = qisim::AskPacketBits(bytes, 11);
    auto edges = Packet(bytes);
    // The transition that ends the start bit, 0.48 half bits late: the
    // preamble's clock does not put a start bit there.
    edges[EdgeOfBit(bits, 12)] += 4.8;
    const BitRun r = ReadEdges(edges);
    EXPECT_TRUE(r.frames.empty());
    EXPECT_TRUE(r.failed.empty());  // no start bit, so no packet was begun
    // On the clock, the same packet reads.
    EXPECT_EQ(ReadEdges(Packet(bytes)).frames.size(), 1u);
}

TEST(AskWireRefusal, AnEdgePatternTheBiPhaseCodeCannotMakeEndsThePacket)
{
    const auto bytes = Sent({0x03, 0x42});
    const auto bits = qisim::AskPacketBits(bytes, 11);
    auto edges = Packet(bytes);
    // Header 0x03: its first data bit is a one. Drop the transition that
    // begins the next bit: after a one's middle transition the next comes
    // two half bits later, which no bit sequence gives.
    const size_t e = EdgeOfBit(bits, 13);
    ASSERT_EQ(bits[12], 1);
    edges.erase(edges.begin() + static_cast<std::ptrdiff_t>(e));
    const BitRun r = ReadEdges(edges);
    EXPECT_TRUE(r.frames.empty());
    ASSERT_EQ(r.failed.size(), 1u);
    EXPECT_EQ(r.failed[0].bits, (std::vector<uint8_t>{0, 1}));
}

TEST(AskWireRefusal, APacketLongerThanItsHeaderAllowsIsRefusedThoughItsChecksumHolds)
{
    // 0x03 announces one message byte; 03 5A 59 checks (03 ^ 5A ^ 59 = 0),
    // but a fourth byte follows.
    const std::vector<uint8_t> longer{0x03, 0x5A, 0x59, 0x77};
    ASSERT_EQ(0x03 ^ 0x5A ^ 0x59, 0);
    BitRun r = ReadEdges(Packet(longer));
    EXPECT_TRUE(r.frames.empty());
    ASSERT_EQ(r.failed.size(), 1u);
    // Every bit of the three bytes and the start of the fourth.
    EXPECT_EQ(r.failed[0].bits.size(), 34u);
    EXPECT_EQ(r.failed[0].bytes, (std::vector<uint8_t>{0x03, 0x5A, 0x59}));
    // Without the fourth byte it is a good packet.
    r = ReadEdges(Packet({0x03, 0x5A, 0x59}));
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_EQ(r.frames[0].bytes, (std::vector<uint8_t>{0x03, 0x5A, 0x59}));
}

TEST(AskWireRefusal, APacketShortForItsHeaderIsRefusedAndWhatWasReadIsKept)
{
    // 0x20 announces two message bytes: 20 00 20 is one short.
    const BitRun r = ReadEdges(Packet({0x20, 0x00, 0x20}));
    EXPECT_TRUE(r.frames.empty());
    ASSERT_EQ(r.failed.size(), 1u);
    EXPECT_EQ(r.failed[0].bytes, (std::vector<uint8_t>{0x20, 0x00, 0x20}));
    EXPECT_EQ(r.failed[0].bits, qisim::AskPacketBits({0x20, 0x00, 0x20}, 0));
}

// The square envelope of 20 00 20 at 2 kHz, preamble 11, at every sample
// phase: the reader never gives a good frame (least of all the reading one
// bit late, 10 00 10, whose length and checksum hold), and what it read is
// the packet as sent.
TEST(AskWireRefusal, SquareEnvelopeAtEverySamplePhaseGivesNoOneBitLateReading)
{
    int renderings = 0, honest = 0;
    for (int offset = 0; offset < 20; ++offset) {
        for (int quarter = 0; quarter < 4; ++quarter) {
            qisim::AskWaveParams p;
            p.riseSamples = 0.0;
            p.idleLevel = 600;
            p.swing = 1500;
            p.startPhase = quarter * 0.25;
            qisim::AskWaveWriter w(p, 1 + static_cast<uint32_t>(offset));
            w.Idle(300 + static_cast<size_t>(offset));
            w.Packet({0x20, 0x00, 0x20}, 11);
            w.Idle(600);
            const std::vector<int32_t> x(w.Samples().begin(), w.Samples().end());
            AskWireReader r;
            r.Feed(x.data(), x.size(), 0);
            EXPECT_TRUE(r.Take().empty()) << "offset " << offset << " phase " << p.startPhase;
            const auto failed = r.TakeFailed();
            ++renderings;
            if (failed.size() == 1 && failed[0].bytes == std::vector<uint8_t>{0x20, 0x00, 0x20})
                ++honest;
        }
    }
    EXPECT_EQ(honest, renderings);
}

// The table of ask_wire_rates on 100 packets per condition: at least 99.9 %
// of the well-formed packets exact, and no false frame anywhere, also of the
// packets against the length rule.
TEST(AskWireRefusal, ConditionGridGivesNoFalseFrame)
{
    AskConditionTally wellFormed;
    long falseFrames = 0;
    const auto conditions = AskConditions();
    for (size_t ci = 0; ci < conditions.size(); ++ci) {
        const AskConditionStream s = MakeAskConditionStream(conditions[ci], 100, 500u + static_cast<uint32_t>(ci));
        const std::vector<int32_t> x(s.samples.begin(), s.samples.end());
        AskWireReader r;
        std::vector<AskFoundFrame> found;
        for (size_t pos = 0; pos < x.size(); pos += 200) {
            r.Feed(x.data() + pos, std::min<size_t>(200, x.size() - pos), pos);
            for (auto& f : r.Take())
                found.push_back({f.firstSample, f.bytes});
        }
        const AskConditionTally t = ScoreAskConditionStream(s, found);
        EXPECT_EQ(t.falseFrames, 0) << "condition " << ci;
        falseFrames += t.falseFrames;
        if (!conditions[ci].badLength)
            wellFormed += t;
    }
    EXPECT_EQ(wellFormed.sent, 3400);
    EXPECT_GE(wellFormed.exact, wellFormed.sent * 0.999) << wellFormed.exact << " of " << wellFormed.sent;
    EXPECT_EQ(falseFrames, 0);
}
