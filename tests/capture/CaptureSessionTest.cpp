// A live capture against the device emulator at real speed for one whole
// cycle of its script, through the acquisition controller and the event log
// model as the window drives them; then the session file and the raw captures
// played back.
#include "capture/AcquisitionController.h"
#include "capture/CommandProtocol.h"
#include "events/EventLogModel.h"
#include "events/SessionFile.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <chrono>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

using namespace std::chrono_literals;

namespace {

class TickView : public AcquisitionView {
public:
    explicit TickView(EventLogModel& model) : m_model(model) {}
    void ShowMessage(const std::string&, const std::string& text) override { messages.push_back(text); }
    void SetActions(const Actions&) override {}
    void ShowDeviceRecord(const uint8_t*) override {}
    void CaptureBegins() override { m_model.StartAcquisition(); }
    void CaptureEnds() override {}
    void Tick() override { tick.store(true); }
    std::atomic<bool> tick{false};
    std::vector<std::string> messages;

private:
    EventLogModel& m_model;
};

std::vector<uint8_t> ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// An event's text without the carrier frequency it was told with: the
// frequency history is pushed by the FSK loop at its own pace, live and in a
// replay alike, so the frequency a packet is told with depends on timing.
std::string WithoutFrequency(std::string text)
{
    const size_t at = text.rfind(" @");
    if (at != std::string::npos && text.size() > 2 && text.compare(text.size() - 2, 2, "HZ") == 0)
        text.erase(at);
    return text;
}

// The phase groups that the events heard live must open. Which packets the
// ASK chain reads live depends on where the 5 ms passes cut them, and that
// moves with the machine's load; a phase marked by one packet of the cycle
// (the Configuration, the first Received Power of calibration) has its group
// only when that packet was heard. The phases follow the window's rules, told
// here from the packets alone:
//  - a digital ping or the transmitter's other packets keep the phase; its
//    answers to requests (0, 48, 49) are negotiation;
//  - Signal Strength (1) is the ping phase, End Power Transfer (2) too unless
//    it ends power transfer; identification and configuration (6, 81, 113,
//    129) the next one; the requests (7, 9, 32, 34, 84, 85) negotiation, which
//    begins calibration;
//  - during calibration a Control Error (3, 25) or a Received Power (49) is
//    calibration, after it power transfer; the Received Power in "Mode 2" is
//    the last of calibration, and when it comes straight after negotiation it
//    opens power transfer at once;
//  - a violation starts over at the ping phase.
struct HeardEvent {
    int type;
    int direction;
    std::string text;
};

std::set<std::string> PhasesOpenedBy(const std::vector<HeardEvent>& heard)
{
    static const char* kTitles[] = {"", "Power Ping Phase", "Power Identify&Configure Phase", "Negotiation Phase",
                                    "Calibration Phase", "Power Transfer Phase"};
    std::set<std::string> phases;
    int phase = 1;
    bool calibrating = false;
    bool first = true;
    for (const HeardEvent& e : heard) {
        if (e.type == kTypeViolation) {
            phase = 1;
            calibrating = false;
            continue;
        }
        if (e.type == kTypeContract || e.type == kTypeDeviceStatus)
            continue;
        int next = phase;
        if (e.direction == 1) {
            if (e.type == 0 || e.type == 48 || e.type == 49)
                next = 3;
        } else {
            switch (e.type) {
            case 1: case 253: next = 1; break;
            case 2: next = phase == 5 ? 5 : 1; break;
            case 3: case 25: next = calibrating ? 4 : 5; break;
            case 4: case 5: next = 5; break;
            case 6: case 81: case 113: case 129: next = 2; break;
            case 7: case 9: case 32: case 34: case 84: case 85: next = 3; break;
            case 49:
                if (!calibrating) {
                    next = 5;
                } else if (e.text.find("Mode 2") != std::string::npos) {
                    calibrating = false;
                    next = phase == 4 ? 4 : 5;
                } else {
                    next = 4;
                }
                break;
            default: break;
            }
        }
        if (next != phase || first) {
            phase = next;
            calibrating = calibrating || phase == 3;
            phases.insert(kTitles[phase]);
        }
        first = false;
    }
    return phases;
}

std::set<std::string> GroupTitles(QStandardItem* root)
{
    std::set<std::string> titles;
    for (int r = 0; r < root->rowCount(); ++r) {
        auto* item = static_cast<QStandardItemEx*>(root->child(r));
        if (item->mode == kItemPhase) {
            std::string t = item->text().toStdString();
            titles.insert(t.substr(0, t.find(" (")));
        }
    }
    return titles;
}

}  // namespace

TEST(CaptureSession, OneCycleOfTheScriptLiveThenPlayedBack)
{
    QTemporaryDir dir;
    const std::string base = dir.path().toStdString();
    SettingParams& s = SettingParams::Instance();
    s.savePath = base + "/sessions";
    s.m_window_time = 15;
    s.m_min_freq = 110000;
    s.m_max_freq = 210000;
    s.m_dac_locked = 0;
    s.m_dac_manual = 0;
    s.m_dac_value = 1700;

    coilsim::EmulatorOptions o;
    o.dir = base + "/ports";
    o.haveSeed = true;
    o.seed = 9;
    o.recordAsk = base + "/ask.bin";
    o.recordFsk = base + "/fsk.bin";
    coilsim::DeviceEmulator device(o);
    std::string error;
    ASSERT_TRUE(device.Start(error)) << error;

    EventLogModel model;
    TickView view(model);
    std::vector<std::string> live;
    std::vector<HeardEvent> liveEvents;
    std::set<std::string> heard;
    {
        AcquisitionController controller(view, device.Directory() + "/ttyACM%d");
        // The controller waits 150 to 300 ms for each answer of the device;
        // on a loaded machine the emulator (in this process) may answer later,
        // and a user would press Connect, or Start, again.
        for (int k = 0; k < 3 && !controller.Found(); ++k)
            controller.Connect();
        ASSERT_TRUE(controller.Found());
        for (int k = 0; k < 5 && !controller.Acquiring(); ++k) {
            controller.Stop();
            controller.Start();
        }
        ASSERT_TRUE(controller.Acquiring());
        const auto until = std::chrono::steady_clock::now() + 32s;
        while (std::chrono::steady_clock::now() < until) {
            if (view.tick.exchange(false)) {
                EXPECT_TRUE(controller.CheckReplies());
                std::vector<MsgInfoPtr> batch;
                controller.Manager().GetEvents(batch);
                for (const auto& e : batch) {
                    live.push_back(e->str.toStdString());
                    liveEvents.push_back({e->type, e->direction, live.back()});
                    // The frame with its direction (a session file keeps no direction).
                    if (!e->packet.PacketData.empty())
                        heard.insert(std::string(e->direction == 1 ? "FSK" : "ASK") + " " + e->packet.PacketData);
                }
                model.AddEvents(batch);
                controller.TickDone();
            }
            std::this_thread::sleep_for(5ms);
        }
        controller.Stop();
        model.StopAcquisition();
        controller.Disconnect();
        EXPECT_FALSE(controller.IsRunning());
    }
    device.Stop();
    model.CloseStreams();

    // Every phase that the packets heard live open has its group. The cycle
    // plays all five; which of their packets the ASK chain reads live depends
    // on the passes' timing (bounded below), so the groups follow what was
    // heard.
    const std::set<std::string> titles = GroupTitles(model.Root());
    const std::set<std::string> marked = PhasesOpenedBy(liveEvents);
    for (const std::string& t : marked)
        EXPECT_TRUE(titles.count(t)) << t;
    // Pings and negotiation are told by the transmitter too (digital pings,
    // answers), whose packets all come back: one cycle always opens them.
    // Power transfer is not certain: when the last Received Power of
    // calibration ("Mode 2") is not heard, calibration never ends, and every
    // Control Error after it stays in the calibration group (seen in one of
    // six loaded runs).
    for (const char* t : {"Power Ping Phase", "Negotiation Phase"})
        EXPECT_TRUE(marked.count(t)) << t;
    ASSERT_GT(live.size(), 300u);
    std::string opened;
    for (const std::string& t : marked)
        opened += " \"" + t + "\"";
    std::printf("phases opened by the packets heard live:%s\n", opened.c_str());

    // The session was saved as it ran.
    std::vector<MsgInfoPtr> saved;
    ASSERT_TRUE(ReadSessionFile(model.SidPath(), saved));
    EXPECT_EQ(saved.size(), live.size());
    EXPECT_GT(ReadAll(model.LogPath()).size(), 1000u);
    std::vector<std::string> savedTexts;
    for (const auto& e : saved)
        savedTexts.push_back(e->str.toStdString());
    EXPECT_EQ(savedTexts, live);

    // The session file played through a fresh model gives the same texts.
    EventLogModel again;
    again.StartAcquisition();
    again.AddEvents(saved);
    again.StopAcquisition();
    ASSERT_EQ(again.LogLines().size(), model.LogLines().size());
    // The same numbered texts; a loaded event has no direction, so its line
    // has the blank prefix where the live one said "Tx " or "Rx ". The two
    // markers carry their own time.
    for (int k = 1; k + 1 < model.LogLines().size(); ++k) {
        EXPECT_EQ(again.LogLines()[k].mid(3).toStdString(), model.LogLines()[k].mid(3).toStdString()) << k;
        EXPECT_TRUE(again.LogLines()[k].startsWith(QStringLiteral("   "))) << k;
    }

    // Every frame the emulator played in the cycle came back live, but those
    // the ASK chain cannot give back by its design: frames of 9 bytes and more
    // outlast the 2000-sample window of an open burst.
    std::set<std::string> played, longOnes;
    {
        std::ifstream expected(o.recordAsk + ".expected.jsonl");
        std::string line;
        while (std::getline(expected, line)) {
            // Frames played in the last seconds before the stop may still be
            // on their way through the chains: the cycle's first 28 s count.
            const size_t startAt = line.find("\"start_us\":") + 11;
            if (line.find("\"pattern\":true") != std::string::npos ||
                std::stoull(line.substr(startAt)) > 28000000ULL)
                continue;
            const size_t at = line.find("\"bytes\":\"") + 9;
            const std::string hex = line.substr(at, line.find('"', at) - at);
            const std::string key = line.substr(14, 3) + " " + hex;
            played.insert(key);
            if (hex.size() >= 9 * 3 && key[0] == 'A')
                longOnes.insert(key);
        }
    }
    std::vector<std::string> missing;
    for (const std::string& key : played)
        if (!heard.count(key) && !longOnes.count(key))
            missing.push_back(key);
    ASSERT_GT(played.size(), 15u);
    std::string missingText;
    for (const std::string& m : missing)
        missingText += "\n  " + m;
    // The ASK chain misreads about 0.3 % of the frames it is given (measured
    // over ten minutes of this script); a cycle plays some hundreds of them,
    // and which ones it misreads live depends on where the 5 ms passes cut
    // them. Measured over 22 runs of this test with two busy loops on both
    // cores (8 of them in the sanitizer build): 0 distinct frames not heard in
    // 7 runs, 1 in 6, 2 in 6, 3 in 3, never more. Taken as a Poisson count of
    // mean 1.2, more than 6 comes about once in 3000 runs, and the bound is 6.
    // Every FSK frame comes back.
    size_t askMissing = 0;
    for (const std::string& m : missing)
        askMissing += m[0] == 'A';
    EXPECT_EQ(askMissing, missing.size()) << "an FSK frame never came back:" << missingText;
    EXPECT_LE(askMissing, 6u) << missing.size() << " of " << played.size() << " frames never came back:" << missingText;
    std::printf("distinct frames played %zu (%zu of 9 bytes or more), not heard live %zu%s\n", played.size(),
                longOnes.size(), missing.size(), missingText.c_str());

    // Each frame's event sits in the phase group of its header.
    auto phaseOfHeader = [](int header) {
        switch (header) {
        case 0x01: return 1;
        case 0x06: case 0x51: case 0x71: case 0x81: return 2;
        case 0x07: case 0x09: case 0x20: case 0x22: case 0x54: case 0x55: return 3;
        case 0x04: case 0x05: return 5;
        default: return 0;  // in more than one phase, or in the phase it comes in
        }
    };
    const char* phaseTitles[] = {"", "Power Ping Phase", "Power Identify&Configure Phase", "Negotiation Phase",
                            "Calibration Phase", "Power Transfer Phase"};
    int placed = 0;
    for (int g = 0; g < model.Root()->rowCount(); ++g) {
        auto* group = static_cast<QStandardItemEx*>(model.Root()->child(g));
        if (group->mode != kItemPhase)
            continue;
        const std::string title = group->text().toStdString().substr(0, group->text().indexOf(" ("));
        for (int r = 0; r < group->rowCount(); ++r) {
            auto* item = static_cast<QStandardItemEx*>(group->child(r));
            if (item->mode != kItemEvent || item->direction != 2)
                continue;
            const std::string hex = model.Select(item).packet.PacketData;
            if (hex.size() < 2)
                continue;
            const int phase = phaseOfHeader(std::stoi(hex.substr(0, 2), nullptr, 16));
            if (phase == 0)
                continue;
            EXPECT_EQ(title, phaseTitles[phase]) << hex;
            ++placed;
        }
    }
    EXPECT_GT(placed, 5);

    // The raw captures through the chains: the same events, but for the wall
    // clock inside 24-bit received power texts and the packets that the ASK
    // chain reads differently where a 5 ms pass cuts them elsewhere (the
    // capture files keep the bytes, not the chunk boundaries of the live run).
    StreamReplay replay(ReadAll(o.recordAsk), ReadAll(o.recordFsk));
    std::multiset<std::string> replayed;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events)
            if (e->str.indexOf(QStringLiteral("Mode ")) < 0)
                replayed.insert(WithoutFrequency(e->str.toStdString()));
    });
    int matched = 0, compared = 0;
    for (const std::string& text : live) {
        if (text.find("Mode ") != std::string::npos)
            continue;
        ++compared;
        auto it = replayed.find(WithoutFrequency(text));
        if (it != replayed.end()) {
            ++matched;
            replayed.erase(it);
        }
    }
    // The live chunking varies with the machine's load. Measured over 22 runs
    // with two busy loops on both cores: 94.8 % to 98.2 % found (424 of 447
    // at worst); the bound leaves room below that.
    EXPECT_GE(matched, compared * 90 / 100) << matched << " of " << compared;
    std::printf("live events %d, found again in the replay of the raw captures %d\n", compared, matched);
}
