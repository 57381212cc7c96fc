// The merge of the two ASK readers in the data manager: frames of the list
// decoder and of the second reader wait for each other, then the second
// reader fills what the list decoder missed and corrects what it misread.
#include "DataManagerFixture.h"
#include "common/TimeText.h"
#include "sim/AskSynth.h"

#include <gtest/gtest.h>

namespace {

class AskMergeTest : public DataManagerFixture {
protected:

    // A frame of the list decoder over samples first .. last.
    static std::shared_ptr<CMsgData> ListFrame(std::vector<uint8_t> bytes, uint64_t first, uint64_t last,
                                               const char* status = "NoError")
    {
        auto f = std::make_shared<CMsgData>();
        f->SetFrame(bytes.data(), bytes.size());
        f->direction = 2;
        f->packet.Status = status;
        f->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
        f->packet.numbytesInPacket = bytes.size();
        f->packet.premambleCount = 7;  // tells the list decoder's frame from the other
        f->capture = std::make_shared<TriggerData>();
        f->capture->startTime = first * 25;
        f->capture->endTime = last * 25;
        f->timing.startTime = first * 25;
        return f;
    }

    static AskWireFrame WireFrame(std::vector<uint8_t> bytes, uint64_t first, uint64_t last)
    {
        AskWireFrame w;
        w.bytes = std::move(bytes);
        w.firstSample = first;
        w.startBitSample = first + 220;  // eleven bits of preamble at 20 samples a bit
        w.endSample = last;
        w.samplesPerBit = 20.0;
        w.polarity = 1;
        w.swing = 1500;
        return w;
    }

    // Both readers have looked past sample n.
    void BothPassed(uint64_t n)
    {
        dm.ListDecoderPassed(n);
        dm.AddWireFrames({}, n);
    }
};

}  // namespace

TEST_F(AskMergeTest, ASecondReaderFrameWhereTheListDecoderGaveNothingIsRecovered)
{
    dm.AddWireFrames({WireFrame({0x03, 0x05, 0x06}, 1000, 1900)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "ControlError 5.0% @0HZ");
    EXPECT_EQ(events[0]->common.logData, "ControlError 5.0% @0HZ");
    EXPECT_EQ(events[0]->packet.reading, "recovered");
    EXPECT_EQ(events[0]->packet.otherReading, "");
    EXPECT_EQ(events[0]->packet.PacketData, "03 05 06 ");
    EXPECT_EQ(events[0]->packet.premambleCount, 11u);
    ASSERT_TRUE(events[0]->capture);
    EXPECT_EQ(events[0]->capture->startTime, 1000u * 25);
    EXPECT_EQ(events[0]->timing.endTime, 1900u * 25);
    EXPECT_EQ(dm.Merges().recovered, 1);
}

TEST_F(AskMergeTest, TheSameBytesFromBothKeepTheListDecodersFrameUnmarked)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 980, 1910));
    dm.AddWireFrames({WireFrame({0x03, 0x05, 0x06}, 1000, 1900)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.premambleCount, 7u);
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(events[0]->packet.otherReading, "");
    EXPECT_EQ(events[0]->capture->startTime, 980u * 25);
    EXPECT_EQ(dm.Merges().agreed, 1);
}

TEST_F(AskMergeTest, OtherBytesFromTheListDecoderAreCorrectedAndKeptBeside)
{
    // A misread with a good XOR: 03 10 13 where 03 20 23 was sent.
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x10, 0x13}, 980, 1910));
    dm.AddWireFrames({WireFrame({0x03, 0x20, 0x23}, 1000, 1900)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "ControlError 32.0% @0HZ");
    EXPECT_EQ(events[0]->common.logData, "ControlError 32.0% @0HZ");
    EXPECT_EQ(events[0]->packet.reading, "corrected");
    EXPECT_EQ(events[0]->packet.otherReading, "03 10 13 ");
    EXPECT_EQ(events[0]->packet.PacketData, "03 20 23 ");
    EXPECT_EQ(dm.Merges().corrected, 1);
}

TEST_F(AskMergeTest, AListDecoderFrameWithABadChecksumIsCorrectedToo)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x20, 0x13}, 980, 1910, "Error"));
    dm.AddWireFrames({WireFrame({0x03, 0x20, 0x23}, 1000, 1900)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "ControlError 32.0% @0HZ");
    EXPECT_EQ(events[0]->packet.reading, "corrected");
    EXPECT_EQ(events[0]->packet.otherReading, "03 20 13 ");
}

// No samples at hand to read the span again (none were given): nothing
// tells against the list decoder's reading.
TEST_F(AskMergeTest, AListDecoderFrameWhereTheSecondReaderFoundNothingStands)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 980, 1910));
    BothPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.premambleCount, 7u);
    EXPECT_EQ(events[0]->packet.reading, "");
}

TEST_F(AskMergeTest, ASecondReaderFrameWaitsUntilTheListDecoderHasPassedItsSpan)
{
    dm.AddWireFrames({WireFrame({0x03, 0x20, 0x23}, 1000, 1900)}, 2500);
    dm.ListDecoderPassed(1500);  // still inside the frame's span
    EXPECT_TRUE(Drain().empty());
    // Then the list decoder's misreading arrives, and its mark moves past.
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x10, 0x13}, 980, 1910));
    dm.ListDecoderPassed(2600);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.reading, "corrected");
    EXPECT_EQ(events[0]->packet.otherReading, "03 10 13 ");
}

TEST_F(AskMergeTest, AListDecoderFrameWaitsUntilTheSecondReaderHasPassedItsSpan)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x10, 0x13}, 980, 1910));
    dm.ListDecoderPassed(2500);
    dm.AddWireFrames({}, 1200);
    EXPECT_TRUE(Drain().empty());
    dm.AddWireFrames({WireFrame({0x03, 0x20, 0x23}, 1000, 1900)}, 2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.PacketData, "03 20 23 ");
}

TEST_F(AskMergeTest, AFrameHeldLongerThanTheLimitGoesOutAlone)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 980, 1910));
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);  // taken and held: the second reader has not said a word
    EXPECT_TRUE(out.empty());
    clock.Advance(CDataManager::kHoldLimitMs + 1);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.PacketData, "03 05 06 ");
}

TEST_F(AskMergeTest, SettlingReleasesEverythingHeldAtOnce)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 980, 1910));
    dm.AddWireFrames({WireFrame({0x04, 0x40, 0x44}, 3000, 3900)}, 0);
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);
    EXPECT_TRUE(out.empty());
    dm.SettleHeldFrames();
    const auto events = Drain();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->packet.PacketData, "03 05 06 ");
    EXPECT_EQ(events[1]->packet.PacketData, "04 40 44 ");
    EXPECT_EQ(events[1]->packet.reading, "recovered");
}

TEST_F(AskMergeTest, FramesOfBothReadersGoOutInCaptureOrder)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 1000, 1900));
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x06, 0x05}, 9000, 9900));
    // The identification between them, which the list decoder never reads.
    dm.AddWireFrames({WireFrame({0x71, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x71 ^ 0x11 ^ 0x22 ^ 0x33 ^ 0x44 ^ 0x55 ^ 0x66 ^ 0x77}, 4000, 6500)},
                     12000);
    dm.ListDecoderPassed(12000);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]->packet.PacketData, "03 05 06 ");
    EXPECT_EQ(events[1]->type, 0x71);
    EXPECT_EQ(events[1]->packet.reading, "recovered");
    EXPECT_EQ(events[2]->packet.PacketData, "03 06 05 ");
}

TEST_F(AskMergeTest, WithTheSecondReaderOffTheListDecodersFramesGoStraightThrough)
{
    dm.SetSecondAskReader(false);
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x10, 0x13}, 980, 1910));
    dm.AddWireFrames({WireFrame({0x03, 0x20, 0x23}, 1000, 1900)}, 2500);
    std::vector<MsgInfoPtr> first;
    dm.GetEvents(first);
    clock.Advance(1001);
    std::vector<MsgInfoPtr> events;
    dm.GetEvents(events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.PacketData, "03 10 13 ");
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(dm.Merges().recovered + dm.Merges().corrected + dm.Merges().agreed, 0);
}

TEST_F(AskMergeTest, ClearForgetsWhatIsHeld)
{
    dm.AddWireFrames({WireFrame({0x03, 0x05, 0x06}, 1000, 1900)}, 2500);
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);  // held: the list decoder has said nothing yet
    dm.Clear();
    dm.ListDecoderPassed(2500);
    EXPECT_TRUE(Drain().empty());
}

TEST_F(AskMergeTest, TheMarkAndTheOtherReadingAreRecordFieldsOnlyWhereSet)
{
    MsgInfo plain;
    plain.packet.PacketData = "03 05 06 ";
    const std::string plainJson = plain.ToJson();
    EXPECT_EQ(plainJson.find("reading"), std::string::npos);

    MsgInfo corrected;
    corrected.packet.PacketData = "03 20 23 ";
    corrected.packet.reading = "corrected";
    corrected.packet.otherReading = "03 10 13 ";
    MsgInfo back;
    back.FromJson(corrected.ToJson());
    EXPECT_EQ(back.packet.reading, "corrected");
    EXPECT_EQ(back.packet.otherReading, "03 10 13 ");
}

namespace {

// What the second reader read of a packet it began and could not finish.
AskWireFrame FailedReading(const std::vector<uint8_t>& bytesWhole, std::vector<uint8_t> bits, uint64_t first,
                           uint64_t last)
{
    AskWireFrame w;
    w.good = false;
    w.bytes = bytesWhole;
    w.bits = std::move(bits);
    w.firstSample = first;
    w.startBitSample = first + 220;
    w.endSample = last;
    w.samplesPerBit = 20.0;
    return w;
}

// The bits of whole bytes as sent: start 0, data LSB first, odd parity, stop 1.
std::vector<uint8_t> BitsOf(const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> bits;
    for (uint8_t b : bytes) {
        bits.push_back(0);
        int ones = 0;
        for (int i = 0; i < 8; ++i) {
            bits.push_back((b >> i) & 1);
            ones += (b >> i) & 1;
        }
        bits.push_back(ones % 2 ? 0 : 1);
        bits.push_back(1);
    }
    return bits;
}

}  // namespace

TEST_F(AskMergeTest, AGoodListFrameAgainstTheLengthRuleGoesOutAsAnError)
{
    // 0x20 announces two message bytes: 20 00 20 is one short, XOR or not.
    dm.AskFilter().PutFrame(ListFrame({0x20, 0x00, 0x20}, 980, 1910));
    BothPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "Error");
    EXPECT_EQ(events[0]->packet.reading, "refused");
    EXPECT_EQ(events[0]->str.toStdString(), "ChecksumError 20 00 20 ");
    EXPECT_EQ(events[0]->eventG.failureCount, 1);
    EXPECT_EQ(dm.Merges().refused, 1);
}

TEST_F(AskMergeTest, AGoodListFrameThatKeepsTheLengthRuleStands)
{
    dm.AskFilter().PutFrame(ListFrame({0x10, 0x00, 0x10}, 980, 1910));
    BothPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(dm.Merges().refused + dm.Merges().disputed, 0);
}

// The one-bit-late reading of 20 00 20: the list decoder's 10 00 10 keeps the
// length rule and its XOR, but the second reader read 20 00 20 off the same
// span (and then found the packet short): the bits contradict each other.
TEST_F(AskMergeTest, AListFrameContradictedByWhatTheSecondReaderReadThereIsDisputed)
{
    dm.AskFilter().PutFrame(ListFrame({0x10, 0x00, 0x10}, 980, 1910));
    dm.AddWireFrames({FailedReading({0x20, 0x00, 0x20}, BitsOf({0x20, 0x00, 0x20}), 1000, 1890)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);  // the failed reading is never shown itself
    EXPECT_EQ(events[0]->packet.Status, "Error");
    EXPECT_EQ(events[0]->packet.reading, "disputed");
    EXPECT_EQ(events[0]->packet.PacketData, "10 00 10 ");
    EXPECT_EQ(events[0]->packet.otherReading, "20 00 20 ");
    EXPECT_EQ(events[0]->str.toStdString(), "ChecksumError 10 00 10 ");
    EXPECT_EQ(dm.Merges().disputed, 1);
}

TEST_F(AskMergeTest, AFailedReadingThatAgreesAsFarAsItGotLeavesTheListFrameStanding)
{
    // The second reader lost the packet in its checksum byte; up to there its
    // bits are the list decoder's.
    auto bits = BitsOf({0x03, 0x05, 0x06});
    bits.resize(27);
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 980, 1910));
    dm.AddWireFrames({FailedReading({0x03, 0x05}, bits, 1000, 1700)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
    EXPECT_EQ(events[0]->packet.PacketData, "03 05 06 ");
    EXPECT_EQ(dm.Merges().disputed, 0);
}

TEST_F(AskMergeTest, AFailedReadingThatGoesOnPastTheListFrameDisputesIt)
{
    // The envelope went on after the three bytes the list decoder read: the
    // packet is longer than 03 5A 59, whose XOR holds by chance.
    auto bits = BitsOf({0x03, 0x5A, 0x59});
    bits.push_back(0);
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x5A, 0x59}, 980, 1910));
    dm.AddWireFrames({FailedReading({0x03, 0x5A, 0x59}, bits, 1000, 1900)}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "Error");
    EXPECT_EQ(events[0]->packet.reading, "disputed");
    EXPECT_EQ(dm.Merges().disputed, 1);
}

TEST_F(AskMergeTest, AFailedReadingElsewhereDoesNotTouchTheListFrame)
{
    dm.AskFilter().PutFrame(ListFrame({0x10, 0x00, 0x10}, 980, 1910));
    dm.AddWireFrames({FailedReading({0x20, 0x00, 0x20}, BitsOf({0x20, 0x00, 0x20}), 3000, 3890)}, 4500);
    dm.ListDecoderPassed(4500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
}

// Two good readings that differ, the second not firm on its bit clock: the
// signal does not say which is right. Shown as an error with both readings,
// and counted.
TEST_F(AskMergeTest, TwoGoodReadingsThatDifferWhereTheSignalCannotTellAreShownWithBoth)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x10, 0x13}, 980, 1910));
    AskWireFrame w = WireFrame({0x03, 0x20, 0x23}, 1000, 1900);
    w.drift = CDataManager::kFirmDrift + 0.05;
    dm.AddWireFrames({w}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "Error");
    EXPECT_EQ(events[0]->packet.reading, "disputed");
    EXPECT_EQ(events[0]->packet.PacketData, "03 20 23 ");
    EXPECT_EQ(events[0]->packet.otherReading, "03 10 13 ");
    EXPECT_EQ(events[0]->str.toStdString(), "ChecksumError 03 20 23 ");
    EXPECT_EQ(dm.Merges().disputed, 1);
    EXPECT_EQ(dm.Merges().corrected, 0);
}

TEST_F(AskMergeTest, TwoGoodReadingsThatDifferWhereTheSecondIsFirmAreCorrectedWithBoth)
{
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x10, 0x13}, 980, 1910));
    AskWireFrame w = WireFrame({0x03, 0x20, 0x23}, 1000, 1900);
    w.drift = CDataManager::kFirmDrift - 0.05;
    dm.AddWireFrames({w}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
    EXPECT_EQ(events[0]->packet.reading, "corrected");
    EXPECT_EQ(events[0]->packet.otherReading, "03 10 13 ");
    EXPECT_EQ(dm.Merges().corrected, 1);
    EXPECT_EQ(dm.Merges().disputed, 0);
}

TEST_F(AskMergeTest, AnErrorFrameOfTheListDecoderIsCorrectedEvenByALooseReading)
{
    // Only one good reading: nothing to dispute.
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x20, 0x13}, 980, 1910, "Error"));
    AskWireFrame w = WireFrame({0x03, 0x20, 0x23}, 1000, 1900);
    w.drift = CDataManager::kFirmDrift + 0.1;
    dm.AddWireFrames({w}, 2500);
    dm.ListDecoderPassed(2500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
    EXPECT_EQ(events[0]->packet.reading, "corrected");
}

// The samples under a good list frame hold no packet at all (idle with a
// little noise): the second reader, reading the span again, finds nothing,
// and nothing in the signal supports the reading. It goes out as an error.
TEST_F(AskMergeTest, AListFrameOverSamplesWithNoPacketIsShownAsUnconfirmed)
{
    std::vector<int32_t> idle(4000);
    for (size_t i = 0; i < idle.size(); ++i)
        idle[i] = 1000 + static_cast<int32_t>((i * 7919u) % 21u) - 10;
    dm.ReadWire(idle.data(), idle.size(), 0);
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 980, 1910));
    dm.ListDecoderPassed(4000);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "Error");
    EXPECT_EQ(events[0]->packet.reading, "unconfirmed");
    EXPECT_EQ(events[0]->packet.PacketData, "03 05 06 ");
    EXPECT_EQ(events[0]->str.toStdString(), "ChecksumError 03 05 06 ");
    EXPECT_EQ(dm.Merges().unconfirmed, 1);
    EXPECT_EQ(dm.Merges().agreed + dm.Merges().corrected + dm.Merges().disputed, 0);
}

// A list frame at the very start of the stream: fewer than 64 samples before
// it, no idle level to measure, so no second look; the frame stands.
TEST_F(AskMergeTest, AListFrameTooNearTheStreamsStartToReadAgainStands)
{
    std::vector<int32_t> idle(4000, 1000);
    dm.ReadWire(idle.data(), idle.size(), 500);
    dm.AskFilter().PutFrame(ListFrame({0x03, 0x05, 0x06}, 540, 1500));
    dm.ListDecoderPassed(4500);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(dm.Merges().unconfirmed, 0);
}

namespace {

// A clean packet with a preamble of nine ones (the Qi minimum is eleven),
// which the second reader does not take in a stream; its span in samples.
std::vector<int32_t> ShortPreamblePacket(const std::vector<uint8_t>& bytes, uint64_t& first, uint64_t& last)
{
    qisim::AskWaveParams p;
    p.idleLevel = 800;
    p.swing = 1200;
    qisim::AskWaveWriter w(p, 11);
    w.Idle(1000);
    first = w.Packet(bytes, 9);
    last = w.Samples().size();
    w.Idle(3000);
    const auto& samples = w.Samples();
    return std::vector<int32_t>(samples.begin(), samples.end());
}

}  // namespace

// A receiver that sends too short a preamble: the list decoder reads the
// packet, the second reader in the stream does not; read once more taking
// short preambles, the signal gives the same bytes and the frame stands.
TEST_F(AskMergeTest, AListFrameWithATooShortPreambleIsConfirmedByTheSignal)
{
    uint64_t first = 0, last = 0;
    const auto samples = ShortPreamblePacket(qisim::WithChecksum({0x03, 0x05}), first, last);
    dm.ReadWire(samples.data(), samples.size(), 0);
    dm.AskFilter().PutFrame(ListFrame(qisim::WithChecksum({0x03, 0x05}), first, last));
    dm.ListDecoderPassed(samples.size());
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "NoError");
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(dm.Merges().agreed, 1);
    EXPECT_EQ(dm.Merges().unconfirmed, 0);
}

// The same short-preamble packet under a list frame of other bytes: the
// reading that takes short preambles only confirms, it never corrects, so
// the list decoder's frame is unconfirmed.
TEST_F(AskMergeTest, AShortPreambleReadingNeverPutsOtherBytesInTheListFramesPlace)
{
    uint64_t first = 0, last = 0;
    const auto samples = ShortPreamblePacket(qisim::WithChecksum({0x03, 0x05}), first, last);
    dm.ReadWire(samples.data(), samples.size(), 0);
    dm.AskFilter().PutFrame(ListFrame(qisim::WithChecksum({0x03, 0x0A}), first, last));
    dm.ListDecoderPassed(samples.size());
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.Status, "Error");
    EXPECT_EQ(events[0]->packet.reading, "unconfirmed");
    EXPECT_EQ(events[0]->packet.PacketData, "03 0A 09 ");
    EXPECT_EQ(dm.Merges().corrected + dm.Merges().agreed, 0);
}
