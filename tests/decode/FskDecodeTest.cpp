// The transmitter-to-receiver chain: frame decoder rules, the decoding loop,
// digital pings and whole packets synthesized and streamed as the device
// sends them.
#include "FskChain.h"
#include "common/TimeText.h"

#include <gtest/gtest.h>

namespace {

// Pulse durations of a frame for the decoder's table, from the first data bit
// of the first byte on: bytes with start bit (but the first), eight data bits
// LSB first, parity (XOR of the data bits, or its inverse) and stop bit.
std::vector<int64_t> FrameDurations(const std::vector<uint8_t>& bytes, int B, bool badParity = false)
{
    std::vector<int> bits;
    for (size_t k = 0; k < bytes.size(); ++k) {
        if (k > 0)
            bits.push_back(0);
        int x = 0;
        for (int i = 0; i < 8; ++i) {
            const int b = (bytes[k] >> i) & 1;
            x ^= b;
            bits.push_back(b);
        }
        bits.push_back(x ^ (badParity ? 1 : 0));
        bits.push_back(1);
    }
    std::vector<int64_t> d;
    for (int b : bits) {
        if (b) {
            d.push_back(B / 2);
            d.push_back(B / 2);
        } else {
            d.push_back(B);
        }
    }
    d.push_back(B / 2);
    d.push_back(B / 2);
    return d;
}

std::vector<std::shared_ptr<CMsgData>> Drain(FskFrameDecoder& f)
{
    std::vector<std::shared_ptr<CMsgData>> out;
    while (auto m = f.TakeFrame())
        out.push_back(m);
    return out;
}

// Level changes from pulse durations: the first change (level 1, which begins
// a packet of polarity 0) and one more per pulse, levels alternating.
std::vector<PulseRecord> Changes(const std::vector<int64_t>& durations, uint8_t firstLevel = 1)
{
    std::vector<PulseRecord> out;
    int64_t at = 10;
    uint8_t level = firstLevel;
    PulseRecord c;
    c.duration = at;
    c.level = level;
    out.push_back(c);
    for (int64_t d : durations) {
        at += d;
        level ^= 1;
        c.duration = at;
        c.mark = static_cast<uint32_t>(at);
        c.level = level;
        out.push_back(c);
    }
    return out;
}

}  // namespace

TEST(FskFrameDecoder, FrameDecodesWithParityCheckedBytes)
{
    FskFrameDecoder f;
    f.LoadDurations(FrameDurations({0x1F, 0x64, 0x7B}, 32), 32.0);
    f.DecodeFrame(0, nullptr, 128000);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0]->packet.PacketData, "1F 64 7B ");
    EXPECT_EQ(frames[0]->packet.Status, "NoError");
    EXPECT_EQ(frames[0]->direction, 1u);
    EXPECT_EQ(frames[0]->pattern, 0);
    EXPECT_EQ(frames[0]->packet.premambleCount, 0u);
    EXPECT_EQ(frames[0]->timing.carrierCurrentHz, 128000u);
}

TEST(FskFrameDecoder, ByteWithAWrongParityBitIsLost)
{
    FskAssembler a;
    for (int b : {1, 1, 1, 1, 0})
        a.Bit(b);
    for (int k = 0; k < 8; ++k)
        a.Bit((0x1F >> k) & 1);
    a.Bit(0);  // five ones: the parity bit must be 1
    EXPECT_EQ(a.length, 0);
    EXPECT_EQ(a.state, 1);
    FskAssembler b;
    for (int x : {1, 1, 1, 1, 0})
        b.Bit(x);
    for (int k = 0; k < 8; ++k)
        b.Bit((0x1F >> k) & 1);
    b.Bit(1);
    EXPECT_EQ(b.length, 1);
    EXPECT_EQ(b.bytes[0], 0x1F);
}

TEST(FskFrameDecoder, WrongChecksumIsAnErrorForHeader31AndForgivenFor40)
{
    FskFrameDecoder f;
    f.LoadDurations(FrameDurations({0x31, 0x0A, 0x14, 0x03, 0x00}, 32), 32.0);
    f.DecodeFrame(0, nullptr, 0);
    f.LoadDurations(FrameDurations({0x40, 0x0A, 0x00}, 32), 32.0);
    f.DecodeFrame(0, nullptr, 0);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0]->packet.PacketData, "31 0A 14 03 00 ");
    EXPECT_EQ(frames[0]->packet.Status, "Error");
    EXPECT_EQ(frames[1]->packet.Status, "NoError");
    EXPECT_EQ(f.ErrorFrames(), 1);
    EXPECT_EQ(f.GoodFrames(), 1);
    for (uint8_t h : {0x00, 0x30}) {
        f.LoadDurations(FrameDurations({h, 0x01, 0x02}, 32), 32.0);
        f.DecodeFrame(0, nullptr, 0);
        EXPECT_EQ(Drain(f).at(0)->packet.Status, "Error") << int(h);
    }
}

TEST(FskFrameDecoder, RepeatedHeadersAreCounted)
{
    FskFrameDecoder f;
    for (int k = 0; k < 3; ++k) {
        f.LoadDurations(FrameDurations({0x1F, 0x64, 0x7B}, 32), 32.0);
        f.DecodeFrame(0, nullptr, 0);
    }
    EXPECT_EQ(f.LastHeader(), 0x1F);
    EXPECT_EQ(f.HeaderRepeats(), 3);
    f.LoadDurations(FrameDurations({0x30, 0x13, 0x00, 0x2A, 0x19}, 32), 32.0);
    f.DecodeFrame(0, nullptr, 0);
    EXPECT_EQ(f.LastHeader(), 0x30);
    EXPECT_EQ(f.HeaderRepeats(), 1);
}

TEST(FskFrameDecoder, ResponsePatternsAreMappedAndOnlyFourRawValuesAccepted)
{
    const int B = 32, H = 16;
    struct Case {
        std::vector<int64_t> d;
        int reported;  // -1: no frame
    } cases[] = {
        // 0 then seven ones: raw 0x7F, reported as 0xFF.
        {{B, H, H, H, H, H, H, H, H, H, H, H, H, H, H}, 0xFF},
        // 0 1 00 0 1 00: raw 0x44, reported as 0x88.
        {{B, H, H, B, B, B, H, H, B, B}, 0x88},
        // eight zeros
        {{B, B, B, B, B, B, B, B}, 0x00},
        // 0 1 0 1 0 1 0 1
        {{B, H, H, B, H, H, B, H, H, B, H, H}, 0x55},
        // eight ones: raw 0xFF is rejected
        {{H, H, H, H, H, H, H, H, H, H, H, H, H, H, H, H}, -1},
        // raw 0x88 (1 000 1 000) is rejected too; the last pulse is never read
        // on its own, so one more stands behind the last zero
        {{H, H, B, B, B, H, H, B, B, B, H}, -1},
    };
    for (const Case& c : cases) {
        FskFrameDecoder f;
        f.LoadDurations(c.d, 32.0);
        f.DecodePattern(0, nullptr, 0);
        auto frames = Drain(f);
        if (c.reported < 0) {
            EXPECT_TRUE(frames.empty());
            continue;
        }
        ASSERT_EQ(frames.size(), 1u) << c.reported;
        EXPECT_EQ(frames[0]->size, 1);
        EXPECT_EQ(frames[0]->message[0], c.reported);
        EXPECT_EQ(frames[0]->pattern, 1);
        EXPECT_EQ(frames[0]->direction, 1u);
        EXPECT_EQ(frames[0]->packet.Status, "NoError");
    }
}

TEST(FskFrameDecoder, UnfittedWidthGivesUpAPattern)
{
    FskFrameDecoder f;
    f.LoadDurations({32, 16, 16, 50, 16, 16, 16, 16}, 32.0);
    f.DecodePattern(0, nullptr, 0);
    EXPECT_TRUE(Drain(f).empty());
}

TEST(FskFrameDecoder, NineteenPulsesGoTheResponseWayAndTwentyTheFrameWay)
{
    // One byte 0x40 after a leading pulse of level 0 (where a frame at 32 words
    // a bit starts), then idle ones: 20 pulses make a frame of one byte, which
    // its header forgives. Without the last pulse the list goes the response
    // way and yields no accepted pattern.
    std::vector<int64_t> d{32};
    const auto body = FrameDurations({0x40}, 32);  // 13 pulses and two idle halves
    d.insert(d.end(), body.begin(), body.end());
    while (d.size() < 20)
        d.push_back(16);
    ASSERT_EQ(d.size(), 20u);
    auto packet = std::make_shared<TriggerData>();
    packet->polarity = 0;
    FskFrameDecoder f;
    f.DecodeBurst(Changes(d), packet, 0);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0]->packet.PacketData, "40 ");
    EXPECT_EQ(frames[0]->pattern, 0);

    d.pop_back();
    f.DecodeBurst(Changes(d), packet, 0);
    for (const auto& m : Drain(f))
        EXPECT_EQ(m->pattern, 1);
    EXPECT_EQ(f.LastHeader(), 0x40);
    EXPECT_EQ(f.HeaderRepeats(), 1);  // no second frame was decoded
}

TEST(FskFrameDecoder, BitLengthIsMeasuredFromTheDurations)
{
    FskFrameDecoder f;
    auto packet = std::make_shared<TriggerData>();
    f.DecodeBurst(Changes({4, 4, 8, 4, 4, 8, 8, 8, 4, 4}), packet, 0);
    EXPECT_EQ(f.BitPeriod(), 8.0);
    f.DecodeBurst(Changes({16, 16, 32, 32, 16, 16, 32, 32, 16, 16}), packet, 0);
    EXPECT_EQ(f.BitPeriod(), 32.0);
    // No short durations: the bit length stays.
    f.DecodeBurst(Changes({100, 100, 100}), packet, 0);
    EXPECT_EQ(f.BitPeriod(), 32.0);
}

TEST(FskFrameDecoder, MoreThan950LevelChangesAreIgnored)
{
    FskFrameDecoder f;
    std::vector<int64_t> d(951, 16);
    f.DecodeBurst(Changes(d), std::make_shared<TriggerData>(), 0);
    EXPECT_TRUE(Drain(f).empty());
}

TEST(LevelSlicer, ChangesWhereTheFourWordMeanCrossesAndNothingOnTies)
{
    TriggerData p;
    p.highPeriod = 7560;
    p.lowPeriod = 7500;
    p.samples = {7560, 7560, 7560, 7560, 7560, 7500, 7500, 7500, 7500, 7500, 7500, 7560, 7560, 7560};
    const auto c = SliceLevels(p);
    // i = 4: mean 7560, high: level 0. The mean of four is nearer the low from
    // i = 8 (7515) on; a tie (7530 at i = 7) changes nothing.
    ASSERT_GE(c.size(), 2u);
    EXPECT_EQ(c[0].duration, 4);
    EXPECT_EQ(c[0].level, 0);
    EXPECT_EQ(c[1].duration, 8);
    EXPECT_EQ(c[1].level, 1);
    TriggerData few;
    few.samples = {1, 2, 3, 4};
    EXPECT_TRUE(SliceLevels(few).empty());
}

TEST(FskDecoding, PacketOf200SamplesOrFewerIsDropped)
{
    CThreadFSK fsk(nullptr, &FskChain::Band());
    FskFrameCollector host(fsk);
    EXPECT_EQ(FskDecodingPass(fsk, host), 10);  // nothing queued
    auto packet = std::make_shared<TriggerData>();
    packet->highPeriod = 7560;
    packet->lowPeriod = 7500;
    for (int i = 0; i < 200; ++i)
        packet->samples.push_back((i / 16) % 2 ? 7560 : 7500);
    fsk.PutPacket(packet);
    EXPECT_EQ(FskDecodingPass(fsk, host), 0);  // work was done: the packet was taken
    EXPECT_EQ(host.decodeCalls.load(), 0);
    auto longer = std::make_shared<TriggerData>(*packet);
    longer->samples.push_back(7500);
    fsk.PutPacket(longer);
    FskDecodingPass(fsk, host);
    EXPECT_EQ(host.decodeCalls.load(), 1);
}

TEST(FskDecoding, SlicesWithTooFewOrTooManyChangesAreNotDecoded)
{
    CThreadFSK fsk(nullptr, &FskChain::Band());
    FskFrameCollector host(fsk);
    auto flat = std::make_shared<TriggerData>();
    flat->highPeriod = 7560;
    flat->lowPeriod = 7500;
    flat->samples.assign(300, 7500);  // one change only
    fsk.PutPacket(flat);
    FskDecodingPass(fsk, host);
    EXPECT_EQ(host.decodeCalls.load(), 0);
    auto busy = std::make_shared<TriggerData>(*flat);
    busy->samples.clear();
    for (int i = 0; i < 4100; ++i)
        busy->samples.push_back((i / 4) % 2 ? 7560 : 7500);  // about 1000 changes
    fsk.PutPacket(busy);
    FskDecodingPass(fsk, host);
    EXPECT_EQ(host.decodeCalls.load(), 0);
}

TEST(FskDecoding, WaitsWhileNotAcquiringAndPushesTheFrequency)
{
    struct Idle : FskFrameCollector {
        using FskFrameCollector::FskFrameCollector;
        bool IsAcquiring() const override { return false; }
    };
    CThreadFSK fsk(nullptr, &FskChain::Band());
    Idle idle(fsk);
    EXPECT_EQ(FskDecodingPass(fsk, idle), 200);
    FskFrameCollector host(fsk);
    fsk.LoadReplay(std::vector<uint16_t>(64, 7500));
    fsk.RunPass();
    FskDecodingPass(fsk, host);
    EXPECT_EQ(host.lastFrequency.load(), 128000.0);
}

TEST(FskChainTest, FramesOfEveryHeaderComeBackAtNominalSettings)
{
    // 128 kHz, depth 60 ticks, both polarities and both bit lengths.
    for (int pol : {-1, 1})
        for (int cycles : {512, 128}) {
            FskRoundTrip r;
            uint32_t seed = 40;
            for (uint8_t h : FskHeaders()) {
                FskRoundTripCase c;
                c.header = h;
                c.polarity = pol;
                c.cyclesPerBit = cycles;
                c.seed = seed++;
                r += RunFskRoundTrip(c);
            }
            EXPECT_EQ(r.exact, r.sent) << "polarity " << pol << ", " << cycles << " cycles a bit";
        }
}

TEST(FskChainTest, FramesComeBackAt205kHzAndDepths20To60)
{
    for (double hz : {128000.0, 205000.0})
        for (int depth : {20, 60}) {
            FskRoundTrip r;
            uint32_t seed = 70;
            for (uint8_t h : FskHeaders()) {
                FskRoundTripCase c;
                c.header = h;
                c.carrierHz = hz;
                c.depth = depth;
                c.seed = seed++;
                r += RunFskRoundTrip(c);
            }
            EXPECT_EQ(r.exact, r.sent) << hz << " Hz, depth " << depth;
        }
}

TEST(FskChainTest, CarrierAtTheBandsLowEdgeIsNotStable)
{
    // 110 kHz is a period of 8727.27 ticks: the words read 8727, the longest
    // period of the band is 960000000 / 110000 = 8727, and a block is stable
    // only strictly inside the band. Packets whose modulation lengthens the
    // period never decode there; the others only where a block's fit dips in.
    FskRoundTrip longer, shorter;
    uint32_t seed = 90;
    for (uint8_t h : FskHeaders()) {
        FskRoundTripCase c;
        c.header = h;
        c.carrierHz = 110000;
        c.polarity = 1;
        c.seed = seed++;
        longer += RunFskRoundTrip(c);
        c.polarity = -1;
        shorter += RunFskRoundTrip(c);
    }
    EXPECT_EQ(longer.exact, 0);
    EXPECT_EQ(longer.missing, longer.sent);
    EXPECT_LT(shorter.exact, shorter.sent / 2);
}

TEST(FskChainTest, DepthOf200IsCutByTheDespiker)
{
    // A step of 200 ticks plus a tick of noise reaches the 201 at which a word
    // counts as a spike and is replaced by the block's running mean.
    FskRoundTrip r;
    uint32_t seed = 110;
    for (uint8_t h : FskHeaders()) {
        FskRoundTripCase c;
        c.header = h;
        c.depth = 200;
        c.seed = seed++;
        r += RunFskRoundTrip(c);
    }
    EXPECT_LT(r.exact, r.sent);
    FskRoundTrip clean;
    for (uint8_t h : FskHeaders()) {
        FskRoundTripCase c;
        c.header = h;
        c.depth = 200;
        c.noise = 0;
        c.seed = seed++;
        clean += RunFskRoundTrip(c);
    }
    EXPECT_EQ(clean.exact, clean.sent);
}

TEST(FskChainTest, ResponsePatternsAt512CyclesABit)
{
    // The pattern's last bit ends on the unmodulated carrier and merges into
    // it, so a pattern arrives one bit short: ACK 0xFF is read as 0x7F and
    // reported as 0xFF, 0x88 as 0x44 and reported as 0x88, and 0xAA as 0x55.
    // NAK 0x00 leaves seven pulses, fewer than the eight a decode needs, and
    // 0x55 is read as 0x2A, which is no accepted value: neither ever arrives.
    struct Case {
        uint8_t sent;
        uint8_t reported;
        int expected;
    } cases[] = {{0xFF, 0xFF, 3}, {0x88, 0x88, 3}, {0x7F, 0xFF, 3}, {0xAA, 0x55, 3},
                 {0x00, 0x00, 0}, {0x55, 0x55, 0}, {0x44, 0x88, 0}};
    for (const Case& k : cases) {
        FskRoundTripCase c;
        c.header = k.sent;
        c.pattern = true;
        const FskRoundTrip r = RunFskRoundTrip(c, k.reported);
        EXPECT_EQ(r.exact, k.expected) << std::hex << int(k.sent);
    }
}

TEST(FskChainTest, ResponsePatternsAt128CyclesABitAreTooShortToDecode)
{
    // 64 words of pattern with the 50 words of history before it and the words
    // after it stay under the 201 samples that the decoding loop asks of a
    // packet.
    for (uint8_t sent : {0xFF, 0x88}) {
        FskRoundTripCase c;
        c.header = sent;
        c.pattern = true;
        c.cyclesPerBit = 128;
        EXPECT_EQ(RunFskRoundTrip(c, sent).exact, 0);
    }
}

TEST(FskChainTest, DigitalPingsFrom50To200MsAreReportedWithDurationAndFrequency)
{
    for (double ms : {49.0, 50.0, 65.0, 200.0, 201.0}) {
        qisim::FskWaveParams p;
        p.carrierHz = 128000;
        p.noiseTicks = 1;
        qisim::FskWaveWriter w(p, 5);
        w.OffMs(80);
        w.PingMs(ms);
        w.OffMs(150);
        FskChain chain;
        chain.Stream(qisim::FskStreamFrames(w.Words()));
        if (ms < 50 || ms > 200) {
            EXPECT_TRUE(chain.host.pings.empty()) << ms;
            continue;
        }
        ASSERT_EQ(chain.host.pings.size(), 1u) << ms;
        const auto& ping = *chain.host.pings[0];
        EXPECT_EQ(ping.durationUs, static_cast<int64_t>(ms * 1000));
        EXPECT_EQ(ping.frequency, 128000);
        EXPECT_EQ(ping.text, "Digital Ping " + std::to_string(static_cast<int>(ms)) + "ms @ 128000HZ");
        EXPECT_EQ(ping.startUs, 80 * 1000 + ping.startUs % 1000 + (ping.startUs / 1000 - 80) * 1000);
        EXPECT_EQ(ping.durationText, TimeText(ping.durationUs));
    }
}

TEST(FskChainTest, PingFrequencyIsTheCarrierOfTheFirstStableBlock)
{
    qisim::FskWaveParams p;
    p.carrierHz = 175000;
    qisim::FskWaveWriter w(p, 5);
    w.OffMs(80);
    w.PingMs(65);
    w.OffMs(150);
    FskChain chain;
    chain.Stream(qisim::FskStreamFrames(w.Words()));
    ASSERT_EQ(chain.host.pings.size(), 1u);
    // 960000000 / 5486 words, truncated.
    EXPECT_EQ(chain.host.pings[0]->frequency, 960000000 / 5486);
    EXPECT_NEAR(static_cast<double>(chain.host.pings[0]->durationUs), 65000.0, 200.0);
}
