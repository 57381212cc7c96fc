// What every packet class shares: the header tables (header, size, checksum,
// typeString), the empty instance, text written rather than appended, and
// copies whose views point at their own bytes.
#include "packets/Packets.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace {

using Frame = std::array<uint8_t, CMsgData::kFrameArea>;

std::string TypeOf(CMsgData& p)
{
    std::string s;
    p.typeString(s);
    return s;
}

std::string SummaryOf(CMsgData& p)
{
    std::string s;
    p.Summary(s);
    return s;
}

// A frame whose bytes are all different: the header, then 0xA1, 0xA2, ...
Frame Numbered(uint8_t header)
{
    Frame f{};
    f[0] = header;
    for (size_t i = 1; i < f.size(); ++i)
        f[i] = static_cast<uint8_t>(0xA0 + i);
    return f;
}

struct Row {
    const char* name;
    uint8_t header;
    uint8_t size;
    int checksumFrom;              // frame index of the checksum, -1 for none
    std::vector<int> taken;        // frame indices of m0, m1, ...
    const char* type;              // typeString for the numbered frame
    std::function<std::unique_ptr<CMsgData>(const uint8_t*)> make;
};

std::vector<int> Run(int first, int count)
{
    std::vector<int> v;
    for (int i = 0; i < count; ++i)
        v.push_back(first + i);
    return v;
}

template <class T>
std::function<std::unique_ptr<CMsgData>(const uint8_t*)> Make()
{
    return [](const uint8_t* f) { return std::unique_ptr<CMsgData>(new T(f)); };
}

template <class T>
std::function<std::unique_ptr<CMsgData>(const uint8_t*)> MakeWithReference(int reference)
{
    return [reference](const uint8_t* f) { return std::unique_ptr<CMsgData>(new T(f, reference)); };
}

std::vector<Row> AskRows()
{
    return {
        {"SignalStrength", 0x01, 1, 2, Run(1, 1), "SignalStrength ", Make<SignalStrength>()},
        {"EndPowerTransfer", 0x02, 1, 2, Run(1, 1), "EndPowerTransfer ", Make<EndPowerTransfer>()},
        {"ControlError", 0x03, 1, 2, Run(1, 1), "ControlError ", Make<ControlError>()},
        {"ReceivedPower", 0x04, 1, 2, Run(1, 1), "ReceivedPower ", MakeWithReference<ReceivedPower>(5)},
        {"ChargeStatus", 0x05, 1, 2, Run(1, 1), "ChargeStatus ", Make<ChargeStatus>()},
        {"PowerControlHoldOff", 0x06, 1, 2, Run(1, 1), "PowerControlHoldOff ", Make<PowerControlHoldOff>()},
        {"GeneralRequest", 0x07, 1, 2, Run(1, 1), "Reserved", Make<GeneralRequest>()},
        {"Renegotiate", 0x09, 1, 2, Run(1, 1), "Renegotiate ", Make<Renegotiate>()},
        {"CloakRequest", 0x18, 1, 2, Run(1, 1), "CloakRequest ", Make<CloakRequest>()},
        {"ExControlError", 0x19, 1, 2, Run(1, 1), "ExControlError ", Make<ExControlError>()},
        {"SpecificRequest", 0x20, 2, 3, Run(1, 2), "Specific Request ", Make<SpecificRequest>()},
        {"FODStatus", 0x22, 2, 3, Run(1, 2), "FOD Status Packet", Make<FODStatus>()},
        {"GetRequest", 0x28, 2, 3, Run(1, 2), "GetRequest ", Make<GetRequest>()},
        {"EnableDataStreams", 0x29, 2, 3, Run(1, 2), "EnableDataStreams ", Make<EnableDataStreams>()},
        {"ReceivedPower1_2_2", 0x31, 3, 4, Run(1, 3), "ReceivedPower ",
         MakeWithReference<ReceivedPower1_2_2>(5)},
        {"SimultaneousDataStreamResponse", 0x38, 3, 4, Run(1, 3), "SDSR ",
         Make<SimultaneousDataStreamResponse>()},
        {"SimultaneousAuxiliaryDataControl", 0x48, 5, 5, Run(1, 5), "SADC ",
         Make<SimultaneousAuxiliaryDataControl>()},
        {"Configuration", 0x51, 5, 6, Run(1, 5), "Configuration ", Make<Configuration>()},
        {"WPIDMost", 0x54, 5, 7, {1, 2, 3, 4, 6}, "Wireless Power ID ", Make<WPIDMost>()},
        {"WPIDLast", 0x55, 5, 7, {1, 2, 3, 4, 6}, "Wireless Power ID ", Make<WPIDLast>()},
        {"REPORT_PLA", 0x58, 5, 6, Run(1, 5), "Report ", Make<REPORT_PLA>()},
        {"Identification", 0x71, 7, 8, Run(1, 7), "Identification ", Make<Identification>()},
        {"PLAP", 0x78, 5, 6, Run(1, 5), "PLAP ", Make<PLAP>()},
        {"ExtendedIdentification", 0x81, 8, 9, Run(1, 8), "ExtendedIdentification ",
         Make<ExtendedIdentification>()},
        {"ExtendedPowerReceiverCapabilities", 0x84, 3, 4, Run(1, 3),
         "Extended Power Receiver Capabilities ", Make<ExtendedPowerReceiverCapabilities>()},
    };
}

std::vector<Row> FskRows()
{
    return {
        {"FSKDataNotAvailable", 0x00, 1, -1, Run(1, 1), "Power Transmitter Data Not Available",
         Make<FSKDataNotAvailable>()},
        {"FSKErrorStatus", 0x01, 1, -1, Run(1, 1), "Error Status ", Make<FSKErrorStatus>()},
        {"FSKCLOAKRCS", 0x1E, 1, -1, Run(1, 1), "Reserved ", Make<FSKCLOAKRCS>()},
        {"FSKChargeStatus", 0x1F, 1, -1, Run(1, 1), "Charge Status ", Make<FSKChargeStatus>()},
        {"FSKGetRequest", 0x2E, 2, -1, Run(1, 2), "GetRequest ", Make<FSKGetRequest>()},
        {"FSKEDS", 0x2F, 2, -1, Run(1, 2), " Enabled Data Streams ", Make<FSKEDS>()},
        {"FSKIdentification", 0x30, 3, -1, Run(1, 3), "Power Transmitter Identification",
         Make<FSKIdentification>()},
        {"FSKCapability", 0x31, 3, -1, Run(1, 3), "Power Transmitter Capability", Make<FSKCapability>()},
        {"FSKINVSDSRKEST", 0x3F, 3, -1, Run(1, 3), "Reserved ", Make<FSKINVSDSRKEST>()},
        {"SimultaneousAuxiliaryDataControl", 0x4F, 5, 5, Run(1, 5), "SADC ",
         Make<SimultaneousAuxiliaryDataControl>()},
        {"FSKPLAP", 0x5F, 5, -1, Run(1, 5), " Power Loss Accounting Parameters ", Make<FSKPLAP>()},
        {"FSKXIDECAP", 0x8F, 9, -1, Run(1, 8), "Reserved ", Make<FSKXIDECAP>()},
    };
}

void CheckRow(const Row& row)
{
    SCOPED_TRACE(row.name);
    const Frame f = Numbered(row.header);
    std::unique_ptr<CMsgData> p = row.make(f.data());
    EXPECT_EQ(p->header, row.header);
    EXPECT_EQ(p->size, row.size);
    EXPECT_EQ(p->checksum, row.checksumFrom < 0 ? 0 : f[static_cast<size_t>(row.checksumFrom)]);
    for (size_t i = 0; i < CMsgData::kMessageBytes; ++i) {
        const uint8_t expected = i < row.taken.size() ? f[static_cast<size_t>(row.taken[i])] : 0;
        EXPECT_EQ(p->message[i], expected) << "message byte " << i;
    }
    EXPECT_EQ(TypeOf(*p), row.type);
    EXPECT_EQ(p->direction, 0u);
    EXPECT_EQ(p->pattern, 0);
    EXPECT_EQ(p->reservedFlag, 0);
    EXPECT_TRUE(p->packet.Status.empty());
    EXPECT_EQ(p->capture, nullptr);
    // logData is typeString followed by Summary; the one class with a clock in
    // its Summary is compared without the last twelve characters.
    const std::string joined = TypeOf(*p) + SummaryOf(*p);
    if (std::string(row.name) == "ReceivedPower1_2_2") {
        ASSERT_EQ(p->logData.size(), joined.size());
        EXPECT_EQ(p->logData.substr(0, joined.size() - 12), joined.substr(0, joined.size() - 12));
    } else {
        EXPECT_EQ(p->logData, joined);
    }
}

}  // namespace

TEST(PacketTables, AskClassesFollowTheirRow)
{
    for (const Row& row : AskRows())
        CheckRow(row);
}

TEST(PacketTables, FskClassesFollowTheirRowAndStoreNoChecksum)
{
    for (const Row& row : FskRows())
        CheckRow(row);
}

TEST(PacketTables, TextOperationsOverwriteTheirArgument)
{
    std::vector<Row> rows = AskRows();
    for (const Row& row : FskRows())
        rows.push_back(row);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Frame f = Numbered(row.header);
        std::unique_ptr<CMsgData> p = row.make(f.data());
        std::string type = "stale text";
        p->typeString(type);
        EXPECT_EQ(type, TypeOf(*p));
        std::string summary = "stale text";
        p->Summary(summary);
        EXPECT_EQ(summary.find("stale text"), std::string::npos);
    }
}

TEST(PacketTables, ShortFrameFromARawRecordReadsZeros)
{
    CMsgData raw;
    const uint8_t bytes[] = {0x71, 0x12};
    raw.SetFrame(bytes, sizeof bytes);
    const Frame area = raw.FrameArea();
    Identification id(area.data());
    EXPECT_EQ(id.header, 0x71);
    EXPECT_EQ(id.size, 7);
    EXPECT_EQ(id.checksum, 0);
    EXPECT_EQ(id.logData, "Identification Identification: 1.2, 0x0000, 0x00000000, Ext 0");
}

TEST(PacketTables, LongFrameIsCutAtTheClassSize)
{
    Frame f = Numbered(0x20);
    SpecificRequest r(f.data());
    EXPECT_EQ(r.size, 2);
    EXPECT_EQ(r.message[1], 0xA2);
    EXPECT_EQ(r.message[2], 0);
    EXPECT_EQ(r.checksum, 0xA3);
}

// --- Empty instances --------------------------------------------------------

namespace {

template <class T>
void ExpectEmpty(const char* name)
{
    SCOPED_TRACE(name);
    T p;
    EXPECT_EQ(p.header, 0);
    EXPECT_EQ(p.checksum, 0);
    EXPECT_EQ(p.size, 0);
    for (uint8_t b : p.message)
        EXPECT_EQ(b, 0);
    EXPECT_TRUE(p.logData.empty());
    EXPECT_EQ(p.powerValue, 0u);
    EXPECT_EQ(p.powerRatio, 0.0);
}

}  // namespace

TEST(EmptyInstance, EveryClassStartsWithZeroBytesAndNoText)
{
    ExpectEmpty<Configuration>("Configuration");
    ExpectEmpty<Identification>("Identification");
    ExpectEmpty<ExtendedIdentification>("ExtendedIdentification");
    ExpectEmpty<ExtendedPowerReceiverCapabilities>("ExtendedPowerReceiverCapabilities");
    ExpectEmpty<WPIDMost>("WPIDMost");
    ExpectEmpty<WPIDLast>("WPIDLast");
    ExpectEmpty<ControlError>("ControlError");
    ExpectEmpty<ExControlError>("ExControlError");
    ExpectEmpty<ReceivedPower>("ReceivedPower");
    ExpectEmpty<ReceivedPower1_2_2>("ReceivedPower1_2_2");
    ExpectEmpty<ChargeStatus>("ChargeStatus");
    ExpectEmpty<EndPowerTransfer>("EndPowerTransfer");
    ExpectEmpty<SignalStrength>("SignalStrength");
    ExpectEmpty<PowerControlHoldOff>("PowerControlHoldOff");
    ExpectEmpty<FODStatus>("FODStatus");
    ExpectEmpty<Renegotiate>("Renegotiate");
    ExpectEmpty<GeneralRequest>("GeneralRequest");
    ExpectEmpty<SpecificRequest>("SpecificRequest");
    ExpectEmpty<GetRequest>("GetRequest");
    ExpectEmpty<EnableDataStreams>("EnableDataStreams");
    ExpectEmpty<CloakRequest>("CloakRequest");
    ExpectEmpty<PLAP>("PLAP");
    ExpectEmpty<REPORT_PLA>("REPORT_PLA");
    ExpectEmpty<SimultaneousAuxiliaryDataControl>("SimultaneousAuxiliaryDataControl");
    ExpectEmpty<SimultaneousDataStreamResponse>("SimultaneousDataStreamResponse");
    ExpectEmpty<FSKEDS>("FSKEDS");
    ExpectEmpty<FSKCapability>("FSKCapability");
    ExpectEmpty<FSKIdentification>("FSKIdentification");
    ExpectEmpty<FSKXIDECAP>("FSKXIDECAP");
    ExpectEmpty<FSKINVSDSRKEST>("FSKINVSDSRKEST");
    ExpectEmpty<FSKCLOAKRCS>("FSKCLOAKRCS");
    ExpectEmpty<FSKChargeStatus>("FSKChargeStatus");
    ExpectEmpty<FSKDataNotAvailable>("FSKDataNotAvailable");
    ExpectEmpty<FSKErrorStatus>("FSKErrorStatus");
    ExpectEmpty<FSKGetRequest>("FSKGetRequest");
    ExpectEmpty<FSKPLAP>("FSKPLAP");
}

TEST(EmptyInstance, ViewsAreNullAndSummaryIsEmpty)
{
    Configuration c;
    Identification i;
    ExtendedIdentification x;
    ExtendedPowerReceiverCapabilities e;
    SimultaneousAuxiliaryDataControl a;
    SimultaneousDataStreamResponse r;
    FSKCapability fc;
    FSKIdentification fi;
    EXPECT_EQ(c.msg, nullptr);
    EXPECT_EQ(i.msg, nullptr);
    EXPECT_EQ(x.msg, nullptr);
    EXPECT_EQ(x.msgBytes, nullptr);
    EXPECT_EQ(e.msg, nullptr);
    EXPECT_EQ(a.msg, nullptr);
    EXPECT_EQ(r.msg, nullptr);
    EXPECT_EQ(fc.msg, nullptr);
    EXPECT_EQ(fi.msg, nullptr);
    EXPECT_EQ(SummaryOf(c), "");
    EXPECT_EQ(SummaryOf(i), "");
    EXPECT_EQ(SummaryOf(x), "");
    EXPECT_EQ(SummaryOf(e), "");
    EXPECT_EQ(SummaryOf(a), "");
    EXPECT_EQ(SummaryOf(r), "");
    EXPECT_EQ(SummaryOf(fc), "");
    EXPECT_EQ(SummaryOf(fi), "");
    EXPECT_TRUE(c.contractText.empty());
    EXPECT_TRUE(i.versionText.empty());
    EXPECT_TRUE(i.manufacturerText.empty());
    EXPECT_TRUE(i.deviceText.empty());
}

TEST(EmptyInstance, ReceivedPowerEmbedsAnEmptyCapability)
{
    const Frame f = Numbered(0x04);
    ReceivedPower p(f.data(), 5);
    EXPECT_EQ(p.capability.msg, nullptr);
    EXPECT_EQ(p.capability.header, 0);
    EXPECT_TRUE(p.capability.logData.empty());
    ReceivedPower1_2_2 q(f.data(), 5);
    EXPECT_EQ(q.capability.msg, nullptr);
    EXPECT_TRUE(q.capability.logData.empty());
}

// --- Copies -----------------------------------------------------------------

namespace {

// A copy, made by construction or by assignment, points its view at its own
// bytes and still gives the source's Summary once the source is gone.
template <class T>
void ExpectCopiesUseOwnView(const Frame& f, const char* name)
{
    SCOPED_TRACE(name);
    std::unique_ptr<T> source(new T(f.data()));
    ASSERT_EQ(source->msg, source->message);
    const std::string expected = SummaryOf(*source);
    T constructed(*source);
    T assigned;
    assigned = *source;
    source.reset();
    EXPECT_EQ(constructed.msg, constructed.message);
    EXPECT_EQ(assigned.msg, assigned.message);
    EXPECT_EQ(SummaryOf(constructed), expected);
    EXPECT_EQ(SummaryOf(assigned), expected);
    EXPECT_EQ(TypeOf(constructed) + expected, constructed.logData);
}

// A copy of an empty instance keeps its view null, also when assigned over a
// packet that had one.
template <class T>
void ExpectNullViewStaysNull(const Frame& f, const char* name)
{
    SCOPED_TRACE(name);
    T empty;
    T constructed(empty);
    EXPECT_EQ(constructed.msg, nullptr);
    T assigned(f.data());
    assigned = empty;
    EXPECT_EQ(assigned.msg, nullptr);
    EXPECT_EQ(SummaryOf(assigned), "");
}

}  // namespace

TEST(PacketCopies, ViewsPointAtTheCopysOwnMessage)
{
    const Frame config = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x99};
    const Frame id = {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04};
    const Frame caps = {0x84, 0x01, 0x02, 0x03};
    const Frame sadc = {0x48, 0x80, 0x30, 0x01, 0x00, 0x00};
    const Frame sdsr = {0x38, 0x00, 0x50, 0xC0};
    const Frame fc = {0x31, 0x0A, 0x14, 0x03};
    const Frame fi = {0x30, 0x13, 0x00, 0x2A};
    ExpectCopiesUseOwnView<Configuration>(config, "Configuration");
    ExpectCopiesUseOwnView<Identification>(id, "Identification");
    ExpectCopiesUseOwnView<ExtendedPowerReceiverCapabilities>(caps, "ExtendedPowerReceiverCapabilities");
    ExpectCopiesUseOwnView<SimultaneousAuxiliaryDataControl>(sadc, "SimultaneousAuxiliaryDataControl");
    ExpectCopiesUseOwnView<SimultaneousDataStreamResponse>(sdsr, "SimultaneousDataStreamResponse");
    ExpectCopiesUseOwnView<FSKCapability>(fc, "FSKCapability");
    ExpectCopiesUseOwnView<FSKIdentification>(fi, "FSKIdentification");
}

TEST(PacketCopies, NullViewStaysNull)
{
    const Frame config = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x99};
    const Frame id = {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04};
    const Frame any = Numbered(0x30);
    ExpectNullViewStaysNull<Configuration>(config, "Configuration");
    ExpectNullViewStaysNull<Identification>(id, "Identification");
    ExpectNullViewStaysNull<ExtendedPowerReceiverCapabilities>(any, "ExtendedPowerReceiverCapabilities");
    ExpectNullViewStaysNull<SimultaneousAuxiliaryDataControl>(any, "SimultaneousAuxiliaryDataControl");
    ExpectNullViewStaysNull<SimultaneousDataStreamResponse>(any, "SimultaneousDataStreamResponse");
    ExpectNullViewStaysNull<FSKCapability>(any, "FSKCapability");
    ExpectNullViewStaysNull<FSKIdentification>(any, "FSKIdentification");
}

TEST(PacketCopies, CopyDecodesItsOwnBytesNotTheSources)
{
    const Frame f = {0x30, 0x13, 0x00, 0x2A};
    FSKIdentification source(f.data());
    FSKIdentification copy(source);
    copy.message[0] = 0x24;
    EXPECT_EQ(SummaryOf(copy), "v2.4, Mfr=0x002a");
    EXPECT_EQ(SummaryOf(source), "v1.3, Mfr=0x002a");
}

TEST(PacketCopies, CopiesKeepTheExtraTexts)
{
    const Frame config = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x99};
    Configuration c(config.data());
    Configuration heldC;
    heldC = c;
    EXPECT_EQ(heldC.maxPowerText, "MaxPower=5W");
    EXPECT_EQ(heldC.guarPowerText, "GuarPower=5W");
    EXPECT_EQ(heldC.contractText, c.contractText);
    EXPECT_EQ(heldC.checksum, 0x99);

    const Frame id = {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04};
    Identification i(id.data());
    Identification heldI(i);
    EXPECT_EQ(heldI.versionText, "v1.2");
    EXPECT_EQ(heldI.manufacturerText, "Mfr=0x002a");
    EXPECT_EQ(heldI.deviceText, "Dev=0x01020304");
}

TEST(PacketCopies, ClassesWithoutViewsCopyTheirState)
{
    const Frame f = {0x04, 64};
    ReceivedPower p(f.data(), 5);
    ReceivedPower copy(p);
    EXPECT_EQ(copy.power, 2.5f);
    EXPECT_EQ(copy.reference, 5);
    EXPECT_EQ(copy.logData, "ReceivedPower 50% 2.5W");
    EXPECT_EQ(SummaryOf(copy), "50% 2.5W");

    const Frame s = {0x20, 0x01, 0x0B};
    SpecificRequest r(s.data());
    SpecificRequest rc;
    rc = r;
    EXPECT_EQ(rc.guaranteedPower, 5.0f);
    EXPECT_EQ(SummaryOf(rc), "Guaranteed Power 5.5 W");
}
