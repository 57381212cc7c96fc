// Identification and configuration packets: Configuration, Identification,
// ExtendedIdentification, ExtendedPowerReceiverCapabilities, WPIDMost, WPIDLast.
#include "packets/Packets.h"

#include "services/Log.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using Frame = std::array<uint8_t, CMsgData::kFrameArea>;

std::string SummaryOf(CMsgData& p)
{
    std::string s;
    p.Summary(s);
    return s;
}

// Whole log lines ending in `message` in the application log so far.
int LogLinesWith(const std::string& message)
{
    const std::string path = Log::Instance().FilePath();
    if (path.empty())
        return 0;
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    const std::string needle = message + "\r\n";
    int count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++count;
    return count;
}

// m0 = 0x0A, m2 = 0x83, m3 = 0x0A, m4 = 0xC0.
const Frame kNegativeConfig = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0, 0x5E};

}  // namespace

// --- Configuration ----------------------------------------------------------

TEST(Configuration, NegativeDepthOneDecodesFullText)
{
    SettingParams::Instance().detectedPolarity = 0;
    Configuration c(kNegativeConfig.data());
    EXPECT_EQ(SummaryOf(c),
              "Rx Configuration : 5W, Prop = True, Count = 3, Wsize = 4ms, Woff = 8ms, "
              "Neg = True, FSK = -78ns + / -16.5ns");
    EXPECT_EQ(c.contractText,
              "MaxPower=5W, GuarPower=5W, FSK = -78ns, Polarity=Negative, PktTpye=8Bit");
    EXPECT_EQ(SettingParams::Instance().detectedPolarity.load(), 1);
}

TEST(Configuration, LogDataIsTypeThenSummary)
{
    Configuration c(kNegativeConfig.data());
    EXPECT_EQ(c.logData,
              "Configuration Rx Configuration : 5W, Prop = True, Count = 3, Wsize = 4ms, "
              "Woff = 8ms, Neg = True, FSK = -78ns + / -16.5ns");
}

TEST(Configuration, PowerTextsAndPowerValueCarryTheSameWatts)
{
    Configuration c(kNegativeConfig.data());
    EXPECT_EQ(c.maxPowerText, "MaxPower=5W");
    EXPECT_EQ(c.guarPowerText, "GuarPower=5W");
    EXPECT_EQ(c.powerValue, 5u);
}

TEST(Configuration, Depth00EndsWithMissingNumber)
{
    SettingParams::Instance().detectedPolarity = 0;
    const Frame f = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0x00};
    Configuration c(f.data());
    const std::string s = SummaryOf(c);
    const std::string tail = "FSK = ns + / -16.5ns";
    ASSERT_GE(s.size(), tail.size());
    EXPECT_EQ(s.substr(s.size() - tail.size()), tail);
    EXPECT_EQ(s, "Rx Configuration : 5W, Prop = True, Count = 3, Wsize = 4ms, Woff = 8ms, "
                 "Neg = False, FSK = ns + / -16.5ns");
    EXPECT_NE(c.contractText.find("FSK = 46.75ns"), std::string::npos);
    EXPECT_NE(c.contractText.find(", Polarity=Positive"), std::string::npos);
    EXPECT_EQ(c.contractText,
              "MaxPower=5W, GuarPower=5W, FSK = 46.75ns, Polarity=Positive, PktTpye=8Bit");
    EXPECT_EQ(SettingParams::Instance().detectedPolarity.load(), -1);
}

TEST(Configuration, PowerField0xFFDropsBitZeroAndHighBits)
{
    const Frame f = {0x51, 0xFF};
    Configuration c(f.data());
    EXPECT_EQ(c.powerValue, 31u);
    EXPECT_EQ(c.maxPowerText, "MaxPower=31W");
    EXPECT_EQ(SummaryOf(c).rfind("Rx Configuration : 31W, ", 0), 0u);
}

TEST(Configuration, SecondMessageByteIsNotRead)
{
    const Frame a = {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0};
    const Frame b = {0x51, 0x0A, 0xFF, 0x83, 0x0A, 0xC0};
    Configuration ca(a.data());
    Configuration cb(b.data());
    EXPECT_EQ(ca.logData, cb.logData);
    EXPECT_EQ(ca.contractText, cb.contractText);
}

TEST(Configuration, PositiveBit6WithoutNegSelectsColumnOne)
{
    const Frame f = {0x51, 0x0A, 0x00, 0x00, 0x00, 0x40};
    Configuration c(f.data());
    EXPECT_EQ(SummaryOf(c), "Rx Configuration : 5W, Prop = False, Count = 0, Wsize = 0ms, "
                            "Woff = 0ms, Neg = False, FSK = 78ns + / -16.5ns");
    EXPECT_EQ(c.contractText,
              "MaxPower=5W, GuarPower=5W, FSK = 78ns, Polarity=Negative, PktTpye=8Bit");
}

TEST(Configuration, NegWithoutBit6SelectsColumnZeroOfNegativeRow)
{
    const Frame f = {0x51, 0x0A, 0x00, 0x00, 0x00, 0x80};
    Configuration c(f.data());
    const std::string s = SummaryOf(c);
    EXPECT_NE(s.find("Neg = True, FSK = -46.75ns + / -16.5ns"), std::string::npos);
    EXPECT_EQ(c.contractText,
              "MaxPower=5W, GuarPower=5W, FSK = -46.75ns, Polarity=Positive, PktTpye=8Bit");
}

TEST(Configuration, WindowFieldsAreFourMillisecondSteps)
{
    const Frame f = {0x51, 0x00, 0x00, 0x07, 0xFF, 0x00};
    Configuration c(f.data());
    EXPECT_EQ(SummaryOf(c), "Rx Configuration : 0W, Prop = False, Count = 7, Wsize = 124ms, "
                            "Woff = 28ms, Neg = False, FSK = ns + / -16.5ns");
}

TEST(Configuration, SummaryTwiceWritesTwoLogLines)
{
    Configuration c(kNegativeConfig.data());
    const int before = LogLinesWith("Polarity is True");
    ASSERT_GE(before, 1);  // the constructor's own call
    std::string s;
    c.Summary(s);
    c.Summary(s);
    EXPECT_EQ(LogLinesWith("Polarity is True"), before + 2);
}

TEST(Configuration, PositivePolarityLogsFalseAndStoresMinusOne)
{
    const Frame f = {0x51, 0x0A, 0x00, 0x00, 0x00, 0x00};
    Configuration c(f.data());
    const int before = LogLinesWith("Polarity is False");
    ASSERT_GE(before, 1);
    SettingParams::Instance().detectedPolarity = 0;
    std::string s;
    c.Summary(s);
    EXPECT_EQ(LogLinesWith("Polarity is False"), before + 1);
    EXPECT_EQ(SettingParams::Instance().detectedPolarity.load(), -1);
}

TEST(Configuration, CopySummaryRepeatsTheSideEffects)
{
    Configuration source(kNegativeConfig.data());
    Configuration copy(source);
    copy.contractText.clear();
    copy.powerValue = 0;
    SettingParams::Instance().detectedPolarity = 0;
    const int before = LogLinesWith("Polarity is True");
    std::string s;
    copy.Summary(s);
    EXPECT_EQ(copy.contractText,
              "MaxPower=5W, GuarPower=5W, FSK = -78ns, Polarity=Negative, PktTpye=8Bit");
    EXPECT_EQ(copy.powerValue, 5u);
    EXPECT_EQ(SettingParams::Instance().detectedPolarity.load(), 1);
    EXPECT_EQ(LogLinesWith("Polarity is True"), before + 1);
}

TEST(Configuration, EmptyInstanceHasNoSideEffects)
{
    SettingParams::Instance().detectedPolarity = 0;
    const int trueLines = LogLinesWith("Polarity is True");
    const int falseLines = LogLinesWith("Polarity is False");
    Configuration c;
    std::string s = "x";
    c.Summary(s);
    EXPECT_EQ(s, "");
    EXPECT_EQ(SettingParams::Instance().detectedPolarity.load(), 0);
    EXPECT_EQ(LogLinesWith("Polarity is True"), trueLines);
    EXPECT_EQ(LogLinesWith("Polarity is False"), falseLines);
    EXPECT_TRUE(c.contractText.empty());
}

// --- Identification ---------------------------------------------------------

TEST(Identification, DecodesVersionManufacturerDeviceAndExt)
{
    const Frame f = {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04, 0xEE};
    Identification id(f.data());
    EXPECT_EQ(SummaryOf(id), "Identification: 1.2, 0x002a, 0x01020304, Ext 1");
    EXPECT_EQ(id.versionText, "v1.2");
    EXPECT_EQ(id.manufacturerText, "Mfr=0x002a");
    EXPECT_EQ(id.deviceText, "Dev=0x01020304");
    EXPECT_EQ(id.logData, "Identification Identification: 1.2, 0x002a, 0x01020304, Ext 1");
    EXPECT_EQ(id.checksum, 0xEE);
}

TEST(Identification, NonsenseVersionIsNotRejected)
{
    const Frame f = {0x71, 0xFF, 0xAB, 0xCD, 0x7F, 0xEF, 0x10, 0x0A};
    Identification id(f.data());
    EXPECT_EQ(SummaryOf(id), "Identification: 15.15, 0xabcd, 0x7fef100a, Ext 0");
    EXPECT_EQ(id.versionText, "v15.15");
}

// --- ExtendedIdentification -------------------------------------------------

TEST(ExtendedIdentification, TextIsTheLabelAloneWhateverTheFrame)
{
    const Frame plain = {0x81, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09};
    const Frame mpp = {0x81, 0xFE, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99};
    ExtendedIdentification a(plain.data());
    ExtendedIdentification b(mpp.data());
    EXPECT_EQ(a.logData, "ExtendedIdentification ");
    EXPECT_EQ(b.logData, "ExtendedIdentification ");
    EXPECT_EQ(SummaryOf(b), "");
    EXPECT_EQ(a.msg, nullptr);
    EXPECT_EQ(a.msgBytes, nullptr);
    EXPECT_EQ(b.message[7], 0x88);
    EXPECT_EQ(b.checksum, 0x99);
}

TEST(ExtendedIdentification, OpenedViewsDecodeMppFields)
{
    const Frame f = {0x81, 0xFE, 0xA5, 0x3C, 0x44, 0x55, 0x66, 0x77, 0x88};
    ExtendedIdentification x(f.data());
    x.msg = x.message;
    x.msgBytes = x.message;
    // Mfg Rsvd: A5 >> 5 = 05; ((3C ^ 28) & 0F) ^ 28 = 2C; m7 = 88.
    EXPECT_EQ(SummaryOf(x), "MPP Extended Identification: Mfg Rsvd: 05 2C 88 VRECT: 03 44 "
                            "Alpha0 Rx: 55Alpha1 Rx: 66Alpha-Kth Rx: 77");
    ExtendedIdentification copy(x);
    EXPECT_EQ(copy.msg, copy.message);
    EXPECT_EQ(copy.msgBytes, copy.message);
}

TEST(ExtendedIdentification, OpenedViewOtherwiseGivesCountAndBytes)
{
    const Frame f = {0x81, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
    ExtendedIdentification x(f.data());
    x.msg = x.message;
    EXPECT_EQ(SummaryOf(x), "Count ABCDEFGH");
}

// --- ExtendedPowerReceiverCapabilities ---------------------------------------

TEST(ExtendedPowerReceiverCapabilities, SummaryIsConstantZeros)
{
    const char* expected =
        "MPP Extended Identification: Minimum Charging Power Level: 00Concurrent Data Streams: "
        "00Data Stream Buffer Size: 00Mfg Rsvd: 00";
    const Frame zeros = {0x84};
    const Frame full = {0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    ExtendedPowerReceiverCapabilities a(zeros.data());
    ExtendedPowerReceiverCapabilities b(full.data());
    EXPECT_EQ(SummaryOf(a), expected);
    EXPECT_EQ(SummaryOf(b), expected);
    EXPECT_EQ(b.logData, std::string("Extended Power Receiver Capabilities ") + expected);
}

// --- WPIDMost, WPIDLast -----------------------------------------------------

TEST(WPIDMost, PrintsFirstThreeBytesAndSkipsFrameByteFive)
{
    const Frame f = {0x54, 0x01, 0x02, 0x03, 0x04, 0x55, 0x06, 0x07};
    WPIDMost w(f.data());
    EXPECT_EQ(SummaryOf(w), "Wireless Power ID Most 01 02 03 ");
    EXPECT_EQ(w.logData, "Wireless Power ID Wireless Power ID Most 01 02 03 ");
    EXPECT_EQ(w.message[3], 0x04);
    EXPECT_EQ(w.message[4], 0x06);
    EXPECT_EQ(w.checksum, 0x07);
}

TEST(WPIDLast, PrintsFirstThreeBytesAndSkipsFrameByteFive)
{
    const Frame f = {0x55, 0xAA, 0xBB, 0xCC, 0xDD, 0x55, 0xEE, 0xF1};
    WPIDLast w(f.data());
    EXPECT_EQ(SummaryOf(w), "Wireless Power ID Last AA BB CC ");
    EXPECT_EQ(w.logData, "Wireless Power ID Wireless Power ID Last AA BB CC ");
    EXPECT_EQ(w.message[4], 0xEE);
    EXPECT_EQ(w.checksum, 0xF1);
}
