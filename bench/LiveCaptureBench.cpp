// Live capture against the device emulator, measured from outside as a user
// would see it: coilscope-sim on pseudo-terminals and `coilscope-cli capture`
// as two processes.
//
//   live_capture cpu [--seconds 60]
//       the emulator at real speed; the CPU time (user + system) the capture
//       process spends over the given seconds, once it is streaming.
//   live_capture memory [--speed 5] [--minutes 1,10,60]
//       the emulator at the given speed; the capture's resident size when the
//       stream has run the given minutes, with the capture's own account of
//       what its session holds (`capture --stats`, asked by SIGUSR1): the
//       tree's items, the capture records they keep, the heap in use; and
//       the disk the session's files take (.sid, .log, and the .rec of the
//       capture records that left memory), per hour of stream. Then
//       the streams the emulator recorded as they went out are played through
//       the same chains into a fresh event log model in this process, with
//       5 ms passes of capture time as at real speed: the tree that the same
//       session holds when it is captured at real speed. (Above real speed
//       a 5 ms pass of the live reader takes several times more samples, and
//       the ASK bursts that become capture records grow with it: at five
//       times real speed the .rec grows about a tenth faster an hour.)
//
// Both print the emulator's own account of the frames it sent and of those it
// had to drop because the host did not read them in time.
#include "events/EventLogModel.h"
#include "events/RecordStore.h"
#include "events/StreamReplay.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"


#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

std::string Temp(const char* pattern)
{
    std::string path = std::string("/tmp/") + pattern;
    if (!mkdtemp(&path[0])) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    return path;
}

pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv, int outFd, int errFd = -1)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outFd, 1);
    if (errFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, errFd, 2);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        // A variable given again replaces the inherited one (the first of two
        // is the one a program sees).
        const std::string item = *e;
        bool replaced = false;
        for (const auto& x : extraEnv)
            replaced = replaced || item.compare(0, x.find('=') + 1, x, 0, x.find('=') + 1) == 0;
        if (!replaced)
            env.push_back(item);
    }
    for (const auto& e : extraEnv)
        env.push_back(e);
    std::vector<char*> argv, envp;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : env)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
        std::fprintf(stderr, "cannot start %s\n", args[0].c_str());
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// User plus system time of a process so far, in seconds.
double CpuSeconds(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = all.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(all.substr(close + 2));
    std::string f;
    unsigned long long utime = 0, stime = 0;
    for (int k = 3; k <= 15 && fields >> f; ++k) {
        if (k == 14)
            utime = std::strtoull(f.c_str(), nullptr, 10);
        if (k == 15)
            stime = std::strtoull(f.c_str(), nullptr, 10);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Resident size of a process in kB.
long RssKb(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

struct Rig {
    std::string dir, home, simOut, cliErr, askRecord, fskRecord;
    pid_t sim = -1, cli = -1;
    int cliOut = -1;
    std::atomic<long> lines{0};
    std::atomic<bool> streaming{false};
    Clock::time_point firstLine;
    std::thread reader;

    void Start(const std::string& simPath, const std::string& cliPath, double speed)
    {
        dir = Temp("coilscope-bench-ports.XXXXXX");
        home = Temp("coilscope-bench-home.XXXXXX");
        simOut = dir + "/sim.txt";
        const int simFd = open(simOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        char speedText[32];
        std::snprintf(speedText, sizeof speedText, "%g", speed);
        askRecord = dir + "/stream.2k.bin";
        fskRecord = dir + "/stream.fsk.bin";
        sim = Spawn({simPath, "--dir", dir, "--noise", "--speed", speedText, "--record", askRecord, fskRecord}, {},
                    simFd);
        close(simFd);
        for (int k = 0; k < 200; ++k) {
            std::ifstream in(simOut);
            std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            if (text.find("fsk ") != std::string::npos)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        int fds[2];
        if (pipe(fds) != 0) {
            std::perror("pipe");
            std::exit(1);
        }
        cliErr = dir + "/capture.err";
        const int errFd = open(cliErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        cli = Spawn({cliPath, "capture", "--stats"}, {"HOME=" + home, "COILSCOPE_PORTS=" + dir + "/ttyACM%d"}, fds[1],
                    errFd);
        close(fds[1]);
        close(errFd);
        cliOut = fds[0];
        reader = std::thread([this] {
            char buffer[65536];
            ssize_t n;
            while ((n = read(cliOut, buffer, sizeof buffer)) > 0) {
                for (ssize_t i = 0; i < n; ++i) {
                    if (buffer[i] != '\n')
                        continue;
                    if (lines.fetch_add(1) == 3) {  // the device, the ports, the folder, then the log
                        firstLine = Clock::now();
                        streaming.store(true);
                    }
                }
            }
        });
        const auto begin = Clock::now();
        while (!streaming.load() && Since(begin) < 20)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!streaming.load()) {
            std::fprintf(stderr, "the capture did not start streaming\n");
            Stop();
            std::exit(1);
        }
    }

    void Stop()
    {
        int status = 0;
        if (cli > 0) {
            kill(cli, SIGTERM);
            waitpid(cli, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                std::printf("capture ended with status %d\n", status);
            cli = -1;
        }
        if (reader.joinable())
            reader.join();
        if (cliOut >= 0)
            close(cliOut);
        if (sim > 0) {
            kill(sim, SIGTERM);
            waitpid(sim, &status, 0);
            sim = -1;
        }
        std::ifstream in(simOut);
        std::string line;
        while (std::getline(in, line))
            if (line.rfind("frames", 0) == 0)
                std::printf("emulator: %s\n", line.c_str());
    }

    // The capture's own account of what its session holds, asked for by
    // SIGUSR1: the "stats:" line it writes on stderr.
    std::string Stats() const
    {
        const size_t before = StatsLines().size();
        kill(cli, SIGUSR1);
        for (int k = 0; k < 200; ++k) {
            const std::vector<std::string> lines = StatsLines();
            if (lines.size() > before)
                return lines.back();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return "(the capture gave no stats line)";
    }

    // The "stats:" lines the capture has written, the last `last` of them
    // when given.
    std::vector<std::string> StatsLines(size_t last = 0) const
    {
        std::ifstream in(cliErr);
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(in, line))
            if (line.rfind("stats: ", 0) == 0)
                lines.push_back(line);
        if (last > 0 && lines.size() > last)
            lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(last));
        return lines;
    }

    void Remove() const
    {
        const std::string command = "rm -rf '" + dir + "' '" + home + "'";
        if (std::system(command.c_str()) != 0)
            std::fprintf(stderr, "could not remove %s\n", dir.c_str());
    }
};

std::string FindSession(const std::string& home)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home, error))
        if (entry.is_regular_file() && entry.path().extension() == ".sid")
            return entry.path().string();
    return std::string();
}

// Bytes of the session's files (.sid, .log, the capture records' .rec) in the
// folder of the session file found under home.
struct SessionDisk {
    uint64_t sid = 0, log = 0, rec = 0;
    uint64_t folder = 0;      // every file of the session's folder
    uint32_t recVersion = 0;  // the record file's format version
    uint64_t Total() const { return sid + log + rec; }
};

SessionDisk DiskOfSession(const std::string& home)
{
    SessionDisk d;
    const std::string sid = FindSession(home);
    if (sid.empty())
        return d;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::path(sid).parent_path(), error)) {
        if (!entry.is_regular_file())
            continue;
        const std::string ext = entry.path().extension().string();
        const uint64_t size = entry.file_size(error);
        d.folder += size;
        if (ext == ".sid")
            d.sid += size;
        else if (ext == ".log")
            d.log += size;
        else if (ext == ".rec") {
            d.rec += size;
            uint8_t header[RecordStore::kHeaderSize] = {};
            std::ifstream in(entry.path(), std::ios::binary);
            in.read(reinterpret_cast<char*>(header), sizeof header);
            d.recVersion = RecordStore::VersionOf(header, static_cast<size_t>(in.gcount()));
        }
    }
    // The .log of the session lies in its own folder when logPath differs.
    if (d.log == 0)
        for (const auto& entry : std::filesystem::recursive_directory_iterator(home, error))
            if (entry.is_regular_file() && entry.path().extension() == ".log")
                d.log += entry.file_size(error);
    return d;
}

size_t HeapInUse()
{
    return mallinfo2().uordblks;
}

std::vector<uint8_t> ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Durations in microseconds: their mean and the longest.
struct Timings {
    double sumUs = 0, maxUs = 0;
    size_t n = 0;
    void Add(double seconds)
    {
        sumUs += seconds * 1e6;
        maxUs = std::max(maxUs, seconds * 1e6);
        n += 1;
    }
    double MeanUs() const { return n ? sumUs / static_cast<double>(n) : 0.0; }
};

// What an event log model holds after a whole session: the streams the
// emulator recorded as they went out go through the same chains again (the
// events then carry their capture records, as live), into a fresh model.
void TreeOfSession(const std::string& askFile, const std::string& fskFile, const std::string& scratch)
{
    SettingParams& s = SettingParams::Instance();
    AppSettings::SetDefaults(s, scratch);  // what the capture ran with
    s.eventPath = scratch + "/";
    s.logPath = scratch + "/";
    StreamReplay replay(ReadAll(askFile), ReadAll(fskFile));
    const size_t before = HeapInUse();
    EventLogModel model;
    model.StartAcquisition();
    size_t events = 0;
    replay.Run([&](std::vector<MsgInfoPtr>& batch) {
        events += batch.size();
        model.AddEvents(batch);
    });
    model.StopAcquisition();
    const uint64_t recordBytes = model.Records() ? model.Records()->Size() : 0;
    const size_t recordsStored = model.Records() ? model.Records()->Count() : 0;
    const uint32_t recordVersion = model.Records() ? model.Records()->Version() : 0;
    // What a click on an old event costs: its record read back and decoded,
    // spread over the whole file (the file is in the page cache, as it is
    // for a session written in this run).
    Timings load;
    if (model.Records() && recordsStored) {
        const size_t last = static_cast<size_t>(events);
        for (size_t n = 1; n <= last; n += std::max<size_t>(1, last / 2000)) {
            if (!model.Records()->Has(n))
                continue;
            const auto t = Clock::now();
            const TriggerDataPtr r = model.Records()->Load(n);
            if (r)
                load.Add(Since(t));
        }
    }
    // What a click on an old event in the tree costs: its event read back
    // from the .sid and its record from the record file, as Select does it.
    Timings select;
    {
        std::vector<QStandardItemEx*> old;
        std::vector<QStandardItem*> pending = {model.Model().invisibleRootItem()};
        while (!pending.empty()) {
            QStandardItem* item = pending.back();
            pending.pop_back();
            auto* x = dynamic_cast<QStandardItemEx*>(item);
            if (x && x->mode == kItemEvent && !x->info && x->session >= 0)
                old.push_back(x);
            for (int r = 0; r < item->rowCount(); ++r)
                pending.push_back(item->child(r));
        }
        for (size_t i = 0; i < old.size(); i += std::max<size_t>(1, old.size() / 2000)) {
            const auto t = Clock::now();
            const MsgInfo& e = model.Select(old[i]);
            if (e.type != 0 || !e.str.isEmpty())
                select.Add(Since(t));
        }
    }
    const size_t after = HeapInUse();
    model.CloseStreams();

    const EventLogModel::Footprint f = model.TreeFootprint();
    const double mb = 1.0 / (1024.0 * 1024.0);
    std::printf("the recorded streams played into a fresh model at real-speed passes: %zu events, %zu items in the "
                "tree, %zu capture records; the model holds %.1f MB of heap (%.0f bytes an event), of which %.1f MB "
                "are the capture records the items keep for the wave view\n",
                events, f.items, f.records, static_cast<double>(after - before) * mb,
                events ? static_cast<double>(after - before) / static_cast<double>(events) : 0.0,
                static_cast<double>(f.recordBytes) * mb);
    const double streamHours = replay.DurationMs() / 3.6e6;
    std::printf("    its record file beside the .sid (format version %u) holds %zu capture records in %.1f MB (%.0f "
                "bytes a record, %.1f MiB an hour of stream at real speed)\n",
                recordVersion, recordsStored,
                static_cast<double>(recordBytes) * mb,
                recordsStored ? static_cast<double>(recordBytes) / static_cast<double>(recordsStored) : 0.0,
                streamHours > 0 ? static_cast<double>(recordBytes) * mb / streamHours : 0.0);
    std::printf("    loading a record back: %.0f us on average, %.0f us at most, over %zu records\n", load.MeanUs(),
                load.maxUs, load.n);
    std::printf("    selecting an old event (its event read back from the .sid, its record from the record file): "
                "%.0f us on average, %.0f us at most, over %zu events; %zu items hold their whole event\n",
                select.MeanUs(), select.maxUs, select.n, f.events);
}

int Usage()
{
    std::fprintf(stderr, "usage: live_capture cpu [--seconds N] | memory [--speed 5] [--minutes 1,10,60]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return Usage();
    const std::string mode = argv[1];
    double seconds = 60, speed = 5;
    std::vector<double> minutes = {1, 10, 60};
    std::string simPath = COILSCOPE_SIM, cliPath = COILSCOPE_CLI;
    for (int i = 2; i < argc; i += 2) {
        // An option without its value is a mistake, not a default run of
        // many minutes.
        if (i + 1 >= argc)
            return Usage();
        const std::string a = argv[i], v = argv[i + 1];
        if (a == "--seconds")
            seconds = std::atof(v.c_str());
        else if (a == "--speed")
            speed = std::atof(v.c_str());
        else if (a == "--minutes") {
            minutes.clear();
            std::istringstream list(v);
            std::string m;
            while (std::getline(list, m, ','))
                minutes.push_back(std::atof(m.c_str()));
        } else
            return Usage();
    }
    if (!(speed > 0) || !(seconds > 0) || (mode != "cpu" && mode != "memory"))
        return Usage();
    signal(SIGPIPE, SIG_IGN);

    if (mode == "cpu") {
        Rig rig;
        rig.Start(simPath, cliPath, 1.0);
        // Connecting and the first refreshes are not the steady state.
        std::this_thread::sleep_for(std::chrono::seconds(5));
        const double cpu0 = CpuSeconds(rig.cli);
        const long lines0 = rig.lines.load();
        const auto t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const double cpu1 = CpuSeconds(rig.cli);
        const double wall = Since(t0);
        const long lines1 = rig.lines.load();
        const long rss = RssKb(rig.cli);
        rig.Stop();
        rig.Remove();
        std::printf("live capture at real speed: %.2f s of CPU (user + system) over %.1f s = %.2f %% of one core; "
                    "%ld log lines in that time; resident %ld kB\n",
                    cpu1 - cpu0, wall, 100.0 * (cpu1 - cpu0) / wall, lines1 - lines0, rss);
        return 0;
    }
    if (mode == "memory") {
        Rig rig;
        rig.Start(simPath, cliPath, speed);
        for (double m : minutes) {
            const double due = m * 60.0 / speed;
            while (Since(rig.firstLine) < due)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            std::printf("at %5.1f min of stream (%6.1f s of wall time): resident %6ld kB, %7ld log lines printed\n", m,
                        Since(rig.firstLine), RssKb(rig.cli), rig.lines.load());
            std::printf("    capture's %s\n", rig.Stats().c_str());
            const SessionDisk disk = DiskOfSession(rig.home);
            const double mb = 1.0 / (1024.0 * 1024.0);
            std::printf("    session files: .sid %.1f MB, .log %.1f MB, .rec %.1f MB (record format version %u); "
                        "%.1f MB an hour of stream\n",
                        static_cast<double>(disk.sid) * mb, static_cast<double>(disk.log) * mb,
                        static_cast<double>(disk.rec) * mb, disk.recVersion,
                        static_cast<double>(disk.Total()) * mb * 60.0 / m);
            std::printf("    session folder: %.1f MiB, %.1f MiB an hour of stream\n",
                        static_cast<double>(disk.folder) * mb, static_cast<double>(disk.folder) * mb * 60.0 / m);
            std::fflush(stdout);
        }
        rig.Stop();
        for (const std::string& line : rig.StatsLines(2))
            std::printf("at the end, capture's %s\n", line.c_str());
        if (FindSession(rig.home).empty())
            std::printf("no session file was written\n");
        TreeOfSession(rig.askRecord, rig.fskRecord, rig.dir);
        rig.Remove();
        return 0;
    }
    return Usage();
}
