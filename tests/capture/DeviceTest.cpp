// The capture link against the device emulator over real pseudo-terminals:
// discovery, the device record, the DAC command, the firmware checks, and a
// port that goes away.
#include "capture/AcquisitionController.h"
#include "capture/CommandProtocol.h"
#include "capture/Discovery.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"

#include "decode/CaptureFile.h"
#include "services/AppSettings.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <chrono>
#include <dirent.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

struct Emulator {
    explicit Emulator(coilsim::EmulatorOptions options = {}, uint32_t seed = 7)
    {
        options.dir = dir.path().toStdString() + "/ports";
        options.haveSeed = true;
        options.seed = seed;
        device = std::make_unique<coilsim::DeviceEmulator>(options);
        std::string error;
        ok = device->Start(error);
        EXPECT_TRUE(ok) << error;
    }
    std::string Pattern() const { return device->Directory() + "/ttyACM%d"; }

    QTemporaryDir dir;
    std::unique_ptr<coilsim::DeviceEmulator> device;
    bool ok = false;
};

class NullView : public AcquisitionView {
public:
    void ShowMessage(const std::string& title, const std::string& text) override
    {
        messages.push_back(title + ": " + text);
    }
    void SetActions(const Actions& a) override { actions = a; }
    void ShowDeviceRecord(const uint8_t*) override { ++records; }
    void CaptureBegins() override { ++begins; }
    void CaptureEnds() override { ++ends; }
    void Tick() override { ticks.fetch_add(1); }

    std::vector<std::string> messages;
    Actions actions{};
    int records = 0, begins = 0, ends = 0;
    std::atomic<int> ticks{0};
};

// Threads of this process, as the kernel lists them.
int ThreadCount()
{
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

// Waits until the process is back to `count` threads (a joined thread leaves
// the list at once; the wait only covers a slow kernel), and returns the count.
int ThreadCountSettlesAt(int count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int n = ThreadCount();
    while (n != count && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        n = ThreadCount();
    }
    return n;
}

// Waits until pred() holds, for up to ten seconds; whether it came to hold.
template <class Pred>
bool WaitUntil(Pred pred)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!pred() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

// Connects, as a user does: when the device's answer to the start came too
// late (a loaded machine; the controller waits 150 to 300 ms for it), the
// controller is connected but not acquiring, and Start asks again.
bool ConnectAndAcquire(AcquisitionController& c)
{
    c.Connect();
    for (int k = 0; k < 5 && c.Found() && !c.Acquiring(); ++k) {
        c.Stop();
        c.Start();
    }
    return c.Acquiring();
}

class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.savePath = folders.path().toStdString();
        s.m_dac_value = 1700;
        s.m_dac_locked = 0;
        s.m_dac_manual = 0;
        s.m_min_freq = 110000;
        s.m_max_freq = 210000;
    }
    QTemporaryDir folders;
};

}  // namespace

TEST_F(DeviceTest, DiscoveryFindsTheThreePortsWhateverTheirOrder)
{
    for (uint32_t seed : {3u, 11u}) {
        Emulator emu({}, seed);
        ASSERT_TRUE(emu.ok);
        DiscoveryResult r = Discover(emu.Pattern());
        EXPECT_TRUE(r.found) << seed;
        EXPECT_EQ(r.commandPort, emu.device->PortPath(coilsim::PortRole::Command));
        EXPECT_EQ(r.askPort, emu.device->PortPath(coilsim::PortRole::Ask));
        EXPECT_EQ(r.fskPort, emu.device->PortPath(coilsim::PortRole::Fsk));
        EXPECT_TRUE(r.firmwareHeaders);  // firmware 901
        ASSERT_TRUE(r.command);
        EXPECT_TRUE(r.command->IsPortOpen());
        r.command->ClosePort();
    }
}

TEST_F(DeviceTest, PortNumbered99IsFoundAnd100IsNot)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    QTemporaryDir links;
    const std::string base = links.path().toStdString();
    auto link = [&](coilsim::PortRole role, int n) {
        const std::string to = base + "/ttyS" + std::to_string(n);
        ASSERT_EQ(::symlink(emu.device->SlavePath(role).c_str(), to.c_str()), 0);
    };
    link(coilsim::PortRole::Ask, 97);
    link(coilsim::PortRole::Fsk, 98);
    link(coilsim::PortRole::Command, 99);
    DiscoveryResult r = Discover(base + "/ttyS%d");
    EXPECT_TRUE(r.found);
    EXPECT_EQ(r.commandPort, base + "/ttyS99");
    r.command.reset();
    ::unlink((base + "/ttyS99").c_str());
    link(coilsim::PortRole::Command, 100);
    DiscoveryResult none = Discover(base + "/ttyS%d");
    EXPECT_FALSE(none.found);
    EXPECT_FALSE(none.command);
}

TEST_F(DeviceTest, BootModeIsRecognised)
{
    coilsim::EmulatorOptions o;
    o.bootMode = true;
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    c.Connect();
    EXPECT_FALSE(c.Found());
    EXPECT_TRUE(c.BootMode());
    ASSERT_EQ(view.messages.size(), 1u);
    EXPECT_EQ(view.messages[0], "information: Device is in boot mode, Please UpdateFireware under sniffer menu.");
}

TEST_F(DeviceTest, BootModeOnALaterPortEndsTheScanWhatEverWasFoundBefore)
{
    // A working sniffer's ASK port comes first, then a sniffer in boot mode,
    // then the working one's command and FSK ports, which the scan never
    // reaches.
    Emulator working;
    ASSERT_TRUE(working.ok);
    coilsim::EmulatorOptions o;
    o.bootMode = true;
    Emulator boot(o, 5);
    ASSERT_TRUE(boot.ok);
    QTemporaryDir links;
    const std::string base = links.path().toStdString();
    auto link = [&](const Emulator& emu, coilsim::PortRole role, int n) {
        const std::string to = base + "/ttyACM" + std::to_string(n);
        ASSERT_EQ(::symlink(emu.device->SlavePath(role).c_str(), to.c_str()), 0);
    };
    link(working, coilsim::PortRole::Ask, 0);
    link(boot, coilsim::PortRole::Command, 1);
    link(working, coilsim::PortRole::Command, 2);
    link(working, coilsim::PortRole::Fsk, 3);

    DiscoveryResult r = Discover(base + "/ttyACM%d");
    EXPECT_TRUE(r.bootMode);
    EXPECT_FALSE(r.found);
    EXPECT_EQ(r.askPort, base + "/ttyACM0");
    EXPECT_EQ(r.commandPort, "");
    EXPECT_EQ(r.fskPort, "");
    EXPECT_FALSE(r.command);

    NullView view;
    AcquisitionController c(view, base + "/ttyACM%d");
    c.Connect();
    EXPECT_FALSE(c.Found());
    EXPECT_TRUE(c.BootMode());
    ASSERT_EQ(view.messages.size(), 1u);
    EXPECT_EQ(view.messages[0], "information: Device is in boot mode, Please UpdateFireware under sniffer menu.");
}

TEST_F(DeviceTest, NoDeviceIsNotFound)
{
    QTemporaryDir empty;
    NullView view;
    AcquisitionController c(view, empty.path().toStdString() + "/ttyACM%d");
    c.Connect();
    EXPECT_FALSE(c.Found());
    ASSERT_EQ(view.messages.size(), 1u);
    EXPECT_EQ(view.messages[0], "critical: Not found Sniffer Device.");
    EXPECT_FALSE(view.actions.connectChecked);
}

TEST_F(DeviceTest, DeviceRecordArrivesIntact)
{
    coilsim::EmulatorOptions o;
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    DiscoveryResult r = Discover(emu.Pattern());
    ASSERT_TRUE(r.command);
    uint8_t record[1024];
    ASSERT_TRUE(ReadDeviceRecord(*r.command, record));
    o.dir = emu.device->Directory();
    const std::vector<uint8_t> expected = coilsim::BuildDeviceRecord(o);
    EXPECT_EQ(std::vector<uint8_t>(record, record + 1024), expected);
    EXPECT_EQ(FirmwareBuildDate(record), "2023.05.20");
    EXPECT_TRUE(BuildDateMatchesHost(record));
}

TEST_F(DeviceTest, ConnectStartsStreamingAndSendsTheDacValue)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    ConnectAndAcquire(c);
    ASSERT_TRUE(c.Found());
    EXPECT_TRUE(c.Acquiring());
    EXPECT_EQ(view.records, 1);
    EXPECT_EQ(view.begins, 1);
    // "pAYAAA==": 1700 reaches the device.
    EXPECT_TRUE(WaitUntil([&] { return emu.device->DacValue() == 1700; }));
    EXPECT_EQ(c.LastDacSent(), 1700);
    // The emulator starts its streams just after its reply to the start.
    EXPECT_TRUE(WaitUntil([&] { return emu.device->Streaming(); }));
    // The pacing thread asks for refreshes, one at a time: the first comes
    // (however late a loaded machine runs the thread), no second one while it
    // is pending, and the next once it is done.
    auto waitTicks = [&view](int n) {
        const auto until = std::chrono::steady_clock::now() + 10s;
        while (view.ticks.load() < n && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(5ms);
        return view.ticks.load();
    };
    EXPECT_EQ(waitTicks(1), 1);
    std::this_thread::sleep_for(150ms);  // five pacing periods
    EXPECT_EQ(view.ticks.load(), 1);
    c.TickDone();
    EXPECT_EQ(waitTicks(2), 2);
    EXPECT_TRUE(c.CheckReplies());  // "$ " and the right build date
    c.Disconnect();
    EXPECT_FALSE(c.Acquiring());
    EXPECT_FALSE(c.IsRunning());
}

TEST_F(DeviceTest, StopTwiceSendsTheStopCommandTwiceAndStopsThreadsOnce)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    c.Connect();
    ASSERT_TRUE(c.IsRunning());
    const int before = c.StopCommandsSent();
    const int whileRunning = ThreadCount();
    c.Stop();
    EXPECT_FALSE(c.IsRunning());
    // The first Stop ends the decoding threads; the second finds none to end
    // and starts none. (The emulator, in this process too, has taken the stop
    // command first.)
    EXPECT_TRUE(WaitUntil([&] { return !emu.device->Streaming(); }));
    const int afterFirst = ThreadCount();
    EXPECT_LT(afterFirst, whileRunning);
    c.Stop();
    EXPECT_EQ(c.StopCommandsSent(), before + 2);
    EXPECT_FALSE(emu.device->Streaming());
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(ThreadCount(), afterFirst);
    EXPECT_FALSE(c.IsRunning());
}

TEST_F(DeviceTest, RejectedFirmwareIsRecognised)
{
    coilsim::EmulatorOptions o;
    o.rejectFirmware = true;
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    c.Connect();
    ASSERT_TRUE(c.Found());
    bool ok = true;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (ok && std::chrono::steady_clock::now() < deadline) {
        ok = c.CheckReplies();
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(ok);
    EXPECT_FALSE(c.Acquiring());
    ASSERT_FALSE(view.messages.empty());
    EXPECT_EQ(view.messages.back(), "Error: Fireware is incompatible, Please UpdateFireware under sniffer menu.");
}

TEST_F(DeviceTest, DifferentBuildDateIsRecognised)
{
    coilsim::EmulatorOptions o;
    o.buildDate = "2024.01.01";
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    c.Connect();
    ASSERT_TRUE(c.Found());
    EXPECT_EQ(FirmwareBuildDate(SettingParams::Instance().deviceRecord), "2024.01.01");
    bool ok = true;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (ok && std::chrono::steady_clock::now() < deadline) {
        ok = c.CheckReplies();
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(ok);
    EXPECT_EQ(view.messages.back(), "Error: Fireware is incompatible, Please UpdateFireware under sniffer menu.");
}

TEST_F(DeviceTest, PortThatGoesAwayEndsOnlyTheStream)
{
    auto emu = std::make_unique<Emulator>();
    ASSERT_TRUE(emu->ok);
    NullView view;
    AcquisitionController c(view, emu->Pattern());
    c.Connect();
    ASSERT_TRUE(c.Found());
    std::this_thread::sleep_for(100ms);
    emu.reset();  // the device is gone
    std::this_thread::sleep_for(100ms);
    std::vector<MsgInfoPtr> events;
    c.Manager().GetEvents(events);
    c.CheckReplies();
    // Nothing crashed; stopping and disconnecting still work.
    c.Disconnect();
    EXPECT_FALSE(c.IsRunning());
}

TEST(PortPattern, ComesFromCoilscopePortsOrIsTheUsbSerialPorts)
{
    unsetenv("COILSCOPE_PORTS");
    EXPECT_EQ(PortPattern(), "/dev/ttyACM%d");
    setenv("COILSCOPE_PORTS", "/tmp/sim/ttyACM%d", 1);
    EXPECT_EQ(PortPattern(), "/tmp/sim/ttyACM%d");
    unsetenv("COILSCOPE_PORTS");
}

TEST_F(DeviceTest, ControllerFindsTheEmulatorThroughTheEnvironment)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    setenv("COILSCOPE_PORTS", emu.Pattern().c_str(), 1);
    NullView view;
    AcquisitionController c(view);
    unsetenv("COILSCOPE_PORTS");
    c.Connect();
    EXPECT_TRUE(c.Found());
    c.Disconnect();
}

TEST_F(DeviceTest, DisconnectDuringAcquisitionJoinsEveryThread)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    const int before = ThreadCount();
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    ASSERT_TRUE(ConnectAndAcquire(c));
    // Readers, decoding loops and the pacing thread are running.
    EXPECT_GE(ThreadCount(), before + 5);
    const auto until = std::chrono::steady_clock::now() + 500ms;
    while (std::chrono::steady_clock::now() < until) {
        if (view.ticks.load() > 0) {
            std::vector<MsgInfoPtr> events;
            c.Manager().GetEvents(events);
            c.TickDone();
        }
        std::this_thread::sleep_for(5ms);
    }
    // No Stop first: Disconnect in the middle of the stream.
    c.Disconnect();
    EXPECT_FALSE(c.Acquiring());
    EXPECT_FALSE(c.IsRunning());
    EXPECT_EQ(ThreadCountSettlesAt(before), before);
}

TEST_F(DeviceTest, NoThreadIsLeftWhenTheControllerGoesAwayWhileAcquiring)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    const int before = ThreadCount();
    {
        NullView view;
        AcquisitionController c(view, emu.Pattern());
        ASSERT_TRUE(ConnectAndAcquire(c));
        std::this_thread::sleep_for(200ms);
    }
    EXPECT_EQ(ThreadCountSettlesAt(before), before);
}

// Stop and Start again on one connection: the data ports drop what they held
// and the chains start over while the port readers keep running; each start
// counts the samples from zero again (the threads meet here under the
// ThreadSanitizer build).
TEST_F(DeviceTest, StartAgainCountsTheSamplesFromItsOwnStart)
{
    coilsim::EmulatorOptions o;
    o.speed = 2.0;
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    // Raw captures on: each acquisition gets files of its own, in the
    // session folder that Connect makes (the settings file is read first, so
    // that it does not overwrite them).
    AppSettings::Instance();
    SettingParams& s = SettingParams::Instance();
    s.savePath = folders.path().toStdString();
    s.m_ask_capture_data = 1;
    s.m_fsk_capture_data = 1;
    NullView view;
    AcquisitionController c(view, emu.Pattern());
    c.Connect();
    ASSERT_TRUE(c.IsRunning());
    const std::string captures = s.capturePath;
    for (int run = 0; run < 3; ++run) {
        if (run > 0) {
            c.Start();
            ASSERT_TRUE(c.IsRunning());
        }
        EXPECT_TRUE(WaitUntil([&] { return c.Ask().SampleCounter() >= 20000; })) << run;
        c.Stop();
        EXPECT_FALSE(c.IsRunning());
        std::vector<MsgInfoPtr> rest;
        c.Manager().TakeAllEvents(rest);
        // Each acquisition is about a second of stream at this speed; a
        // counter that went on from the last one would hold every earlier
        // acquisition's samples too.
        EXPECT_LT(c.Ask().SampleCounter(), 20000u + 40000u) << run;
        EXPECT_EQ(c.Manager().QueuedEvents(), 0u) << run;
    }
    c.Disconnect();
    s.m_ask_capture_data = 0;
    s.m_fsk_capture_data = 0;
    // Three ASK and three FSK files; in each, the first whole frame is
    // stamped near the start of its own acquisition.
    for (const char* suffix : {"*.2k.bin", "*.fsk.bin"}) {
        const QStringList names = QDir(QString::fromStdString(captures)).entryList({suffix}, QDir::Files);
        ASSERT_EQ(names.size(), 3) << suffix << " " << names.join(", ").toStdString();
        for (const QString& n : names) {
            QFile f(QString::fromStdString(captures) + n);
            ASSERT_TRUE(f.open(QIODevice::ReadOnly));
            QByteArray bytes = f.readAll();
            const auto* b = reinterpret_cast<const unsigned char*>(bytes.constData());
            size_t at = HasCaptureHeader(b, static_cast<size_t>(bytes.size())) ? kCaptureHeaderBytes : 0;
            at += FirstChainedFrame(b + at, static_cast<size_t>(bytes.size()) - at);
            ASSERT_LE(at + 8, static_cast<size_t>(bytes.size())) << n.toStdString();
            const uint32_t stamp = b[at + 4] | b[at + 5] << 8 | b[at + 6] << 16 | static_cast<uint32_t>(b[at + 7]) << 24;
            EXPECT_LT(stamp, 200u) << n.toStdString();
        }
    }
}
