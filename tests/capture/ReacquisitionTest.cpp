// Acquisitions in a row against one emulator, through the acquisition
// controller: each one hears only what the device streamed between its start
// and its stop, on the capture clock of its own start. Each event is matched
// with the packet the emulator played (its record of every packet with its
// start in the emulator's stream time): the event's capture time, counted from
// the acquisition's start, must put it where the emulator played it, and every
// transmitter packet follows, within a second, the receiver packet it answers.
#include "capture/AcquisitionController.h"
#include "events/MsgInfo.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"
#include "AcquisitionCheck.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <thread>

using namespace std::chrono_literals;

namespace {

using namespace acquisitioncheck;

class QuietView : public AcquisitionView {
public:
    void ShowMessage(const std::string&, const std::string&) override {}
    void SetActions(const Actions&) override {}
    void ShowDeviceRecord(const uint8_t*) override {}
    void CaptureBegins() override {}
    void CaptureEnds() override {}
    void Tick() override { tick.store(true); }
    std::atomic<bool> tick{false};
};

// One acquisition: the events of the refreshes while it runs, then those the
// stop hands over.
std::vector<Heard> Acquire(AcquisitionController& controller, QuietView& view, std::chrono::milliseconds length)
{
    std::vector<Heard> heard;
    auto take = [&heard](const std::vector<MsgInfoPtr>& batch) {
        for (const auto& e : batch)
            heard.push_back(HeardOf(*e));
    };
    const auto until = std::chrono::steady_clock::now() + length;
    while (std::chrono::steady_clock::now() < until) {
        if (view.tick.exchange(false)) {
            std::vector<MsgInfoPtr> batch;
            controller.Manager().GetEvents(batch);
            take(batch);
            controller.TickDone();
        }
        std::this_thread::sleep_for(5ms);
    }
    controller.Stop();
    std::vector<MsgInfoPtr> rest;
    controller.Manager().TakeAllEvents(rest);
    take(rest);
    return heard;
}

class Reacquisition : public ::testing::Test {
protected:
    void SetUp() override
    {
        base = dir.path().toStdString();
        SettingParams& s = SettingParams::Instance();
        s.savePath = base + "/sessions";
        s.m_min_freq = 110000;
        s.m_max_freq = 210000;
        s.m_dac_locked = 0;
        s.m_dac_manual = 0;
        s.m_dac_value = 1700;
        s.m_ask_capture_data = 0;
        s.m_fsk_capture_data = 0;
    }

    // Runs `count` acquisitions of `length` each on one connection, with a
    // pause between them, and checks each against what the emulator played.
    void RunAcquisitions(int count, std::chrono::milliseconds length)
    {
        coilsim::EmulatorOptions o;
        o.dir = base + "/ports";
        o.haveSeed = true;
        o.seed = 11;
        o.speed = 2.0;
        o.recordAsk = base + "/ask.bin";
        o.recordFsk = base + "/fsk.bin";
        coilsim::DeviceEmulator device(o);
        std::string error;
        ASSERT_TRUE(device.Start(error)) << error;

        QuietView view;
        std::vector<std::vector<Heard>> runs;
        std::vector<uint64_t> startsUs, endsUs;
        std::vector<bool> dropped;
        auto droppedSoFar = [&device] {
            const coilsim::EmulatorCounters c = device.Counters();
            return c.askFramesDropped - c.askFramesDroppedAtStop + c.fskFramesDropped - c.fskFramesDroppedAtStop;
        };
        {
            AcquisitionController controller(view, device.Directory() + "/ttyACM%d");
            // The emulator's stream stands still while it does not stream:
            // where it stood when it was told to start is the acquisition's
            // time zero.
            uint64_t startUs = device.StreamUs();
            for (int k = 0; k < 3 && !controller.Found(); ++k)
                controller.Connect();
            ASSERT_TRUE(controller.Found());
            for (int run = 0; run < count; ++run) {
                if (run > 0) {
                    // The device is quiet between acquisitions; the link goes on.
                    std::this_thread::sleep_for(700ms);
                    startUs = device.StreamUs();
                    controller.Start();
                }
                for (int k = 0; k < 5 && !controller.Acquiring(); ++k) {
                    controller.Stop();
                    startUs = device.StreamUs();
                    controller.Start();
                }
                ASSERT_TRUE(controller.Acquiring());
                startsUs.push_back(startUs);
                const uint64_t droppedBefore = droppedSoFar();
                runs.push_back(Acquire(controller, view, length));
                endsUs.push_back(device.StreamUs());
                dropped.push_back(droppedSoFar() != droppedBefore);
            }
            controller.Disconnect();
        }
        device.Stop();
        ASSERT_GE(device.Counters().streamStarts, static_cast<uint64_t>(count));

        const std::vector<Played> played = ReadPlayed(o.recordAsk + ".expected.jsonl");
        ASSERT_FALSE(played.empty());
        int txChecked = 0;
        for (int run = 0; run < count; ++run)
            txChecked += CheckAcquisition(runs[run], played, startsUs[run], endsUs[run] - startsUs[run],
                                          "acquisition " + std::to_string(run), dropped[run] ? 0.5 : 0.9);
        // The script's negotiation is heard with its answers.
        EXPECT_GT(txChecked, 3);
    }

    QTemporaryDir dir;
    std::string base;
};

}  // namespace

TEST_F(Reacquisition, TwoAcquisitionsInARowHearTheirOwnStreamOnTime)
{
    RunAcquisitions(2, 9s);
}

TEST_F(Reacquisition, ThreeAcquisitionsInARowHearTheirOwnStreamOnTime)
{
    RunAcquisitions(3, 7s);
}
