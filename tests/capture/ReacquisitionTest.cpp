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

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <thread>

using namespace std::chrono_literals;

namespace {

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

struct Played {
    bool fsk;
    std::string bytes;
    uint64_t startUs;
};

std::vector<Played> ReadPlayed(const std::string& path)
{
    std::vector<Played> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        Played p;
        p.fsk = line.find("\"direction\":\"FSK\"") != std::string::npos;
        const size_t b = line.find("\"bytes\":\"") + 9;
        p.bytes = line.substr(b, line.find('"', b) - b);
        p.startUs = std::stoull(line.substr(line.find("\"start_us\":") + 11));
        out.push_back(p);
    }
    return out;
}

struct Heard {
    int type = 0;
    int direction = 0;
    std::string text;
    std::string bytes;
    uint64_t startUs = 0;
};

// One acquisition: the events of the refreshes while it runs, then those the
// stop hands over.
std::vector<Heard> Acquire(AcquisitionController& controller, QuietView& view, std::chrono::milliseconds length)
{
    std::vector<Heard> heard;
    auto take = [&heard](const std::vector<MsgInfoPtr>& batch) {
        for (const auto& e : batch) {
            Heard h;
            h.type = e->type;
            h.direction = e->direction;
            h.text = e->str.toStdString();
            h.bytes = e->packet.PacketData;
            h.startUs = e->timing.startTime;
            heard.push_back(h);
        }
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

// Packet bytes as the emulator's record writes them ("01 E7 E6"); an event
// keeps them the same way.
std::string Key(bool fsk, const std::string& bytes) { return (fsk ? "FSK " : "ASK ") + bytes; }

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
                runs.push_back(Acquire(controller, view, length));
                endsUs.push_back(device.StreamUs());
            }
            controller.Disconnect();
        }
        device.Stop();
        ASSERT_GE(device.Counters().streamStarts, static_cast<uint64_t>(count));

        const std::vector<Played> played = ReadPlayed(o.recordAsk + ".expected.jsonl");
        ASSERT_FALSE(played.empty());
        int txChecked = 0;
        for (int run = 0; run < count; ++run) {
            const std::vector<Heard>& heard = runs[run];
            const uint64_t lengthUs = endsUs[run] - startsUs[run];
            ASSERT_FALSE(heard.empty()) << "acquisition " << run;
            const Heard* lastRx = nullptr;
            int matched = 0, packets = 0;
            for (const Heard& h : heard) {
                // Every event lies inside its own acquisition's stream.
                EXPECT_LE(h.startUs, lengthUs + 100000) << "acquisition " << run << ": " << h.text;
                if (h.bytes.empty() || h.type == kTypeChecksumOrProprietary || (h.direction != 1 && h.direction != 2))
                    continue;
                ++packets;
                // The emulator played this packet where its capture time says,
                // counted from the acquisition's start.
                const bool fsk = h.direction == 1;
                const uint64_t at = startsUs[run] + h.startUs;
                bool found = false;
                for (const Played& p : played) {
                    if (p.fsk != fsk || p.bytes != h.bytes)
                        continue;
                    const int64_t off = static_cast<int64_t>(p.startUs) - static_cast<int64_t>(at);
                    if (off > -40000 && off < 40000) {
                        found = true;
                        break;
                    }
                }
                matched += found;
                EXPECT_TRUE(found) << "acquisition " << run << ": " << Key(fsk, h.bytes) << " heard at "
                                   << h.startUs << " us after the start, stream " << at << " us";
                if (!fsk) {
                    lastRx = &h;
                } else if (lastRx) {
                    // A transmitter packet answers the receiver packet before it.
                    EXPECT_GE(h.startUs, lastRx->startUs) << h.text << " after " << lastRx->text;
                    EXPECT_LE(h.startUs, lastRx->startUs + 1000000) << h.text << " after " << lastRx->text;
                    ++txChecked;
                }
            }
            std::printf("acquisition %d: %zu events, %d packets, %d where the emulator played them\n", run,
                        heard.size(), packets, matched);
        }
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
