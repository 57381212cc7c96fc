// Dissection of each packet class the decoder knows, with real bytes.
#include "analysis/Dissect.h"
#include "analysis/EventFields.h"

#include <gtest/gtest.h>

#include <functional>

using namespace analysis;

namespace {

std::vector<uint8_t> Frame(std::vector<uint8_t> bytes)
{
    uint8_t x = 0;
    for (uint8_t b : bytes)
        x ^= b;
    bytes.push_back(x);
    return bytes;
}

std::vector<DissectedField> Of(int direction, std::vector<uint8_t> bytes)
{
    FrameView f;
    f.direction = direction;
    f.type = bytes.empty() ? 0 : bytes[0];
    f.bytes = Frame(bytes);
    return DissectFrame(f);
}

const DissectedField* Named(const std::vector<DissectedField>& fields, const std::string& name)
{
    for (const DissectedField& f : fields) {
        if (f.name == name)
            return &f;
        if (const DissectedField* c = Named(f.children, name))
            return c;
    }
    return nullptr;
}

std::string ValueOf(const std::vector<DissectedField>& fields, const std::string& name)
{
    const DissectedField* f = Named(fields, name);
    return f ? f->value : "<missing " + name + ">";
}

}  // namespace

TEST(Dissect, ConfigurationFieldsWithTheirBits)
{
    // m0 = 0x0A, m2 = 0x83, m3 = 0x0A, m4 = 0xC0: the packet whose text is
    // "5W, Prop = True, Count = 3, Wsize = 4ms, Woff = 8ms, Neg = True".
    const auto f = Of(2, {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0});
    EXPECT_EQ(ValueOf(f, "Header"), "0x51 Configuration");
    EXPECT_EQ(ValueOf(f, "Power class"), "Class 0 (0)");
    EXPECT_EQ(ValueOf(f, "Maximum power"), "5");
    EXPECT_EQ(Named(f, "Maximum power")->unit, "W");
    EXPECT_EQ(ValueOf(f, "Prop"), "True");
    EXPECT_EQ(ValueOf(f, "Count"), "3");
    EXPECT_EQ(ValueOf(f, "Window size"), "4");
    EXPECT_EQ(Named(f, "Window size")->unit, "ms");
    EXPECT_EQ(ValueOf(f, "Window offset"), "8");
    EXPECT_EQ(ValueOf(f, "Neg"), "True");
    EXPECT_EQ(ValueOf(f, "Polarity"), "Negative (1)");
    EXPECT_EQ(ValueOf(f, "Depth"), "FSK = -78ns (3)");
    EXPECT_EQ(Named(f, "Depth")->BitsText(), "byte 5, bits 7-6");
    EXPECT_EQ(ValueOf(f, "Checksum").rfind("0x", 0), 0u);
    EXPECT_NE(ValueOf(f, "Checksum").find("(correct)"), std::string::npos);

    const DissectedField* wsize = Named(f, "Window size");
    EXPECT_EQ(wsize->byteOffset, 4);
    EXPECT_EQ(wsize->byteCount, 1);
    EXPECT_EQ(wsize->firstBit, 7);
    EXPECT_EQ(wsize->bitCount, 5);
    EXPECT_EQ(wsize->BitsText(), "byte 4, bits 7-3");
    EXPECT_EQ(wsize->filterName, "config.wsize");
    EXPECT_EQ(Named(f, "Window offset")->BitsText(), "byte 4, bits 2-0");
    EXPECT_EQ(Named(f, "Neg")->BitsText(), "byte 5, bit 7");
    EXPECT_EQ(Named(f, "Maximum power")->BitsText(), "byte 1, bits 5-1");

    // Window size 0x1F (124 ms) and offset 7 (28 ms), power 31 from 0xFF.
    const auto g = Of(2, {0x51, 0xFF, 0x00, 0x00, 0xFF, 0x00});
    EXPECT_EQ(ValueOf(g, "Window size"), "124");
    EXPECT_EQ(ValueOf(g, "Window offset"), "28");
    EXPECT_EQ(ValueOf(g, "Maximum power"), "31");
    EXPECT_EQ(ValueOf(g, "Polarity"), "Positive (0)");
    EXPECT_EQ(ValueOf(g, "Depth"), "FSK = 46.75ns (0)");
}

TEST(Dissect, IdentificationVersionManufacturerExtendedBitDevice)
{
    const auto f = Of(2, {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04});
    EXPECT_EQ(ValueOf(f, "Version"), "1.2");
    EXPECT_EQ(ValueOf(f, "Major version"), "1");
    EXPECT_EQ(ValueOf(f, "Minor version"), "2");
    EXPECT_EQ(ValueOf(f, "Manufacturer code"), "0x002a");
    EXPECT_EQ(Named(f, "Manufacturer code")->BitsText(), "bytes 2-3");
    EXPECT_EQ(ValueOf(f, "Extended"), "1");
    EXPECT_EQ(ValueOf(f, "Device identifier"), "0x01020304");
    EXPECT_EQ(Named(f, "Device identifier")->byteOffset, 4);
    EXPECT_EQ(Named(f, "Device identifier")->byteCount, 4);
}

TEST(Dissect, ControlErrorSignedValueAndPercentage)
{
    auto f = Of(2, {0x03, 0xFD});
    EXPECT_EQ(ValueOf(f, "Header"), "0x03 ControlError");
    EXPECT_EQ(ValueOf(f, "Control error value"), "-3");
    EXPECT_EQ(ValueOf(f, "Percentage"), "-3");
    EXPECT_EQ(Named(f, "Percentage")->unit, "%");
    f = Of(2, {0x03, 0x7F});
    EXPECT_EQ(ValueOf(f, "Control error value"), "127");
    f = Of(2, {0x03, 0x80});
    EXPECT_EQ(ValueOf(f, "Control error value"), "-128");
    f = Of(2, {0x19, 0xFE});
    EXPECT_EQ(ValueOf(f, "Control error value"), "-2");
}

TEST(Dissect, ReceivedPowerEightAndTwentyFourBits)
{
    auto f = Of(2, {0x04, 0x40});
    EXPECT_EQ(ValueOf(f, "Received power value"), "64");
    EXPECT_EQ(ValueOf(f, "Fraction of the reference"), "50");
    f = Of(2, {0x31, 0x02, 0x40, 0x00});
    EXPECT_EQ(ValueOf(f, "Mode"), "LoadConnectedCal_ResponseExpected (2)");
    EXPECT_EQ(Named(f, "Mode")->BitsText(), "byte 1, bits 2-0");
    EXPECT_EQ(ValueOf(f, "Received power value"), "16384");
    EXPECT_EQ(ValueOf(f, "Fraction of the reference"), "50");
    f = Of(2, {0x31, 0x03, 0x00, 0x00});
    EXPECT_EQ(ValueOf(f, "Mode"), "Reserved (3)");
}

TEST(Dissect, TheOtherReceiverPackets)
{
    EXPECT_EQ(ValueOf(Of(2, {0x01, 0x80}), "Signal strength"), "50");
    EXPECT_EQ(ValueOf(Of(2, {0x02, 0x01}), "End power transfer code"), "Charge Complete (1)");
    EXPECT_EQ(ValueOf(Of(2, {0x02, 0x09}), "End power transfer code"), "Reserved (9)");
    EXPECT_EQ(ValueOf(Of(2, {0x05, 0x64}), "Charge status"), "100");
    EXPECT_EQ(ValueOf(Of(2, {0x06, 0x05}), "Hold-off time"), "5");
    EXPECT_EQ(ValueOf(Of(2, {0x07, 0x31}), "Request"), "Request Tx Capability (49)");
    EXPECT_EQ(ValueOf(Of(2, {0x09}), "Header"), "0x09 Renegotiate");
    EXPECT_EQ(ValueOf(Of(2, {0x18, 0x05}), "Reason"), "End of Charge (5)");
    auto sr = Of(2, {0x20, 0x01, 0x0B});
    EXPECT_EQ(ValueOf(sr, "Request"), "Guaranteed Power (1)");
    EXPECT_EQ(ValueOf(sr, "Guaranteed power"), "5.5");
    EXPECT_EQ(ValueOf(Of(2, {0x20, 0x04, 0x14}), "Maximum power"), "10");
    EXPECT_EQ(ValueOf(Of(2, {0x22, 0x00, 0x0C}), "Quality factor"), "12");
    EXPECT_EQ(ValueOf(Of(2, {0x28, 0x00, 0x22}), "Request"), "PTx Inverter Voltage (2)");
    EXPECT_EQ(ValueOf(Of(2, {0x29, 0x12, 0x34}), "Streams bitmask"), "0x1234");
    auto sdsr = Of(2, {0x38, 0x00, 0x50, 0xC0});
    EXPECT_EQ(ValueOf(sdsr, "Stream number"), "5");
    EXPECT_EQ(ValueOf(sdsr, "Answer"), "ERR_CRC (3)");
    auto sadc = Of(2, {0x48, 0x80, 0x30, 0x01, 0x00});
    EXPECT_EQ(ValueOf(sadc, "Command"), "Open Stream (4)");
    EXPECT_EQ(ValueOf(sadc, "Stream number"), "3");
    EXPECT_EQ(ValueOf(sadc, "Value"), "0x0100");
    EXPECT_EQ(ValueOf(Of(2, {0x54, 0x01, 0x02, 0x03, 0x04}), "Wireless power ID bytes"), "0x01020304");
    EXPECT_EQ(ValueOf(Of(2, {0x55, 0x01, 0x02, 0x03, 0x04}), "Header"), "0x55 WPIDLast");
    auto report = Of(2, {0x58, 0x20, 0x01, 0x02, 0x00, 0x10});
    EXPECT_EQ(ValueOf(report, "Select"), "Power Loss Accounting (1)");
    EXPECT_EQ(ValueOf(report, "Power loss"), "258");
    EXPECT_EQ(ValueOf(report, "PRECT"), "16");
    auto plap = Of(2, {0x78, 0x00, 0x01, 0x00, 0x00, 0x02});
    EXPECT_EQ(ValueOf(plap, "FM"), "256");
    EXPECT_EQ(ValueOf(plap, "DC"), "2");
    EXPECT_EQ(ValueOf(Of(2, {0x81, 1, 2, 3, 4, 5, 6, 7, 8}), "Extended device identifier"), "0x0102030405060708");
    EXPECT_EQ(ValueOf(Of(2, {0x84, 0xAB, 0xCD, 0xEF}), "Capabilities"), "0xabcdef");
}

TEST(Dissect, TransmitterPackets)
{
    auto cap = Of(1, {0x31, 0x0B, 0x14, 0x03});
    EXPECT_EQ(ValueOf(cap, "Header"), "0x31 FSKCapability");
    EXPECT_EQ(ValueOf(cap, "Guaranteed power"), "5.5");
    EXPECT_EQ(ValueOf(cap, "Potential power"), "10");
    EXPECT_EQ(ValueOf(cap, "WPID"), "1");
    EXPECT_EQ(ValueOf(cap, "Not Res Sens"), "1");
    auto id = Of(1, {0x30, 0x13, 0x00, 0x2A});
    EXPECT_EQ(ValueOf(id, "Version"), "1.3");
    EXPECT_EQ(ValueOf(id, "Manufacturer code"), "0x002a");
    EXPECT_EQ(ValueOf(Of(1, {0x01, 0x01}), "Error status"), "Unable to compute k-est (1)");
    auto rcs = Of(1, {0x1E, 0x31});
    EXPECT_EQ(ValueOf(rcs, "Kind"), "Regulation Control Status (3)");
    EXPECT_EQ(ValueOf(rcs, "Code"), "1");
    EXPECT_EQ(ValueOf(Of(1, {0x1F, 0x64}), "Battery charge level"), "100");
    EXPECT_EQ(ValueOf(Of(1, {0x2E, 0x00, 0x02}), "Request"), "PRx Identification (2)");
    EXPECT_EQ(ValueOf(Of(1, {0x2F, 0x00, 0x03}), "Streams bitmask"), "0x0003");
    EXPECT_EQ(ValueOf(Of(1, {0x3F, 0x00, 0x12, 0x34}), "Inverter voltage"), "9320");
    EXPECT_EQ(ValueOf(Of(1, {0x3F, 0x02, 0x01, 0x02}), "Estimated K"), "258");
    auto sdsr = Of(1, {0x3F, 0x01, 0x05, 0x02});
    EXPECT_EQ(ValueOf(sdsr, "Stream number"), "5");
    EXPECT_EQ(ValueOf(sdsr, "Answer"), "ERR_BUSY (2)");
    EXPECT_EQ(ValueOf(Of(1, {0x4F, 0x60, 0x20, 0xAB, 0x0C}), "Command"), "Close and Complete Stream (3)");
    EXPECT_EQ(ValueOf(Of(1, {0x5F, 0x12, 0x34, 0, 0, 0}), "Power loss accounting constant"), "0x1234");
    auto xid = Of(1, {0x8F, 0x10, 0x01, 0x00, 0x02, 0x00, 0x01, 0x1A, 0x00});
    EXPECT_EQ(ValueOf(xid, "Kind"), "Extended Power Transmitter Extended Capabilities (1)");
    EXPECT_EQ(ValueOf(xid, "Potential load power"), "256");
    EXPECT_EQ(ValueOf(xid, "Negotiable load power"), "512");
    EXPECT_EQ(ValueOf(xid, "Power limit reason"), "Reserved (1)");
    EXPECT_EQ(ValueOf(xid, "Buffer size"), "3");
    EXPECT_EQ(ValueOf(xid, "Concurrent data streams"), "2");
    EXPECT_EQ(ValueOf(Of(1, {0x00}), "Header"), "0x00 FSKDataNotAvailable");
}

TEST(Dissect, EveryKnownHeaderHasItsNameAndChecksum)
{
    int known = 0;
    for (int dir : {1, 2}) {
        for (int h = 0; h < 240; ++h) {
            const std::string name = PacketName(dir, static_cast<uint8_t>(h));
            if (name.empty())
                continue;
            known += 1;
            std::vector<uint8_t> bytes(9, 0x5A);
            bytes[0] = static_cast<uint8_t>(h);
            const auto f = Of(dir, bytes);
            ASSERT_GE(f.size(), 2u) << name;
            EXPECT_EQ(f.front().value, DissectFrame(FrameView{dir, h, Frame(bytes)}).front().value);
            EXPECT_NE(f.front().value.find(name), std::string::npos) << name;
            EXPECT_EQ(f.back().name, "Checksum") << name;
            EXPECT_EQ(f.back().byteOffset, 9) << name;
            // Every field lies within the frame.
            for (const DissectedField& d : f) {
                EXPECT_GE(d.byteOffset, 0) << name << " " << d.name;
                EXPECT_LE(d.byteOffset + d.byteCount, 10) << name << " " << d.name;
            }
        }
    }
    EXPECT_EQ(known, 25 + 12);
}

TEST(Dissect, ChecksumThatDoesNotHoldIsTold)
{
    FrameView f;
    f.direction = 2;
    f.type = 3;
    f.bytes = {0x03, 0xFD, 0x00};
    EXPECT_EQ(DissectFrame(f).back().value, "0x00 (wrong, 0xfe expected)");
}

TEST(Dissect, PatternsPingsAndRecordsWithoutBytes)
{
    MsgInfo ack;
    ack.type = kTypeTxPattern;
    ack.direction = 1;
    ack.packet.PacketData = "FF ";
    auto f = Dissect(ack);
    ASSERT_EQ(f.size(), 1u);
    EXPECT_EQ(f[0].value, "ACK");
    EXPECT_EQ(f[0].filterName, "pattern");
    MsgInfo ping;
    ping.type = kTypeDigitalPing;
    ping.timing.bitTimesUs = 64000;
    ping.timing.carrierCurrentHz = 128000;
    f = Dissect(ping);
    ASSERT_EQ(f.size(), 2u);
    EXPECT_EQ(f[0].name + " " + f[0].value + " " + f[0].unit, "Duration 64 ms");
    EXPECT_EQ(f[1].name + " " + f[1].value + " " + f[1].unit, "Carrier frequency 128000 Hz");
    EXPECT_EQ(f[0].byteOffset, -1);
    MsgInfo contract;
    contract.type = kTypeContract;
    EXPECT_TRUE(Dissect(contract).empty());
}

TEST(Dissect, SelectingAByteFindsTheNarrowestField)
{
    const auto f = Of(2, {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04});
    std::vector<int> path = FieldPathAtByte(f, 1);
    ASSERT_EQ(path.size(), 2u);  // Version, then its first child
    EXPECT_EQ(f[static_cast<size_t>(path[0])].name, "Version");
    path = FieldPathAtByte(f, 4);
    ASSERT_EQ(path.size(), 1u);
    EXPECT_EQ(f[static_cast<size_t>(path[0])].name, "Extended");  // one bit beats 31
    path = FieldPathAtByte(f, 6);
    EXPECT_EQ(f[static_cast<size_t>(path[0])].name, "Device identifier");
    path = FieldPathAtByte(f, 8);
    EXPECT_EQ(f[static_cast<size_t>(path[0])].name, "Checksum");
    EXPECT_TRUE(FieldPathAtByte(f, 20).empty());
}

TEST(Dissect, FilterValuesComeFromTheSameTables)
{
    // Every field with a filter name in the tree has the same value for the
    // filter as its text says.
    const std::vector<std::vector<uint8_t>> frames = {
        {0x03, 0xF0}, {0x04, 0x40}, {0x31, 0x01, 0x12, 0x34}, {0x02, 0x07},
        {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04}, {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0}};
    for (const auto& bytes : frames) {
        FrameView view{2, bytes[0], Frame(bytes)};
        std::vector<DecodedValue> values;
        DecodedValues(view, values);
        const auto tree = DissectFrame(view);
        int compared = 0;
        std::function<void(const std::vector<DissectedField>&)> walk = [&](const std::vector<DissectedField>& fs) {
            for (const DissectedField& d : fs) {
                for (const DecodedValue& v : values) {
                    if (d.filterName != v.name)
                        continue;
                    compared += 1;
                    if (v.isText)
                        EXPECT_EQ(d.value, v.text);
                    else if (d.value.rfind("0x", 0) == 0)
                        EXPECT_EQ(std::stoll(d.value, nullptr, 16), v.number) << d.name;
                    else if (d.value.find(" (") != std::string::npos)  // "Name (n)"
                        EXPECT_EQ(std::stoll(d.value.substr(d.value.rfind('(') + 1)), v.number) << d.name;
                    else if (d.value == "True" || d.value == "False")
                        EXPECT_EQ(d.value == "True" ? 1 : 0, v.number) << d.name;
                    else
                        EXPECT_EQ(std::stoll(d.value), v.number) << d.name;
                }
                walk(d.children);
            }
        };
        walk(tree);
        EXPECT_EQ(compared, static_cast<int>(values.size()));
        EXPECT_FALSE(values.empty());
    }
}

TEST(Dissect, DirectionOfARecordFromASessionFileIsInferred)
{
    MsgInfo e;
    e.type = 0x31;
    e.common.typeString = "Power Transmitter Capability";
    EXPECT_EQ(InferDirection(e), kDirTx);
    e.common.typeString = "ReceivedPower ";
    EXPECT_EQ(InferDirection(e), kDirRx);
    e.type = 0x03;
    EXPECT_EQ(InferDirection(e), kDirRx);
    e.type = 0x30;
    EXPECT_EQ(InferDirection(e), kDirTx);
    e.type = kTypeTxPattern;
    EXPECT_EQ(InferDirection(e), kDirTx);
    e.type = kTypeChecksumOrProprietary;
    EXPECT_EQ(InferDirection(e), kDirNone);
    e.packet.premambleCount = 11;
    EXPECT_EQ(InferDirection(e), kDirRx);
    e.type = kTypeContract;
    EXPECT_EQ(InferDirection(e), kDirNone);
    // A live event's own direction wins.
    e.type = 0x03;
    e.direction = 1;
    EXPECT_EQ(InferDirection(e), kDirTx);
}
