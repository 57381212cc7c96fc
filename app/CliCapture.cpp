#include "app/CliCapture.h"

#include "app/CliReplay.h"
#include "app/CliShow.h"
#include "analysis/TimingChecker.h"
#include "analysis/TimingFile.h"
#include "app/SessionPrinter.h"
#include "capture/AcquisitionController.h"
#include "capture/CommandProtocol.h"
#include "events/EventLogModel.h"
#include "services/SettingParams.h"

#include <malloc.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

namespace {

std::atomic<bool> g_stop{false};
std::atomic<bool> g_statsAsked{false};

void OnSignal(int)
{
    g_stop.store(true);
}

void OnStatsSignal(int)
{
    g_statsAsked.store(true);
}

size_t HeapInUse()
{
    return mallinfo2().uordblks;
}

// One line on stderr: what the session holds in memory now.
void PrintStats(const EventLogModel& model, size_t heapAtStart, double seconds)
{
    const EventLogModel::Footprint f = model.TreeFootprint();
    const double mb = 1.0 / (1024.0 * 1024.0);
    const size_t heap = HeapInUse();
    std::fprintf(stderr,
                 "stats: %.1f s, %lld log lines, %zu tree items (%zu holding their whole event), %zu capture records "
                 "of %.1f MB; heap in use %.1f MB (%+.1f MB since the start)\n",
                 seconds, static_cast<long long>(model.LinesWritten()), f.items, f.events, f.records,
                 static_cast<double>(f.recordBytes) * mb, static_cast<double>(heap) * mb,
                 (static_cast<double>(heap) - static_cast<double>(heapAtStart)) * mb);
}

const char* kCaptureHelp =
    "usage: coilscope-cli capture [--seconds N] [--json] [--filter EXPR] [--stats]\n"
    "                             [--ask-reader list|both] [--fsk-reader list|both]\n"
    "\n"
    "Finds the sniffer on the serial ports (/dev/ttyACM0 to 99, or the printf\n"
    "pattern in COILSCOPE_PORTS), starts streaming and prints the session's\n"
    "log as it runs, one line per event (--json: one JSON object per event).\n"
    "The session is saved as it runs (.sid and .log in a folder named by the\n"
    "time, under the settings' savePath). Ctrl-C, SIGTERM or the end of\n"
    "--seconds stops, disconnects and exits with status 0.\n"
    "\n"
    "No device: \"Not found Sniffer Device.\" on stderr and status 1; a device\n"
    "in boot mode or with an incompatible firmware likewise.\n"
    "\n"
    "--stats: at the end, and whenever the process gets SIGUSR1, a line on\n"
    "stderr tells what the session holds in memory: the event tree's items,\n"
    "the capture records they keep for the wave view, and the heap in use;\n"
    "at the end, a last line gives the heap in use once the tree is cleared.\n"
    "\n"
    "--filter EXPR: print only the events the display filter matches (as\n"
    "show --filter; the session files still get every event). A bad\n"
    "expression is refused with the column and what was expected, status 2,\n"
    "before the device is looked for.\n"
    "\n"
    "--ask-reader: as for replay (list: the list decoder alone; both: with the\n"
    "second reader; without it, as the settings say, both by default).\n"
    "--fsk-reader: likewise for the transmitter's side (list: the FSK frame\n"
    "decoder alone; both: with the second FSK reader).\n"
    "\n"
    "example:\n"
    "  COILSCOPE_PORTS=/tmp/sim/ttyACM%d coilscope-cli capture --seconds 20\n";

// What the controller shows, on the terminal.
class TerminalView : public AcquisitionView {
public:
    explicit TerminalView(EventLogModel& model) : m_model(model) {}
    void ShowMessage(const std::string& title, const std::string& text) override
    {
        std::cerr << text << std::endl;
        failed = title == "critical" || title == "Error" || title == "information";
    }
    void SetActions(const Actions&) override {}
    void ShowDeviceRecord(const uint8_t*) override {}
    void CaptureBegins() override { m_model.StartAcquisition(); }
    void CaptureEnds() override {}
    void Tick() override { tick.store(true); }

    std::atomic<bool> tick{false};
    bool failed = false;

private:
    EventLogModel& m_model;
};

}  // namespace

int RunCapture(int argc, char** argv)
{
    double seconds = -1;
    bool json = false;
    bool stats = false;
    bool filtered = false;
    std::string filterText;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kCaptureHelp, stdout);
            return 0;
        }
        if (a == "--json") {
            json = true;
        } else if (a == "--filter") {
            if (!TakeCliFilter("capture", argc, argv, i, filterText))
                return 2;
            filtered = true;
        } else if (a == "--stats") {
            stats = true;
        } else if (a == "--ask-reader" && i + 1 < argc) {
            bool both = true;
            if (!ParseAskReader(argv[++i], both))
                return 2;
            // For this run only: the settings file is not written from here.
            SettingParams::Instance().m_ask_second_reader = both ? 1 : 0;
        } else if (a == "--fsk-reader" && i + 1 < argc) {
            bool both = true;
            if (!ParseFskReader(argv[++i], both))
                return 2;
            SettingParams::Instance().m_fsk_second_reader = both ? 1 : 0;
        } else if (a == "--seconds" && i + 1 < argc) {
            char* end = nullptr;
            seconds = std::strtod(argv[++i], &end);
            if (!end || *end || seconds <= 0) {
                std::fprintf(stderr, "coilscope-cli capture: --seconds needs a positive number\n");
                return 2;
            }
        } else {
            std::fprintf(stderr, "coilscope-cli capture: unknown argument %s (try --help)\n", a.c_str());
            return 2;
        }
    }
    analysis::Filter filter;
    if (filtered && !CompileCliFilter("capture", filterText, filter))
        return 2;
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    if (stats)
        std::signal(SIGUSR1, OnStatsSignal);

    EventLogModel model;
    model.deviceGroup = [] { return DeviceGroupFromRecord(SettingParams::Instance().deviceRecord); };
    SessionPrinter printer(model, std::cout, json, &filter);
    TerminalView view(model);
    AcquisitionController controller(view);
    controller.Connect();
    if (!controller.Found())
        return 1;

    const DeviceGroup device = DeviceGroupFromRecord(SettingParams::Instance().deviceRecord);
    std::cout << "device: " << device.deviceType << ", firmware " << device.firewareVersion << " built "
              << device.firmwareBuildDate << ", hardware " << device.hardwareVersion << ", serial "
              << device.serialNumber << "\n";
    std::cout << "ports: command " << controller.CommandPort() << ", ASK " << controller.AskPort() << ", FSK "
              << controller.FskPort() << "\n";
    std::cout << "session saved in " << SettingParams::Instance().eventPath << "\n" << std::flush;

    // The Start marker's line.
    printer.After({});

    // The session's timing file beside its .sid (a new one with each .sid):
    // the carrier's edges as they come and the timing checker's findings.
    analysis::TimingChecker checker(analysis::TimingLimits::FromSettings(SettingParams::Instance()));
    analysis::TimingFile timingFile;
    std::string timingSid;
    checker.onFinding = [&](const analysis::TimingFinding& f) { timingFile.WriteFinding(f); };
    {
        auto before = model.eventAdded;
        model.eventAdded = [&checker, before](const MsgInfo& e, int phase) {
            if (before)
                before(e, phase);
            checker.Add(e, e.id);
        };
    }
    auto takeEdges = [&] {
        if (model.SidPath() != timingSid) {
            timingSid = model.SidPath();
            checker.Reset();
            timingFile.Close();
            if (!timingSid.empty())
                timingFile.Create(analysis::TimingFile::PathBeside(timingSid));
        }
        std::vector<CarrierEdge> edges;
        controller.Manager().TakeCarrierEdges(edges);
        for (const CarrierEdge& e : edges)
            timingFile.WriteEdge(e);
        checker.AddCarrierEdges(edges);
    };

    const auto begin = std::chrono::steady_clock::now();
    auto elapsed = [&begin] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    const size_t heapAtStart = HeapInUse();
    bool ok = true;
    while (!g_stop.load()) {
        if (seconds > 0 && elapsed() >= seconds)
            break;
        if (g_statsAsked.exchange(false))
            PrintStats(model, heapAtStart, elapsed());
        if (view.tick.exchange(false)) {
            if (!controller.CheckReplies()) {
                ok = false;
                break;
            }
            std::vector<MsgInfoPtr> batch;
            controller.Manager().GetEvents(batch);
            takeEdges();
            printer.Before();
            model.AddEvents(batch);
            printer.After(batch);
            controller.TickDone();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (ok) {
        // As the window closes: stop and disconnect a capture the device
        // confirmed; after a start it never confirmed, send it nothing.
        controller.Close();
        // What the capture heard in its last second, and the frames the two
        // readers still held for each other, belong to this session.
        std::vector<MsgInfoPtr> rest;
        controller.Manager().TakeAllEvents(rest);
        takeEdges();
        if (!rest.empty()) {
            printer.Before();
            model.AddEvents(rest);
            printer.After(rest);
        }
        printer.Before();
        model.StopAcquisition();
        printer.After({});
        checker.Finish();
    }
    model.CloseStreams();
    if (stats) {
        PrintStats(model, heapAtStart, elapsed());
        // What stays once the tree and the log are gone: anything here that
        // grew with the session would be held outside the tree.
        model.ClearAll();
        const double mb = 1.0 / (1024.0 * 1024.0);
        const size_t heap = HeapInUse();
        std::fprintf(stderr, "stats: tree and log cleared: heap in use %.1f MB (%+.1f MB since the start)\n",
                     static_cast<double>(heap) * mb,
                     (static_cast<double>(heap) - static_cast<double>(heapAtStart)) * mb);
    }
    return ok ? 0 : 1;
}
