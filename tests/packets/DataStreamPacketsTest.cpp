// Data streams: SimultaneousAuxiliaryDataControl (ASK 0x48 and FSK 0x4F),
// SimultaneousDataStreamResponse and FSKEDS.
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

std::string Sadc(uint8_t m0, uint8_t m1 = 0, uint8_t m2 = 0, uint8_t m3 = 0)
{
    const Frame f = {0x48, m0, m1, m2, m3};
    SimultaneousAuxiliaryDataControl p(f.data());
    return SummaryOf(p);
}

}  // namespace

TEST(SimultaneousAuxiliaryDataControl, OpenStreamWithTransferSize)
{
    EXPECT_EQ(Sadc(0x80, 0x30, 0x01, 0x00), " Open Stream 3 Transfer size in bytes 256");
}

TEST(SimultaneousAuxiliaryDataControl, CloseAndCompleteWithUpperHexCrc)
{
    EXPECT_EQ(Sadc(0x60, 0x20, 0xAB, 0x0C), " Close and Complete Stream 2 crc-16 AB0C");
}

TEST(SimultaneousAuxiliaryDataControl, HighCommandsGiveEmptySummary)
{
    const Frame f = {0x48, 0xE0, 0x30, 0x01, 0x00};
    SimultaneousAuxiliaryDataControl p(f.data());
    EXPECT_EQ(SummaryOf(p), "");
    EXPECT_EQ(p.logData, "SADC ");
    EXPECT_EQ(Sadc(0xA0, 0x30), "");
    EXPECT_EQ(Sadc(0xC0, 0x30), "");
}

TEST(SimultaneousAuxiliaryDataControl, ResetAndAbortCommands)
{
    EXPECT_EQ(Sadc(0x00, 0x70), " Reset All Stream");
    EXPECT_EQ(Sadc(0x20, 0x70), " Reset Stream 7");
    EXPECT_EQ(Sadc(0x40, 0xF0), " Close and Abort Stream 15");
}

TEST(SimultaneousAuxiliaryDataControl, LogDataHasTwoBlanksBehindLabel)
{
    const Frame f = {0x48, 0x00};
    SimultaneousAuxiliaryDataControl p(f.data());
    EXPECT_EQ(p.logData, "SADC  Reset All Stream");
}

TEST(SimultaneousAuxiliaryDataControl, ChecksumIsTheLastMessageByteInBothDirections)
{
    const Frame ask = {0x48, 0x80, 0x30, 0x01, 0x00, 0x5A, 0x6B};
    SimultaneousAuxiliaryDataControl a(ask.data());
    EXPECT_EQ(a.checksum, 0x5A);
    EXPECT_EQ(a.message[4], 0x5A);
    EXPECT_EQ(a.size, 5);
    const Frame fsk = {0x4F, 0x80, 0x30, 0x01, 0x00, 0x5A, 0x6B};
    SimultaneousAuxiliaryDataControl b(fsk.data());
    EXPECT_EQ(b.header, 0x4F);
    EXPECT_EQ(b.checksum, 0x5A);
    EXPECT_EQ(b.logData, "SADC  Open Stream 3 Transfer size in bytes 256");
}

TEST(SimultaneousAuxiliaryDataControl, ExtraTextsStayEmpty)
{
    const Frame f = {0x48, 0x80, 0x30, 0x01, 0x00};
    SimultaneousAuxiliaryDataControl p(f.data());
    EXPECT_TRUE(p.text1.empty());
    EXPECT_TRUE(p.text2.empty());
    EXPECT_TRUE(p.text3.empty());
}

TEST(SimultaneousDataStreamResponse, StreamFiveCrcError)
{
    const Frame f = {0x38, 0x00, 0x50, 0xC0, 0x11};
    SimultaneousDataStreamResponse p(f.data());
    EXPECT_EQ(SummaryOf(p), "StreamNumber: 5 ERR_CRC");
    EXPECT_EQ(p.logData, "SDSR StreamNumber: 5 ERR_CRC");
    EXPECT_EQ(p.checksum, 0x11);
}

TEST(SimultaneousDataStreamResponse, AnswerByTopTwoBits)
{
    auto text = [](uint8_t m0, uint8_t m1, uint8_t m2) {
        const Frame f = {0x38, m0, m1, m2};
        SimultaneousDataStreamResponse p(f.data());
        return SummaryOf(p);
    };
    EXPECT_EQ(text(0xFF, 0x10, 0x3F), "StreamNumber: 1 ACK");
    EXPECT_EQ(text(0x00, 0x20, 0x40), "StreamNumber: 2 UNEXPECTED");
    EXPECT_EQ(text(0x00, 0xF0, 0x80), "StreamNumber: 15 ERR_BUSY");
    EXPECT_EQ(text(0x00, 0x00, 0x00), "StreamNumber: 0 ACK");
}

TEST(FSKEDS, StreamsBitmask)
{
    const Frame f = {0x2F, 0x03, 0xC0, 0x99};
    FSKEDS p(f.data());
    EXPECT_EQ(SummaryOf(p), "Streams Bitmask 03 C0 ");
    EXPECT_EQ(p.logData, " Enabled Data Streams Streams Bitmask 03 C0 ");
    EXPECT_EQ(p.checksum, 0);
}
