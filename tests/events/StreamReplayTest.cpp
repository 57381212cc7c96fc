// Replay of raw capture files that begin inside a frame: the reader finds the
// frame grid before it feeds the parsers, so every packet after the cut comes
// back, with or without the capture header.
#include "FskChain.h"
#include "decode/CaptureFile.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/AskSynth.h"
#include "sim/FskSynth.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::vector<uint8_t> AskBytes()
{
    qisim::AskWaveWriter w(qisim::AskWaveParams{}, 5);
    w.Idle(2000);
    w.Packet(qisim::WithChecksum({0x01, 0xA0}), 11);
    w.Idle(1500);
    for (int k = 0; k < 3; ++k) {
        w.Packet(qisim::WithChecksum({0x03, static_cast<uint8_t>(k + 4)}), 11);
        w.Idle(1500);
    }
    w.Packet(qisim::WithChecksum({0x51, 0x0A, 0x00, 0x00, 0x0A, 0x00}), 11);
    w.Idle(1500);
    return qisim::AskStreamFrames(w.Samples());
}

std::vector<uint8_t> FskBytes()
{
    return TwoFskPacketsStream();
}

std::vector<uint8_t> Header()
{
    std::vector<uint8_t> h(kCaptureHeaderBytes, 0);
    std::memcpy(h.data(), "kestro", 6);
    std::memcpy(h.data() + 8, "2026-11-23 10:00:00", 19);
    return h;
}

// The band the replays here run with.
void SetBand(SettingParams& settings)
{
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
}

// The packets a replay gives, in order.
std::vector<std::string> PacketsOf(StreamReplay& replay)
{
    SettingParams::Instance().detectedPolarity.store(-1);
    std::vector<std::string> packets;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events)
            if (!e->packet.PacketData.empty())
                packets.push_back(e->packet.PacketData);
    });
    SettingParams::Instance().detectedPolarity.store(0);
    return packets;
}

// The packets of a replay of these bytes, in order.
std::vector<std::string> Packets(const std::vector<uint8_t>& ask, const std::vector<uint8_t>& fsk,
                                 size_t* skippedAsk = nullptr, size_t* skippedFsk = nullptr)
{
    SettingParams settings;
    SetBand(settings);
    StreamReplay replay(ask, fsk, &settings);
    const std::vector<std::string> packets = PacketsOf(replay);
    if (skippedAsk)
        *skippedAsk = replay.SkippedAsk();
    if (skippedFsk)
        *skippedFsk = replay.SkippedFsk();
    return packets;
}

// The bytes of the first frame: its header and payload.
size_t FirstFrameBytes(const std::vector<uint8_t>& stream)
{
    return 8 + (stream[0] | stream[1] << 8 | stream[2] << 16 | static_cast<size_t>(stream[3]) << 24);
}

std::vector<uint8_t> Cut(const std::vector<uint8_t>& stream, size_t at, bool header)
{
    std::vector<uint8_t> bytes(stream.begin() + static_cast<std::ptrdiff_t>(at), stream.end());
    if (header) {
        const std::vector<uint8_t> h = Header();
        bytes.insert(bytes.begin(), h.begin(), h.end());
    }
    return bytes;
}

}  // namespace

TEST(FirstChainedFrame, WholeStreamsBeginAtZero)
{
    for (const auto& stream : {AskBytes(), FskBytes()})
        EXPECT_EQ(FirstChainedFrame(stream.data(), stream.size()), 0u);
}

TEST(FirstChainedFrame, CutAnywhereInTheFirstFrameFindsTheSecond)
{
    for (const auto& stream : {AskBytes(), FskBytes()}) {
        const size_t first = FirstFrameBytes(stream);
        ASSERT_LT(first, stream.size());
        for (size_t at = 1; at <= first; ++at)
            EXPECT_EQ(FirstChainedFrame(stream.data() + at, stream.size() - at), first - at) << at;
    }
}

TEST(FirstChainedFrame, NothingThatChainsGivesZero)
{
    EXPECT_EQ(FirstChainedFrame(nullptr, 0), 0u);
    const std::vector<uint8_t> zeros(4096, 0);
    EXPECT_EQ(FirstChainedFrame(zeros.data(), zeros.size()), 0u);
    std::vector<uint8_t> noise(4096);
    uint32_t x = 12345;
    for (auto& b : noise) {
        x = x * 1103515245u + 12345u;
        b = static_cast<uint8_t>(x >> 23);
    }
    EXPECT_EQ(FirstChainedFrame(noise.data(), noise.size()), 0u);
    // A header with nothing after it proves nothing.
    const std::vector<uint8_t> lone{0x90, 0x01, 0, 0, 5, 0, 0, 0};
    EXPECT_EQ(FirstChainedFrame(lone.data(), lone.size()), 0u);
}

TEST(FirstChainedFrame, ShortFileWithOneWholeFrameAndATruncatedOne)
{
    const auto stream = AskBytes();
    const size_t first = FirstFrameBytes(stream);
    // Cut 3 bytes into the first frame, end 100 bytes into the third.
    const std::vector<uint8_t> bytes(stream.begin() + 3, stream.begin() + static_cast<std::ptrdiff_t>(2 * first + 100));
    EXPECT_EQ(FirstChainedFrame(bytes.data(), bytes.size()), first - 3);
}

TEST(FirstChainedFrame, StampsThatGoBackDoNotChain)
{
    auto stream = AskBytes();
    const size_t first = FirstFrameBytes(stream);
    // The second frame's stamp goes back below the first's: the grid can only
    // begin at the second frame.
    stream[4] = 0xFF;
    stream[5] = 0xFF;
    EXPECT_EQ(FirstChainedFrame(stream.data(), stream.size()), first);
}

TEST(StreamReplay, AskFileCutAtEveryOffsetOfItsFirstFrameGivesEveryPacketBack)
{
    const auto stream = AskBytes();
    const std::vector<std::string> whole = Packets(stream, {});
    ASSERT_EQ(whole.size(), 5u);
    EXPECT_EQ(whole[0], "01 A0 A1 ");
    EXPECT_EQ(whole[4].substr(0, 3), "51 ");
    const size_t first = FirstFrameBytes(stream);
    for (bool header : {false, true})
        for (size_t at = 1; at <= first; ++at) {
            size_t skipped = 99;
            EXPECT_EQ(Packets(Cut(stream, at, header), {}, &skipped), whole) << at << (header ? " header" : "");
            EXPECT_EQ(skipped, first - at) << at;
        }
}

TEST(StreamReplay, FskFileCutAtEveryOffsetOfItsFirstFrameGivesEveryPacketBack)
{
    const auto stream = FskBytes();
    const std::vector<std::string> whole = Packets({}, stream);
    ASSERT_EQ(whole.size(), 2u);
    EXPECT_EQ(whole[0], "1F 64 7B ");
    const size_t first = FirstFrameBytes(stream);
    for (bool header : {false, true})
        for (size_t at = 1; at <= first; ++at) {
            size_t skipped = 99;
            EXPECT_EQ(Packets({}, Cut(stream, at, header), nullptr, &skipped), whole) << at << (header ? " header" : "");
            EXPECT_EQ(skipped, first - at) << at;
        }
}

TEST(StreamReplay, BothFilesCutTogether)
{
    const auto ask = AskBytes();
    const auto fsk = FskBytes();
    std::vector<std::string> whole = Packets(ask, fsk);
    ASSERT_EQ(whole.size(), 7u);
    std::vector<std::string> cut = Packets(Cut(ask, 5, true), Cut(fsk, 3, false));
    EXPECT_EQ(cut, whole);
}

TEST(StreamReplay, BytesLeftWithTheCallerReplayAsTheBytesHandedOver)
{
    const auto ask = Cut(AskBytes(), 5, true);
    const auto fsk = Cut(FskBytes(), 3, false);
    const std::vector<std::string> handed = Packets(ask, fsk);
    ASSERT_EQ(handed.size(), 7u);
    SettingParams settings;
    SetBand(settings);
    StreamReplay replay(ask.data(), ask.size(), fsk.data(), fsk.size(), &settings);
    EXPECT_EQ(PacketsOf(replay), handed);
    EXPECT_EQ(replay.SkippedAsk(), FirstFrameBytes(AskBytes()) - 5);
    EXPECT_EQ(replay.SkippedFsk(), FirstFrameBytes(FskBytes()) - 3);
    // Nothing at all replays to nothing.
    StreamReplay empty(nullptr, 0, nullptr, 0, &settings);
    size_t batches = 0;
    empty.Run([&](std::vector<MsgInfoPtr>&) { ++batches; });
    EXPECT_EQ(batches, 0u);
    EXPECT_EQ(empty.SkippedAsk(), 0u);
}

namespace {

// Fifty receiver packets, the first a Signal Strength soon after the stream
// begins, then Control Errors of changing values, as a receiver sends them.
std::vector<uint8_t> FiftyPacketsBytes(size_t leadIn)
{
    qisim::AskWaveWriter w(qisim::AskWaveParams{}, 7);
    w.Idle(leadIn);
    w.Packet(qisim::WithChecksum({0x01, 0xE7}), 11);
    w.Idle(1200);
    for (int k = 1; k < 50; ++k) {
        w.Packet(qisim::WithChecksum({0x03, static_cast<uint8_t>(k * 5)}), 11);
        w.Idle(1200);
    }
    return qisim::AskStreamFrames(w.Samples());
}

}  // namespace

// The event texts a replay gives, in order.
std::vector<std::string> EventTexts(const std::vector<uint8_t>& ask, SettingParams& settings)
{
    StreamReplay replay(ask, {}, &settings);
    SettingParams::Instance().detectedPolarity.store(-1);
    std::vector<std::string> texts;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events)
            texts.push_back(e->str.toStdString());
    });
    SettingParams::Instance().detectedPolarity.store(0);
    return texts;
}

// A file that begins inside its first frame plays from the next one. When the
// first packet begins right there, its burst's first pulse starts with the
// samples played: the packet still comes first, and the whole list of events
// is the uncut file's, whatever the offset of the cut, with either reader.
TEST(StreamReplay, FiftyPacketFileCutAtEveryOffsetOfItsFirstFrameKeepsCaptureOrder)
{
    // The first packet 0, 5 and 1800 samples after the first whole frame.
    for (size_t leadIn : {size_t{200}, size_t{205}, size_t{2000}}) {
        const auto stream = FiftyPacketsBytes(leadIn);
        for (int reader : {0, 1}) {
            SettingParams settings;
            SetBand(settings);
            settings.m_ask_second_reader = reader;
            const std::vector<std::string> whole = EventTexts(stream, settings);
            ASSERT_GE(whole.size(), 50u) << leadIn;
            EXPECT_EQ(whole[0].substr(0, 14), "SignalStrength") << leadIn;
            const size_t first = FirstFrameBytes(stream);
            for (size_t at = 1; at <= first; ++at)
                ASSERT_EQ(EventTexts(Cut(stream, at, false), settings), whole)
                    << "first packet " << leadIn << " samples in, cut at " << at << ", second reader " << reader;
        }
    }
}
