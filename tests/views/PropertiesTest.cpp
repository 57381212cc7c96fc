// The property tree: the groups of each item kind, field by field.
#include "ViewTestEvents.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"

#include <gtest/gtest.h>

#include <QTreeView>

namespace {

MsgInfo Full()
{
    MsgInfo e;
    e.common = {12, "ControlError 3.0%", "summary", "Packet"};
    e.device = {"1.0", "QiSniffer-2K", "2023.05.20", "V9.0.1", "HW2", "01 02 ", "coilscope-sim"};
    e.eventG = {5, 1, 3, 7, "Power Transfer Phase", 2};
    e.packet.PacketData = "03 03 00 ";
    e.packet.Status = "NoError";
    e.packet.numbytesInPacket = 3;
    e.packet.premambleCount = 11;
    e.timing.bitTimesUs = 22000;
    e.timing.carrierCurrentHz = 128000;
    e.timing.duration = "00:00:00.022000";
    e.timing.startTime = 1000;
    e.timing.startTimeStamp = "00:00:00.001000";
    e.timing.endTime = 23000;
    e.timing.endTimeStamp = "00:00:00.023000";
    e.timings = {"00:00:01.000000", 2000, "00:00:00.002000", 1000, "00:00:00.001000"};
    e.timingsample.time = "2026-11-23 10:00:00";
    return e;
}

}  // namespace

TEST(Properties, FormAndEmptyStart)
{
    Properties p;
    EXPECT_EQ(p.size(), QSize(407, 394));
    EXPECT_EQ(p.windowTitle(), "Event Properties");
    EXPECT_TRUE(p.Tree()->View()->isHeaderHidden());
    EXPECT_EQ(p.Tree()->View()->objectName(), "qttreepropertybrowser");
    EXPECT_TRUE(p.Tree()->GroupTitles().isEmpty());
}

TEST(Properties, EachKindShowsItsGroups)
{
    Properties p;
    const MsgInfo e = Full();
    const std::pair<int, QStringList> cases[] = {
        {kItemEvent, {"Common Properties", "Packet Properties", "Timing Properties"}},
        {kItemControlError, {"Event Properties", "Timing Properties"}},
        {kItemDigitalPing, {}},
        {kItemPhase, {"Event Properties", "Timing Properties"}},
        {kItemRoot, {"Device Properties", "Event Properties", "Timing Properties"}},
        {kItemStart, {"Common Properties", "Device Properties", "Timing Properties"}},
        {kItemStop, {"Common Properties", "Device Properties", "Timing Properties"}},
        {kItemNotice, {"Common Properties", "Timing Properties"}},
        {9, {}},
        {-1, {}},
    };
    for (const auto& c : cases) {
        p.Fill(e, kItemEvent);  // something shown before
        p.Fill(e, c.first);
        EXPECT_EQ(p.Tree()->GroupTitles(), c.second) << c.first;
    }
}

TEST(Properties, RowsAreTheEventsFieldsInOrder)
{
    Properties p;
    p.Fill(Full(), kItemEvent);
    EXPECT_EQ(p.Tree()->Rows(0), (QStringList{"EventNumber=12", "LogData=ControlError 3.0%", "Summary=summary",
                                              "TypeString=Packet"}));
    EXPECT_EQ(p.Tree()->Rows(1), (QStringList{"Data Packet Error=", "NumBytesInPacket=3", "PacketData=03 03 00 ",
                                              "PacketStatus=NoError", "PreambleCount=11"}));
    EXPECT_EQ(p.Tree()->Rows(2),
              (QStringList{"BitTimeUs=22000", "CarrierCurrentHz=128000", "Duration=00:00:00.022000", "StartTime=1000",
                           "StartTimeStamp=00:00:00.001000", "EndTime=23000", "EndTimeStamp=00:00:00.023000"}));
    p.Fill(Full(), kItemRoot);
    EXPECT_EQ(p.Tree()->Rows(0),
              (QStringList{"BootLoaderVersion=1.0", "DeviceType=QiSniffer-2K", "FirmwareBuildDate=2023.05.20",
                           "FirmwareVersion=V9.0.1", "HardwareVersion=HW2", "SerialNumber=01 02 ",
                           "SoftwareVersion=coilscope-sim"}));
    EXPECT_EQ(p.Tree()->Rows(1), (QStringList{"EventCount=5", "FailureCount=1", "FirstEventNumber=3",
                                              "LastEventNumber=7", "Phase=Power Transfer Phase", "WarningCount=2"}));
    EXPECT_EQ(p.Tree()->Rows(2), (QStringList{"Duration=00:00:01.000000", "StartTime=1000",
                                              "StartTimeStamp=00:00:00.001000", "EndTime=2000",
                                              "EndTimeStamp=00:00:00.002000"}));
    p.Fill(Full(), kItemStart);
    EXPECT_EQ(p.Tree()->Rows(2), (QStringList{"Time=2026-11-23 10:00:00"}));
}

TEST(Properties, ModeZeroEmptiesTheTree)
{
    Properties p;
    p.Fill(Full(), kItemEvent);
    ASSERT_EQ(p.Tree()->GroupTitles().size(), 3);
    p.Fill(Full(), 0);
    EXPECT_TRUE(p.Tree()->GroupTitles().isEmpty());
}

TEST(Properties, SameItemTwiceGivesTheSamePictureWithoutDuplicates)
{
    Properties p;
    p.Fill(Full(), kItemRoot);
    const QStringList titles = p.Tree()->GroupTitles();
    const QStringList rows = p.Tree()->Rows(1);
    p.Fill(Full(), kItemRoot);
    EXPECT_EQ(p.Tree()->GroupTitles(), titles);
    EXPECT_EQ(p.Tree()->Rows(1), rows);
    EXPECT_EQ(p.Tree()->Model().rowCount(), 3);
}

TEST(Properties, EmptyEventShowsEmptyFields)
{
    Properties p;
    p.Fill(MsgInfo(), kItemEvent);
    EXPECT_EQ(p.Tree()->Rows(0), (QStringList{"EventNumber=0", "LogData=", "Summary=", "TypeString="}));
}

TEST(Properties, APacketTheSecondReaderHadASayInShowsItsMarkAndTheOtherReading)
{
    Properties p;
    MsgInfo recovered = Full();
    recovered.packet.reading = "recovered";
    p.Fill(recovered, kItemEvent);
    EXPECT_EQ(p.Tree()->Rows(1), (QStringList{"Data Packet Error=", "NumBytesInPacket=3", "PacketData=03 03 00 ",
                                              "PacketStatus=NoError", "PreambleCount=11", "Reading=recovered"}));
    MsgInfo corrected = Full();
    corrected.packet.reading = "corrected";
    corrected.packet.otherReading = "03 13 10 ";
    p.Fill(corrected, kItemEvent);
    EXPECT_EQ(p.Tree()->Rows(1),
              (QStringList{"Data Packet Error=", "NumBytesInPacket=3", "PacketData=03 03 00 ", "PacketStatus=NoError",
                           "PreambleCount=11", "Reading=corrected", "List Decoder Reading=03 13 10 "}));
}

TEST(Properties, ATransmitterPacketCorrectedByTheSecondFskReaderShowsTheFrameDecodersReading)
{
    Properties p;
    MsgInfo corrected = Full();
    corrected.direction = 1;
    corrected.packet.reading = "corrected";
    corrected.packet.otherReading = "03 13 10 ";
    p.Fill(corrected, kItemEvent);
    EXPECT_EQ(p.Tree()->Rows(1),
              (QStringList{"Data Packet Error=", "NumBytesInPacket=3", "PacketData=03 03 00 ", "PacketStatus=NoError",
                           "PreambleCount=11", "Reading=corrected", "Frame Decoder Reading=03 13 10 "}));
}
