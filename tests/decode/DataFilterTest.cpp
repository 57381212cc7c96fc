#include "decode/DataFilter.h"
#include "services/Log.h"

#include <gtest/gtest.h>

#include <QFile>

namespace {

// Clean pulse durations of a frame: preamble ones, then per byte a start bit,
// eight data bits LSB first, odd parity and a stop bit; a one is two half-bit
// pulses and a zero one full-bit pulse. A long closing pulse ends the burst.
std::vector<int64_t> Durations(const std::vector<uint8_t>& frame, int preamble, int bitPeriod,
                               bool flipParity = false)
{
    std::vector<int> bits(static_cast<size_t>(preamble), 1);
    for (uint8_t byte : frame) {
        bits.push_back(0);
        int ones = 0;
        for (int k = 0; k < 8; ++k) {
            const int b = (byte >> k) & 1;
            ones += b;
            bits.push_back(b);
        }
        bits.push_back(((ones % 2) == 0 ? 1 : 0) ^ (flipParity ? 1 : 0));
        bits.push_back(1);
    }
    std::vector<int64_t> d;
    for (int b : bits) {
        if (b) {
            d.push_back(bitPeriod / 2);
            d.push_back(bitPeriod / 2);
        } else {
            d.push_back(bitPeriod);
        }
    }
    d.push_back(5000);
    return d;
}

std::vector<PulseRecord> Pulses(const std::vector<int64_t>& durations)
{
    std::vector<PulseRecord> out;
    uint32_t mark = 0;
    for (int64_t d : durations) {
        PulseRecord p;
        p.duration = d;
        mark += static_cast<uint32_t>(d);
        p.mark = mark;
        out.push_back(p);
    }
    return out;
}

std::shared_ptr<TriggerData> Burst(int64_t amplitude = 1500)
{
    auto b = std::make_shared<TriggerData>();
    b->amplitude = amplitude;
    b->startTime = 1000000;
    b->endTime = 1027500;
    return b;
}

std::vector<std::shared_ptr<CMsgData>> Drain(CDataFilter& f)
{
    std::vector<std::shared_ptr<CMsgData>> out;
    while (auto m = f.TakeFrame())
        out.push_back(m);
    return out;
}

std::shared_ptr<RecvDec> Candidate(const std::vector<uint8_t>& bytes)
{
    auto r = std::make_shared<RecvDec>();
    for (size_t i = 0; i < bytes.size(); ++i)
        r->bytes[i] = bytes[i];
    r->length = static_cast<uint8_t>(bytes.size());
    return r;
}

}  // namespace

TEST(DataFilter, CleanBurstDecodesToItsBytes)
{
    CDataFilter f;
    const std::vector<uint8_t> frame{0x03, 0xFF, 0xFC};
    const int k = f.DecodeBurst(Pulses(Durations(frame, 11, 20)), Burst(), 128000, 1);
    EXPECT_EQ(k, 3);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 1u);
    const CMsgData& m = *frames[0];
    EXPECT_EQ(m.size, 3);
    EXPECT_EQ(m.message[0], 0x03);
    EXPECT_EQ(m.message[1], 0xFF);
    EXPECT_EQ(m.message[2], 0xFC);
    EXPECT_EQ(m.packet.Status, "NoError");
    EXPECT_EQ(m.packet.PacketData, "03 FF FC ");
    EXPECT_EQ(m.packet.numbytesInPacket, 3u);
    EXPECT_EQ(m.packet.premambleCount, 11u);
    EXPECT_EQ(m.direction, 2u);
    EXPECT_EQ(m.pattern, 0);
    EXPECT_EQ(m.timing.carrierCurrentHz, 128000u);
    EXPECT_EQ(m.timing.bitTimesUs, 27500u);
    EXPECT_EQ(m.timing.startTimeStamp, "00:00:01.000000");
    EXPECT_EQ(m.timing.endTimeStamp, "00:00:01.027500");
    EXPECT_EQ(m.timing.duration, "00:00:00.027500");
    ASSERT_TRUE(m.capture);
    EXPECT_EQ(m.capture->startTime, 1000000u);
    EXPECT_EQ(f.DecodedFrames(), 1);
    EXPECT_EQ(f.Phase(), 5);
}

TEST(DataFilter, PulsesNear14GiveBitPeriod14AndATieGives20)
{
    CDataFilter f;
    const int k = f.DecodeBurst(Pulses(Durations({0x03, 0x05, 0x06}, 11, 14)), Burst(), 0, 1);
    EXPECT_EQ(f.BitPeriod(), 14.0);
    EXPECT_EQ(k, 3);

    CDataFilter tie;
    std::vector<int64_t> d{7, 10, 7, 10, 14, 20, 14, 20, 70, 70};
    tie.DecodeBurst(Pulses(d), Burst(), 0, 1);
    EXPECT_EQ(tie.BitPeriod(), 20.0);

    CDataFilter none;
    none.DecodeBurst(Pulses(std::vector<int64_t>(10, 100)), Burst(), 0, 1);
    EXPECT_EQ(none.BitPeriod(), 20.0);
}

TEST(DataFilter, PreambleOfNinePairsPassesAtTwentyAndEightFails)
{
    // Pairs overlap: nine pairs are ten half-bit pulses. The long start-bit
    // pulse and the zeros after it make no pair of one bit.
    std::vector<int64_t> nine(10, 10);
    nine.push_back(20);
    nine.insert(nine.end(), 10, 20);
    CDataFilter f;
    f.LoadDurations(nine, 20.0);
    EXPECT_GE(f.PreambleSearch(), 1);

    std::vector<int64_t> eight(9, 10);
    eight.push_back(20);
    eight.insert(eight.end(), 10, 20);
    f.LoadDurations(eight, 20.0);
    EXPECT_EQ(f.PreambleSearch(), -2);
}

TEST(DataFilter, PreambleSearchPointsOneBeforeTheLastHalfBit)
{
    CDataFilter f;
    auto d = Durations({0x03, 0x00, 0x03}, 11, 20);
    f.LoadDurations(d, 20.0);
    // 22 half bits (0..21), start bit at 22: the first pair above 26 is (21, 22).
    EXPECT_EQ(f.PreambleSearch(), 20);
}

TEST(DataFilter, WalkAtFourteenThatRunsOffTheEndWithRunFourStillPasses)
{
    // Four good pairs at the very end: the walk never reaches five and ends with
    // run 4, which passes the check; then no long pair follows, so it fails later.
    std::vector<int64_t> d{30, 30, 30, 7, 7, 7, 7, 7};
    CDataFilter f;
    f.LoadDurations(d, 14.0);
    EXPECT_EQ(f.PreambleSearch(), -1);
    std::vector<int64_t> three{30, 30, 30, 30, 7, 7, 7, 7};
    f.LoadDurations(three, 14.0);
    EXPECT_EQ(f.PreambleSearch(), -2);
}

TEST(DataFilter, GoodXorWithWrongParityBitIsAccepted)
{
    CDataFilter f;
    const int k = f.DecodeBurst(Pulses(Durations({0x03, 0x05, 0x06}, 11, 20, true)), Burst(), 0, 1);
    EXPECT_EQ(k, 3);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0]->packet.PacketData, "03 05 06 ");
    EXPECT_EQ(frames[0]->packet.Status, "NoError");
}

TEST(DataFilter, FrameOfExactlyTwoBytesIsNeverAccepted)
{
    // 0x05 0x05: the XOR of all but the last equals the last, yet two bytes
    // are not enough.
    CDataFilter f;
    EXPECT_EQ(f.DecodeBurst(Pulses(Durations({0x05, 0x05}, 11, 20)), Burst(), 0, 1), 0);
    EXPECT_TRUE(Drain(f).empty());
    EXPECT_FALSE(Candidate({0x05, 0x05})->ChecksumHolds());
    EXPECT_TRUE(Candidate({0x05, 0x06, 0x03})->ChecksumHolds());
}

TEST(DataFilter, TiedOneZeroAndZeroOneForkIntoTwoHypotheses)
{
    // After the preamble, the pulses 15 10 15 cost the same read as 1 0 and as
    // 0 1: both readings are kept.
    std::vector<int64_t> d(22, 10);
    d.push_back(20);  // start bit
    d.insert(d.end(), {15, 10, 15});
    d.insert(d.end(), {20, 20, 20, 5000});
    CDataFilter f;
    f.LoadDurations(d, 20.0);
    ASSERT_EQ(f.PreambleSearch(), 20);
    f.TryDecode(21, 0);
    auto& h = f.Hypotheses();
    ASSERT_EQ(h.size(), 2u);
    // Five data bits so far: the start feed's 0 and the three zeros are common;
    // the first reads 0 1 at bits 0..1, the clone 1 0.
    EXPECT_EQ(h[0]->current & 0x03, 0x02);
    EXPECT_EQ(h[1]->current & 0x03, 0x01);
}

TEST(DataFilter, AfterTheNinthHypothesisTheAttemptStopsAndTheTailStillRuns)
{
    std::vector<int64_t> d(22, 10);
    d.push_back(20);
    for (int k = 0; k < 4; ++k)
        d.insert(d.end(), {15, 10, 15});  // four forks: 16 hypotheses
    // Without the stop these would be read on as further bits.
    d.insert(d.end(), {20, 20, 20, 20, 20, 20, 10, 10, 10, 10, 5000});
    CDataFilter f;
    f.LoadDurations(d, 20.0);
    f.TryDecode(21, 0);
    auto& h = f.Hypotheses();
    ASSERT_EQ(h.size(), 16u);
    // Eight data bits came from the forks; the tail read the next pulse (20) as
    // the parity bit 0, which stores the byte. Nothing after it was read.
    for (const auto& r : h) {
        EXPECT_EQ(r->length, 1);
        EXPECT_EQ(r->state, 11);
    }
}

TEST(DataFilter, PulseCountIsLimitedTo900SoNoFrameReaches1024Bytes)
{
    CDataFilter f;
    std::vector<int64_t> zeros(901, 20);
    EXPECT_EQ(f.DecodeBurst(Pulses(zeros), Burst(), 0, 1), 0);
    std::vector<int64_t> preambleThenZeros(22, 10);
    preambleThenZeros.resize(900, 20);
    f.LoadDurations(preambleThenZeros, 20.0);
    f.TryDecode(21, 0);
    for (const auto& r : f.Hypotheses())
        EXPECT_LE(r->length, 900 / 11);
    EXPECT_EQ(f.DecodeBurst(Pulses(std::vector<int64_t>(7, 20)), Burst(), 0, 1), 0);
}

TEST(DataFilter, WeakBurstIsDecodedUntilFiftyFramesThenDropped)
{
    const auto pulses = Pulses(Durations({0x03, 0x05, 0x06}, 11, 20));
    CDataFilter f;
    f.SetDecodedFrames(49);
    EXPECT_EQ(f.DecodeBurst(pulses, Burst(500), 0, 1), 3);
    EXPECT_EQ(f.DecodedFrames(), 50);
    EXPECT_EQ(f.DecodeBurst(pulses, Burst(500), 0, 1), 0);
    EXPECT_EQ(f.DecodeBurst(pulses, Burst(501), 0, 1), 3);
}

TEST(DataFilter, FailedBurstsAreCountedOnlyWithTheFlagAfterElevenFrames)
{
    // A preamble that passes, then nothing that holds a checksum.
    std::vector<int64_t> d(22, 10);
    d.push_back(20);
    d.insert(d.end(), {20, 10, 10, 20, 20, 10, 10, 10, 10, 20, 20, 20, 5000});
    CDataFilter f;
    f.SetDecodedFrames(10);
    EXPECT_EQ(f.DecodeBurst(Pulses(d), Burst(), 0, 1), 0);
    EXPECT_EQ(f.FailedBursts(), 0);
    f.SetDecodedFrames(11);
    EXPECT_EQ(f.DecodeBurst(Pulses(d), Burst(), 0, 0), 0);
    EXPECT_EQ(f.FailedBursts(), 0);
    EXPECT_EQ(f.DecodeBurst(Pulses(d), Burst(), 0, 1), 0);
    EXPECT_EQ(f.FailedBursts(), 1);
}

TEST(DataFilter, FirstFrameWithHeaderTwoLeavesPhaseZero)
{
    CDataFilter f;
    ASSERT_EQ(f.Phase(), 0);
    EXPECT_EQ(f.DecodeBurst(Pulses(Durations({0x02, 0x01, 0x03}, 11, 20)), Burst(), 0, 1), 3);
    EXPECT_EQ(f.Phase(), 0);
    EXPECT_EQ(f.DecodeBurst(Pulses(Durations({0x01, 0xC0, 0xC1}, 11, 20)), Burst(), 0, 1), 3);
    EXPECT_EQ(f.Phase(), 1);
}

TEST(DataFilter, PhaseFollowsTheHeaderTable)
{
    EXPECT_EQ(CDataFilter::PhaseFor(1, 0), 1);
    EXPECT_EQ(CDataFilter::PhaseFor(253, 3), 1);
    for (int code : {6, 81, 113, 129, 258})
        EXPECT_EQ(CDataFilter::PhaseFor(code, 0), 2) << code;
    for (int code : {7, 9, 32, 34, 84, 85})
        EXPECT_EQ(CDataFilter::PhaseFor(code, 0), 3) << code;
    for (int code : {2, 3, 4, 5, 49, 256})
        EXPECT_EQ(CDataFilter::PhaseFor(code, 0), 5) << code;
    EXPECT_EQ(CDataFilter::PhaseFor(0x18, 3), 3);
    EXPECT_EQ(CDataFilter::PhaseFor(0x84, 2), 2);
}

TEST(DataFilter, HoldOffInPowerTransferIsIgnoredAndTheNextCandidateCounts)
{
    CDataFilter f;
    f.SetPhase(5);
    auto& h = f.Hypotheses();
    h.push_back(Candidate({0x06, 0x05, 0x03}));
    h.push_back(Candidate({0x03, 0x05, 0x06, 0x00}));
    const int k = f.SyncHeadEnd(Burst(), 21, 0);
    EXPECT_EQ(k, 4);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0]->packet.PacketData, "06 05 03 ");
    EXPECT_EQ(frames[0]->packet.Status, "NoError");
    EXPECT_EQ(frames[1]->packet.PacketData, "03 05 06 00 ");
    EXPECT_EQ(frames[1]->packet.Status, "NoError");
    EXPECT_EQ(frames[1]->packet.premambleCount, 11u);
    EXPECT_EQ(f.Phase(), 5);
    EXPECT_EQ(f.DecodedFrames(), 1);
    EXPECT_TRUE(f.Hypotheses().empty());

    QFile log(QString::fromStdString(Log::Instance().FilePath()));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains("CDataFilter::SyncHeadEnd ignore type:6 in phase:5\r\n"));
}

TEST(DataFilter, LoneHoldOffInPowerTransferIsEmittedTwiceAndCountsAsNoFrame)
{
    CDataFilter f;
    f.SetPhase(5);
    f.Hypotheses().push_back(Candidate({0x06, 0x05, 0x03}));
    EXPECT_EQ(f.SyncHeadEnd(Burst(), 21, 0), 0);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0]->packet.Status, "NoError");
    EXPECT_EQ(frames[1]->packet.Status, "Error");
    EXPECT_EQ(frames[1]->packet.PacketData, "06 05 03 ");
    EXPECT_EQ(f.DecodedFrames(), 1);
    EXPECT_EQ(f.Phase(), 5);
}

TEST(DataFilter, NoValidCandidateAndFirstByteZeroEmitsNothing)
{
    CDataFilter f;
    f.Hypotheses().push_back(Candidate({0x00, 0x05, 0x07}));
    EXPECT_EQ(f.SyncHeadEnd(Burst(), 21, 0), 0);
    EXPECT_TRUE(Drain(f).empty());
    EXPECT_EQ(f.DecodedFrames(), 0);

    f.Hypotheses().push_back(Candidate({0x03, 0x05, 0x07}));
    EXPECT_EQ(f.SyncHeadEnd(Burst(), 21, 0), 0);
    auto frames = Drain(f);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0]->packet.Status, "Error");
    EXPECT_EQ(f.SyncHeadEnd(Burst(), 21, 0), 0);  // no hypotheses at all
}

TEST(DataFilter, ResetAndClear)
{
    CDataFilter f;
    EXPECT_EQ(f.DecodeBurst(Pulses(Durations({0x03, 0x05, 0x06}, 11, 20)), Burst(), 0, 1), 3);
    EXPECT_EQ(f.Phase(), 5);
    f.Reset();
    EXPECT_EQ(f.Phase(), 0);
    EXPECT_EQ(f.PendingFrames(), 1u);
    f.SetPhase(3);
    f.Clear();
    EXPECT_EQ(f.Phase(), 0);
    EXPECT_EQ(f.PendingFrames(), 0u);
    EXPECT_EQ(f.TakeFrame(), nullptr);
}

TEST(RecvDec, AssemblesLsbFirstAndIgnoresParityAndStop)
{
    RecvDec r;
    for (int b : {1, 1, 1, 0})  // preamble ones, then the start bit
        r.Bit(b);
    EXPECT_EQ(r.state, 2);
    EXPECT_EQ(r.ones, 4);
    for (int k = 0; k < 8; ++k)
        r.Bit((0xA5 >> k) & 1);
    EXPECT_EQ(r.state, 10);
    EXPECT_EQ(r.parity, 0);  // 0xA5 has four ones
    r.Bit(1);                // parity, wrong on purpose
    EXPECT_EQ(r.length, 1);
    EXPECT_EQ(r.bytes[0], 0xA5);
    r.Bit(0);  // a stop bit of 0 is not looked at either
    EXPECT_EQ(r.state, 1);
    r.Bit(0);  // the ones counter stays above 2: a 0 is at once a start bit
    EXPECT_EQ(r.state, 2);
}

TEST(RecvDec, NeedsMoreThanTwoOnesBeforeAStartBit)
{
    // Every bit seen while waiting counts, zeros included.
    RecvDec r;
    r.Bit(1);
    r.Bit(0);
    EXPECT_EQ(r.state, 1);
    EXPECT_EQ(r.ones, 2);
    r.Bit(0);
    EXPECT_EQ(r.state, 2);
}
