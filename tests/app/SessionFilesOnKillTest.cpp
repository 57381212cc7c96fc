// What a session leaves on disk when its process dies: `coilscope-cli
// capture` and the desktop `coilscope`, each a child process capturing from
// coilscope-sim, are watched from outside while they run and then killed
// with SIGKILL; the session folder is read back with the project's readers.
// A file may only end on a line or record boundary and must hold everything
// the process had told before the kill.
#include "ProcessFixtures.h"
#include "decode/CaptureFile.h"
#include "events/RecordStore.h"
#include "events/SessionFile.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

namespace {

namespace fs = std::filesystem;
using namespace e2e;

std::string Cli()
{
    return std::string(COILSCOPE_CLI) + " ";
}

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
}

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The files of a session folder by their kind (".sid", ".log", ".rec",
// ".2k.bin", ".fsk.bin", ".Percent.txt"), the first of each.
std::map<std::string, std::string> SessionFiles(const std::string& folder)
{
    std::map<std::string, std::string> files;
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        for (const char* kind : {".sid", ".log", ".rec", ".2k.bin", ".fsk.bin", ".Percent.txt"})
            if (EndsWith(name, kind) && !files.count(kind))
                files[kind] = entry.path().string();
    }
    return files;
}

uintmax_t SizeOf(const std::string& path)
{
    std::error_code error;
    const uintmax_t n = fs::file_size(path, error);
    return error ? 0 : n;
}

// What a process wrote to a file up to its last line end: a kill may cut
// the terminal output it was writing, which is not a session file.
std::vector<std::string> WholeLinesOf(const std::string& text)
{
    const size_t end = text.rfind('\n');
    return Lines(end == std::string::npos ? std::string() : text.substr(0, end + 1));
}

bool IsHeading(const std::string& line)
{
    return line.rfind("-- ", 0) == 0;
}

// A .log line without its time of day and stream ("12:00:01.250 ASK "), as
// the program prints it.
std::string Printed(const std::string& logLine)
{
    std::string rest = logLine.size() > 12 ? logLine.substr(12) : std::string();
    if (rest.rfind(" FSK ", 0) == 0 || rest.rfind(" ASK ", 0) == 0)
        rest.erase(0, 5);
    return rest;
}

// The lines of a .log, each ended by CR LF (a line without them is left out
// and shows as a missing line).
std::vector<std::string> LogLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end = text.find("\r\n"); end != std::string::npos; end = text.find("\r\n", at)) {
        lines.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    return lines;
}

// The text of a printed event line, "Rx [12] text" -> "text".
std::string TextOf(const std::string& line)
{
    const size_t close = line.find("] ");
    return close == std::string::npos ? line : line.substr(close + 2);
}

// The checks every session file must pass once its process is gone: the
// .sid ends with a record's 0 and reads back, the .log ends with a line's
// CR LF, the record file loads and its valid frames reach its end.
void ExpectWholeFiles(const std::map<std::string, std::string>& files, std::vector<MsgInfoPtr>& events)
{
    ASSERT_TRUE(files.count(".sid") && files.count(".log") && files.count(".rec"));
    const std::string sid = ReadFile(files.at(".sid"));
    ASSERT_FALSE(sid.empty());
    EXPECT_EQ(sid.back(), '\0');
    ASSERT_TRUE(ReadSessionFile(files.at(".sid"), events));
    EXPECT_EQ(events.size(), static_cast<size_t>(std::count(sid.begin(), sid.end(), '\0')));
    const std::string log = ReadFile(files.at(".log"));
    EXPECT_TRUE(EndsWith(log, "\r\n")) << log.substr(log.size() - std::min<size_t>(log.size(), 200));
    RecordStore records;
    ASSERT_TRUE(records.Open(files.at(".rec")));
    EXPECT_LE(records.Count(), events.size());
    EXPECT_EQ(records.Size(), SizeOf(files.at(".rec")));
}

// The printed event lines (the Start marker's and the headings left out),
// from the output of a capture.
std::vector<std::string> PrintedLogLines(const std::vector<std::string>& out)
{
    std::vector<std::string> lines;
    for (size_t k = 4; k < out.size(); ++k)
        if (!IsHeading(out[k]))
            lines.push_back(out[k]);
    return lines;
}

}  // namespace

// `coilscope-cli capture` with raw captures on, killed while it streams.
// Everything it printed went to its files first (a batch's records and lines
// are written before it is printed), so the files must hold every printed
// event: the files are never behind what the program had told, which is
// within a refresh of what it had released (events are released a second
// after they were taken).
TEST(SessionFilesOnKill, KilledCaptureLeavesWholeFilesHoldingEverythingItPrinted)
{
    const std::string dir = Folder("kill-capture");
    Sim sim(dir, {"--record", dir + "/ask.bin", dir + "/fsk.bin"});
    ASSERT_TRUE(sim.ok);
    const std::string home = dir + "/data", config = dir + "/config";
    fs::create_directories(home);
    fs::create_directories(config + "/Coilscope");
    // The settings as the program saves its defaults, with both raw captures on.
    WriteText(config + "/Coilscope/setting.txt",
              "{\"params_ver\": 20190713, \"m_max_freq\": 210000, \"m_min_freq\": 110000, "
              "\"m_ask_signal_reverse\": 0, \"m_ask_trigger_samples\": 2200, \"m_ask_capture_data\": 1, "
              "\"m_fsk_capture_data\": 1, \"m_ask_second_reader\": 1, \"m_fsk_second_reader\": 1, "
              "\"savePath\": \"" + home + "/Coilscope\", \"m_window_time\": 15, \"m_dac_value\": 1700}\n");
    const std::string outPath = dir + "/out.txt";
    Background capture(sim.Env() + "XDG_DATA_HOME=" + Quote(home) + " XDG_CONFIG_HOME=" + Quote(config) + " exec " +
                       Cli() + "capture >" + Quote(outPath) + " 2>" + Quote(dir + "/err.txt"));
    ASSERT_TRUE(capture.ok);
    auto eventLines = [&] {
        size_t n = 0;
        for (const std::string& line : WholeLinesOf(ReadFile(outPath)))
            n += line.size() > 4 && line[3] == '[';
        return n;
    };
    ASSERT_TRUE(WaitUntil(capture, [&] { return eventLines() >= 10; })) << ReadFile(dir + "/err.txt");
    const std::vector<std::string> head = WholeLinesOf(ReadFile(outPath));
    ASSERT_GT(head.size(), 3u);
    ASSERT_EQ(head[2].rfind("session saved in ", 0), 0u) << head[2];
    const std::string folder = head[2].substr(17);

    // While it runs, seen from outside, every file grows: ten more events
    // and at least two seconds later (the files take what is written each
    // refresh; the wide margins are for a busy machine).
    const auto files = SessionFiles(folder);
    for (const char* kind : {".sid", ".log", ".rec", ".2k.bin", ".fsk.bin"})
        ASSERT_TRUE(files.count(kind)) << kind;
    std::map<std::string, uintmax_t> before;
    for (const auto& f : files)
        before[f.first] = SizeOf(f.second);
    const size_t seen = eventLines();
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitUntil(capture, [&] {
        return eventLines() >= seen + 10 && std::chrono::steady_clock::now() - t0 >= 2s;
    }));
    for (const auto& f : files)
        EXPECT_GT(SizeOf(f.second), before[f.first]) << f.first;

    capture.Signal(SIGKILL);
    capture.Wait();
    const std::vector<std::string> out = WholeLinesOf(ReadFile(outPath));
    sim.Stop();

    std::vector<MsgInfoPtr> events;
    ExpectWholeFiles(files, events);
    RecordStore records;
    ASSERT_TRUE(records.Open(files.at(".rec")));
    EXPECT_GT(records.Count(), 0u);
    const std::vector<std::string> printed = PrintedLogLines(out);
    ASSERT_GE(printed.size(), 15u);

    // The .log holds every printed line, in order, as the program printed it.
    const std::vector<std::string> logged = LogLines(ReadFile(files.at(".log")));
    ASSERT_GE(logged.size(), printed.size());
    for (size_t k = 0; k < printed.size(); ++k)
        ASSERT_EQ(Printed(logged[k]), printed[k]) << k;

    // The .sid holds every printed event in order (with the events the log
    // leaves out, device status and contracts, between them).
    size_t at = 0;
    for (const std::string& line : printed) {
        const std::string text = TextOf(line);
        while (at < events.size() && events[at]->str.toStdString() != text)
            ++at;
        ASSERT_LT(at, events.size()) << "not in the session file: " << line;
        ++at;
    }

    // The raw captures are the bytes the emulator sent, whole, in one piece.
    for (const auto& pair : {std::make_pair(".2k.bin", "/ask.bin"), std::make_pair(".fsk.bin", "/fsk.bin")}) {
        std::string raw = ReadFile(files.at(pair.first));
        std::string sent = ReadFile(dir + pair.second);
        for (std::string* bytes : {&raw, &sent})
            if (HasCaptureHeader(reinterpret_cast<const unsigned char*>(bytes->data()), bytes->size()))
                bytes->erase(0, kCaptureHeaderBytes);
        ASSERT_GT(raw.size(), 10000u) << pair.first;
        EXPECT_NE(sent.find(raw), std::string::npos) << pair.first;
    }

    // The application log too ends with a whole line.
    std::string appLog;
    for (const auto& entry : fs::directory_iterator(home + "/Coilscope"))
        if (entry.path().filename().string().rfind("log_", 0) == 0)
            appLog = ReadFile(entry.path().string());
    ASSERT_FALSE(appLog.empty());
    EXPECT_TRUE(EndsWith(appLog, "\r\n"));
}

// A capture that stops normally: its .log holds every line it printed, the
// Stop marker's last, each ended by CR LF.
TEST(SessionFilesOnKill, StoppedCaptureLogHoldsEveryLineEndingWithANewline)
{
    const std::string dir = Folder("stop-capture");
    Sim sim(dir);
    ASSERT_TRUE(sim.ok);
    const std::string outPath = dir + "/out.txt";
    Background capture(sim.Env() + "exec " + Cli() + "capture >" + Quote(outPath) + " 2>/dev/null");
    ASSERT_TRUE(capture.ok);
    ASSERT_TRUE(WaitUntil(capture, [&] { return WholeLinesOf(ReadFile(outPath)).size() >= 20; }));
    capture.Signal(SIGTERM);
    ASSERT_EQ(capture.Wait(), 0);
    sim.Stop();
    const std::vector<std::string> out = Lines(ReadFile(outPath));
    ASSERT_GT(out.size(), 4u);
    ASSERT_NE(out.back().find("] Stop Acquisition: Acquisition stoped at "), std::string::npos);
    const auto files = SessionFiles(out[2].substr(17));
    ASSERT_TRUE(files.count(".log"));
    const std::string log = ReadFile(files.at(".log"));
    EXPECT_TRUE(EndsWith(log, "\r\n"));
    const std::vector<std::string> logged = LogLines(log);
    const std::vector<std::string> printed = PrintedLogLines(out);
    ASSERT_EQ(logged.size(), printed.size());
    for (size_t k = 0; k < printed.size(); ++k)
        EXPECT_EQ(Printed(logged[k]), printed[k]) << k;
}

// The desktop application on the offscreen platform, connected to the
// emulator by itself: its power log gains a line a second as seen from
// outside while it runs, and after SIGKILL every session file is whole.
TEST(SessionFilesOnKill, KilledDesktopLeavesAGrowingPowerLogAndWholeFiles)
{
    const std::string dir = Folder("kill-desktop");
    Sim sim(dir);
    ASSERT_TRUE(sim.ok);
    const std::string home = dir + "/data", config = dir + "/config";
    fs::create_directories(home);
    fs::create_directories(config);
    Background app(sim.Env() + "QT_QPA_PLATFORM=offscreen COILSCOPE_DEMO=1 XDG_DATA_HOME=" + Quote(home) +
                   " XDG_CONFIG_HOME=" + Quote(config) + " exec " + COILSCOPE_APP + " >" + Quote(dir + "/app.txt") +
                   " 2>&1");
    ASSERT_TRUE(app.ok);
    const std::regex format(R"(\d+\.\d{3} -?\d+ -?\d+\.\d{2}% -?\d+\.\d{2}W)");
    auto percent = [&] {
        const auto files = SessionFiles(home);
        return files.count(".Percent.txt") ? ReadFile(files.at(".Percent.txt")) : std::string();
    };
    auto expectWholeLines = [&](const std::string& text) {
        EXPECT_TRUE(EndsWith(text, "\r\n")) << text;
        for (const std::string& line : LogLines(text))
            EXPECT_TRUE(std::regex_match(line, format)) << line;
    };
    // A line a second: three lines, then two more. The margins are wide (a
    // loaded machine may run the refresh late), the check is that the file
    // gains lines while the process runs, not its pace.
    ASSERT_TRUE(WaitUntil(app, [&] { return LogLines(percent()).size() >= 3; })) << ReadFile(dir + "/app.txt");
    const std::string first = percent();
    expectWholeLines(first);
    const size_t lines = LogLines(first).size();
    ASSERT_TRUE(WaitUntil(app, [&] { return LogLines(percent()).size() >= lines + 2; }));
    const std::string second = percent();
    expectWholeLines(second);
    EXPECT_EQ(second.compare(0, first.size(), first), 0);

    const auto files = SessionFiles(home);
    ASSERT_TRUE(files.count(".sid") && files.count(".log"));
    const uintmax_t sid = SizeOf(files.at(".sid")), log = SizeOf(files.at(".log"));
    ASSERT_TRUE(WaitUntil(app, [&] {
        return SizeOf(files.at(".sid")) > sid && SizeOf(files.at(".log")) > log;
    }));

    app.Signal(SIGKILL);
    app.Wait();
    sim.Stop();
    const std::string last = percent();
    expectWholeLines(last);
    EXPECT_EQ(last.compare(0, second.size(), second), 0);
    std::vector<MsgInfoPtr> events;
    ExpectWholeFiles(SessionFiles(home), events);
    EXPECT_GT(events.size(), 5u);
}
