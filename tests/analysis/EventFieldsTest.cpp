// The fields of events as the event log model numbers and classifies them.
#include "analysis/EventFields.h"
#include "analysis/Filter.h"
#include "events/EventLogModel.h"

#include <gtest/gtest.h>

using namespace analysis;

namespace {

MsgInfoPtr Packet(int32_t type, int direction, const std::string& hex, const std::string& text, uint64_t startUs)
{
    auto e = std::make_shared<MsgInfo>();
    e->type = type;
    e->direction = direction;
    e->packet.PacketData = hex;
    e->packet.Status = "NoError";
    e->str = QString::fromStdString(text);
    e->timing.startTime = startUs;
    e->eventG.eventCount = 1;
    return e;
}

}  // namespace

TEST(EventFields, TheModelTellsEachEventsNumberAndPhase)
{
    EventLogModel model;
    std::vector<std::pair<int32_t, int>> told;
    EventFieldsBuilder builder;
    std::vector<EventFields> fields;
    model.eventAdded = [&](const MsgInfo& e, int phase) {
        told.emplace_back(e.id, phase);
        fields.push_back(builder.Next(e, e.id, phase));
    };
    auto viol = std::make_shared<MsgInfo>();
    viol->type = kTypeViolation;
    viol->str = QStringLiteral("Violation: CEP Timeout");
    model.AddEvents({
        Packet(0x01, 2, "01 80 81 ", "SignalStrength 50", 1000000),
        Packet(0x71, 2, "71 13 00 5A EB 4A 1F 82 00 ", "Identification", 1100000),
        Packet(0x20, 2, "20 00 03 23 ", "Specific Request", 1200000),
        Packet(0x03, 2, "03 FD FE ", "ControlError -3.0%", 1300000),
        viol,
        Packet(0x01, 2, "01 80 81 ", "SignalStrength 50", 1400000),
    });
    ASSERT_EQ(told.size(), 6u);
    EXPECT_EQ(told[0], std::make_pair(1, 1));
    EXPECT_EQ(told[1], std::make_pair(2, 2));
    EXPECT_EQ(told[2], std::make_pair(3, 3));
    // A control error right after negotiation opens calibration.
    EXPECT_EQ(told[3], std::make_pair(4, 4));
    EXPECT_EQ(told[4], std::make_pair(5, 4));  // in the phase it ended
    EXPECT_EQ(told[5], std::make_pair(7, 1));  // the violation took two numbers

    // Time in ms on the capture clock; the violation has none of its own and
    // takes the one before it.
    EXPECT_DOUBLE_EQ(fields[0].timeMs, 1000.0);
    EXPECT_DOUBLE_EQ(fields[3].timeMs, 1300.0);
    EXPECT_DOUBLE_EQ(fields[4].timeMs, 1300.0);
    EXPECT_TRUE(fields[4].error);

    Filter f;
    FilterError error;
    ASSERT_TRUE(f.Compile("phase == calibration && type == ControlError && ce.value < 0", error));
    int matched = 0;
    for (const EventFields& ef : fields)
        matched += f.Matches(ef) ? 1 : 0;
    EXPECT_EQ(matched, 1);
}

TEST(EventFields, OriginMovesTheTime)
{
    EventFieldsBuilder b;
    b.SetOriginUs(500000);
    MsgInfoPtr e = Packet(3, 2, "03 00 03 ", "", 2000000);
    EXPECT_DOUBLE_EQ(b.Next(*e, 1, 5).timeMs, 1500.0);
}

TEST(EventFields, LogLineIsTheModelsOwn)
{
    EXPECT_EQ(EventLogLine(12, QStringLiteral("Pattern: ACK"), 1), QStringLiteral("Tx [12] Pattern: ACK"));
    EXPECT_EQ(EventLogLine(3, QStringLiteral("x"), 2), QStringLiteral("Rx [3] x"));
    EXPECT_EQ(EventLogLine(4, QStringLiteral("y"), 0), QStringLiteral("   [4] y"));
}
