// The dispatcher's tables: which class decodes a frame, which slot receives it,
// and what the frame becomes when no row fits.
#include "common/TimeText.h"
#include "packets/Interface.h"
#include "packets/RecordingCallback.h"

#include <gtest/gtest.h>

#include <set>

namespace {

struct Row {
    uint8_t header;
    const char* className;
    uint8_t size;
    int checksumFrom;  // frame index stored as checksum; -1: none (stays 0)
    const char* slot;
    const char* typeString;  // nullptr: by value
};

const Row kAskRows[] = {
    {0x01, "SignalStrength", 1, 2, "OnSignalStrength", "SignalStrength "},
    {0x02, "EndPowerTransfer", 1, 2, "OnEndPowerTransfer", "EndPowerTransfer "},
    {0x03, "ControlError", 1, 2, "OnControlError", "ControlError "},
    {0x04, "ReceivedPower", 1, 2, "OnReceivedPower", "ReceivedPower "},
    {0x05, "ChargeStatus", 1, 2, "OnChargeStatus", "ChargeStatus "},
    {0x06, "PowerControlHoldOff", 1, 2, "OnPowerControlHoldOff", "PowerControlHoldOff "},
    {0x07, "GeneralRequest", 1, 2, "OnGeneralRequest", nullptr},
    {0x09, "Renegotiate", 1, 2, "OnRenegotiate", "Renegotiate "},
    {0x18, "CloakRequest", 1, 2, "OnPacket", "CloakRequest "},
    {0x19, "ExControlError", 1, 2, "OnExControlError", "ExControlError "},
    {0x20, "SpecificRequest", 2, 3, "OnSpecificRequest", "Specific Request "},
    {0x22, "FODStatus", 2, 3, "OnFODStatus", "FOD Status Packet"},
    {0x28, "GetRequest", 2, 3, "OnPacket", "GetRequest "},
    {0x29, "EnableDataStreams", 2, 3, "OnPacket", "EnableDataStreams "},
    {0x31, "ReceivedPower1_2_2", 3, 4, "OnReceivedPower1_2_2", "ReceivedPower "},
    {0x38, "SimultaneousDataStreamResponse", 3, 4, "OnSimultaneousDataStreamResponse", "SDSR "},
    {0x48, "SimultaneousAuxiliaryDataControl", 5, 5, "OnSimultaneousAuxiliaryDataControl", "SADC "},
    {0x51, "Configuration", 5, 6, "OnConfiguration", "Configuration "},
    {0x54, "WPIDMost", 5, 7, "OnWPIDMost", "Wireless Power ID "},
    {0x55, "WPIDLast", 5, 7, "OnWPIDLast", "Wireless Power ID "},
    {0x58, "REPORT_PLA", 5, 6, "OnPacket", "Report "},
    {0x71, "Identification", 7, 8, "OnIdentification", "Identification "},
    {0x78, "PLAP", 5, 6, "OnPacket", "PLAP "},
    {0x81, "ExtendedIdentification", 8, 9, "OnExtendedIdentification", "ExtendedIdentification "},
    {0x84, "ExtendedPowerReceiverCapabilities", 3, 4, "OnPacket", "Extended Power Receiver Capabilities "},
};

const Row kFskRows[] = {
    {0x00, "FSKDataNotAvailable", 1, -1, "OnFSKDataNotAvailable", "Power Transmitter Data Not Available"},
    {0x01, "FSKErrorStatus", 1, -1, "OnPacket", "Error Status "},
    {0x1E, "FSKCLOAKRCS", 1, -1, "OnPacket", nullptr},
    {0x1F, "FSKChargeStatus", 1, -1, "OnPacket", "Charge Status "},
    {0x2E, "FSKGetRequest", 2, -1, "OnPacket", "GetRequest "},
    {0x2F, "FSKEDS", 2, -1, "OnPacket", " Enabled Data Streams "},
    {0x30, "FSKIdentification", 3, -1, "OnFSKIdentification", "Power Transmitter Identification"},
    {0x31, "FSKCapability", 3, -1, "OnFSKCapability", "Power Transmitter Capability"},
    {0x3F, "FSKINVSDSRKEST", 3, -1, "OnPacket", nullptr},
    {0x4F, "SimultaneousAuxiliaryDataControl", 5, 5, "OnPacket", "SADC "},
    {0x5F, "FSKPLAP", 5, -1, "OnPacket", " Power Loss Accounting Parameters "},
    {0x8F, "FSKXIDECAP", 9, -1, "OnPacket", nullptr},
};

// A raw frame whose byte i is 0x40 + i but for the header.
std::shared_ptr<CMsgData> Frame(uint8_t header, uint32_t direction, size_t n = 12)
{
    std::vector<uint8_t> bytes(n);
    bytes[0] = header;
    for (size_t i = 1; i < n; ++i)
        bytes[i] = static_cast<uint8_t>(0x40 + i);
    auto f = std::make_shared<CMsgData>();
    f->SetFrame(bytes.data(), bytes.size());
    f->direction = direction;
    f->packet.Status = "NoError";
    return f;
}

DispatchedPacket DispatchOne(const std::shared_ptr<CMsgData>& frame)
{
    RecordingCallback cb;
    CInterface d;
    d.SetCallback(&cb);
    d.Receive(frame);
    EXPECT_EQ(cb.calls.size(), 1u);
    return cb.calls.empty() ? DispatchedPacket{} : cb.calls.front();
}

void CheckRows(const Row* rows, size_t count, uint32_t direction)
{
    std::set<int> known;
    for (size_t k = 0; k < count; ++k) {
        const Row& r = rows[k];
        known.insert(r.header);
        auto frame = Frame(r.header, direction);
        frame->timing.startTime = 1234;
        frame->packet.premambleCount = 17;
        const DispatchedPacket p = DispatchOne(frame);
        SCOPED_TRACE(r.className);
        EXPECT_EQ(p.className, r.className);
        EXPECT_EQ(p.slot, r.slot);
        EXPECT_EQ(p.header, r.header);
        EXPECT_EQ(p.size, r.size);
        EXPECT_EQ(p.checksum, r.checksumFrom < 0 ? 0 : 0x40 + r.checksumFrom);
        EXPECT_EQ(p.direction, direction);
        if (r.typeString) {
            EXPECT_EQ(p.typeString, r.typeString);
        }
        // The 24-bit received power ends its text with the wall clock of each
        // call: its logData keeps the first evaluation.
        if (!(direction == 2 && r.header == 0x31)) {
            EXPECT_EQ(p.logData, p.typeString + p.summary);
        }
        // The packet's text goes back into the raw frame.
        EXPECT_EQ(frame->logData, p.logData);
    }
    for (int h = 0; h < 256; ++h) {
        if (known.count(h))
            continue;
        if (h == 0 && direction == 2)
            continue;  // the status test catches it first
        const DispatchedPacket p = DispatchOne(Frame(static_cast<uint8_t>(h), direction));
        EXPECT_EQ(p.slot, "OnProprietary") << h;
    }
}

class BlockCheck : public RecordingCallback {
public:
    void OnControlError(CMsgData& p) override
    {
        packet = p.packet;
        timing = p.timing;
        capture = p.capture;
        reserved1 = p.reserved1;
        RecordingCallback::OnControlError(p);
    }
    PacketRecord packet;
    TimingRecord timing;
    std::shared_ptr<TriggerData> capture;
    uint64_t reserved1 = 0;
};

}  // namespace

TEST(Dispatch, EveryAskHeaderPicksItsClassSlotSizeChecksumAndText)
{
    CheckRows(kAskRows, sizeof kAskRows / sizeof kAskRows[0], 2);
}

TEST(Dispatch, EveryFskHeaderPicksItsClassSlotSizeAndText)
{
    CheckRows(kFskRows, sizeof kFskRows / sizeof kFskRows[0], 1);
}

TEST(Dispatch, AnyDirectionButOneUsesTheAskTable)
{
    EXPECT_EQ(DispatchOne(Frame(0x03, 0)).className, "ControlError");
    EXPECT_EQ(DispatchOne(Frame(0x03, 7)).className, "ControlError");
}

TEST(Dispatch, AskFrameWithFirstByteZeroIsAChecksumErrorNotProprietary)
{
    auto f = Frame(0x00, 2);
    const DispatchedPacket p = DispatchOne(f);
    EXPECT_EQ(p.slot, "OnChecksumError");
    EXPECT_EQ(p.rawHex.substr(0, 6), "00 41 ");
}

TEST(Dispatch, FskFrameWithFirstByteZeroIsDataNotAvailable)
{
    const DispatchedPacket p = DispatchOne(Frame(0x00, 1));
    EXPECT_EQ(p.slot, "OnFSKDataNotAvailable");
    EXPECT_EQ(p.className, "FSKDataNotAvailable");
}

TEST(Dispatch, UnknownHeadersGoToProprietaryWithTheRawFrame)
{
    for (uint8_t h : {0x08, 0x0A, 0x85}) {
        const DispatchedPacket p = DispatchOne(Frame(h, 2, 3));
        EXPECT_EQ(p.slot, "OnProprietary") << int(h);
        EXPECT_TRUE(p.className.empty());
        EXPECT_EQ(p.rawHex, SpacedHex(std::vector<uint8_t>{h, 0x41, 0x42}.data(), 3));
    }
    for (uint8_t h : {0x02, 0x90, 0xFF}) {
        const DispatchedPacket p = DispatchOne(Frame(h, 1, 3));
        EXPECT_EQ(p.slot, "OnProprietary") << int(h);
    }
}

TEST(Dispatch, StatusMustBeExactlyNoError)
{
    for (const char* status : {"NoError ", "noerror", "NOERROR", "Error", ""}) {
        auto f = Frame(0x03, 2, 3);
        f->packet.Status = status;
        EXPECT_EQ(DispatchOne(f).slot, "OnChecksumError") << status;
    }
    auto f = Frame(0x03, 2, 3);
    EXPECT_EQ(DispatchOne(f).slot, "OnControlError");
}

TEST(Dispatch, SameHeaderMeansDifferentPacketsByDirection)
{
    EXPECT_EQ(DispatchOne(Frame(0x31, 2)).className, "ReceivedPower1_2_2");
    EXPECT_EQ(DispatchOne(Frame(0x31, 1)).className, "FSKCapability");
    EXPECT_EQ(DispatchOne(Frame(0x01, 2)).className, "SignalStrength");
    EXPECT_EQ(DispatchOne(Frame(0x01, 1)).className, "FSKErrorStatus");
}

TEST(Dispatch, Reserved7IsNeverCalled)
{
    RecordingCallback cb;
    CInterface d;
    d.SetCallback(&cb);
    for (uint32_t dir : {1u, 2u})
        for (int h = 0; h < 256; ++h)
            d.Receive(Frame(static_cast<uint8_t>(h), dir));
    for (const auto& c : cb.calls)
        EXPECT_NE(c.slot, "OnReserved7");
    EXPECT_EQ(cb.calls.size(), 512u);
}

TEST(Dispatch, ShortFrameReadsZerosAndIsNotRejected)
{
    // Identification takes seven message bytes; the frame has only two.
    auto f = std::make_shared<CMsgData>();
    const uint8_t bytes[] = {0x71, 0x12};
    f->SetFrame(bytes, 2);
    f->direction = 2;
    f->packet.Status = "NoError";
    const DispatchedPacket p = DispatchOne(f);
    EXPECT_EQ(p.slot, "OnIdentification");
    EXPECT_EQ(p.summary, "Identification: 1.2, 0x0000, 0x00000000, Ext 0");
}

TEST(Dispatch, WithNoCallbackNothingIsDecoded)
{
    CInterface d;
    testing::internal::CaptureStdout();
    d.Receive(Frame(0x51, 2));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "no callback,nothing to do\n");
    // No packet was built: the held configuration is still empty.
    EXPECT_EQ(d.HeldConfiguration().header, 0);
}

TEST(Dispatch, BlocksOfTheRawFrameAreCopiedIntoThePacket)
{
    auto f = Frame(0x03, 2, 3);
    f->timing.startTime = 777;
    f->timing.startTimeStamp = "00:00:00.000777";
    f->packet.premambleCount = 13;
    f->reserved1 = 99;
    f->capture = std::make_shared<TriggerData>();
    BlockCheck cb;
    CInterface d;
    d.SetCallback(&cb);
    d.Receive(f);
    EXPECT_EQ(cb.timing.startTime, 777u);
    EXPECT_EQ(cb.timing.startTimeStamp, "00:00:00.000777");
    EXPECT_EQ(cb.packet.premambleCount, 13u);
    EXPECT_EQ(cb.packet.Status, "NoError");
    EXPECT_EQ(cb.reserved1, 99u);
    EXPECT_EQ(cb.capture, f->capture);
}

TEST(Dispatch, HeldPacketsAreTheLastOnesAndResetEmptiesThem)
{
    RecordingCallback cb;
    CInterface d;
    d.SetCallback(&cb);
    auto conf = std::make_shared<CMsgData>();
    const uint8_t c[] = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x00};
    conf->SetFrame(c, sizeof c);
    conf->direction = 2;
    conf->packet.Status = "NoError";
    d.Receive(conf);
    auto ident = Frame(0x71, 2);
    d.Receive(ident);
    d.Receive(Frame(0x31, 1));
    d.Receive(Frame(0x81, 2));
    EXPECT_EQ(d.HeldConfiguration().header, 0x51);
    EXPECT_EQ(d.HeldConfiguration().contractText,
              "MaxPower=5W, GuarPower=5W, FSK = -78ns, Polarity=Negative, PktTpye=8Bit");
    EXPECT_EQ(d.HeldIdentification().header, 0x71);
    EXPECT_FALSE(d.HeldIdentification().versionText.empty());
    EXPECT_EQ(d.HeldFSKCapability().header, 0x31);
    EXPECT_EQ(d.HeldExtendedIdentification().header, 0x81);

    d.SetPowerReference(15);
    d.Reset();
    EXPECT_EQ(d.HeldConfiguration().header, 0);
    EXPECT_TRUE(d.HeldConfiguration().contractText.empty());
    EXPECT_EQ(d.HeldIdentification().header, 0);
    EXPECT_TRUE(d.HeldIdentification().versionText.empty());
    EXPECT_EQ(d.HeldFSKCapability().header, 0);
    EXPECT_EQ(d.HeldExtendedIdentification().header, 0);
    EXPECT_EQ(d.PowerReference(), 15);
}

TEST(Dispatch, PowerReferenceStartsAtFiveAndIsTruncated)
{
    CInterface d;
    EXPECT_EQ(d.PowerReference(), 5);
    d.SetPowerReference(31);
    EXPECT_EQ(d.PowerReference(), 31);
}

TEST(Dispatch, AcceptAlwaysAccepts)
{
    CInterface d;
    EXPECT_TRUE(d.Accept(Frame(0x03, 2)));
    EXPECT_TRUE(d.Accept(nullptr));
}

TEST(Dispatch, ReceivedPowerIsBuiltWithThePowerReference)
{
    RecordingCallback cb;
    CInterface d;
    d.SetCallback(&cb);
    auto rp = std::make_shared<CMsgData>();
    const uint8_t bytes[] = {0x04, 0x40, 0x44};
    rp->SetFrame(bytes, 3);
    rp->direction = 2;
    rp->packet.Status = "NoError";
    d.Receive(rp);
    d.SetPowerReference(10);
    d.Receive(rp);
    ASSERT_EQ(cb.calls.size(), 2u);
    EXPECT_EQ(cb.calls[0].summary, "50% 2.5W");
    EXPECT_EQ(cb.calls[1].summary, "50% 5W");
}
