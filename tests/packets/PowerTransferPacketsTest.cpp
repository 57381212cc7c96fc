// Power transfer control packets: ControlError, ExControlError, ReceivedPower,
// ReceivedPower1_2_2, ChargeStatus, EndPowerTransfer, SignalStrength,
// PowerControlHoldOff, FODStatus, Renegotiate, GeneralRequest.
#include "packets/Packets.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <ctime>
#include <cctype>
#include <cstdio>
#include <string>
#include <thread>

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
std::string SummaryFor(uint8_t header, uint8_t m0)
{
    const Frame f = {header, m0};
    T p(f.data());
    return SummaryOf(p);
}

// True when text ends in a blank and a clock "hh:mm:ss.mmm".
bool EndsWithClock(const std::string& text)
{
    const std::string shape = " dd:dd:dd.ddd";
    if (text.size() < shape.size())
        return false;
    const std::string tail = text.substr(text.size() - shape.size());
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(tail[i])) : tail[i] != shape[i])
            return false;
    }
    return true;
}

}  // namespace

// --- ControlError, ExControlError -------------------------------------------

TEST(ControlError, SignedByteWithOneDecimalAndPercent)
{
    EXPECT_EQ(SummaryFor<ControlError>(0x03, 0xFF), "-1.0%");
    EXPECT_EQ(SummaryFor<ControlError>(0x03, 0x7F), "127.0%");
    EXPECT_EQ(SummaryFor<ControlError>(0x03, 0x80), "-128.0%");
    EXPECT_EQ(SummaryFor<ControlError>(0x03, 0x00), "0.0%");
}

TEST(ExControlError, SameAsControlError)
{
    EXPECT_EQ(SummaryFor<ExControlError>(0x19, 0xFF), "-1.0%");
    EXPECT_EQ(SummaryFor<ExControlError>(0x19, 0x7F), "127.0%");
    EXPECT_EQ(SummaryFor<ExControlError>(0x19, 0x80), "-128.0%");
    const Frame f = {0x19, 0xFF, 0x42};
    ExControlError e(f.data());
    EXPECT_EQ(e.logData, "ExControlError -1.0%");
    EXPECT_EQ(e.checksum, 0x42);
}

// --- SignalStrength -----------------------------------------------------------

TEST(SignalStrength, HalfScaleIsFifty)
{
    EXPECT_EQ(SummaryFor<SignalStrength>(0x01, 128), "50");
}

TEST(SignalStrength, OneStepIsFractionalPercent)
{
    EXPECT_EQ(SummaryFor<SignalStrength>(0x01, 1), "0.390625");
}

TEST(SignalStrength, FullScaleUsesSixSignificantDigits)
{
    EXPECT_EQ(SummaryFor<SignalStrength>(0x01, 255), "99.6094");
    const Frame f = {0x01, 128};
    SignalStrength s(f.data());
    EXPECT_EQ(s.logData, "SignalStrength 50");
}

// --- ReceivedPower ----------------------------------------------------------

TEST(ReceivedPower, HalfRatioOfFiveWatts)
{
    const Frame f = {0x04, 64};
    ReceivedPower p(f.data(), 5);
    EXPECT_EQ(SummaryOf(p), "50% 2.5W");
    EXPECT_EQ(p.logData, "ReceivedPower 50% 2.5W");
    EXPECT_EQ(p.powerRatio, 0.5);
    EXPECT_EQ(p.power, 2.5f);
    EXPECT_EQ(p.reference, 5);
}

TEST(ReceivedPower, ZeroReferenceGivesZeroPowerButPercentage)
{
    const Frame f = {0x04, 64};
    ReceivedPower p(f.data(), 0);
    EXPECT_EQ(p.power, 0.0f);
    EXPECT_EQ(SummaryOf(p), "50% 0W");
    EXPECT_EQ(p.powerRatio, 0.5);
}

TEST(ReceivedPower, RatioAboveOneIsNotClipped)
{
    const Frame f = {0x04, 255};
    ReceivedPower p(f.data(), 10);
    EXPECT_EQ(SummaryOf(p), "199.219% 19.9219W");
    EXPECT_DOUBLE_EQ(p.powerRatio, 255.0 / 128.0);
}

// --- ReceivedPower1_2_2 -----------------------------------------------------

TEST(ReceivedPower1_2_2, ModeThreeHasNoModeTextAndStartsWithPercentage)
{
    const Frame f = {0x31, 0x03, 0x40, 0x00};
    ReceivedPower1_2_2 p(f.data(), 5);
    const std::string s = SummaryOf(p);
    EXPECT_EQ(s.rfind("50% 2.5W ", 0), 0u) << s;
    EXPECT_EQ(s.size(), std::string("50% 2.5W hh:mm:ss.mmm").size()) << s;
    EXPECT_TRUE(EndsWithClock(s)) << s;
    EXPECT_EQ(p.powerRatio, 0.5);
    EXPECT_EQ(p.power, 2.5f);
}

TEST(ReceivedPower1_2_2, ModeTexts)
{
    struct Case {
        uint8_t m0;
        const char* prefix;
    };
    const Case cases[] = {
        {0x00, "Mode 0 (NormalMode_ResponseExpected); 50% 2.5W "},
        {0x01, "Mode 1 (LightLoadCal_ResponseExpected); 50% 2.5W "},
        {0x02, "Mode 2 (LoadConnectedCal_ResponseExpected); 50% 2.5W "},
        {0x04, "Mode 4 (NormalMode_NoResponseExpected); 50% 2.5W "},
        {0xF8, "Mode 0 (NormalMode_ResponseExpected); 50% 2.5W "},
        {0x05, "50% 2.5W "},
        {0x06, "50% 2.5W "},
        {0x07, "50% 2.5W "},
    };
    for (const Case& c : cases) {
        const Frame f = {0x31, c.m0, 0x40, 0x00};
        ReceivedPower1_2_2 p(f.data(), 5);
        const std::string s = SummaryOf(p);
        EXPECT_EQ(s.rfind(c.prefix, 0), 0u) << s;
        // prefix, then "hh:mm:ss.mmm"
        EXPECT_EQ(s.size(), std::string(c.prefix).size() + 12) << s;
    }
}

TEST(ReceivedPower1_2_2, SixteenBitRatioAboveOne)
{
    const Frame f = {0x31, 0x03, 0xFF, 0xFF};
    ReceivedPower1_2_2 p(f.data(), 7);
    const std::string s = SummaryOf(p);
    EXPECT_EQ(s.rfind("199.997% 13.9998W ", 0), 0u) << s;
    EXPECT_DOUBLE_EQ(p.powerRatio, 65535.0 / 32768.0);
}

TEST(ReceivedPower1_2_2, EndsWithLocalWallClock)
{
    const Frame f = {0x31, 0x00, 0x80, 0x00};
    // Read on the clock the text is made from: time() reads a coarser clock,
    // which can still show the last second a few milliseconds into the next.
    const std::time_t before = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    ReceivedPower1_2_2 p(f.data(), 5);
    const std::time_t after = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    EXPECT_TRUE(EndsWithClock(p.logData)) << p.logData;
    const std::string clock = p.logData.substr(p.logData.size() - 12, 8);
    auto hms = [](std::time_t t) {
        std::tm parts{};
        localtime_r(&t, &parts);
        char text[16];
        std::snprintf(text, sizeof text, "%02d:%02d:%02d", parts.tm_hour, parts.tm_min, parts.tm_sec);
        return std::string(text);
    };
    EXPECT_TRUE(clock == hms(before) || clock == hms(after)) << clock;
    EXPECT_EQ(p.logData.rfind("ReceivedPower Mode 0 (NormalMode_ResponseExpected); 100% 5W ", 0), 0u);
}

TEST(ReceivedPower1_2_2, LaterSummaryGivesNewTimeWhileLogDataKeepsTheFirst)
{
    const Frame f = {0x31, 0x00, 0x80, 0x00};
    ReceivedPower1_2_2 p(f.data(), 5);
    const std::string first = p.logData;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::string later = TypeOf(p) + SummaryOf(p);
    EXPECT_EQ(p.logData, first);
    EXPECT_NE(later, first);
    EXPECT_EQ(later.substr(0, later.size() - 12), first.substr(0, first.size() - 12));
}

// --- ChargeStatus -------------------------------------------------------------

TEST(ChargeStatus, PlainUnsignedDecimal)
{
    EXPECT_EQ(SummaryFor<ChargeStatus>(0x05, 0), "0");
    EXPECT_EQ(SummaryFor<ChargeStatus>(0x05, 200), "200");
    const Frame f = {0x05, 77};
    ChargeStatus c(f.data());
    EXPECT_EQ(c.logData, "ChargeStatus 77");
}

// --- EndPowerTransfer -------------------------------------------------------

TEST(EndPowerTransfer, SixIsBatterFailure)
{
    EXPECT_EQ(SummaryFor<EndPowerTransfer>(0x02, 6), "Batter Failure");
}

TEST(EndPowerTransfer, NineIsReserved)
{
    EXPECT_EQ(SummaryFor<EndPowerTransfer>(0x02, 9), "Reserved");
    EXPECT_EQ(SummaryFor<EndPowerTransfer>(0x02, 0xFF), "Reserved");
}

TEST(EndPowerTransfer, AllCodes)
{
    const char* const texts[] = {"Unknown",      "Charge Complete", "Internal Fault",
                                 "Over Temperature", "Over Voltage", "Over Current",
                                 "Batter Failure", "Reconfigure",   "No response"};
    for (uint8_t code = 0; code < 9; ++code)
        EXPECT_EQ(SummaryFor<EndPowerTransfer>(0x02, code), texts[code]);
    const Frame f = {0x02, 1};
    EndPowerTransfer e(f.data());
    EXPECT_EQ(e.logData, "EndPowerTransfer Charge Complete");
}

// --- PowerControlHoldOff, FODStatus, Renegotiate ----------------------------

TEST(PowerControlHoldOff, LabelIsRepeatedInLogData)
{
    const Frame f = {0x06, 5};
    PowerControlHoldOff p(f.data());
    EXPECT_EQ(SummaryOf(p), "PowerControlHoldOff 5 ms");
    EXPECT_EQ(p.logData, "PowerControlHoldOff PowerControlHoldOff 5 ms");
}

TEST(FODStatus, LabelWithoutBlankAndSecondByteOnly)
{
    const Frame f = {0x22, 0x99, 12, 0x33};
    FODStatus p(f.data());
    EXPECT_EQ(p.logData, "FOD Status PacketTest0; Q = 12");
    EXPECT_EQ(p.checksum, 0x33);
}

TEST(Renegotiate, LabelIsRepeatedInLogData)
{
    const Frame f = {0x09, 0x00};
    Renegotiate p(f.data());
    EXPECT_EQ(p.logData, "Renegotiate Renegotiate");
}

// --- GeneralRequest ---------------------------------------------------------

TEST(GeneralRequest, TxCapabilityTextIsAllInTypeString)
{
    const Frame f = {0x07, 0x31};
    GeneralRequest g(f.data());
    EXPECT_EQ(g.logData, "Request Tx Capability");
    EXPECT_EQ(SummaryOf(g), "");
}

TEST(GeneralRequest, TypeStringByValue)
{
    auto type = [](uint8_t m0) {
        const Frame f = {0x07, m0};
        GeneralRequest g(f.data());
        return g.logData;
    };
    EXPECT_EQ(type(0x00), "Power Transmitter Data Not Available");
    EXPECT_EQ(type(0x30), "Request Tx ID");
    EXPECT_EQ(type(0x31), "Request Tx Capability");
    EXPECT_EQ(type(0x01), "Reserved");
    EXPECT_EQ(type(0x32), "Reserved");
}
