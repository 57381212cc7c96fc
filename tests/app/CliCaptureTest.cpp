// coilscope-cli capture and replay as a user runs them: the program against
// coilscope-sim on pseudo-terminals, its output, its files and its exit status.
#include "ProcessFixtures.h"
#include "sim/SessionScript.h"
#include "sim/StreamSynth.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace e2e;

std::string Cli()
{
    return std::string(COILSCOPE_CLI) + " ";
}

bool IsMarker(const std::string& line)
{
    return line.find("] Start Acquisition: ") != std::string::npos ||
           line.find("] Stop Acquisition: ") != std::string::npos;
}

// "Rx [12] text" -> "[12] text"
std::string WithoutPrefix(const std::string& line)
{
    return line.size() > 3 ? line.substr(3) : line;
}

// The text of an event's line, without its number and without the carrier
// frequency it was told with.
std::string TextOf(const std::string& line)
{
    const size_t close = line.find("] ");
    std::string text = close == std::string::npos ? line : line.substr(close + 2);
    const size_t at = text.rfind(" @");
    if (at != std::string::npos && text.size() > 2 && text.compare(text.size() - 2, 2, "HZ") == 0)
        text.erase(at);
    return text;
}

bool IsEventLine(const std::string& line)
{
    return line.size() > 4 && line[3] == '[' && !IsMarker(line);
}

// An event's text as the capture files can give it back: TextOf, without the
// length of a digital ping (taken where the passes cut the carrier, and live
// passes cut it where a busy machine happens to run them) and without the
// wall-clock time that a 24-bit Received Power is told with
// ("... 10.08W 16:14:06.818").
std::string ReplayableText(const std::string& line)
{
    std::string text = TextOf(line);
    if (text.rfind("Digital Ping ", 0) == 0)
        return "Digital Ping";
    const size_t blank = text.rfind(' ');
    if (text.rfind("ReceivedPower ", 0) == 0 && blank != std::string::npos && text.size() - blank == 13 &&
        text[blank + 3] == ':' && text[blank + 6] == ':' && text[blank + 9] == '.')
        text.erase(blank);
    return text;
}

// The event lines of a capture's output so far.
size_t EventLines(const std::string& text)
{
    size_t n = 0;
    for (const std::string& line : Lines(text))
        n += IsEventLine(line);
    return n;
}

// The whole lines of an output so far (a last line still being written left out).
size_t WholeLines(const std::string& text)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

TEST(CliCapture, SessionFromTheEmulatorIsPrintedSavedAndPlayedBack)
{
    const std::string dir = Folder("capture-session");
    Sim sim(dir, {"--record", dir + "/ask.bin", dir + "/fsk.bin"});
    ASSERT_TRUE(sim.ok);
    // The capture runs until it has told eighty events (some twelve seconds of
    // the script when the machine keeps pace), then ends on SIGTERM.
    const std::string outPath = dir + "/out.txt";
    Background capture(sim.Env() + "exec " + Cli() + "capture >" + Quote(outPath) + " 2>" + Quote(dir + "/err.txt"));
    ASSERT_TRUE(capture.ok);
    EXPECT_TRUE(WaitUntil(capture, [&] { return EventLines(ReadFile(outPath)) >= 80; }));
    capture.Signal(SIGTERM);
    Result r;
    r.status = capture.Wait();
    r.out = ReadFile(outPath);
    sim.Stop();
    ASSERT_EQ(r.status, 0) << ReadFile(dir + "/err.txt");
    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_GT(lines.size(), 20u) << r.out;
    EXPECT_EQ(lines[0].rfind("device: QiSniffer-2K, firmware V9.0.1 built ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("ports: command ", 0), 0u) << lines[1];
    ASSERT_EQ(lines[2].rfind("session saved in ", 0), 0u) << lines[2];
    EXPECT_EQ(lines[3].rfind("   [1] Start Acquisition: Acquisition started at ", 0), 0u) << lines[3];
    EXPECT_NE(lines.back().find("] Stop Acquisition: Acquisition stoped at "), std::string::npos) << lines.back();
    EXPECT_EQ(lines[4], "-- Power Ping Phase --");

    // The session folder holds the session file and the log.
    const std::string folder = lines[2].substr(17);
    int sids = 0, logs = 0;
    std::string sid;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("EventWindow_", 0) == 0 && entry.path().extension() == ".sid") {
            sid = entry.path().string();
            ++sids;
        }
        logs += name.rfind("LogWindow_", 0) == 0 && entry.path().extension() == ".log";
    }
    ASSERT_EQ(sids, 1);
    EXPECT_EQ(logs, 1);

    // The live events, numbered, without their direction prefix.
    std::vector<std::string> live;
    for (const std::string& line : lines)
        if (IsEventLine(line))
            live.push_back(WithoutPrefix(line));
    ASSERT_GT(live.size(), 50u);

    // The session file played back gives the same numbered texts.
    const Result again = Shell(Cli() + "replay " + Quote(sid) + " 2>/dev/null");
    ASSERT_EQ(again.status, 0);
    std::vector<std::string> replayed;
    for (const std::string& line : Lines(again.out))
        if (IsEventLine(line))
            replayed.push_back(WithoutPrefix(line));
    EXPECT_EQ(replayed, live);

    // The raw captures through the chains again: most of the same texts (the
    // capture files keep the bytes, not the chunks the live reader took, so
    // what depends on them is left out of the texts compared), and a session
    // file of the events printed.
    const std::string out = dir + "/again.sid";
    const Result raw = Shell(Cli() + "replay " + Quote(dir + "/ask.bin") + " " + Quote(dir + "/fsk.bin") +
                             " --sid " + Quote(out) + " 2>/dev/null");
    ASSERT_EQ(raw.status, 0);
    std::multiset<std::string> texts;
    size_t printed = 0;
    for (const std::string& line : Lines(raw.out))
        if (line.size() > 4 && line[3] == '[') {
            ++printed;
            texts.insert(ReplayableText(line));
        }
    size_t found = 0;
    for (const std::string& line : live) {
        auto it = texts.find(ReplayableText(line));
        if (it != texts.end()) {
            ++found;
            texts.erase(it);
        }
    }
    EXPECT_GE(found * 100, live.size() * 85) << found << " of " << live.size();
    // The session file holds every event, those the log leaves out (device
    // status, contract) too: as many as the JSON replay prints.
    const Result shown = Shell(Cli() + "show " + Quote(out));
    EXPECT_EQ(shown.status, 0);
    const Result json = Shell(Cli() + "replay " + Quote(dir + "/ask.bin") + " " + Quote(dir + "/fsk.bin") +
                              " --json 2>/dev/null");
    EXPECT_EQ(Lines(shown.out).size(), Lines(json.out).size());
    EXPECT_GE(Lines(shown.out).size(), printed);
    EXPECT_GT(printed, live.size() / 2);
}

TEST(CliCapture, JsonGivesOneObjectPerEvent)
{
    const std::string dir = Folder("capture-json");
    Sim sim(dir);
    ASSERT_TRUE(sim.ok);
    // The capture runs until it has told six events (the first pings, some
    // four seconds when the machine keeps pace), then ends on SIGTERM.
    const std::string out = dir + "/out.txt";
    Background capture(sim.Env() + "exec " + Cli() + "capture --json >" + Quote(out) + " 2>/dev/null");
    ASSERT_TRUE(capture.ok);
    EXPECT_TRUE(WaitUntil(capture, [&] { return WholeLines(ReadFile(out)) >= 3 + 6; }));
    capture.Signal(SIGTERM);
    ASSERT_EQ(capture.Wait(), 0);
    const std::vector<std::string> lines = Lines(ReadFile(out));
    ASSERT_GT(lines.size(), 3u);
    EXPECT_EQ(lines[2].rfind("session saved in ", 0), 0u);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    int events = 0;
    for (size_t k = 3; k < lines.size(); ++k) {
        Json::Value v;
        std::string error;
        ASSERT_TRUE(reader->parse(lines[k].data(), lines[k].data() + lines[k].size(), &v, &error))
            << lines[k] << ": " << error;
        ASSERT_TRUE(v.isObject());
        EXPECT_TRUE(v["str"].isString()) << lines[k];
        EXPECT_TRUE(v["type"].isInt()) << lines[k];
        ++events;
    }
    EXPECT_GT(events, 5);
}

TEST(CliCapture, FilterShowsOnlyTheMatchedEvents)
{
    const std::string dir = Folder("capture-filter");
    Sim sim(dir);
    ASSERT_TRUE(sim.ok);
    // The session begins with digital pings: the first two are left out.
    const std::string out = dir + "/out.txt";
    Background capture(sim.Env() + "exec " + Cli() + "capture --json --filter 'type == DigitalPing && number > 2' >" +
                       Quote(out) + " 2>/dev/null");
    ASSERT_TRUE(capture.ok);
    EXPECT_TRUE(WaitUntil(capture, [&] { return WholeLines(ReadFile(out)) >= 3 + 3; }));
    capture.Signal(SIGTERM);
    ASSERT_EQ(capture.Wait(), 0);
    const std::vector<std::string> lines = Lines(ReadFile(out));
    ASSERT_GT(lines.size(), 3u);
    EXPECT_EQ(lines[2].rfind("session saved in ", 0), 0u);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    int next = 3;
    for (size_t k = 3; k < lines.size(); ++k) {
        Json::Value v;
        std::string error;
        ASSERT_TRUE(reader->parse(lines[k].data(), lines[k].data() + lines[k].size(), &v, &error)) << lines[k];
        EXPECT_EQ(v["type"].asInt(), 253) << lines[k];
        // The Start marker takes number 1: the pings are 2, 3, ...
        EXPECT_EQ(v["id"].asInt(), next) << lines[k];
        next += 1;
    }
    EXPECT_GE(next, 6);

    // A bad filter is refused before the device is looked for.
    const Result bad = Shell(sim.Env() + Cli() + "capture --filter 'number >' 2>&1");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.out.find("column 9: expected a value after '>'"), std::string::npos) << bad.out;
}

TEST(CliCapture, SigtermStopsDisconnectsAndExitsZero)
{
    const std::string dir = Folder("capture-sigterm");
    Sim sim(dir);
    ASSERT_TRUE(sim.ok);
    const std::string out = dir + "/out.txt";
    // SIGTERM once the capture runs and has told an event.
    Background capture(sim.Env() + "exec " + Cli() + "capture >" + Quote(out) + " 2>/dev/null");
    ASSERT_TRUE(capture.ok);
    EXPECT_TRUE(WaitUntil(capture, [&] { return EventLines(ReadFile(out)) >= 1; }));
    capture.Signal(SIGTERM);
    EXPECT_EQ(capture.Wait(), 0);
    const std::vector<std::string> lines = Lines(ReadFile(out));
    ASSERT_GT(lines.size(), 4u);
    EXPECT_NE(lines.back().find("] Stop Acquisition: Acquisition stoped at "), std::string::npos) << lines.back();
}

// The application log of a run whose data home is `home`, and the commands
// the emulator took.
std::string AppLogIn(const std::string& home)
{
    std::string text;
    for (const auto& entry : fs::directory_iterator(home + "/Coilscope"))
        if (entry.path().filename().string().rfind("log_", 0) == 0)
            text += ReadFile(entry.path().string());
    return text;
}

size_t Count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

TEST(CliCapture, EndOfACaptureDisconnectsOnce)
{
    const std::string dir = Folder("capture-disconnect-once");
    const std::string commands = dir + "/commands.txt";
    Sim sim(dir, {"--commands", commands});
    ASSERT_TRUE(sim.ok);
    const std::string home = dir + "/home";
    fs::create_directories(home);
    const Result r = Shell(sim.Env() + "XDG_DATA_HOME=" + Quote(home) + " " + Cli() + "capture --seconds 2 >/dev/null 2>&1");
    sim.Stop();
    EXPECT_EQ(r.status, 0);
    const std::string log = AppLogIn(home);
    for (int step = 1; step <= 6; ++step)
        EXPECT_EQ(Count(log, "DevDisconnect " + std::to_string(step) + "\r\n"), 1u) << step << "\n" << log;
    EXPECT_EQ(Count(log, "DevStop 10\r\n"), 1u) << log;
    // Discovery sends 07 to every port; from the start on, one stop and one
    // disconnect.
    const std::string taken = ReadFile(commands);
    const std::string fromStart = taken.substr(std::min(taken.size(), taken.find("command 05\n")));
    EXPECT_EQ(Count(fromStart, "command 05\n"), 1u) << taken;
    EXPECT_EQ(Count(fromStart, "command 07\n"), 1u) << taken;
    EXPECT_EQ(Count(taken, "command 03\n"), 1u) << taken;
}

TEST(CliCapture, StartNeverConfirmedEndsWithoutStopOrDisconnectCommands)
{
    const std::string dir = Folder("capture-silent-start");
    const std::string commands = dir + "/commands.txt";
    Sim sim(dir, {"--commands", commands, "--silent-start"});
    ASSERT_TRUE(sim.ok);
    const std::string home = dir + "/home";
    fs::create_directories(home);
    const std::string out = dir + "/out.txt";
    const Result r = Shell(sim.Env() + "XDG_DATA_HOME=" + Quote(home) + " " + Cli() + "capture --seconds 2 >" +
                           Quote(out) + " 2>&1");
    sim.Stop();
    EXPECT_EQ(r.status, 0);
    const std::string taken = ReadFile(commands);
    const std::string fromStart = taken.substr(std::min(taken.size(), taken.find("command 05\n")));
    // The start went out, the device kept quiet: no stop, no disconnect.
    EXPECT_EQ(Count(fromStart, "command 05\n"), 1u) << taken;
    EXPECT_EQ(Count(fromStart, "command 07\n"), 0u) << taken;
    EXPECT_EQ(Count(taken, "command 03\n"), 0u) << taken;
    const std::string log = AppLogIn(home);
    EXPECT_NE(log.find("DevStart t1="), std::string::npos) << log;
    EXPECT_EQ(log.find("DevStop 1\r\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("DevDisconnect 1\r\n"), std::string::npos) << log;
    // The session still ends with its marker.
    const std::vector<std::string> lines = Lines(ReadFile(out));
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("] Stop Acquisition: Acquisition stoped at "), std::string::npos) << lines.back();
}

TEST(CliReplay, CaptureFilesThatBeginInsideAFrameAreReadFromTheFirstWholeFrame)
{
    const std::string dir = Folder("replay-cut");
    Sim sim(dir, {"--record", dir + "/ask.bin", dir + "/fsk.bin", "--speed", "4"});
    ASSERT_TRUE(sim.ok);
    const Result r = Shell(sim.Env() + Cli() + "capture --seconds 6 >/dev/null 2>&1");
    sim.Stop();
    ASSERT_EQ(r.status, 0);
    // The same files cut 5 and 3 bytes into their first frames.
    const std::string ask = ReadFile(dir + "/ask.bin"), fsk = ReadFile(dir + "/fsk.bin");
    ASSERT_GT(ask.size(), 10000u);
    ASSERT_GT(fsk.size(), 1000u);
    std::ofstream(dir + "/ask-cut.bin", std::ios::binary) << ask.substr(5);
    std::ofstream(dir + "/fsk-cut.bin", std::ios::binary) << fsk.substr(3);
    // The texts, without the wall-clock time that a 24-bit Received Power
    // is told with ("... 10.08W 15:35:42.923").
    auto texts = [](const std::string& out) {
        std::vector<std::string> t;
        for (const std::string& line : Lines(out))
            if (IsEventLine(line)) {
                std::string text = TextOf(line);
                const size_t blank = text.rfind(' ');
                if (text.rfind("ReceivedPower ", 0) == 0 && blank != std::string::npos && text.size() - blank == 13 &&
                    text[blank + 3] == ':' && text[blank + 6] == ':' && text[blank + 9] == '.')
                    text.erase(blank);
                t.push_back(text);
            }
        return t;
    };
    const Result whole = Shell(Cli() + "replay " + Quote(dir + "/ask.bin") + " " + Quote(dir + "/fsk.bin") + " 2>&1");
    ASSERT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out.find("skipped"), std::string::npos) << whole.out;
    const Result cut =
        Shell(Cli() + "replay " + Quote(dir + "/ask-cut.bin") + " " + Quote(dir + "/fsk-cut.bin") + " 2>&1");
    ASSERT_EQ(cut.status, 0);
    const size_t askFirst = static_cast<uint8_t>(ask[0]) | static_cast<uint8_t>(ask[1]) << 8;
    const size_t fskFirst = static_cast<uint8_t>(fsk[0]) | static_cast<uint8_t>(fsk[1]) << 8;
    EXPECT_NE(cut.out.find("replay: skipped " + std::to_string(8 + askFirst - 5) +
                           " bytes before the first whole frame of " + dir + "/ask-cut.bin\n"),
              std::string::npos)
        << cut.out.substr(0, 400);
    EXPECT_NE(cut.out.find("replay: skipped " + std::to_string(8 + fskFirst - 3) +
                           " bytes before the first whole frame of " + dir + "/fsk-cut.bin\n"),
              std::string::npos)
        << cut.out.substr(0, 400);
    const std::vector<std::string> all = texts(whole.out), fromCut = texts(cut.out);
    ASSERT_GT(all.size(), 20u);
    // The first frame of each stream holds no packet (the emulator starts
    // with the carrier off), so the cut files give every event back.
    EXPECT_EQ(fromCut, all);
}

TEST(CliCapture, StatsTellWhatTheSessionHoldsOnSigusr1AndAtTheEnd)
{
    const std::string dir = Folder("capture-stats");
    // Four times real speed: the script's first packets (after some ten
    // seconds of pings) come within the first seconds.
    Sim sim(dir, {"--speed", "4"});
    ASSERT_TRUE(sim.ok);
    const std::string out = dir + "/out.txt", err = dir + "/err.txt";
    Background capture(sim.Env() + "exec " + Cli() + "capture --stats >" + Quote(out) + " 2>" + Quote(err));
    ASSERT_TRUE(capture.ok);
    // SIGUSR1 once the first receiver packets are told (they are in the tree
    // by then); SIGTERM once the stats are out and ten more have come.
    auto packets = [&] { return Count(ReadFile(out), "\nRx ["); };
    EXPECT_TRUE(WaitUntil(capture, [&] { return packets() >= 1; }));
    capture.Signal(SIGUSR1);
    EXPECT_TRUE(WaitUntil(capture, [&] { return Count(ReadFile(err), "stats: ") >= 1; }));
    const size_t told = packets();
    EXPECT_TRUE(WaitUntil(capture, [&] { return packets() >= told + 10; }));
    capture.Signal(SIGTERM);
    EXPECT_EQ(capture.Wait(), 0);
    std::vector<std::string> stats;
    for (const std::string& line : Lines(ReadFile(err)))
        if (line.rfind("stats: ", 0) == 0)
            stats.push_back(line);
    ASSERT_EQ(stats.size(), 3u) << ReadFile(err);
    long long lines[2] = {0, 0};
    size_t items[2] = {0, 0}, whole[2] = {0, 0}, records[2] = {0, 0};
    for (int k = 0; k < 2; ++k) {
        double seconds = 0, recordMb = 0;
        ASSERT_EQ(std::sscanf(stats[k].c_str(),
                              "stats: %lf s, %lld log lines, %zu tree items (%zu holding their whole event), %zu capture "
                              "records of %lf MB",
                              &seconds, &lines[k], &items[k], &whole[k], &records[k], &recordMb),
                  6)
            << stats[k];
        EXPECT_LE(whole[k], items[k]) << stats[k];
        EXPECT_GT(whole[k], 0u) << stats[k];
    }
    // Pings, then the first packets, each with its capture record kept in the
    // tree.
    EXPECT_GT(records[0], 0u) << stats[0];
    EXPECT_GT(items[0], records[0] / 2) << stats[0];
    EXPECT_GE(lines[1], lines[0]);
    EXPECT_GT(records[1], records[0]) << stats[1];
    // The last line: the heap once the tree and the log are cleared gives
    // back what the session had grown by.
    auto sinceStart = [](const std::string& line) {
        double mb = 1e9;
        const size_t open = line.rfind('(');
        if (open != std::string::npos)
            std::sscanf(line.c_str() + open, "(%lf MB since the start)", &mb);
        return mb;
    };
    EXPECT_EQ(stats[2].rfind("stats: tree and log cleared: heap in use ", 0), 0u) << stats[2];
    EXPECT_GT(sinceStart(stats[1]), 0.0) << stats[1];
    EXPECT_LT(sinceStart(stats[2]), sinceStart(stats[1])) << stats[2];
}

TEST(CliCapture, NoDeviceIsStatusOneWithItsMessage)
{
    const std::string dir = Folder("capture-none");
    const Result r = Shell("COILSCOPE_PORTS=" + Quote(dir + "/ttyACM%d") + " " + Cli() + "capture --seconds 1 2>&1");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("Not found Sniffer Device.\n"), std::string::npos) << r.out;
}

TEST(CliCapture, BootModeIsStatusOneWithItsMessage)
{
    const std::string dir = Folder("capture-boot");
    Sim sim(dir, {"--boot-mode"});
    ASSERT_TRUE(sim.ok);
    const Result r = Shell(sim.Env() + Cli() + "capture --seconds 2 2>&1");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("Device is in boot mode, Please UpdateFireware under sniffer menu.\n"), std::string::npos)
        << r.out;
}

TEST(CliCapture, RejectedFirmwareIsStatusOneWithItsMessage)
{
    const std::string dir = Folder("capture-reject");
    Sim sim(dir, {"--reject-firmware"});
    ASSERT_TRUE(sim.ok);
    // The refusal ends the capture at its first refresh, with status 1; the
    // minute is only a bound, however slowly a loaded machine runs it.
    const Result r = Shell(sim.Env() + Cli() + "capture --seconds 60 2>&1");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("Fireware is incompatible, Please UpdateFireware under sniffer menu.\n"), std::string::npos)
        << r.out;
}

TEST(CliReplay, ProgressIsShownOnATerminalOnlyForMoreThanAMinute)
{
    const std::string dir = Folder("replay-progress");
    // Seventy seconds of the emulator's session, as its streams go out.
    auto write = [&](double seconds, const std::string& ask, const std::string& fsk) {
        coilsim::SynthOptions o;
        o.seed = 5;
        coilsim::StreamSynth synth(coilsim::SessionScript::Default(5), o);
        std::ofstream a(ask, std::ios::binary), f(fsk, std::ios::binary);
        std::vector<uint8_t> x, y;
        while (synth.StreamUs() < static_cast<uint64_t>(seconds * 1e6)) {
            synth.NextFrames(x, y);
            a.write(reinterpret_cast<const char*>(x.data()), static_cast<std::streamsize>(x.size()));
            f.write(reinterpret_cast<const char*>(y.data()), static_cast<std::streamsize>(y.size()));
        }
    };
    write(70, dir + "/long.ask", dir + "/long.fsk");
    write(20, dir + "/short.ask", dir + "/short.fsk");

    // stderr on a pseudo-terminal.
    auto onTerminal = [&](const std::string& name) {
        int master = -1, slave = -1;
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        std::string args = std::string(COILSCOPE_CLI);
        const std::string ask = dir + "/" + name + ".ask", fsk = dir + "/" + name + ".fsk";
        char* argv[] = {&args[0], const_cast<char*>("replay"), const_cast<char*>(ask.c_str()),
                        const_cast<char*>(fsk.c_str()), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, slave, 2);
        posix_spawn_file_actions_addclose(&actions, master);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, COILSCOPE_CLI, &actions, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(slave);
        std::string seen;
        char buffer[4096];
        for (;;) {
            pollfd p{master, POLLIN, 0};
            if (poll(&p, 1, 30000) <= 0)
                break;
            const ssize_t n = read(master, buffer, sizeof buffer);
            if (n <= 0)
                break;  // the child is gone and the terminal hung up
            seen.append(buffer, static_cast<size_t>(n));
        }
        int status = 0;
        waitpid(pid, &status, 0);
        close(master);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        return seen;
    };
    const std::string longRun = onTerminal("long");
    EXPECT_NE(longRun.find("\rreplay "), std::string::npos) << longRun;
    EXPECT_NE(longRun.find("\rreplay 100 %"), std::string::npos) << longRun;
    // Written when the percentage changes, not on every refresh.
    size_t writes = 0;
    for (size_t at = longRun.find("\rreplay"); at != std::string::npos; at = longRun.find("\rreplay", at + 1))
        ++writes;
    EXPECT_LE(writes, 101u);
    EXPECT_EQ(onTerminal("short").find("replay "), std::string::npos);

    // Not on a terminal: no progress, whatever the length.
    const Result piped = Shell(Cli() + "replay " + Quote(dir + "/long.ask") + " " + Quote(dir + "/long.fsk") +
                               " 2>&1 >/dev/null");
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.out.find("replay "), std::string::npos) << piped.out;
}
