#include "events/EventLogModel.h"
#include "events/SessionFile.h"
#include "services/Log.h"
#include "services/SettingParams.h"

#include "FileSizeLimit.h"
#include "RecordCompare.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <map>
#include <random>

#include <QDir>
#include <QTemporaryDir>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace {

MsgInfoPtr Event(int type, int direction, const char* str, float controlError = 0.0f, int freq = 0)
{
    auto e = std::make_shared<MsgInfo>();
    e->type = type;
    e->direction = direction;
    e->str = QString::fromUtf8(str);
    e->common.logData = str;
    e->eventG.eventCount = 1;
    e->packet.controlErrorValue = controlError;
    e->packet.controlErrorFreq = freq;
    return e;
}

class EventLogModelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.m_window_time = 15;
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
    }
    QTemporaryDir dir;
};

QString TitleOf(QStandardItem* item)
{
    return item ? item->text() : QString();
}

}  // namespace

TEST_F(EventLogModelTest, EventsAreNumberedAndLogged)
{
    EventLogModel m;
    m.AddEvents({Event(1, 2, "SignalStrength 50"), Event(0x30, 1, "Power Transmitter Identification: v1.3")});
    ASSERT_EQ(m.LogLines().size(), 2);
    EXPECT_EQ(m.LogLines()[0].toStdString(), "Rx [1] SignalStrength 50");
    EXPECT_EQ(m.LogLines()[1].toStdString(), "Tx [2] Power Transmitter Identification: v1.3");
    EXPECT_EQ(m.NextEventNumber(), 3);
    EXPECT_EQ(m.LogText().toStdString(),
              "Rx [1] SignalStrength 50\nTx [2] Power Transmitter Identification: v1.3\n");
}

TEST_F(EventLogModelTest, PhaseOfFollowsTypeAndDirection)
{
    EventLogModel m;
    m.SetCurrentPhase(2);
    EXPECT_EQ(m.PhaseOf(*Event(0, 1, "")), 3);
    EXPECT_EQ(m.PhaseOf(*Event(48, 1, "")), 3);
    EXPECT_EQ(m.PhaseOf(*Event(253, 1, "")), 2);  // a live digital ping keeps the phase
    EXPECT_EQ(m.PhaseOf(*Event(253, 0, "")), 1);  // a loaded one (direction 0) is a ping phase
    EXPECT_EQ(m.PhaseOf(*Event(1, 2, "")), 1);
    EXPECT_EQ(m.PhaseOf(*Event(2, 2, "")), 1);
    m.SetCurrentPhase(5);
    EXPECT_EQ(m.PhaseOf(*Event(2, 2, "")), 5);
    EXPECT_EQ(m.PhaseOf(*Event(3, 2, "")), 5);
    m.SetCalibrationFlag(1);
    EXPECT_EQ(m.PhaseOf(*Event(3, 2, "")), 4);
    EXPECT_EQ(m.PhaseOf(*Event(25, 2, "")), 4);
    for (int t : {4, 5, 256})
        EXPECT_EQ(m.PhaseOf(*Event(t, 2, "")), 5);
    for (int t : {6, 81, 113, 129, 258})
        EXPECT_EQ(m.PhaseOf(*Event(t, 2, "")), 2);
    for (int t : {7, 9, 32, 34, 84, 85})
        EXPECT_EQ(m.PhaseOf(*Event(t, 2, "")), 3);
    EXPECT_EQ(m.PhaseOf(*Event(0x99, 2, "")), 5);
}

TEST_F(EventLogModelTest, Mode2ReceivedPowerEndsCalibration)
{
    EventLogModel m;
    m.SetCalibrationFlag(1);
    EXPECT_EQ(m.PhaseOf(*Event(49, 2, "ReceivedPower Mode 1 (LightLoadCal_ResponseExpected); 10% 1W")), 4);
    EXPECT_EQ(m.CalibrationFlag(), 1);
    EXPECT_EQ(m.PhaseOf(*Event(49, 2, "ReceivedPower Mode 2 (LoadConnectedCal_ResponseExpected); 20% 2W")), 4);
    EXPECT_EQ(m.CalibrationFlag(), 0);
    EXPECT_EQ(m.PhaseOf(*Event(49, 2, "ReceivedPower Mode 0")), 5);
}

TEST_F(EventLogModelTest, PhaseGroupsOpenWithTheirTitlesAndCount)
{
    EventLogModel m;
    m.StartAcquisition();
    m.AddEvents({Event(1, 2, "SignalStrength 50"), Event(0x71, 2, "Identification 1.2"),
                 Event(0x51, 2, "Configuration 5W"), Event(7, 2, "Request"), Event(3, 2, "ControlError 1.0%", 1, 128000),
                 Event(4, 2, "ReceivedPower 50%")});
    QStandardItem* root = m.Root();
    ASSERT_EQ(root->rowCount(), 6);  // Start marker and five groups
    EXPECT_TRUE(TitleOf(root->child(0)).startsWith("Start Acquisition: Acquisition started at "));
    EXPECT_EQ(TitleOf(root->child(1)).toStdString(), "Power Ping Phase (1 events)");
    EXPECT_EQ(TitleOf(root->child(2)).toStdString(), "Power Identify&Configure Phase (2 events)");
    EXPECT_EQ(TitleOf(root->child(3)).toStdString(), "Negotiation Phase (1 events)");
    // Opening negotiation set the calibration flag: the control error opens
    // calibration, the 8-bit received power opens power transfer.
    EXPECT_EQ(TitleOf(root->child(4)).toStdString(), "Calibration Phase");
    EXPECT_EQ(TitleOf(root->child(5)).toStdString(), "Power Transfer Phase (1 events)");
    EXPECT_EQ(m.CalibrationFlag(), 1);
    // The flag stays set: the next control error goes back to a new calibration group.
    m.AddEvents({Event(3, 2, "ControlError 0.0%")});
    EXPECT_EQ(root->rowCount(), 7);
    EXPECT_EQ(TitleOf(root->child(6)).toStdString(), "Calibration Phase");
    EXPECT_TRUE(TitleOf(root).endsWith("(7 events)"));
}

TEST_F(EventLogModelTest, EndPowerTransferStaysInPowerTransferElseOpensPing)
{
    EventLogModel m;
    m.AddEvents({Event(4, 2, "ReceivedPower"), Event(2, 2, "EndPowerTransfer")});
    EXPECT_EQ(m.Root()->rowCount(), 1);
    EXPECT_EQ(m.CurrentPhase(), 5);
    EventLogModel other;
    other.AddEvents({Event(0x51, 2, "Configuration"), Event(2, 2, "EndPowerTransfer")});
    ASSERT_EQ(other.Root()->rowCount(), 2);
    EXPECT_EQ(TitleOf(other.Root()->child(1)).toStdString(), "Power Ping Phase (1 events)");
}

TEST_F(EventLogModelTest, LiveDigitalPingNeverChangesThePhase)
{
    EventLogModel m;
    m.AddEvents({Event(0x51, 2, "Configuration")});
    m.AddEvents({Event(253, 1, "Digital Ping 65ms @ 128000HZ")});
    EXPECT_EQ(m.CurrentPhase(), 2);
    EXPECT_EQ(m.Root()->rowCount(), 1);
    // Its log line has the blank prefix.
    EXPECT_EQ(m.LogLines().back().toStdString(), "   [2] Digital Ping 65ms @ 128000HZ");
}

TEST_F(EventLogModelTest, ControlErrorsAndPingsFoldIntoOneSubGroup)
{
    EventLogModel m;
    m.AddEvents({Event(4, 2, "ReceivedPower"), Event(3, 2, "CE a", 2.0f, 128000), Event(3, 2, "CE b", -3.0f, 127000),
                 Event(253, 1, "Digital Ping"), Event(3, 2, "CE c", 2.0f, 126000)});
    QStandardItem* group = m.Root()->child(0);
    ASSERT_EQ(group->rowCount(), 2);  // the received power and one sub-group
    QStandardItem* sub = group->child(1);
    EXPECT_EQ(sub->rowCount(), 4);  // the ping joined the control errors
    EXPECT_EQ(sub->text().toStdString(), "Control Error: -3.0% 127000HZ to 2.0% 128000HZ (4 events)");
    // Any other event ends the sub-group.
    m.AddEvents({Event(4, 2, "ReceivedPower"), Event(3, 2, "CE d", 1.0f, 1)});
    EXPECT_EQ(group->rowCount(), 4);
}

TEST_F(EventLogModelTest, ContractClosesTheGroupAndTheNextEventOpensANewOne)
{
    EventLogModel m;
    m.AddEvents({Event(0x51, 2, "Configuration"), Event(259, 0, "Power Transfer Contract : MaxPower=5W"),
                 Event(0x71, 2, "Identification")});
    ASSERT_EQ(m.Root()->rowCount(), 3);
    EXPECT_EQ(TitleOf(m.Root()->child(1)).toStdString(), "Power Transfer Contract : MaxPower=5W");
    EXPECT_EQ(TitleOf(m.Root()->child(2)).toStdString(), "Power Identify&Configure Phase (1 events)");
    // The contract adds nothing to the root's count.
    EXPECT_TRUE(TitleOf(m.Root()).endsWith("(2 events)"));
}

TEST_F(EventLogModelTest, NoLogLineForStatusAndContract)
{
    EventLogModel m;
    m.AddEvents({Event(0x51, 2, "Configuration"), Event(258, 0, "Receiver Device Status : MaxPower=5W"),
                 Event(259, 0, "Power Transfer Contract : MaxPower=5W")});
    ASSERT_EQ(m.LogLines().size(), 1);
    EXPECT_EQ(m.NextEventNumber(), 4);
}

TEST_F(EventLogModelTest, ViolationTakesTwoNumbers)
{
    EventLogModel m;
    auto v = Event(256, 0, "Violation: CEP Timeout");
    m.AddEvents({Event(3, 2, "CE"), v, Event(1, 2, "SignalStrength")});
    EXPECT_EQ(v->id, 2);  // the record's number
    QStandardItem* item = m.Root()->child(1);
    ASSERT_TRUE(item);
    const auto* ex = static_cast<QStandardItemEx*>(item);
    EXPECT_EQ(ex->mode, kItemNotice);
    EXPECT_EQ(ex->info->id, 3);  // the item shows the next one
    EXPECT_FALSE(ex->info->timingsample.time.empty());
    EXPECT_EQ(m.LogLines()[1].toStdString(), "   [3] Violation: CEP Timeout");
    EXPECT_EQ(m.LogLines()[2].toStdString(), "Rx [4] SignalStrength");
    EXPECT_EQ(m.CurrentPhase(), 1);
}

TEST_F(EventLogModelTest, TwoStartMarkersNumberFromOneAgain)
{
    EventLogModel m;
    m.StartAcquisition();
    m.AddEvents({Event(1, 2, "a"), Event(1, 2, "b")});
    m.StartAcquisition();
    auto e = Event(1, 2, "c");
    m.AddEvents({e});
    EXPECT_EQ(e->id, 2);  // the Start marker took number 1
    int starts = 0;
    for (int r = 0; r < m.Root()->rowCount(); ++r)
        starts += static_cast<QStandardItemEx*>(m.Root()->child(r))->mode == kItemStart;
    EXPECT_EQ(starts, 2);
}

TEST_F(EventLogModelTest, LineLimitIsWindowTimeTimes50ThenTimes500AfterStart)
{
    SettingParams::Instance().m_window_time = 1;
    EventLogModel m;
    EXPECT_EQ(m.LineLimit(), 50);
    std::vector<MsgInfoPtr> batch;
    for (int k = 0; k < 80; ++k)
        batch.push_back(Event(1, 2, "SignalStrength"));
    m.AddEvents(batch);
    EXPECT_EQ(m.LogLines().size(), 50);
    m.StartAcquisition();
    EXPECT_EQ(m.LineLimit(), 500);
    batch.clear();
    for (int k = 0; k < 600; ++k)
        batch.push_back(Event(1, 2, "SignalStrength"));
    m.AddEvents(batch);
    EXPECT_EQ(m.LogLines().size(), 500);
    // The group keeps 50 rows at most, losing at most 10 a batch.
    QStandardItem* group = m.PhaseGroup();
    ASSERT_TRUE(group);
    EXPECT_EQ(group->rowCount(), 600 - 10);
    for (int k = 0; k < 60; ++k)
        m.AddEvents({});
    EXPECT_EQ(group->rowCount(), 50);
    EXPECT_EQ(static_cast<QStandardItemEx*>(group)->info->eventG.eventCount, 600);  // totals keep counting
}

TEST_F(EventLogModelTest, AutosaveWritesRecordsBeforeNumberingAndLogLines)
{
    EventLogModel m;
    m.StartAcquisition();
    m.AddEvents({Event(3, 2, "ControlError 1.0% @0HZ")});
    m.CloseStreams();
    std::vector<MsgInfoPtr> saved;
    ASSERT_TRUE(ReadSessionFile(m.SidPath(), saved));
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_EQ(saved[0]->str.toStdString(), "ControlError 1.0% @0HZ");
    FILE* f = std::fopen(m.LogPath().c_str(), "rb");
    ASSERT_TRUE(f);
    char buffer[512] = {};
    std::fread(buffer, 1, sizeof buffer - 1, f);
    std::fclose(f);
    const std::string log(buffer);
    EXPECT_NE(log.find(" ASK Rx [2] ControlError 1.0% @0HZ\r\n"), std::string::npos) << log;
    // The Start marker's own line is written before the new files are opened:
    // it is in the log list but not in the new .log.
    EXPECT_EQ(log.find("Start Acquisition"), std::string::npos) << log;
    EXPECT_TRUE(m.LogLines()[0].startsWith("   [1] Start Acquisition: Acquisition started at "));
}

// The .log as another process sees it while the session is open: after each
// batch every line is in the file and the file ends at a line's end, also
// when a batch's lines are far longer than a stdio buffer; after Stop (the
// files stay open until the next Start) the Stop marker's line is there too.
TEST_F(EventLogModelTest, LogFileHoldsEveryWholeLineAfterEachBatchAndAtStop)
{
    auto read = [](const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    auto lines = [](const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); };
    EventLogModel m;
    m.StartAcquisition();
    m.AddEvents({Event(3, 2, "ControlError 1.0% @0HZ"), Event(0x30, 1, "Power Transmitter Identification: v1.3")});
    std::string log = read(m.LogPath());
    ASSERT_EQ(lines(log), 2) << log;
    EXPECT_NE(log.find(" ASK Rx [2] ControlError 1.0% @0HZ\r\n"), std::string::npos) << log;
    EXPECT_EQ(log.substr(log.size() - 2), "\r\n");

    std::vector<MsgInfoPtr> batch;
    const std::string padding(120, 'p');
    for (int i = 0; i < 100; ++i)
        batch.push_back(Event(3, 2, ("ControlError " + std::to_string(i) + " " + padding).c_str()));
    m.AddEvents(batch);
    log = read(m.LogPath());
    ASSERT_GT(log.size(), 3u * 4096);
    EXPECT_EQ(lines(log), 102);
    EXPECT_EQ(log.substr(log.size() - 2), "\r\n");
    EXPECT_NE(log.find("Rx [103] ControlError 99 " + padding + "\r\n"), std::string::npos);

    m.AddEvents({});
    EXPECT_EQ(read(m.LogPath()), log);
    m.StopAcquisition();
    log = read(m.LogPath());
    EXPECT_EQ(lines(log), 103);
    const size_t stop = log.rfind("   [104] Stop Acquisition: Acquisition stoped at ");
    ASSERT_NE(stop, std::string::npos) << log.substr(log.size() - 200);
    EXPECT_EQ(log.find("\r\n", stop), log.size() - 2);
    // The .sid, likewise, holds every record whole.
    std::vector<MsgInfoPtr> saved;
    ASSERT_TRUE(ReadSessionFile(m.SidPath(), saved));
    EXPECT_EQ(saved.size(), 102u);
    const std::string sid = read(m.SidPath());
    ASSERT_FALSE(sid.empty());
    EXPECT_EQ(sid.back(), '\0');
}

TEST_F(EventLogModelTest, StopMarkerKeepsPhaseAndClearAllEmptiesTheModel)
{
    EventLogModel m;
    m.StartAcquisition();
    m.AddEvents({Event(4, 2, "ReceivedPower")});
    m.StopAcquisition();
    EXPECT_EQ(m.CurrentPhase(), 5);
    EXPECT_EQ(m.PhaseGroup(), nullptr);
    EXPECT_TRUE(TitleOf(m.Root()->child(m.Root()->rowCount() - 1)).startsWith("Stop Acquisition: Acquisition stoped at "));
    const int32_t next = m.NextEventNumber();
    m.ClearAll();
    EXPECT_EQ(m.Root()->rowCount(), 0);
    EXPECT_EQ(m.Model().rowCount(), 1);
    EXPECT_TRUE(m.LogLines().isEmpty());
    EXPECT_EQ(m.CurrentPhase(), 1);
    EXPECT_EQ(m.NextEventNumber(), next);
}

TEST_F(EventLogModelTest, GroupRollsUpCountsAndTheFirstEventsSpan)
{
    EventLogModel m;
    auto a = Event(4, 2, "a");
    a->timing.startTime = 1000;
    a->timing.endTime = 2000;
    auto b = Event(5, 2, "b");
    b->timing.startTime = 5000;
    b->timing.endTime = 9000;
    b->eventG.failureCount = 1;
    m.AddEvents({a, b});
    const auto* group = static_cast<QStandardItemEx*>(m.Root()->child(0));
    EXPECT_EQ(group->info->eventG.eventCount, 2);
    EXPECT_EQ(group->info->eventG.failureCount, 1);
    EXPECT_EQ(group->info->eventG.FirstEventNumber, 1);
    EXPECT_EQ(group->info->eventG.lastEventNumber, 2);
    EXPECT_EQ(group->info->timings.startTime, 1000);
    EXPECT_EQ(group->info->timings.endTime, 2000);
    const auto* item = static_cast<QStandardItemEx*>(group->child(1));
    EXPECT_EQ(item->info->common.logData, "b");
}

TEST_F(EventLogModelTest, LimitBelowTwoRowsDropsTheOpenSubGroupAndTheNextControlErrorOpensANewOne)
{
    // A window time of 0 from the settings makes the row limit 0: every batch
    // trims the group down to its first row, the open sub-group included.
    SettingParams::Instance().m_window_time = 0;
    EventLogModel m;
    m.StartAcquisition();
    m.AddEvents({Event(4, 2, "ReceivedPower"), Event(3, 2, "CE 1", 1.0f)});
    QStandardItem* group = m.PhaseGroup();
    ASSERT_TRUE(group);
    EXPECT_EQ(group->rowCount(), 1);
    EXPECT_EQ(m.SubGroup(), nullptr);
    m.AddEvents({Event(3, 2, "CE 2", 2.0f), Event(3, 2, "CE 3", 3.0f)});
    EXPECT_EQ(group->rowCount(), 1);
    EXPECT_EQ(m.SubGroup(), nullptr);
    // The events were counted and logged all the same.
    EXPECT_EQ(static_cast<QStandardItemEx*>(group)->info->eventG.eventCount, 4);
    EXPECT_EQ(m.NextEventNumber(), 6);
}

TEST_F(EventLogModelTest, TreeFootprintCountsEachCaptureRecordOnceWithWhatItReserved)
{
    auto record = [](size_t samples, size_t raw, std::vector<size_t> pulses) {
        auto c = std::make_shared<TriggerData>();
        c->samples = std::vector<int32_t>(samples);
        c->rawSamples = std::vector<int32_t>(raw);
        c->pulses.resize(pulses.size());
        c->pulses.shrink_to_fit();
        for (size_t i = 0; i < pulses.size(); ++i)
            c->pulses[i].samples = std::vector<int32_t>(pulses[i]);
        return c;
    };
    auto power = Event(4, 2, "ReceivedPower");
    power->capture = record(1000, 440, {300, 200});
    auto ce1 = Event(3, 2, "CE a", 1.0f, 128000);
    auto ce2 = Event(3, 2, "CE b", 2.0f, 128000);
    ce1->capture = record(800, 0, {});
    ce2->capture = ce1->capture;  // one burst, two events

    EventLogModel m;
    EventLogModel::Footprint empty = m.TreeFootprint();
    EXPECT_EQ(empty.items, 1u);  // the root
    EXPECT_EQ(empty.records, 0u);
    EXPECT_EQ(empty.recordBytes, 0u);

    m.AddEvents({power, ce1, ce2});
    const EventLogModel::Footprint f = m.TreeFootprint();
    // Root, phase group, the received power, the sub-group and its two events.
    EXPECT_EQ(f.items, 6u);
    EXPECT_EQ(f.records, 2u);
    const size_t expected = 2 * sizeof(TriggerData) + 4 * (1000 + 440) + 2 * sizeof(PulseRecord) + 4 * (300 + 200) +
                            4 * 800;
    EXPECT_EQ(f.recordBytes, expected);

    m.ClearAll();
    EXPECT_EQ(m.TreeFootprint().records, 0u);
}

// ---- Capture records on disk ----

namespace {

TriggerDataPtr Capture(uint32_t seed)
{
    auto r = std::make_shared<TriggerData>();
    r->startTime = 5000000ull * seed;
    r->endTime = r->startTime + 1234;
    r->amplitude = seed;
    r->highPeriod = -static_cast<int64_t>(seed);
    for (uint32_t i = 0; i < 200 + seed % 50; ++i) {
        r->samples.push_back(static_cast<int32_t>(seed * 1000 + i * 7));
        r->rawSamples.push_back(static_cast<int32_t>(seed * 1000 - i));
    }
    for (uint32_t p = 0; p < 10; ++p) {
        PulseRecord pr;
        pr.duration = 20;
        pr.level = p & 1;
        pr.mark = seed * 100 + p;
        pr.spare = p;
        pr.samples.assign(r->samples.begin() + 20 * p, r->samples.begin() + 20 * (p + 1));
        r->pulses.push_back(pr);
    }
    r->pulses[3].samples.push_back(-1);  // one pulse not a run of the burst
    return r;
}


// The event item whose event has this number.
QStandardItemEx* FindItem(EventLogModel& m, int64_t number)
{
    std::vector<QStandardItem*> pending = {m.Model().invisibleRootItem()};
    while (!pending.empty()) {
        QStandardItem* item = pending.back();
        pending.pop_back();
        auto* x = dynamic_cast<QStandardItemEx*>(item);
        if (x && x->mode == kItemEvent && x->number == number)
            return x;
        for (int r = 0; r < item->rowCount(); ++r)
            pending.push_back(item->child(r));
    }
    return nullptr;
}

// Events with capture records, in the shapes the tree files them: control
// errors into a sub-group, other packets into the phase group; and the
// copies of their records as they were live.
std::vector<MsgInfoPtr> CapturedEvents(uint32_t first, uint32_t count, std::vector<TriggerData>& live)
{
    std::vector<MsgInfoPtr> events;
    for (uint32_t i = first; i < first + count; ++i) {
        MsgInfoPtr e = i % 3 == 0 ? Event(3, 2, "ControlError 1.0", 1.0f, 128000) : Event(4, 2, "ReceivedPower 10%");
        e->capture = Capture(i);
        e->timing.startTime = e->capture->startTime;
        e->timing.startTimeStamp = "00:00:00." + std::to_string(100000 + i);
        // What the .sid does not keep, different from event to event.
        e->packet.Status = i % 2 ? "NoError" : "Error";
        e->enqueueTick = 5000 + i;
        live.push_back(*e->capture);
        events.push_back(e);
    }
    return events;
}

}  // namespace

TEST_F(EventLogModelTest, OldEventLoadsItsRecordBackIdentical)
{
    EventLogModel m;
    m.SetLiveRecords(8);
    m.StartAcquisition();
    std::vector<TriggerData> live;
    std::vector<MsgInfoPtr> kept;
    for (uint32_t batch = 0; batch < 10; ++batch) {
        auto events = CapturedEvents(1 + batch * 10, 10, live);
        kept.insert(kept.end(), events.begin(), events.end());
        m.AddEvents(events);
    }
    ASSERT_TRUE(m.Records());
    EXPECT_EQ(m.Records()->Count(), 100u);
    EXPECT_EQ(m.Records()->Path(), RecordStore::PathBeside(m.SidPath()));
    // Only the newest records stay in memory.
    EXPECT_LE(m.TreeFootprint().records, 8u);
    EXPECT_FALSE(kept[0]->capture);
    EXPECT_TRUE(kept[99]->capture);

    // Event number 2 is the first event (the Start marker took 1).
    QStandardItemEx* old = FindItem(m, 2);
    ASSERT_TRUE(old);
    // The item holds only what it shows; its event is read back on selection.
    EXPECT_FALSE(old->info);
    EXPECT_EQ(old->text().toStdString(), "Rx ReceivedPower 10%");
    MsgInfo& selected = m.Select(old);
    EXPECT_EQ(&selected, old->info.get());
    ASSERT_TRUE(selected.capture);
    ExpectSameRecord(live[0], *selected.capture);
    EXPECT_EQ(selected.ToJson(), kept[0]->ToJson());
    EXPECT_EQ(selected.str.toStdString(), "ReceivedPower 10%");

    // A control error inside its sub-group, long gone from memory too.
    QStandardItemEx* inGroup = FindItem(m, 4);
    ASSERT_TRUE(inGroup);
    ASSERT_EQ(static_cast<QStandardItemEx*>(inGroup->parent())->mode, kItemControlError);
    ASSERT_FALSE(inGroup->info);
    ASSERT_TRUE(m.Select(inGroup).capture);
    ExpectSameRecord(live[2], *inGroup->info->capture);
    // The one selected before lets its event go; the selected one keeps it.
    EXPECT_FALSE(old->info);
    m.AddEvents(CapturedEvents(101, 20, live));
    ASSERT_TRUE(inGroup->info);
    EXPECT_TRUE(inGroup->info->capture);
    EXPECT_LE(m.TreeFootprint().records, 9u);

    // Selecting again is served from the cache.
    EXPECT_EQ(m.CachedRecords(), 2u);
    ASSERT_TRUE(m.Select(old).capture);
    ExpectSameRecord(live[0], *old->info->capture);
    EXPECT_EQ(m.CachedRecords(), 2u);

    // Every event of the session loads back identical: the .sid's fields,
    // the numbering, what only the item kept, and the capture record.
    for (uint32_t i = 0; i < 120; ++i) {
        QStandardItemEx* item = FindItem(m, 2 + i);
        ASSERT_TRUE(item) << i;
        const MsgInfo& e = m.Select(item);
        ASSERT_TRUE(e.capture) << i;
        ExpectSameRecord(live[i], *e.capture);
        if (i < kept.size()) {
            EXPECT_EQ(e.ToJson(), kept[i]->ToJson()) << i;
            EXPECT_EQ(e.id, kept[i]->id);
            EXPECT_EQ(e.direction, kept[i]->direction);
            EXPECT_EQ(e.packet.Status, kept[i]->packet.Status);
            EXPECT_EQ(e.enqueueTick, kept[i]->enqueueTick);
            EXPECT_EQ(e.type, kept[i]->type);
            EXPECT_EQ(e.str, kept[i]->str);
        }
    }
    // The tree holds whole events only for the newest and the selected.
    EXPECT_LE(m.TreeFootprint().events, 9u);
    EXPECT_LE(m.TreeFootprint().records, 9u);
    EXPECT_LE(m.CachedRecords(), EventLogModel::kCachedRecords);
}

// Closed groups keep a digest of their record; selected, every group and
// every item shows exactly the record a tree that keeps them whole shows.
TEST_F(EventLogModelTest, ClosedGroupsAndOldEventsShowTheRecordsTheyHadWhole)
{
    auto session = [](uint32_t seed) {
        std::vector<MsgInfoPtr> events;
        std::vector<TriggerData> live;
        for (uint32_t cycle = 0; cycle < 12; ++cycle) {
            events.push_back(Event(253, 1, "Digital Ping 64ms"));
            events.push_back(Event(253, 1, "Digital Ping 64ms"));
            events.push_back(Event(1, 2, "SignalStrength 50"));
            events.push_back(Event(81, 2, "Configuration"));
            events.push_back(Event(7, 2, "Request"));
            events.push_back(Event(48, 1, "Power Transmitter Identification"));
            for (uint32_t k = 0; k < 9; ++k) {
                auto captured = CapturedEvents(seed + cycle * 10 + k, 1, live);
                captured[0]->packet.controlErrorValue = static_cast<float>((k * 7 + cycle) % 11) - 5.0f;
                captured[0]->packet.controlErrorFreq = 120000 + static_cast<int>(k);
                captured[0]->eventG.failureCount = k % 4 == 0;
                captured[0]->timing.startTime = 1000 * (cycle * 10 + k + 1);
                captured[0]->timing.endTime = captured[0]->timing.startTime + 7;
                events.push_back(captured[0]);
            }
        }
        return events;
    };
    EventLogModel compact, whole;
    whole.SetCompactGroups(false);
    for (EventLogModel* m : {&compact, &whole}) {
        // Each its own folder: both sessions start within the same second.
        const QString folder = dir.path() + (m == &whole ? "/whole/" : "/compact/");
        ASSERT_TRUE(QDir().mkpath(folder));
        SettingParams::Instance().eventPath = SettingParams::Instance().logPath = folder.toStdString();
        m->SetLiveRecords(4);
        m->StartAcquisition();
        const auto events = session(1);
        for (size_t i = 0; i < events.size(); i += 5) {
            m->AddEvents(std::vector<MsgInfoPtr>(events.begin() + static_cast<std::ptrdiff_t>(i),
                                                 events.begin() + static_cast<std::ptrdiff_t>(std::min(events.size(), i + 5))));
            if (i % 45 == 40) {
                // A violation closes the groups; a packet of no known phase
                // then opens a "Proprietary" group, closed by the next ping.
                m->AddEvents({Event(kTypeViolation, 0, "Violation: CEP Timeout")});
                m->SetCurrentPhase(9);
                m->AddEvents({Event(200, 2, "Proprietary 0xC8")});
            }
        }
        m->StopAcquisition();
    }
    size_t groups = 0, compacted = 0, proprietary = 0;
    std::function<void(QStandardItem*, QStandardItem*)> walk = [&](QStandardItem* a, QStandardItem* b) {
        ASSERT_EQ(a->rowCount(), b->rowCount());
        for (int r = 0; r < a->rowCount(); ++r) {
            auto* x = static_cast<QStandardItemEx*>(a->child(r));
            auto* y = static_cast<QStandardItemEx*>(b->child(r));
            ASSERT_EQ(x->mode, y->mode);
            // The markers and the root carry the wall time of their making.
            const bool timed = x->mode == kItemStart || x->mode == kItemStop || x->mode == kItemRoot;
            if (!timed)
                ASSERT_EQ(x->text(), y->text());
            if (x->isGroup) {
                groups += 1;
                compacted += !x->info;
                proprietary += x->mode == kItemEvent && !x->info;
            }
            MsgInfo shown = compact.Select(x);
            MsgInfo reference = whole.Select(y);
            // So do violation items, in their time field: the two models may
            // be a second apart on a slow machine.
            shown.timingsample.time.clear();
            reference.timingsample.time.clear();
            if (!timed) {
                EXPECT_EQ(shown.ToJson(), reference.ToJson()) << x->text().toStdString();
                EXPECT_EQ(shown.direction, reference.direction);
                EXPECT_EQ(shown.type, reference.type);
            }
            walk(x, y);
        }
    };
    walk(compact.Model().invisibleRootItem(), whole.Model().invisibleRootItem());
    EXPECT_GT(groups, 40u);
    EXPECT_GT(compacted, groups / 2);
    EXPECT_GT(proprietary, 2u);
    // A group shown and then left is compact again; the open ones never are.
    EXPECT_LE(compact.TreeFootprint().events, 6u);
}

TEST_F(EventLogModelTest, EventsWithoutRecordsAndMarkersSelectAsBefore)
{
    EventLogModel m;
    m.SetLiveRecords(1);
    m.StartAcquisition();
    std::vector<TriggerData> live;
    auto events = CapturedEvents(1, 3, live);
    events.insert(events.begin() + 1, Event(253, 1, "Digital Ping"));
    m.AddEvents(events);
    QStandardItemEx* ping = FindItem(m, 3);
    ASSERT_TRUE(ping);
    EXPECT_FALSE(m.Select(ping).capture);
    EXPECT_EQ(m.Select(m.Root()).eventG.eventCount, 4);
    // Only the three events with records were stored, under their place in
    // the .sid.
    ASSERT_TRUE(m.Records());
    EXPECT_EQ(m.Records()->Count(), 3u);
    EXPECT_TRUE(m.Records()->Has(1));
    EXPECT_FALSE(m.Records()->Has(2));
    EXPECT_TRUE(m.Records()->Has(4));
}

TEST_F(EventLogModelTest, BeforeAnyStartRecordsStayInMemory)
{
    EventLogModel m;
    m.SetLiveRecords(1);
    std::vector<TriggerData> live;
    auto events = CapturedEvents(1, 5, live);
    m.AddEvents(events);
    EXPECT_FALSE(m.Records());
    for (const auto& e : events)
        EXPECT_TRUE(e->capture);
    EXPECT_EQ(m.TreeFootprint().records, 5u);
}

TEST_F(EventLogModelTest, OpenedSessionGetsItsRecordsBack)
{
    std::vector<TriggerData> live;
    std::string sid;
    {
        EventLogModel m;
        m.SetLiveRecords(4);
        m.StartAcquisition();
        auto events = CapturedEvents(1, 30, live);
        events.insert(events.begin() + 5, Event(253, 1, "Digital Ping"));
        m.AddEvents(events);
        m.StopAcquisition();
        sid = m.SidPath();
    }
    std::vector<MsgInfoPtr> loaded;
    ASSERT_TRUE(ReadSessionFile(sid, loaded));
    ASSERT_EQ(loaded.size(), 31u);

    // Replayed as the main window does, into a new session (within the same
    // second it takes the same names: the new record file must not cut the
    // one being read).
    EventLogModel m;
    m.SetLiveRecords(4);
    m.SetRecordSource(sid);
    EXPECT_TRUE(m.HasRecordSource());
    m.StartAcquisition();
    m.AddEvents(loaded);
    m.StopAcquisition();
    EXPECT_FALSE(m.HasRecordSource());
    EXPECT_LE(m.TreeFootprint().records, 4u);
    ASSERT_TRUE(m.Records());
    EXPECT_EQ(m.Records()->Count(), 30u);
    for (uint32_t i = 0; i < 31; ++i) {
        QStandardItemEx* item = FindItem(m, 2 + i);
        ASSERT_TRUE(item) << i;
        const TriggerDataPtr record = m.Select(item).capture;
        if (i == 5) {
            EXPECT_FALSE(record);
            continue;
        }
        ASSERT_TRUE(record) << i;
        ExpectSameRecord(live[i < 5 ? i : i - 1], *record);
    }
}

TEST_F(EventLogModelTest, OpenedSessionWithoutRecordFilePlaysAsBefore)
{
    std::vector<TriggerData> live;
    std::string sid;
    {
        EventLogModel m;
        m.StartAcquisition();
        m.AddEvents(CapturedEvents(1, 5, live));
        sid = m.SidPath();
    }
    ASSERT_EQ(std::remove(RecordStore::PathBeside(sid).c_str()), 0);
    std::vector<MsgInfoPtr> loaded;
    ASSERT_TRUE(ReadSessionFile(sid, loaded));
    EventLogModel m;
    m.SetRecordSource(sid);
    EXPECT_FALSE(m.HasRecordSource());
    m.StartAcquisition();
    m.AddEvents(loaded);
    for (const auto& e : loaded)
        EXPECT_FALSE(e->capture);
    EXPECT_EQ(m.Records()->Count(), 0u);
    EXPECT_EQ(m.Root()->info->eventG.eventCount, 5);
}

// The record file meets the largest size a process may write, as a full disk
// would refuse it: in a child process, so that the limit stays there. The
// .sid (smaller) goes on, the records stored before load back, the later ones
// show no wave, and the application log says it once.
TEST_F(EventLogModelTest, RecordFileThatCannotGrowLeavesLaterEventsWithoutWave)
{
    const int toldBefore = CountInFile(Log::Instance().FilePath(), "Capture records are no longer stored");
    ExpectWithFileSizeLimit(400 * 1024, [&] {
        EventLogModel m;
        m.SetLiveRecords(2);
        m.StartAcquisition();
        std::vector<TriggerData> live;
        for (uint32_t i = 0; i < 100; ++i) {
            auto events = CapturedEvents(1 + i, 1, live);
            // About 80 kB a record, of samples that do not compress: the
            // record file fills after a few.
            std::mt19937 noise(i);
            events[0]->capture->samples.resize(10000);
            events[0]->capture->rawSamples.resize(10000);
            for (int32_t& v : events[0]->capture->samples)
                v = static_cast<int32_t>(noise());
            for (int32_t& v : events[0]->capture->rawSamples)
                v = static_cast<int32_t>(noise());
            live.back() = *events[0]->capture;
            m.AddEvents(events);
        }
        const size_t stored = m.Records()->Count();
        if (!m.Records()->Failed() || stored == 0 || stored >= 100)
            return 11;
        for (uint32_t i = 0; i < 100; ++i) {
            QStandardItemEx* item = FindItem(m, 2 + i);
            if (!item)
                return 12;
            const TriggerDataPtr r = m.Select(item).capture;
            // The two newest are still live, in memory, stored or not.
            if ((r != nullptr) != (i < stored || i >= 98))
                return 13;
            if (r && (r->samples != live[i].samples || r->rawSamples != live[i].rawSamples))
                return 14;
            // The property pane says why an event shows no wave.
            const QString note = m.RecordNote(item);
            if (r ? !note.isEmpty() : note != "Not stored (the record file could not be written): no wave")
                return 17;
        }
        std::vector<MsgInfoPtr> back;
        if (!ReadSessionFile(m.SidPath(), back) || back.size() != 100)
            return 15;
        if (CountInFile(Log::Instance().FilePath(), "Capture records are no longer stored") != toldBefore + 1)
            return 16;
        return 0;
    });
}

// A .sid that stops growing mid-session (a full disk): the events it holds
// whole read back from it, the later ones stay whole in memory, every item
// selects its own event, and the application log says it once.
TEST_F(EventLogModelTest, SessionFileThatCannotGrowKeepsLaterEventsInMemory)
{
    const int toldBefore = CountInFile(Log::Instance().FilePath(), "Could not write the session file");
    ExpectWithFileSizeLimit(40 * 1024, [&] {
        EventLogModel m;
        m.SetLiveRecords(2);
        m.StartAcquisition();
        std::vector<TriggerData> live;
        std::vector<MsgInfo> shown;
        for (uint32_t i = 0; i < 60; ++i) {
            auto events = CapturedEvents(1 + i, 1, live);
            // About 2 kB a .sid record: the .sid fills after some twenty.
            events[0]->common.logData = std::string(2000, static_cast<char>('a' + i % 26));
            m.AddEvents(events);
            shown.push_back(*events[0]);
        }
        std::vector<MsgInfoPtr> back;
        if (!ReadSessionFile(m.SidPath(), back) || back.size() < 10 || back.size() >= 60)
            return 11;
        const EventLogModel::Footprint f = m.TreeFootprint();
        // The events the .sid could not hold stay whole in memory.
        if (f.events < 20 || f.events > 50)
            return 12;
        for (uint32_t i = 0; i < 60; ++i) {
            QStandardItemEx* item = FindItem(m, 2 + i);
            if (!item)
                return 13;
            const MsgInfo& e = m.Select(item);
            if (e.ToJson() != shown[i].ToJson() || e.packet.Status != shown[i].packet.Status ||
                e.enqueueTick != shown[i].enqueueTick || e.direction != shown[i].direction)
                return 14;
        }
        if (CountInFile(Log::Instance().FilePath(), "Could not write the session file") != toldBefore + 1)
            return 15;
        return 0;
    });
}

// A .sid that became unreadable after its events left memory: selecting one
// shows what the item still knows and nothing crashes.
TEST_F(EventLogModelTest, SessionFileGoneLeavesItemsSelectable)
{
    EventLogModel m;
    m.SetLiveRecords(1);
    m.StartAcquisition();
    std::vector<TriggerData> live;
    m.AddEvents(CapturedEvents(1, 5, live));
    QStandardItemEx* old = FindItem(m, 2);
    ASSERT_TRUE(old);
    ASSERT_FALSE(old->info);
    ASSERT_EQ(std::remove(m.SidPath().c_str()), 0);
    const MsgInfo& e = m.Select(old);
    EXPECT_EQ(e.type, old->type);
    EXPECT_EQ(e.direction, 2);
    EXPECT_EQ(e.str, old->text());
}

// A .sid that lost a record in its middle no longer lines up with its record
// file: the events after the gap get no wave rather than their neighbours'.
TEST_F(EventLogModelTest, OpenedSessionThatLostARecordGivesNoWrongWaves)
{
    std::vector<TriggerData> live;
    std::string sid;
    {
        EventLogModel m;
        m.StartAcquisition();
        m.AddEvents(CapturedEvents(1, 12, live));
        sid = m.SidPath();
    }
    std::string bytes;
    {
        std::ifstream in(sid, std::ios::binary);
        bytes.assign((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    // Cut the sixth record out.
    size_t from = 0;
    for (int k = 0; k < 5; ++k)
        from = bytes.find('\0', from) + 1;
    const size_t to = bytes.find('\0', from) + 1;
    bytes.erase(from, to - from);
    const std::string damaged = dir.path().toStdString() + "/damaged.sid";
    {
        std::ofstream out(damaged, std::ios::binary);
        out << bytes;
    }
    std::ifstream rec(RecordStore::PathBeside(sid), std::ios::binary);
    std::ofstream(RecordStore::PathBeside(damaged), std::ios::binary) << rec.rdbuf();

    std::vector<MsgInfoPtr> loaded;
    ASSERT_TRUE(ReadSessionFile(damaged, loaded));
    ASSERT_EQ(loaded.size(), 11u);
    EventLogModel m;
    m.SetRecordSource(damaged);
    ASSERT_TRUE(m.HasRecordSource());
    m.StartAcquisition();
    m.AddEvents(loaded);
    for (size_t i = 0; i < 11; ++i) {
        SCOPED_TRACE(i);
        if (i < 5) {
            ASSERT_TRUE(loaded[i]->capture);
            ExpectSameRecord(live[i], *loaded[i]->capture);
        } else {
            EXPECT_FALSE(loaded[i]->capture);
        }
    }
}

namespace {

// The names and sizes of the files in a folder.
std::map<std::string, qint64> FolderListing(const QString& folder)
{
    std::map<std::string, qint64> files;
    for (const QFileInfo& f : QDir(folder).entryInfoList(QDir::Files))
        files[f.fileName().toStdString()] = f.size();
    return files;
}

// A session of `count` events with capture records, written as a capture
// writes it; its .sid's path.
std::string WrittenSession(uint32_t count, std::vector<TriggerData>& live)
{
    EventLogModel m;
    m.StartAcquisition();
    auto events = CapturedEvents(1, count, live);
    events.insert(events.begin() + 2, Event(253, 1, "Digital Ping"));  // no record
    m.AddEvents(events);
    m.StopAcquisition();
    return m.SidPath();
}

// Opens a written session in place, as File > Open does.
void ShowInPlace(EventLogModel& m, const std::string& sid, std::vector<MsgInfoPtr>& loaded)
{
    std::vector<uint64_t> offsets;
    std::string error;
    ASSERT_TRUE(OpenSessionFile(sid, loaded, error, &offsets)) << error;
    ASSERT_EQ(offsets.size(), loaded.size());
    m.ShowInPlace(sid, offsets);
    m.StartAcquisition();
    EXPECT_TRUE(m.ShowingInPlace());
    m.AddEvents(loaded);
    m.StopAcquisition();
    EXPECT_FALSE(m.ShowingInPlace());
}

// The item of the event at a place of the .sid (1 for the first): the Start
// marker takes number 1.
QStandardItemEx* ItemAt(EventLogModel& m, int place)
{
    return FindItem(m, 1 + place);
}

}  // namespace

// A saved session shown where it lies: no file is written or changed, the
// model's session files are the opened ones, and every old event reads back
// from them exactly, with its wave.
TEST_F(EventLogModelTest, SessionShownInPlaceWritesNothingAndReadsFromItsOwnFiles)
{
    std::vector<TriggerData> live;
    const std::string sid = WrittenSession(40, live);
    const std::map<std::string, qint64> before = FolderListing(dir.path());
    ASSERT_EQ(before.size(), 3u);  // .sid, .rec, .log
    std::vector<MsgInfoPtr> shownThen;
    ASSERT_TRUE(ReadSessionFile(sid, shownThen));

    EventLogModel m;
    m.SetLiveRecords(4);
    std::vector<MsgInfoPtr> loaded;
    ShowInPlace(m, sid, loaded);
    EXPECT_EQ(FolderListing(dir.path()), before);
    EXPECT_EQ(m.SidPath(), sid);
    EXPECT_TRUE(QFileInfo(QString::fromStdString(m.LogPath())).fileName().startsWith("LogWindow_"));
    EXPECT_EQ(QFileInfo(QString::fromStdString(m.LogPath())).absolutePath(),
              QFileInfo(QString::fromStdString(sid)).absolutePath());
    ASSERT_TRUE(m.Records());
    EXPECT_EQ(m.Records()->Path(), RecordStore::PathBeside(sid));
    // No record was loaded to be shown: they come when an event is selected.
    EXPECT_EQ(m.TreeFootprint().records, 0u);
    EXPECT_EQ(m.TreeFootprint().events, 4u);
    for (int place = 1; place <= 41; ++place) {
        SCOPED_TRACE(place);
        QStandardItemEx* item = ItemAt(m, place);
        ASSERT_TRUE(item);
        const MsgInfo& e = m.Select(item);
        EXPECT_EQ(e.common.logData, shownThen[place - 1]->common.logData);
        EXPECT_EQ(e.timing.startTimeStamp, shownThen[place - 1]->timing.startTimeStamp);
        EXPECT_TRUE(m.RecordNote(item).isEmpty());
        if (place == 3) {
            EXPECT_FALSE(e.capture);  // the digital ping has none
            continue;
        }
        ASSERT_TRUE(e.capture);
        ExpectSameRecord(live[place < 3 ? place - 1 : place - 2], *e.capture);
    }
    EXPECT_EQ(FolderListing(dir.path()), before);
    EXPECT_LE(m.TreeFootprint().records, 1u + EventLogModel::kCachedRecords);

    // The next Start is an acquisition again: it saves a new session (in the
    // folder an acquisition makes).
    const std::string next = dir.path().toStdString() + "/next/";
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(next)));
    SettingParams::Instance().eventPath = SettingParams::Instance().logPath = next;
    m.StartAcquisition();
    EXPECT_FALSE(m.ShowingInPlace());
    EXPECT_EQ(m.SidPath().compare(0, next.size(), next), 0);
    EXPECT_EQ(FolderListing(QString::fromStdString(next)).size(), 3u);
    EXPECT_EQ(FolderListing(dir.path()), before);
}

// Records damaged in the opened record file (a checksum that fails, a file
// cut inside a compressed record): those events show no wave and say why;
// every other event has its own.
TEST_F(EventLogModelTest, DamagedRecordsOfASessionShownInPlaceSayWhy)
{
    std::vector<TriggerData> live;
    const std::string sid = WrittenSession(10, live);
    const std::string rec = RecordStore::PathBeside(sid);
    std::vector<uint8_t> bytes;
    {
        std::ifstream in(rec, std::ios::binary);
        bytes.assign((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    std::vector<std::pair<uint64_t, RecordStore::Entry>> frames;
    ASSERT_TRUE(RecordStore::Scan(bytes.data(), bytes.size(), frames));
    ASSERT_EQ(frames.size(), 10u);
    // The record of the event at place 5 gets a changed byte; the file ends
    // inside the last one (place 11).
    const RecordStore::Entry& fifth = frames[3].second;
    ASSERT_EQ(frames[3].first, 5u);
    bytes[fifth.offset + fifth.length / 2] ^= 0x40;
    bytes.resize(frames.back().second.offset + frames.back().second.length / 2);
    {
        std::ofstream out(rec, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    EventLogModel m;
    m.SetLiveRecords(2);
    std::vector<MsgInfoPtr> loaded;
    ShowInPlace(m, sid, loaded);
    for (int place = 1; place <= 11; ++place) {
        SCOPED_TRACE(place);
        QStandardItemEx* item = ItemAt(m, place);
        ASSERT_TRUE(item);
        const TriggerDataPtr r = m.Select(item).capture;
        if (place == 5 || place == 11) {
            EXPECT_FALSE(r);
            EXPECT_EQ(m.RecordNote(item).toStdString(), "Damaged in the record file: no wave");
            EXPECT_EQ(m.SelectedRecordNote(), m.RecordNote(item));
        } else if (place != 3) {
            ASSERT_TRUE(r);
            ExpectSameRecord(live[place < 3 ? place - 1 : place - 2], *r);
            EXPECT_TRUE(m.SelectedRecordNote().isEmpty());
        }
    }
}

// A replay saved under names given to it: the .sid, its record file and its
// log where asked, the records copied into the new record file.
TEST_F(EventLogModelTest, NextStartSavesUnderTheNamesGiven)
{
    std::vector<TriggerData> live;
    const std::string sid = WrittenSession(6, live);
    std::vector<MsgInfoPtr> loaded;
    ASSERT_TRUE(ReadSessionFile(sid, loaded));
    const std::string out = dir.path().toStdString() + "/copy/again.sid";
    ASSERT_TRUE(QDir().mkpath(dir.path() + "/copy"));
    EventLogModel m;
    m.SetSessionFiles(out, dir.path().toStdString() + "/copy/again.log");
    m.SetRecordSource(sid);
    m.StartAcquisition();
    m.AddEvents(loaded);
    m.StopAcquisition();
    m.CloseStreams();
    EXPECT_EQ(m.SidPath(), out);
    const std::map<std::string, qint64> copy = FolderListing(dir.path() + "/copy");
    ASSERT_EQ(copy.size(), 3u);
    EXPECT_GT(copy.at("again.log"), 0);
    std::vector<MsgInfoPtr> back;
    ASSERT_TRUE(ReadSessionFile(out, back));
    EXPECT_EQ(back.size(), 7u);
    RecordStore records;
    ASSERT_TRUE(records.Open(dir.path().toStdString() + "/copy/again.rec"));
    EXPECT_EQ(records.Count(), 6u);
    // The Start after it takes names from the settings again.
    m.StartAcquisition();
    EXPECT_NE(m.SidPath(), out);
}
