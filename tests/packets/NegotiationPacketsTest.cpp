// Negotiation requests: SpecificRequest, GetRequest, EnableDataStreams,
// CloakRequest, PLAP, REPORT_PLA.
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

std::string Specific(uint8_t m0, uint8_t m1)
{
    const Frame f = {0x20, m0, m1};
    SpecificRequest r(f.data());
    return SummaryOf(r);
}

std::string Get(uint8_t m1)
{
    const Frame f = {0x28, 0xFF, m1};
    GetRequest r(f.data());
    return SummaryOf(r);
}

std::string Cloak(uint8_t m0)
{
    const Frame f = {0x18, m0};
    CloakRequest r(f.data());
    return SummaryOf(r);
}

}  // namespace

// --- SpecificRequest --------------------------------------------------------

TEST(SpecificRequest, GuaranteedPowerTextKeepsHalfWattValuesDropIt)
{
    const Frame f = {0x20, 0x01, 0x0B};
    SpecificRequest r(f.data());
    EXPECT_EQ(SummaryOf(r), "Guaranteed Power 5.5 W");
    EXPECT_EQ(r.logData, "Specific Request Guaranteed Power 5.5 W");
    EXPECT_EQ(r.guaranteedPower, 5.0f);
    EXPECT_EQ(r.powerValue, 5u);
}

TEST(SpecificRequest, PowerLevelInMilliwattsAndTenthsAsPowerValue)
{
    const Frame f = {0x20, 0xF3, 25};
    SpecificRequest r(f.data());
    EXPECT_EQ(SummaryOf(r), "Power level 2500 mW");
    EXPECT_EQ(r.powerValue, 2u);
    EXPECT_EQ(r.guaranteedPower, 0.0f);
}

TEST(SpecificRequest, UnknownRequestIsReservedAndStatesNoPower)
{
    const Frame f = {0x20, 0xF1, 0x0B};
    SpecificRequest r(f.data());
    EXPECT_EQ(SummaryOf(r), "Reserved");
    EXPECT_EQ(r.guaranteedPower, 0.0f);
    EXPECT_EQ(r.powerValue, 0u);
}

TEST(SpecificRequest, AllRows)
{
    EXPECT_EQ(Specific(0x00, 7), "End Negotiation: count=7");
    EXPECT_EQ(Specific(0x01, 0x14), "Guaranteed Power 10 W");
    EXPECT_EQ(Specific(0x02, 0x0A), "Received Power Packet Type 0x0a");
    EXPECT_EQ(Specific(0x03, 0x07), "FSK Parameters with Polarity:1 depth:3");
    EXPECT_EQ(Specific(0x03, 0x02), "FSK Parameters with Polarity:0 depth:2");
    EXPECT_EQ(Specific(0x04, 0x15), "Maximum Power 10");
    EXPECT_EQ(Specific(0xF0, 0x01), "Frequency Selection 360KHz");
    EXPECT_EQ(Specific(0xF0, 0x05), "Frequency Selection 360KHz");
    EXPECT_EQ(Specific(0xF0, 0x02), "Frequency Selection Reserved");
    EXPECT_EQ(Specific(0xF3, 255), "Power level 25500 mW");
    EXPECT_EQ(Specific(0xF5, 200), "Cloak Ping Delay - Low Byte 200");
    EXPECT_EQ(Specific(0xF6, 0x01), "Power Control Profile: Low-K power profile");
    EXPECT_EQ(Specific(0xF6, 0x02), "Power Control Profile: Default profile selected");
    EXPECT_EQ(Specific(0xF7, 0xFF), "Cloak Ping Delay - High Byte 3");
    EXPECT_EQ(Specific(0xF8, 0xF3), "Cloak Detect Ping Delay: 300 ms");
    EXPECT_EQ(Specific(0x05, 0x00), "Reserved");
}

TEST(SpecificRequest, MaximumPowerSetsPowerValueOnly)
{
    const Frame f = {0x20, 0x04, 0x15};
    SpecificRequest r(f.data());
    EXPECT_EQ(r.powerValue, 10u);
    EXPECT_EQ(r.guaranteedPower, 0.0f);
}

// --- GetRequest -------------------------------------------------------------

TEST(GetRequest, CodeOneHasNoRow)
{
    EXPECT_EQ(Get(0x21), "Reserved");
}

TEST(GetRequest, LowFiveBitsSelectTheRow)
{
    EXPECT_EQ(Get(0x22), "PTx Inverter Voltage");
    EXPECT_EQ(Get(0x00), "PTx Extended Identification");
    EXPECT_EQ(Get(0x03), "PTx Power Loss Accounting Parameters");
    EXPECT_EQ(Get(0x04), "PTx Extended Capabilities");
    EXPECT_EQ(Get(0x05), "PTx Regulation Control Status");
    EXPECT_EQ(Get(0x06), "PTx Charge Status");
    EXPECT_EQ(Get(0xE7), "PTx Estimated K");
    EXPECT_EQ(Get(0x09), "PTx Error Status");
    EXPECT_EQ(Get(0x08), "Reserved");
    EXPECT_EQ(Get(0x1F), "Reserved");
}

TEST(GetRequest, FirstByteIsNotRead)
{
    const Frame a = {0x28, 0x00, 0x22};
    const Frame b = {0x28, 0xFF, 0x22};
    GetRequest ra(a.data());
    GetRequest rb(b.data());
    EXPECT_EQ(ra.logData, "GetRequest PTx Inverter Voltage");
    EXPECT_EQ(rb.logData, ra.logData);
}

// --- EnableDataStreams ------------------------------------------------------

TEST(EnableDataStreams, SpacedHexOfBothBytes)
{
    const Frame f = {0x29, 0x0F, 0xA0, 0x77};
    EnableDataStreams e(f.data());
    EXPECT_EQ(e.logData, "EnableDataStreams Streams Bitmask 0F A0 ");
    EXPECT_EQ(e.checksum, 0x77);
}

// --- CloakRequest -----------------------------------------------------------

TEST(CloakRequest, LowThreeBitsSelectTheReason)
{
    EXPECT_EQ(Cloak(0), "Cloak: Generic");
    EXPECT_EQ(Cloak(1), "Cloak: Forced");
    EXPECT_EQ(Cloak(2), "Cloak: Thermally constrained");
    EXPECT_EQ(Cloak(3), "Cloak: Insufficient Power");
    EXPECT_EQ(Cloak(4), "Cloak: Coex Mitigation");
    EXPECT_EQ(Cloak(5), "Cloak: End of Charge");
    EXPECT_EQ(Cloak(6), "Cloak: PTx initiated");
    EXPECT_EQ(Cloak(7), "Reserved");
    EXPECT_EQ(Cloak(0xF9), "Cloak: Forced");
    const Frame f = {0x18, 0x00};
    CloakRequest r(f.data());
    EXPECT_EQ(r.logData, "CloakRequest Cloak: Generic");
}

// --- PLAP -------------------------------------------------------------------

TEST(PLAP, AlwaysEndsInTxZero)
{
    const Frame full = {0x78, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    PLAP p(full.data());
    const std::string s = SummaryOf(p);
    ASSERT_GE(s.size(), 5u);
    EXPECT_EQ(s.substr(s.size() - 5), "TX: 0");
    EXPECT_EQ(s, "FM: 65535DC: 65535TX: 0");
}

TEST(PLAP, BigEndianValuesFromSecondByte)
{
    const Frame f = {0x78, 0xEE, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
    PLAP p(f.data());
    EXPECT_EQ(p.logData, "PLAP FM: 258DC: 772TX: 0");
    EXPECT_EQ(p.checksum, 0x05);
}

// --- REPORT_PLA -------------------------------------------------------------

TEST(REPORT_PLA, PrxIdentificationKeepsTrailingBlank)
{
    const Frame f = {0x58, 0x02, 0x41, 0x02, 0x60};
    REPORT_PLA r(f.data());
    EXPECT_EQ(SummaryOf(r), "select:0 PRx Identification 01 02 03 ");
    EXPECT_EQ(r.logData, "Report select:0 PRx Identification 01 02 03 ");
}

TEST(REPORT_PLA, SelectTwoIsReserved)
{
    const Frame f = {0x58, 0x40, 0x41, 0x02, 0x60};
    REPORT_PLA r(f.data());
    EXPECT_EQ(SummaryOf(r), "Reserved");
}

TEST(REPORT_PLA, SelectZeroOtherTypesAreReserved)
{
    for (uint8_t m0 : {0x00, 0x01, 0x03, 0x1C}) {
        const Frame f = {0x58, m0, 0x41, 0x02, 0x60};
        REPORT_PLA r(f.data());
        EXPECT_EQ(SummaryOf(r), "select:0 Reserved") << int(m0);
    }
}

TEST(REPORT_PLA, SelectOneIsPowerLossAccounting)
{
    const Frame f = {0x58, 0x20, 0x01, 0xF4, 0x03, 0xE8};
    REPORT_PLA r(f.data());
    EXPECT_EQ(SummaryOf(r), "select:1 Power Loss Accounting 500mW PRECT: 1000mW");
}

TEST(REPORT_PLA, HighSelectorsAreReserved)
{
    for (uint8_t m0 : {0x60, 0x80, 0xE2}) {
        const Frame f = {0x58, m0};
        REPORT_PLA r(f.data());
        EXPECT_EQ(SummaryOf(r), "Reserved") << int(m0);
    }
}
