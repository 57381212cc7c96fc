// The wave of a packet: its trace in units against time from its start, and
// the bit cells, bytes and packet found in it.
#include "analysis/WaveTrace.h"
#include "common/TimeText.h"

#include "sim/AskSynth.h"
#include "sim/FskSynth.h"
#include "common/AskFrameBits.h"

#include <gtest/gtest.h>

using namespace analysis;

namespace {

MsgInfo AskEvent(const std::vector<uint8_t>& frame, size_t* firstEdge = nullptr)
{
    qisim::AskWaveParams params;
    params.idleLevel = 800;
    params.swing = 1800;
    params.noiseFraction = 0.02;
    params.jitterSamples = 1.0;
    qisim::AskWaveWriter writer(params, 5);
    writer.Idle(60);
    const size_t first = writer.Packet(frame, 11);
    if (firstEdge)
        *firstEdge = first;
    writer.Idle(40);
    MsgInfo e;
    e.direction = 2;
    e.type = frame[0];
    e.packet.PacketData = SpacedHex(frame);
    e.capture = std::make_shared<TriggerData>();
    for (uint16_t s : writer.Samples())
        e.capture->samples.push_back(s);
    e.capture->startTime = 1000000;
    return e;
}

}  // namespace

TEST(WaveTrace, AnAskRecordIsTheEnvelopeInAdcCountsEvery25us)
{
    const MsgInfo e = AskEvent(qisim::WithChecksum({0x03, 0x05}));
    const WaveTrace w = BuildWaveTrace(e);
    EXPECT_TRUE(w.ask);
    EXPECT_EQ(w.unit, "ADC counts");
    ASSERT_EQ(w.t.size(), e.capture->samples.size());
    EXPECT_DOUBLE_EQ(w.t[0], 0.0);
    EXPECT_DOUBLE_EQ(w.t[40], 1.0);
    EXPECT_DOUBLE_EQ(w.v[7], e.capture->samples[7]);
    EXPECT_DOUBLE_EQ(w.duration, e.capture->samples.size() * 0.025);
}

TEST(WaveTrace, TheBytesOfAnIdentificationAreFoundWithTheirBitCells)
{
    const std::vector<uint8_t> frame = qisim::WithChecksum({0x71, 0x11, 0x00, 0x42, 0x12, 0x34, 0x56, 0x78});
    size_t firstEdge = 0;
    const WaveTrace w = BuildWaveTrace(AskEvent(frame, &firstEdge));
    ASSERT_EQ(w.bytes.size(), frame.size());
    for (size_t i = 0; i < frame.size(); ++i) {
        EXPECT_EQ(w.bytes[i].value, frame[i]) << i;
        EXPECT_TRUE(w.bytes[i].parityOk) << i;
        EXPECT_TRUE(w.bytes[i].stopOk) << i;
        // A byte is eleven cells of 0.5 ms.
        EXPECT_NEAR(w.bytes[i].t1 - w.bytes[i].t0, 5.5, 0.1) << i;
        EXPECT_NEAR(w.bytes[i].dataT1 - w.bytes[i].dataT0, 4.0, 0.1) << i;
    }
    // The header's start bit follows eleven preamble ones.
    EXPECT_NEAR(w.bytes[0].t0, firstEdge * 0.025 + 11 * 0.5, 0.1);
    // Four preamble ones, then the frame's eleven cells a byte.
    ASSERT_EQ(w.bits.size(), 4 + 11 * frame.size());
    EXPECT_EQ(w.bits[0].value, 1);
    EXPECT_EQ(w.bits[4].value, 0);  // start bit
    EXPECT_EQ(w.bits[5].value, 1);  // 0x71, least significant first
    EXPECT_EQ(w.bits[8].value, 0);
    EXPECT_EQ(w.packetText, "Identification, checksum good");
    EXPECT_NEAR(w.packetT0, w.bytes[0].t0, 1e-9);
    EXPECT_NEAR(w.packetT1, w.bytes.back().t1, 1e-9);
    EXPECT_TRUE(w.readers.empty());
}

TEST(WaveTrace, ABadChecksumIsSaidAndMergedReadingsAreTold)
{
    MsgInfo e = AskEvent({0x03, 0x05, 0x07});
    e.packet.reading = "corrected";
    e.packet.otherReading = "03 05 04 ";
    const WaveTrace w = BuildWaveTrace(e);
    EXPECT_FALSE(w.checksumOk);
    EXPECT_EQ(w.packetText, "ControlError, checksum bad");
    EXPECT_EQ(w.readers, "second reader: 03 05 07 ; list decoder: 03 05 04 ");
}

TEST(WaveTrace, AnFskRecordIsTheCarrierInKHzFromThePeriodWords)
{
    qisim::FskWaveParams params;
    params.carrierHz = 128000.0;
    params.depthTicks = 60;
    params.polarity = -1;
    qisim::FskWaveWriter writer(params, 3);
    writer.Carrier(50);
    const std::vector<uint8_t> frame = {0x20, 0x12, 0x34, 0x26};
    writer.Packet(frame, 4);
    writer.Carrier(30);
    MsgInfo e;
    e.direction = 0;  // as read back from a session file
    e.type = 0x20;
    e.packet.PacketData = SpacedHex(frame);
    e.capture = std::make_shared<TriggerData>();
    for (uint16_t v : writer.Words())
        e.capture->samples.push_back(v);
    e.capture->highPeriod = 7500;
    e.capture->lowPeriod = 7440;
    const WaveTrace w = BuildWaveTrace(e);
    EXPECT_FALSE(w.ask);
    EXPECT_EQ(w.unit, "kHz");
    ASSERT_FALSE(w.v.empty());
    EXPECT_NEAR(w.v[0], 128.0, 0.1);
    // A word of 7500 ticks lasts 0.125 ms.
    EXPECT_NEAR(w.t[1] - w.t[0], 0.125, 0.001);
    EXPECT_NEAR(w.duration, writer.Ticks() / 60000.0, 1e-6);
    ASSERT_EQ(w.bytes.size(), frame.size());
    for (size_t i = 0; i < frame.size(); ++i) {
        EXPECT_EQ(w.bytes[i].value, frame[i]) << i;
        EXPECT_TRUE(w.bytes[i].parityOk) << i;
    }
    // 512 cycles a bit at 128 kHz: 4 ms.
    EXPECT_NEAR(w.bytes[0].t1 - w.bytes[0].t0, 44.0, 0.5);
}

TEST(WaveTrace, AnEventWithoutARecordHasAnEmptyTrace)
{
    MsgInfo e;
    e.direction = 2;
    const WaveTrace w = BuildWaveTrace(e);
    EXPECT_TRUE(w.t.empty());
    EXPECT_TRUE(w.bytes.empty());
    EXPECT_EQ(w.unit, "ADC counts");
}

TEST(WaveTrace, TheTransmittersParityIsEvenAndTheReceiversOdd)
{
    // A receiver byte with an even parity bit is a parity error.
    qisim::AskWaveParams params;
    params.swing = 1500;
    qisim::AskWaveWriter writer(params, 2);
    writer.Idle(60);
    std::vector<uint8_t> stream(11, 1);  // preamble
    AppendAskByteBits(stream, {0x03});
    stream[11 + 9] ^= 1;  // the parity bit of the byte
    writer.Bits(stream);
    writer.Idle(40);
    MsgInfo e;
    e.direction = 2;
    e.packet.PacketData = "03 ";
    e.capture = std::make_shared<TriggerData>();
    for (uint16_t s : writer.Samples())
        e.capture->samples.push_back(s);
    const WaveTrace w = BuildWaveTrace(e);
    ASSERT_EQ(w.bytes.size(), 1u);
    EXPECT_EQ(w.bytes[0].value, 3);
    EXPECT_FALSE(w.bytes[0].parityOk);
    EXPECT_TRUE(w.bytes[0].stopOk);
}
