#include "DataManagerFixture.h"
#include "common/TimeText.h"

#include <gtest/gtest.h>

namespace {

class DataManagerTest : public DataManagerFixture {
protected:

    static std::shared_ptr<CMsgData> Frame(std::vector<uint8_t> bytes, uint32_t direction = 2,
                                           uint64_t start = 0, bool capture = true)
    {
        auto f = std::make_shared<CMsgData>();
        f->SetFrame(bytes.data(), bytes.size());
        f->direction = direction;
        f->packet.Status = "NoError";
        f->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
        f->packet.numbytesInPacket = bytes.size();
        if (capture) {
            f->capture = std::make_shared<TriggerData>();
            f->capture->startTime = start;
            f->timing.startTime = start;
        }
        return f;
    }

    static std::shared_ptr<CMsgData> Pattern(uint8_t byte)
    {
        auto f = Frame({byte}, 1, 0, true);
        f->pattern = 1;
        return f;
    }

    // Dispatches and drains after the release delay.
    std::vector<MsgInfoPtr> Events(const std::shared_ptr<CMsgData>& frame)
    {
        dm.Dispatcher().Receive(frame);
        return Drain();
    }

};

}  // namespace

TEST_F(DataManagerTest, ControlErrorIsSpokenWithTheFrequency)
{
    const auto events = Events(Frame({0x03, 0xFF, 0xFC}));
    ASSERT_EQ(events.size(), 1u);
    const MsgInfo& e = *events[0];
    EXPECT_EQ(e.str.toStdString(), "ControlError -1.0% @0HZ");
    EXPECT_EQ(e.common.logData, "ControlError -1.0% @0HZ");
    EXPECT_EQ(e.common.typeString, "ControlError ");
    EXPECT_EQ(e.common.Summary, "-1.0%");
    EXPECT_EQ(e.type, 3);
    EXPECT_EQ(e.direction, 2);
    EXPECT_EQ(e.eventG.eventCount, 1);
    EXPECT_EQ(e.packet.controlErrorValue, -1.0f);
    EXPECT_EQ(e.packet.controlErrorFreq, 0);
    EXPECT_EQ(e.packet.Status, "NoError");
    EXPECT_TRUE(e.capture);
    EXPECT_EQ(dm.ControlErrorValue(), -1.0);
}

TEST_F(DataManagerTest, FrequencyIsTheOldestOfTheLastFiveValues)
{
    EXPECT_EQ(dm.CarrierFrequency(), 0.0);
    for (int k = 1; k <= 7; ++k)
        dm.PushFrequency(0.0, 100000.0 + k);
    // Seven pushed, five kept: the oldest kept is the third.
    EXPECT_EQ(dm.CarrierFrequency(), 100003.0);
    EXPECT_EQ(dm.FirstHistoryValue(), 0.0);
    const auto events = Events(Frame({0x03, 0x05, 0x06}));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "ControlError 5.0% @100003HZ");
    EXPECT_EQ(events[0]->packet.controlErrorFreq, 100003);
}

TEST_F(DataManagerTest, SignalStrengthPrintsTheFrequencyAsAFloat)
{
    dm.PushFrequency(0.0, 127999.5);
    const auto events = Events(Frame({0x01, 0x80, 0x81}));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->common.logData, "SignalStrength 50");
    EXPECT_EQ(events[0]->str.toStdString(), "SignalStrength 50%128000HZ");
}

TEST_F(DataManagerTest, PlainAndNamedForms)
{
    EXPECT_EQ(Texts(Events(Frame({0x06, 0x05, 0x03}))),
              std::vector<std::string>{"PowerControlHoldOff PowerControlHoldOff 5 ms"});
    const auto named = Events(Frame({0x07, 0x31, 0x36}));
    ASSERT_EQ(named.size(), 1u);
    EXPECT_EQ(named[0]->common.logData, named[0]->common.typeString + ": " + named[0]->common.Summary);
}

TEST_F(DataManagerTest, ChecksumErrorAndProprietary)
{
    auto bad = Frame({0x03, 0x05, 0x07});
    bad->packet.Status = "Error";
    auto events = Events(bad);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "ChecksumError 03 05 07 ");
    EXPECT_EQ(events[0]->common.logData, "ChecksumError 03 05 07 ");
    EXPECT_EQ(events[0]->common.Summary, "03 05 07 ");
    EXPECT_EQ(events[0]->common.typeString, "ChecksumError");
    EXPECT_EQ(events[0]->type, 255);
    EXPECT_EQ(events[0]->eventG.failureCount, 1);
    EXPECT_EQ(events[0]->eventG.warningCount, 0);

    events = Events(Frame({0x08, 0x01, 0x09}));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "Proprietary 08 01 09 ");
    EXPECT_EQ(events[0]->common.typeString, "Proprietary");
    EXPECT_EQ(events[0]->type, 255);
    EXPECT_EQ(events[0]->eventG.warningCount, 1);
    EXPECT_EQ(events[0]->eventG.failureCount, 0);
}

TEST_F(DataManagerTest, ConfigurationMakesStatusAndContractEvents)
{
    const auto events = Events(Frame({0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x00}));
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]->type, 0x51);
    EXPECT_EQ(events[1]->type, 258);
    EXPECT_EQ(events[1]->str.toStdString(), "Receiver Device Status : MaxPower=5W");
    EXPECT_EQ(events[1]->common.typeString, "Receiver Device Status");
    EXPECT_FALSE(events[1]->capture);
    EXPECT_EQ(events[2]->type, 259);
    EXPECT_EQ(events[2]->str.toStdString(),
              "Power Transfer Contract : MaxPower=5W, GuarPower=5W, FSK = -78ns, Polarity=Negative, PktTpye=8Bit");
    // The negotiated power is the raw 6-bit field of the first message byte.
    EXPECT_EQ(dm.NegotiatedPower(), 0x0A);
}

TEST_F(DataManagerTest, StatusEventNamesTheIdentificationWhenOneIsHeld)
{
    Events(Frame({0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04, 0x00}));
    const auto events = Events(Frame({0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x00}));
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1]->common.Summary, "v1.2, Mfr=0x002a, Dev=0x01020304, MaxPower=5W");
}

TEST_F(DataManagerTest, TwoConfigurationsMakeTwoStatusAndTwoContractEvents)
{
    dm.Dispatcher().Receive(Frame({0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x00}, 2, 10));
    dm.Dispatcher().Receive(Frame({0x51, 0x14, 0x00, 0x83, 0x0A, 0x00, 0x00}, 2, 20));
    const auto events = Drain();
    int status = 0, contract = 0;
    for (const auto& e : events) {
        status += e->type == 258;
        contract += e->type == 259;
    }
    EXPECT_EQ(status, 2);
    EXPECT_EQ(contract, 2);
}

TEST_F(DataManagerTest, AfterAViolationTheNextIdentificationStartsFromEmptyCaches)
{
    Events(Frame({0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04, 0x00}));
    EXPECT_FALSE(dm.Dispatcher().HeldIdentification().manufacturerText.empty());
    dm.ResetLink();
    dm.AddCepTimeout();
    const auto violation = Drain();
    ASSERT_EQ(violation.size(), 1u);
    EXPECT_EQ(violation[0]->str.toStdString(), "Violation: CEP Timeout");
    EXPECT_EQ(violation[0]->common.typeString, "Violation");
    EXPECT_EQ(violation[0]->common.Summary, "CEP Timeout");
    EXPECT_EQ(violation[0]->type, 256);
    EXPECT_EQ(violation[0]->direction, 0);
    EXPECT_TRUE(dm.Dispatcher().HeldIdentification().manufacturerText.empty());
    // A Configuration now finds no Identification.
    const auto events = Events(Frame({0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x00}));
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1]->common.Summary, "MaxPower=5W");
}

TEST_F(DataManagerTest, ResetLinkForgetsPowerButKeepsTheTally)
{
    Events(Frame({0x04, 0x40, 0x44}));
    EXPECT_EQ(dm.ReceivedPowerRaw(), 0x40);
    EXPECT_DOUBLE_EQ(dm.ReceivedPowerPercent(), 50.0);
    EXPECT_DOUBLE_EQ(dm.ReceivedPowerValue(), 2.5);
    dm.AddGoodPacket();
    dm.SetLastLevelChange(77);
    dm.AskFilter().SetPhase(5);
    dm.ResetLink();
    EXPECT_EQ(dm.ReceivedPowerRaw(), 0);
    EXPECT_EQ(dm.ReceivedPowerPercent(), 0.0);
    EXPECT_EQ(dm.ReceivedPowerValue(), 0.0);
    EXPECT_EQ(dm.ControlErrorValue(), 0.0);
    EXPECT_EQ(dm.LastLevelChange(), 0);
    EXPECT_EQ(dm.AskFilter().Phase(), 0);
    EXPECT_EQ(dm.GoodPackets(), 1);
}

TEST_F(DataManagerTest, ReceivedPowerOf24BitsIsBigEndianOver32768)
{
    Events(Frame({0x31, 0x00, 0x40, 0x00, 0x71}));
    EXPECT_EQ(dm.ReceivedPowerRaw(), 0x4000);
    EXPECT_DOUBLE_EQ(dm.ReceivedPowerPercent(), 50.0);
}

TEST_F(DataManagerTest, FskCapabilityAndSpecificRequestSetTheNegotiatedPower)
{
    Events(Frame({0x31, 0x0A, 0x14, 0x03, 0x00}, 1));
    EXPECT_EQ(dm.NegotiatedPower(), 0x14);
}

TEST_F(DataManagerTest, QueueOfOneOrTwoReleasesNothingBeforeASecond)
{
    dm.Dispatcher().Receive(Frame({0x03, 0x00, 0x03}, 2, 100));
    dm.Dispatcher().Receive(Frame({0x03, 0x01, 0x02}, 2, 200));
    std::vector<MsgInfoPtr> out;
    for (int k = 0; k < 100; ++k) {
        clock.Advance(10);
        dm.GetEvents(out);
        EXPECT_TRUE(out.empty());
    }
    clock.Advance(1);
    dm.GetEvents(out);
    EXPECT_EQ(out.size(), 2u);
}

TEST_F(DataManagerTest, EventWithoutCaptureLeavesAtOnceWithThreeQueued)
{
    dm.AddCepTimeout();
    dm.Dispatcher().Receive(Frame({0x03, 0x00, 0x03}, 2, 100));
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);
    EXPECT_TRUE(out.empty());
    dm.Dispatcher().Receive(Frame({0x03, 0x01, 0x02}, 2, 200));
    dm.GetEvents(out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->type, 256);
    EXPECT_EQ(dm.QueuedEvents(), 2u);
}

TEST_F(DataManagerTest, LateAskEventWithAnEarlierStartLeavesFirst)
{
    // An FSK response is queued first; the ASK request that came before it is
    // decoded later.
    dm.FskFilter().Emit(Frame({0x1F, 0x64, 0x7B}, 1, 5000));
    FskReadersPassed();
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);
    dm.Dispatcher().Receive(Frame({0x03, 0x00, 0x03}, 2, 1000));
    const auto events = Drain();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->type, 3);
    EXPECT_EQ(events[1]->direction, 1);
    EXPECT_EQ(events[1]->str.toStdString(), "Charge Status Battery charge level:100 @0HZ");
}

TEST_F(DataManagerTest, PatternsAreNamedAndAnUnnamedByteKeepsItsHex)
{
    FskReadersPassed();
    dm.AskFilter().SetPhase(5);
    dm.FskFilter().Emit(Pattern(0xFF));
    dm.FskFilter().Emit(Pattern(0x55));
    dm.FskFilter().Emit(Pattern(0x88));
    const auto events = Drain();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]->str.toStdString(), "Pattern: ACK");
    EXPECT_EQ(events[0]->common.logData, "Tx Pattern: ACK");
    EXPECT_EQ(events[0]->common.typeString, "Tx Pattern");
    EXPECT_EQ(events[0]->common.Summary, "ACK");
    EXPECT_EQ(events[0]->type, 240);
    EXPECT_EQ(events[0]->direction, 1);
    EXPECT_EQ(events[1]->common.Summary, "55 ");
    EXPECT_EQ(events[1]->str.toStdString(), "Pattern: 55 ");
    EXPECT_EQ(events[2]->common.Summary, "MPP");
    EXPECT_EQ(PatternName(0xBB), "ND");
}

TEST_F(DataManagerTest, NakIsShownInNegotiationOnly)
{
    FskReadersPassed();
    dm.AskFilter().SetPhase(3);
    dm.FskFilter().Emit(Pattern(0x00));
    auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "Pattern: NAK");
    dm.AskFilter().SetPhase(5);
    dm.FskFilter().Emit(Pattern(0x00));
    dm.FskFilter().Emit(Pattern(0xBB));
    EXPECT_TRUE(Drain().empty());
    // ACK is shown in every phase.
    for (int phase : {0, 1, 2, 3, 5}) {
        dm.AskFilter().SetPhase(phase);
        dm.FskFilter().Emit(Pattern(0xFF));
        EXPECT_EQ(Drain().size(), 1u) << phase;
    }
}

TEST_F(DataManagerTest, DigitalPingGoesStraightToTheQueue)
{
    auto ping = std::make_shared<DigitalPingInfo>();
    ping->label = "Digital Ping ";
    ping->detail = "65ms @ 128000HZ";
    ping->text = ping->label + ping->detail;
    ping->startUs = 1000;
    ping->endUs = 66000;
    ping->durationUs = 65000;
    ping->frequency = 128000;
    dm.AddDigitalPing(ping);
    EXPECT_EQ(dm.QueuedEvents(), 1u);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "Digital Ping 65ms @ 128000HZ");
    EXPECT_EQ(events[0]->type, 253);
    EXPECT_EQ(events[0]->direction, 1);
    EXPECT_EQ(events[0]->eventG.eventCount, 1);
    EXPECT_EQ(events[0]->timing.startTime, 1000u);
}

TEST_F(DataManagerTest, AskFramesArePumpedFromTheDecoderOutput)
{
    // A frame that the ASK decoder emitted is dispatched by the drain.
    auto& filter = dm.AskFilter();
    auto& h = filter.Hypotheses();
    auto r = std::make_shared<RecvDec>();
    const uint8_t bytes[] = {0x03, 0xFF, 0xFC};
    std::copy(bytes, bytes + 3, r->bytes);
    r->length = 3;
    h.push_back(r);
    auto burst = std::make_shared<TriggerData>();
    EXPECT_EQ(filter.SyncHeadEnd(burst, 21, 0), 3);
    // Both ASK readers have looked past the burst: the frame is not held.
    dm.ListDecoderPassed(1);
    dm.AddWireFrames({}, 1);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->str.toStdString(), "ControlError -1.0% @0HZ");
    EXPECT_EQ(events[0]->packet.premambleCount, 11u);
}

TEST_F(DataManagerTest, ClearEmptiesQueueOutputPhaseAndCounters)
{
    dm.Dispatcher().Receive(Frame({0x03, 0x00, 0x03}));
    dm.AskFilter().SetPhase(3);
    dm.AskFilter().SetDecodedFrames(12);
    dm.Clear();
    EXPECT_EQ(dm.QueuedEvents(), 0u);
    EXPECT_EQ(dm.AskFilter().Phase(), 0);
    EXPECT_EQ(dm.FilterCounters(), 0u);
    EXPECT_TRUE(Drain().empty());
}

TEST_F(DataManagerTest, FilterCountersArePackedMismatchesHighFramesLow)
{
    dm.AskFilter().SetDecodedFrames(7);
    EXPECT_EQ(dm.FilterCounters(), 7u);
}

TEST_F(DataManagerTest, EveryEventInTheQueueHasEventCountOne)
{
    dm.Dispatcher().Receive(Frame({0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x00}));
    dm.Dispatcher().Receive(Frame({0x08, 0x00, 0x08}));
    dm.AddCepTimeout();
    for (const auto& e : Drain())
        EXPECT_EQ(e->eventG.eventCount, 1);
}
