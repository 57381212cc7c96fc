#include "events/MsgInfo.h"

#include <gtest/gtest.h>

namespace {

MsgInfo Sample()
{
    MsgInfo m;
    m.id = 7;
    m.common.eventNumber = 7;
    m.common.logData = "ControlError -1.0% @128000HZ";
    m.common.Summary = "-1.0%";
    m.common.typeString = "ControlError ";
    m.device.firmwareBuildDate = "2023.05.20";
    m.device.serialNumber = "01 02 03 04 05 06 07 08 09 ";
    m.eventG.eventCount = 1;
    m.eventG.FirstEventNumber = 7;
    m.eventG.lastEventNumber = 7;
    m.packet.PacketData = "03 FF FC ";
    m.packet.Status = "NoError";
    m.packet.numbytesInPacket = 3;
    m.packet.premambleCount = 11;
    m.packet.controlErrorValue = -1.0f;
    m.packet.controlErrorFreq = 128000;
    m.timing.startTime = 1000000;
    m.timing.endTime = 1027500;
    m.timing.bitTimesUs = 27500;
    m.timing.carrierCurrentHz = 128000;
    m.timing.startTimeStamp = "00:00:01.000000";
    m.timing.endTimeStamp = "00:00:01.027500";
    m.timing.duration = "00:00:00.027500";
    m.timings.startTime = 5;
    m.timingsample.time = "2026-11-22 03:04:05";
    m.str = QString::fromUtf8("ControlError -1.0% @128000HZ \xC2\xB0");
    m.type = 3;
    m.direction = 2;
    return m;
}

}  // namespace

TEST(MsgInfo, NewRecordHasEmptyFieldsAndEventCountZero)
{
    MsgInfo m;
    EXPECT_EQ(m.id, 0);
    EXPECT_EQ(m.eventG.eventCount, 0);
    EXPECT_TRUE(m.str.isNull());
    EXPECT_EQ(m.type, 0);
    EXPECT_EQ(m.direction, 0);
    EXPECT_EQ(m.capture, nullptr);
    EXPECT_TRUE(m.common.logData.empty());
}

TEST(MsgInfo, DocumentKeysStandInByteOrderAndGroupsAreTexts)
{
    const std::string text = Sample().ToJson();
    const char* keys[] = {"\"common\"", "\"device\"", "\"eventG\"", "\"id\"", "\"packet\"",
                          "\"str\"", "\"timing\"", "\"timings\"", "\"timingsample\"", "\"type\""};
    size_t last = 0;
    for (const char* k : keys) {
        const size_t at = text.find(std::string(k) + " : ");
        ASSERT_NE(at, std::string::npos) << k;
        EXPECT_GT(at, last) << k;
        last = at;
    }
    // A group is the escaped text of its own styled document.
    EXPECT_NE(text.find("\"common\" : \"{\\n   \\\"Summary\\\" : \\\"-1.0%\\\""), std::string::npos) << text;
    EXPECT_NE(text.find("\\\"controlErrorValue\\\" : -1.0,"), std::string::npos);
}

TEST(MsgInfo, WrittenReadAndWrittenAgainIsIdenticalButForStatus)
{
    const MsgInfo original = Sample();
    const std::string first = original.ToJson();
    MsgInfo loaded;
    loaded.FromJson(first);
    EXPECT_TRUE(loaded.packet.Status.empty());
    EXPECT_EQ(loaded.str, original.str);
    EXPECT_EQ(loaded.common.logData, original.common.logData);
    EXPECT_EQ(loaded.timing.endTime, original.timing.endTime);
    EXPECT_EQ(loaded.packet.controlErrorValue, -1.0f);
    EXPECT_EQ(loaded.direction, 0);  // not stored
    const std::string second = loaded.ToJson();
    EXPECT_NE(second, first);
    loaded.packet.Status = "NoError";
    EXPECT_EQ(loaded.ToJson(), first);
}

TEST(MsgInfo, NumbersPassThroughThirtyTwoBitsOnDisk)
{
    MsgInfo m;
    m.timing.startTime = (1ULL << 32) + 5;
    m.common.eventNumber = (1LL << 33) + 9;
    m.timings.endTime = 3000000000LL;  // above the signed 32-bit range
    MsgInfo back;
    back.FromJson(m.ToJson());
    EXPECT_EQ(back.timing.startTime, 5u);
    EXPECT_EQ(back.common.eventNumber, 9);
    // Written as a negative 32-bit number and read back as such.
    EXPECT_EQ(back.timings.endTime, static_cast<int64_t>(static_cast<int32_t>(3000000000LL)));
}

TEST(MsgInfo, EventNumberWrittenAsTextIsIgnored)
{
    MsgInfo m;
    m.FromJson("{ \"common\" : \"{ \\\"eventNumber\\\" : \\\"12\\\", \\\"logData\\\" : \\\"x\\\" }\" }");
    EXPECT_EQ(m.common.eventNumber, 0);
    EXPECT_EQ(m.common.logData, "x");
}

TEST(MsgInfo, NumberTooLargeForSigned32BitsIsIgnored)
{
    MsgInfo m;
    m.FromJson("{ \"id\" : 4294967295, \"type\" : 3 }");
    EXPECT_EQ(m.id, 0);
    EXPECT_EQ(m.type, 3);
}

TEST(MsgInfo, WrongTypesAndBrokenTextLeaveFieldsAsTheyAre)
{
    MsgInfo m;
    m.type = 9;
    m.FromJson("{ \"type\" : \"3\", \"str\" : 5, \"timing\" : 7, \"packet\" : \"{ broken\" }");
    EXPECT_EQ(m.type, 9);
    EXPECT_TRUE(m.str.isNull());
    m.FromJson("not json at all");
    EXPECT_EQ(m.type, 9);
    m.FromJson("");
    EXPECT_EQ(m.type, 9);
    // controlErrorValue must be a real: an integer is ignored.
    m.FromJson("{ \"packet\" : \"{ \\\"controlErrorValue\\\" : 3 }\" }");
    EXPECT_EQ(m.packet.controlErrorValue, 0.0f);
}

TEST(MsgInfo, CopiesShareTheCaptureRecord)
{
    MsgInfo a = Sample();
    a.capture = std::make_shared<TriggerData>();
    MsgInfo b = a;
    EXPECT_EQ(b.capture, a.capture);
    b.common.logData = "changed";
    EXPECT_NE(a.common.logData, b.common.logData);
}
