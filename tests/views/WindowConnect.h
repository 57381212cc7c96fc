// Connecting the main window to the emulator as a user does, also on a busy
// machine. The window waits 150 to 300 ms for each answer of the device; an
// answer that comes later leaves it not found (the connect says so and stays
// enabled), connected but not acquiring (the start wasn't confirmed), or
// acquiring on a device record read empty, which the firmware check stops at
// the first refreshes. The user then presses the button again, and so do
// these helpers; the boxes of the tries that failed are dropped.
#pragma once

#include "events/ui/UserSeams.h"
#include "sim/DeviceEmulator.h"
#include "views/MainWindow.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace windowconnect {

// The device emulator on pseudo-terminals in a folder of its own, with a
// fixed seed and a log of the commands it received.
struct Emulator {
    explicit Emulator(coilsim::EmulatorOptions o = {})
    {
        o.dir = dir.path().toStdString() + "/ports";
        o.haveSeed = true;
        o.seed = 9;
        o.commandLog = dir.path().toStdString() + "/commands.txt";
        options = o;
        device = std::make_unique<coilsim::DeviceEmulator>(o);
        std::string error;
        ok = device->Start(error);
        EXPECT_TRUE(ok) << error;
    }
    // The port pattern the main window finds the emulator's ports by.
    std::string Pattern() const { return device->Directory() + "/ttyACM%d"; }
    // The commands the emulator received so far, as its log has them.
    std::string Commands() const
    {
        std::ifstream in(dir.path().toStdString() + "/commands.txt");
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    QTemporaryDir dir;
    coilsim::EmulatorOptions options;
    std::unique_ptr<coilsim::DeviceEmulator> device;
    bool ok = false;
};

// Runs the event loop until the condition holds or the time is up.
inline bool WaitUntil(const std::function<bool()>& condition, int ms)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!condition() && std::chrono::steady_clock::now() < until)
        QTest::qWait(10);
    return condition();
}

// Connect, up to five presses, until the device is found.
inline bool ConnectUntilFound(MainWindow& w, std::vector<UserMessage>& messages)
{
    for (int k = 0; k < 5; ++k) {
        const size_t before = messages.size();
        w.Action("actionConnect")->trigger();
        if (w.Controller().Found())
            return true;
        messages.resize(before);
    }
    return false;
}

// Stop and Start again, up to five times, while the device is found but the
// capture doesn't run.
inline bool StartUntilAcquiring(MainWindow& w)
{
    for (int k = 0; k < 5 && w.Controller().Found() && !w.Controller().Acquiring(); ++k) {
        w.Action("actionStop")->trigger();
        w.Action("actionStart")->trigger();
    }
    return w.Controller().Acquiring();
}

// Connect and start until the capture runs on for ten refreshes, with up to
// three connections.
inline bool ConnectAndAcquire(MainWindow& w, std::vector<UserMessage>& messages)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        const size_t before = messages.size();
        if (ConnectUntilFound(w, messages) && StartUntilAcquiring(w)) {
            const int from = w.Refreshes();
            WaitUntil([&] { return w.Refreshes() > from + 10 || !w.Controller().Acquiring(); }, 20000);
            if (w.Controller().Acquiring())
                return true;
        }
        if (w.Controller().Found())
            w.Action("actionDisconnect")->trigger();
        messages.resize(before);
    }
    return false;
}

}  // namespace windowconnect
