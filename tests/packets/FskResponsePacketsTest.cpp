// Transmitter responses over FSK, and the names of the single-byte response
// patterns.
#include "packets/Packets.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using Frame = std::array<uint8_t, CMsgData::kFrameArea>;

std::string SummaryOf(CMsgData& p)
{
    std::string s;
    p.Summary(s);
    return s;
}

std::string TypeOf(CMsgData& p)
{
    std::string s;
    p.typeString(s);
    return s;
}

template <class T>
std::string LogOf(std::initializer_list<int> bytes)
{
    Frame f{};
    size_t i = 0;
    for (int b : bytes)
        f[i++] = static_cast<uint8_t>(b);
    T p(f.data());
    return p.logData;
}

}  // namespace

// --- FSKCapability ----------------------------------------------------------

TEST(FSKCapability, WholeWatts)
{
    const Frame f = {0x31, 0x0A, 0x14, 0x03};
    FSKCapability c(f.data());
    EXPECT_EQ(SummaryOf(c), "FSK Guaranteed 5 W, Potential 10 W, WPID 1, Not Res Sens 1");
    EXPECT_EQ(c.logData,
              "Power Transmitter CapabilityFSK Guaranteed 5 W, Potential 10 W, WPID 1, Not Res Sens 1");
    EXPECT_EQ(c.powerValue, 5u);
    EXPECT_EQ(c.checksum, 0);
}

TEST(FSKCapability, HalfWattPrintedButTruncatedInPowerValue)
{
    const Frame f = {0x31, 0x0B, 0x14, 0x03};
    FSKCapability c(f.data());
    EXPECT_EQ(SummaryOf(c), "FSK Guaranteed 5.5 W, Potential 10 W, WPID 1, Not Res Sens 1");
    EXPECT_EQ(c.powerValue, 5u);
}

TEST(FSKCapability, TopBitsOfPowerBytesAreIgnored)
{
    const Frame f = {0x31, 0xC1, 0xFF, 0x02};
    FSKCapability c(f.data());
    EXPECT_EQ(SummaryOf(c), "FSK Guaranteed 0.5 W, Potential 31.5 W, WPID 1, Not Res Sens 0");
    EXPECT_EQ(c.powerValue, 0u);
}

// --- FSKIdentification ------------------------------------------------------

TEST(FSKIdentification, VersionAndManufacturer)
{
    const Frame f = {0x30, 0x13, 0x00, 0x2A};
    FSKIdentification p(f.data());
    EXPECT_EQ(SummaryOf(p), "v1.3, Mfr=0x002a");
    EXPECT_EQ(p.logData, "Power Transmitter Identificationv1.3, Mfr=0x002a");
}

// --- FSKINVSDSRKEST ---------------------------------------------------------

TEST(FSKINVSDSRKEST, InverterVoltageInMillivolts)
{
    const Frame f = {0x3F, 0x00, 0x12, 0x34};
    FSKINVSDSRKEST p(f.data());
    EXPECT_EQ(SummaryOf(p), "9320mV");
    EXPECT_EQ(TypeOf(p), "Inverter Voltage ");
    EXPECT_EQ(p.logData, "Inverter Voltage 9320mV");
}

TEST(FSKINVSDSRKEST, InverterVoltageUsesSixBitsOfHighByte)
{
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x00, 0xFF, 0xFF}), "Inverter Voltage 32766mV");
}

TEST(FSKINVSDSRKEST, StreamResponseHasNoBlankBeforeHex)
{
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x01, 0x1A, 0x00}),
              "Simultaneous Data Stream Response Stream Number0a ACK");
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x01, 0x03, 0x01}),
              "Simultaneous Data Stream Response Stream Number03 UNEXPECTED");
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x01, 0x03, 0xFE}),
              "Simultaneous Data Stream Response Stream Number03 ERR_BUSY");
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x01, 0x0F, 0x03}),
              "Simultaneous Data Stream Response Stream Number0f ERR_CRC");
}

TEST(FSKINVSDSRKEST, EstimatedK)
{
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x02, 0xF1, 0x02}),
              "Estimated K - KEST The value of the estimated K by the Power Transmitter 258");
}

TEST(FSKINVSDSRKEST, OtherValuesAreReservedTwice)
{
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x03, 0x12, 0x34}), "Reserved Reserved ");
    EXPECT_EQ(LogOf<FSKINVSDSRKEST>({0x3F, 0x10}), "Reserved Reserved ");
}

// --- FSKCLOAKRCS ------------------------------------------------------------

TEST(FSKCLOAKRCS, CodeOneIsReservedUnderCloakRequest)
{
    const Frame f = {0x1E, 0x01};
    FSKCLOAKRCS p(f.data());
    EXPECT_EQ(TypeOf(p), "Cloak Request  ");
    EXPECT_EQ(SummaryOf(p), "Reserved");
    EXPECT_EQ(p.logData, "Cloak Request  Reserved");
}

TEST(FSKCLOAKRCS, UnknownHighNibbleIsReservedTwice)
{
    const Frame f = {0x1E, 0x1F};
    FSKCLOAKRCS p(f.data());
    EXPECT_EQ(p.logData, "Reserved Reserved ");
}

TEST(FSKCLOAKRCS, CloakCodes)
{
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x00}), "Cloak Request  Cloak: Generic");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x02}), "Cloak Request  Cloak: Thermally constrained");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x03}), "Cloak Request  Cloak: Insufficient Power");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x04}), "Cloak Request  Cloak: Coex Mitigation");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x05}), "Cloak Request  Reserved");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x06}), "Cloak Request  Reserved");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x0F}), "Cloak Request  Reserved");
}

TEST(FSKCLOAKRCS, RegulationControlStatusCodes)
{
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x30}), "Regulation Control Status Normal operation");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x31}),
              "Regulation Control Status Reached maximum allocated power");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x32}), "Regulation Control Status System protections enabled");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x33}),
              "Regulation Control Status Reached maximum supported voltage");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x34}),
              "Regulation Control Status Reached minimum supported voltage");
    EXPECT_EQ(LogOf<FSKCLOAKRCS>({0x1E, 0x35}), "Regulation Control Status Reserved");
}

// --- FSKChargeStatus --------------------------------------------------------

TEST(FSKChargeStatus, HundredIsALevelAndAboveIsReserved)
{
    EXPECT_EQ(LogOf<FSKChargeStatus>({0x1F, 100}), "Charge Status Battery charge level:100");
    EXPECT_EQ(LogOf<FSKChargeStatus>({0x1F, 101}), "Charge Status Reserved");
}

TEST(FSKChargeStatus, NoLevelAndNoBatteryValues)
{
    EXPECT_EQ(LogOf<FSKChargeStatus>({0x1F, 0}), "Charge Status Battery charge level:0");
    EXPECT_EQ(LogOf<FSKChargeStatus>({0x1F, 253}), "Charge Status Reserved");
    EXPECT_EQ(LogOf<FSKChargeStatus>({0x1F, 254}),
              "Charge Status Battery level is temporarily not available");
    EXPECT_EQ(LogOf<FSKChargeStatus>({0x1F, 255}), "Charge Status  Device does not have a battery");
}

// --- FSKXIDECAP -------------------------------------------------------------

TEST(FSKXIDECAP, PowerLimitReasonOneIsReservedAndEightIsReseved)
{
    const std::string one = LogOf<FSKXIDECAP>({0x8F, 0x10, 0, 0, 0, 0, 0x01, 0});
    const std::string eight = LogOf<FSKXIDECAP>({0x8F, 0x10, 0, 0, 0, 0, 0x08, 0});
    EXPECT_NE(one.find("Power Limit Reason:Reserved"), std::string::npos) << one;
    EXPECT_NE(eight.find("Power Limit Reason:Reseved"), std::string::npos) << eight;
}

TEST(FSKXIDECAP, ExtendedCapabilitiesFullText)
{
    EXPECT_EQ(LogOf<FSKXIDECAP>({0x8F, 0x10, 0xFE, 0x10, 0x01, 0x2C, 0xF3, 0x2A}),
              "Extended Power Transmitter Extended Capabilities Potential Load Power: 528mW"
              "Negotiable Load Power: 300mWPower Limit Reason:Brown-Out ProtectionBuffer SIze: 5"
              "Concurrent Data Streams:2");
}

TEST(FSKXIDECAP, AllPowerLimitReasons)
{
    const char* const reasons[16] = {
        "No Limit",     "Reserved",     "Foreign Object Presence", "Brown-Out Protection",
        "Over Temperature", "Maximum Inverter Voltage Reached", "Over Current",
        "Maximum Available Power", "Reseved", "Reseved", "Reseved", "Reseved", "Reseved",
        "Reseved", "Reseved", "Reseved"};
    for (int code = 0; code < 16; ++code) {
        const std::string text = LogOf<FSKXIDECAP>({0x8F, 0x10, 0, 0, 0, 0, 0xF0 | code, 0});
        EXPECT_NE(text.find(std::string("Power Limit Reason:") + reasons[code] + "Buffer SIze: "),
                  std::string::npos)
            << text;
    }
}

TEST(FSKXIDECAP, IdentificationNinthByteIsNeverStored)
{
    const Frame f = {0x8F, 0x00, 0x11, 0x22, 0x33, 0xFF, 0x12, 0xAB, 0x77, 0xEE};
    FSKXIDECAP p(f.data());
    EXPECT_EQ(TypeOf(p), "Extended Power Transmitter Identification ");
    EXPECT_EQ(SummaryOf(p), "Device Identifier: 3F 12 15 Mfg Reserved: 03 77 00 ");
    EXPECT_EQ(p.size, 9);
    EXPECT_EQ(p.message[7], 0x77);
    EXPECT_EQ(p.message[8], 0);
    EXPECT_EQ(p.checksum, 0);
}

TEST(FSKXIDECAP, OtherHighNibbleIsReservedTwice)
{
    EXPECT_EQ(LogOf<FSKXIDECAP>({0x8F, 0x20, 1, 2, 3}), "Reserved Reserved ");
}

// --- The small ones -----------------------------------------------------------

TEST(FSKDataNotAvailable, FixedText)
{
    const Frame f = {0x00, 0x00};
    FSKDataNotAvailable p(f.data());
    EXPECT_EQ(p.logData, "Power Transmitter Data Not AvailableFSK ");
    EXPECT_EQ(p.size, 1);
    EXPECT_EQ(p.header, 0);
}

TEST(FSKErrorStatus, ByLowTwoBits)
{
    EXPECT_EQ(LogOf<FSKErrorStatus>({0x01, 0x00}), "Error Status FSK Error Status : No Error");
    EXPECT_EQ(LogOf<FSKErrorStatus>({0x01, 0xFD}),
              "Error Status FSK Error Status : Unable to compute k-est");
    EXPECT_EQ(LogOf<FSKErrorStatus>({0x01, 0x02}), "Error Status FSK Reseved");
    EXPECT_EQ(LogOf<FSKErrorStatus>({0x01, 0x03}), "Error Status FSK Reseved");
}

TEST(FSKGetRequest, ByLowNibbleOfSecondByte)
{
    EXPECT_EQ(LogOf<FSKGetRequest>({0x2E, 0xFF, 0xF1}), "GetRequest Power Loss Accounting Parameters");
    EXPECT_EQ(LogOf<FSKGetRequest>({0x2E, 0x00, 0x02}), "GetRequest PRx Identification");
    EXPECT_EQ(LogOf<FSKGetRequest>({0x2E, 0x00, 0x03}),
              "GetRequest PRx Charge Status (Refer to Qi Communications Protocol - CHS)");
    EXPECT_EQ(LogOf<FSKGetRequest>({0x2E, 0x00, 0x04}), "GetRequest PRx Enabled Data Streams");
    EXPECT_EQ(LogOf<FSKGetRequest>({0x2E, 0x00, 0x00}), "GetRequest Reserved");
    EXPECT_EQ(LogOf<FSKGetRequest>({0x2E, 0x00, 0x05}), "GetRequest Reserved");
}

TEST(FSKPLAP, PrintsFirstTwoBytesOnly)
{
    const Frame f = {0x5F, 0x12, 0xAB, 0x33, 0x44, 0x55};
    FSKPLAP p(f.data());
    EXPECT_EQ(p.logData,
              " Power Loss Accounting Parameters Constant used in Power Loss Accounting formula: 12 AB ");
    EXPECT_EQ(p.message[4], 0x55);
}

// --- Single-byte response patterns --------------------------------------------

TEST(PatternName, NamedBytes)
{
    EXPECT_EQ(PatternName(0x00), "NAK");
    EXPECT_EQ(PatternName(0x88), "MPP");
    EXPECT_EQ(PatternName(0xBB), "ND");
    EXPECT_EQ(PatternName(0xCC), "ATN");
    EXPECT_EQ(PatternName(0xF0), "APP");
    EXPECT_EQ(PatternName(0xFF), "ACK");
}

TEST(PatternName, ByteWithoutRowKeepsItsSpacedHex)
{
    EXPECT_EQ(PatternName(0x55), "55 ");
    EXPECT_EQ(PatternName(0x0A), "0A ");
}
