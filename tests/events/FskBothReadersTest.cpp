// Transmitter packets and response patterns through the data manager as a
// capture plays: the FSK frame decoder and the second FSK reader merged, as
// the user sees them, and beside them the frame decoder alone. Every header
// of the transmitter's packets and the ACK, NAK and ND patterns, at 110 to
// 205 kHz, the four depths of the depth table in both polarities, at 512 and
// 128 cycles a bit, each packet at a random offset against the words' grid,
// on a drifting carrier with jittered words and no lead-in.
#include "FskRandomStream.h"
#include "NegotiationScript.h"
#include "common/TimeText.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/SessionScript.h"
#include "sim/StreamSynth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace {

struct Outcome {
    int sent = 0, exact = 0, notSent = 0;
    Outcome& operator+=(const Outcome& o)
    {
        sent += o.sent, exact += o.exact, notSent += o.notSent;
        return *this;
    }
};

struct Got {
    uint64_t startUs = 0, endUs = 0;
    std::string hex;
    std::string reading;
};

// The transmitter's good frames and patterns of a replay of the FSK stream
// alone, the link held in negotiation (where NAK and ND are shown), the frame
// decoder told the modulation's polarity as a Configuration packet would.
std::vector<Got> Replay(const FskRandomStream& s, int polarity, bool secondReader)
{
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    settings.m_fsk_second_reader = secondReader ? 1 : 0;
    SettingParams::Instance().detectedPolarity.store(polarity < 0 ? -1 : 1);
    StreamReplay replay({}, qisim::FskStreamFrames(s.words), &settings);
    replay.Manager().AskFilter().SetPhase(3);
    std::vector<Got> got;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events)
            if (e->direction == 1 && e->packet.Status == "NoError" && !e->packet.PacketData.empty())
                got.push_back({e->timing.startTime, e->timing.endTime, e->packet.PacketData, e->packet.reading});
    });
    SettingParams::Instance().detectedPolarity.store(0);
    return got;
}

// A frame is the packet when it holds its bytes and its span meets the
// packet's (the frame decoder's spans begin up to 50 words early); every frame
// must be one packet.
Outcome Score(const FskRandomStream& s, const std::vector<Got>& frames)
{
    Outcome o;
    std::vector<bool> used(frames.size(), false);
    for (const FskSentPacket& p : s.sent) {
        ++o.sent;
        const std::string hex = SpacedHex(p.bytes.data(), p.bytes.size());
        const uint64_t start = p.startTicks / 60, end = p.endTicks / 60;
        for (size_t i = 0; i < frames.size(); ++i) {
            if (used[i] || frames[i].hex != hex || frames[i].endUs + 1000 < start || frames[i].startUs > end + 1000)
                continue;
            used[i] = true;
            ++o.exact;
            break;
        }
    }
    o.notSent = static_cast<int>(std::count(used.begin(), used.end(), false));
    return o;
}

double Percent(const Outcome& o)
{
    return o.sent ? 100.0 * o.exact / o.sent : 0.0;
}

}  // namespace

TEST(FskBothReaders, EveryPacketAndPatternAcrossFrequencyDepthPolarityAndBitLength)
{
    Outcome both, chain;
    uint32_t seed = 17000;
    std::printf("cycles  kHz    depth ns  both readers        frame decoder alone\n");
    for (int cycles : {512, 128}) {
        for (double hz : {110000.0, 128000.0, 145000.0, 175000.0, 205000.0}) {
            for (double depth : {46.75, 78.0, 140.5, 265.5}) {
                Outcome b, c;
                for (int polarity : {-1, 1}) {
                    FskStreamShape shape;
                    shape.carrierHz = hz;
                    shape.depthNs = depth;
                    shape.polarity = polarity;
                    shape.cyclesPerBit = cycles;
                    shape.driftHzPerSecond = hz < 160000 ? 100.0 : -100.0;
                    const FskRandomStream s = MakeFskRandomStream(FskEveryItem(), 2, shape, seed++);
                    b += Score(s, Replay(s, polarity, true));
                    c += Score(s, Replay(s, polarity, false));
                }
                std::printf("%4d  %5.0f  %7.2f   %3d/%3d %6.1f%% %2d   %3d/%3d %6.1f%% %2d\n", cycles, hz / 1000, depth,
                            b.exact, b.sent, Percent(b), b.notSent, c.exact, c.sent, Percent(c), c.notSent);
                both += b;
                chain += c;
            }
        }
    }
    std::printf("all: both readers %d of %d exact (%.2f %%), %d not sent; frame decoder alone %d of %d (%.2f %%), "
                "%d not sent\n",
                both.exact, both.sent, Percent(both), both.notSent, chain.exact, chain.sent, Percent(chain),
                chain.notSent);
    ASSERT_EQ(both.sent, 2 * 5 * 4 * 2 * 2 * 15);
    // At least 99.9 % exact (2 of 2400 may be missed), nothing that was not sent.
    EXPECT_GE(both.exact * 1000, both.sent * 999) << both.exact << " of " << both.sent;
    EXPECT_EQ(both.notSent, 0);
    // The frame decoder alone, as designed, misses most of these.
    EXPECT_LT(chain.exact, both.exact);
    RecordProperty("bothExact", both.exact);
    RecordProperty("chainExact", chain.exact);
}

TEST(FskBothReaders, WhatTheFrameDecoderMissesIsRecoveredAndMarked)
{
    // 128 cycles a bit and no lead-in: the frame decoder reads none of these.
    FskStreamShape shape;
    shape.cyclesPerBit = 128;
    const FskRandomStream s = MakeFskRandomStream({{0x31, false}, {0x00, true}, {0x55, true}}, 2, shape, 404);
    const auto alone = Replay(s, shape.polarity, false);
    EXPECT_EQ(Score(s, alone).exact, 0);
    const auto both = Replay(s, shape.polarity, true);
    ASSERT_EQ(both.size(), 6u);
    EXPECT_EQ(Score(s, both).exact, 6);
    for (const Got& g : both)
        EXPECT_EQ(g.reading, "recovered") << g.hex;
    EXPECT_EQ(both[1].hex, "00 ");
    EXPECT_EQ(both[2].hex, "BB ");
}

namespace {



struct SessionItem {
    std::string hex;
    uint64_t startUs = 0;
};

}  // namespace

TEST(FskBothReaders, TenMinutesOfNegotiationWithNakAndNdAnswersComeBackWhole)
{
    coilsim::SessionScript script;
    std::string error;
    ASSERT_TRUE(coilsim::SessionScript::Parse(kNegotiationScript, script, error)) << error;
    coilsim::SynthOptions o;
    o.seed = 8;
    o.noise = true;
    coilsim::StreamSynth synth(script, o);
    std::vector<uint8_t> ask, fsk, a, f;
    while (synth.StreamUs() < 600ULL * 1000000ULL) {
        synth.NextFrames(a, f);
        ask.insert(ask.end(), a.begin(), a.end());
        fsk.insert(fsk.end(), f.begin(), f.end());
    }
    std::vector<SessionItem> sent;
    int naks = 0, nds = 0;
    for (const auto& p : synth.TakeStartedPackets()) {
        if (!p.fsk || p.endUs + 20000 > synth.StreamUs())
            continue;
        std::vector<uint8_t> bytes = p.bytes;
        if (p.pattern) {
            bytes = {FskPatternTableByte(p.bytes[0])};
            naks += p.bytes[0] == 0x00;
            nds += p.bytes[0] == 0x55;
        }
        sent.push_back({SpacedHex(bytes.data(), bytes.size()), p.startUs});
    }
    ASSERT_GT(naks, 100);
    ASSERT_GT(nds, 50);

    auto replay = [&](bool second) {
        SettingParams settings;
        settings.m_min_freq = 110000;
        settings.m_max_freq = 210000;
        settings.m_fsk_second_reader = second ? 1 : 0;
        StreamReplay r(ask, fsk, &settings);
        std::vector<Got> got;
        r.Run([&](std::vector<MsgInfoPtr>& events) {
            for (const auto& e : events)
                if (e->direction == 1 && !e->packet.PacketData.empty())
                    got.push_back({e->timing.startTime, e->timing.endTime, e->packet.PacketData, e->packet.reading});
        });
        return got;
    };
    // Every transmitter packet and pattern sent, in order, each within 20 ms
    // of where it was sent; nothing else.
    auto score = [&](const std::vector<Got>& got, int& nakBack, int& ndBack) {
        size_t k = 0;
        int found = 0;
        nakBack = ndBack = 0;
        for (const SessionItem& s : sent) {
            for (size_t j = k; j < got.size() && got[j].startUs < s.startUs + 20000; ++j) {
                if (got[j].hex != s.hex || got[j].startUs + 20000 < s.startUs)
                    continue;
                ++found;
                nakBack += s.hex == "00 ";
                ndBack += s.hex == "BB ";
                k = j + 1;
                break;
            }
        }
        return found;
    };
    const std::vector<Got> both = replay(true);
    const std::vector<Got> alone = replay(false);
    int nakBoth = 0, ndBoth = 0, nakAlone = 0, ndAlone = 0;
    const int foundBoth = score(both, nakBoth, ndBoth);
    const int foundAlone = score(alone, nakAlone, ndAlone);
    std::printf("sent %zu (NAK %d, ND %d): both readers %d (NAK %d, ND %d) of %zu events; frame decoder alone %d "
                "(NAK %d, ND %d) of %zu events\n",
                sent.size(), naks, nds, foundBoth, nakBoth, ndBoth, both.size(), foundAlone, nakAlone, ndAlone,
                alone.size());
    EXPECT_EQ(foundBoth, static_cast<int>(sent.size()));
    EXPECT_EQ(both.size(), sent.size());
    EXPECT_EQ(nakBoth, naks);
    EXPECT_EQ(ndBoth, nds);
    // The frame decoder alone reads no NAK and no ND: their last bit ends on
    // the carrier.
    EXPECT_EQ(nakAlone, 0);
    EXPECT_EQ(ndAlone, 0);
}
