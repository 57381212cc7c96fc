// Not a timing benchmark: how the second ASK reader, alone and merged with the
// list decoder as the user sees it, reads receiver packets per condition of
// the envelope. A condition is a bit rate (2 kHz -8 % .. +8 % in 1 % steps)
// and an envelope shape (square: sharp steps, no front-end filtering;
// low-passed: a first-order low-pass of time constant 1 to 3 samples, 10-90 % rise 2.2 to 6.6 samples); within a condition
// every packet draws its own start phase (anywhere between two samples),
// header and message bytes, swing (a quarter of them weak, 200..400, the rest
// 400..3000) of either polarity, idle level, preamble of 11 to 25 ones, noise
// (0..4 % of the swing) and edge jitter (0..1.5 samples).
//
// Per condition: sent, exact (a good frame with the sent bytes where the
// packet lies), missed (no such frame: nothing, or an error frame), false (a
// good frame that was not sent there).
//
// Usage: ask_wire_rates [packets per condition, default 100000] [wire|both]
// ("wire" runs the second reader alone, "both" the merged output too, which
// runs the whole replay chain and takes much longer).
#include "AskChain.h"  // AskHeaders()
#include "decode/AskWireReader.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/AskSynth.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct Sent {
    std::vector<uint8_t> bytes;
    size_t start = 0, end = 0;
    qisim::AskWaveParams wave;
    int preamble = 0;
};
bool g_dump = std::getenv("ASK_DUMP") != nullptr;

struct Stream {
    std::vector<uint16_t> samples;
    std::vector<Sent> sent;
};

struct Found {
    uint64_t start;
    std::vector<uint8_t> bytes;
};

struct Tally {
    long sent = 0, exact = 0, missed = 0, falseFrames = 0;
    Tally& operator+=(const Tally& o)
    {
        sent += o.sent, exact += o.exact, missed += o.missed, falseFrames += o.falseFrames;
        return *this;
    }
};

struct Condition {
    double rate;  // bit rate relative to 2 kHz
    bool square;
    bool badLength = false;  // one message byte more or fewer than the header announces
};

Stream MakeStream(const Condition& c, int packets, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    qisim::AskWaveParams p;
    p.samplesPerBit = 20.0 / c.rate;
    qisim::AskWaveWriter w(p, seed);
    Stream s;
    w.Idle(300);
    const auto& headers = AskHeaders();
    for (int k = 0; k < packets; ++k) {
        const int magnitude = rng() % 4 == 0 ? 200 + static_cast<int>(rng() % 201) : 400 + static_cast<int>(rng() % 2601);
        p.swing = rng() % 2 ? magnitude : -magnitude;
        const int low = 100 + static_cast<int>(rng() % static_cast<unsigned>(4095 - magnitude - 200));
        p.idleLevel = p.swing > 0 ? low : low + magnitude;
        p.riseSamples = 0.0;
        p.lowPassSamples = c.square ? 0.0 : 1.0 + 2.0 * unit(rng);
        p.noiseFraction = 0.04 * unit(rng);
        p.jitterSamples = 1.5 * unit(rng);
        p.startPhase = unit(rng);
        w.SetParams(p);
        w.Idle(200 + rng() % 200);
        const uint8_t h = headers[rng() % headers.size()];
        std::vector<uint8_t> m{h};
        const int size = qisim::QiMessageSize(h) + (c.badLength ? (rng() % 2 ? 1 : -1) : 0);
        for (int i = 0; i < size; ++i)
            m.push_back(static_cast<uint8_t>(rng()));
        Sent x;
        x.bytes = qisim::WithChecksum(m);
        x.preamble = 11 + static_cast<int>(rng() % 15);
        x.wave = p;
        x.start = w.Packet(x.bytes, x.preamble);
        x.end = w.Samples().size();
        if (c.badLength)
            x.bytes.clear();  // no good frame may come out of it
        s.sent.push_back(x);
        w.Idle(200 + rng() % 200);
    }
    w.Idle(400);
    s.samples = w.TakeSamples();
    return s;
}

// A frame is a sent packet's when it holds the packet's bytes and starts
// within 100 samples ahead of it or inside it.
Tally Score(const Stream& s, const std::vector<Found>& found)
{
    Tally t;
    std::vector<bool> used(found.size(), false);
    for (const Sent& p : s.sent) {
        ++t.sent;
        bool hit = false;
        for (size_t i = 0; i < found.size() && !hit; ++i) {
            if (used[i] || found[i].bytes != p.bytes || found[i].start + 100 < p.start || found[i].start > p.end)
                continue;
            used[i] = hit = true;
        }
        ++(hit ? t.exact : t.missed);
        if (!hit && g_dump && !p.bytes.empty()) {
            std::printf("  at %zu..%zu: ", p.start, p.end);
            for (const Found& f : found)
                if (f.start + 2000 > p.start && f.start < p.end + 2000) {
                    std::printf("[%llu:", (unsigned long long)f.start);
                    for (auto b : f.bytes) std::printf(" %02X", b);
                    std::printf("] ");
                }
            std::printf(" sent");
            for (auto b : p.bytes) std::printf(" %02X", b);
            std::printf("\n");
        }
        if (!hit && g_dump && !p.bytes.empty())
            std::printf("missed: spb %.2f swing %d noise %.3f jitter %.2f lp %.2f phase %.2f pre %d bytes %zu\n",
                        p.wave.samplesPerBit, p.wave.swing, p.wave.noiseFraction, p.wave.jitterSamples,
                        p.wave.lowPassSamples, p.wave.startPhase, p.preamble, p.bytes.size());
    }
    for (bool u : used)
        t.falseFrames += u ? 0 : 1;
    return t;
}

std::vector<Found> RunWire(const std::vector<uint16_t>& samples)
{
    AskWireReader r;
    std::vector<int32_t> x(samples.begin(), samples.end());
    std::vector<Found> out;
    for (size_t pos = 0; pos < x.size(); pos += 200) {
        r.Feed(x.data() + pos, std::min<size_t>(200, x.size() - pos), pos);
        for (auto& f : r.Take())
            out.push_back({f.firstSample, f.bytes});
    }
    return out;
}

// The good receiver frames of a replay through the data manager, both readers on.
CDataManager::MergeCounts g_counts;

std::vector<Found> RunBoth(const std::vector<uint16_t>& samples)
{
    SettingParams settings;
    settings.m_ask_second_reader = 1;
    StreamReplay replay(qisim::AskStreamFrames(samples), {}, &settings);
    std::vector<Found> out;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events) {
            if (e->direction != 2 || e->packet.Status != "NoError" || e->packet.PacketData.empty())
                continue;
            std::vector<uint8_t> got;
            for (size_t i = 0; i + 1 < e->packet.PacketData.size(); i += 3)
                got.push_back(static_cast<uint8_t>(std::stoi(e->packet.PacketData.substr(i, 2), nullptr, 16)));
            out.push_back({e->timing.startTime / 25, got});
        }
    });
    const auto c = replay.Manager().Merges();
    g_counts.recovered += c.recovered;
    g_counts.corrected += c.corrected;
    g_counts.agreed += c.agreed;
    g_counts.disputed += c.disputed;
    g_counts.refused += c.refused;
    return out;
}

void Print(const char* label, const Tally& t)
{
    std::printf(" | %7ld %7ld %6ld %5ld %8.3f%%", t.sent, t.exact, t.missed, t.falseFrames,
                t.sent ? 100.0 * t.exact / t.sent : 0.0);
    (void)label;
}

struct Row {
    Tally wire, merged;
    CDataManager::MergeCounts counts;
};

Row RunCondition(const Condition& c, size_t ci, long perCondition, bool both)
{
    const int chunk = 500;  // packets a stream
    Row row;
    g_counts = CDataManager::MergeCounts{};
    for (long k = 0; k * chunk < perCondition; ++k) {
        const int n = static_cast<int>(std::min<long>(chunk, perCondition - k * chunk));
        const Stream s = MakeStream(c, n, static_cast<uint32_t>(1000003u * ci + 7919u * k + 17u));
        row.wire += Score(s, RunWire(s.samples));
        if (both)
            row.merged += Score(s, RunBoth(s.samples));
    }
    row.counts = g_counts;
    return row;
}

}  // namespace

int main(int argc, char** argv)
{
    const long perCondition = argc > 1 ? std::atol(argv[1]) : 100000;
    const bool both = argc > 2 && std::string(argv[2]) == "both";
    std::vector<Condition> conditions;
    for (bool square : {true, false})
        for (int pct = -8; pct <= 8; ++pct)
            conditions.push_back({1.0 + pct / 100.0, square});
    for (int pct : {-8, -4, 0, 4, 8})
        conditions.push_back({1.0 + pct / 100.0, true, true});

    // Two processes share the conditions (the replay sets a process-wide
    // clock, so one process runs one replay at a time).
    const auto began = std::chrono::steady_clock::now();
    const size_t workers = 2;
    std::vector<Row> rows(conditions.size());
    std::vector<int> pipes;
    std::vector<pid_t> children;
    for (size_t wkr = 0; wkr < workers; ++wkr) {
        int fd[2];
        if (pipe(fd) != 0)
            return 1;
        const pid_t pid = fork();
        if (pid == 0) {
            close(fd[0]);
            for (size_t ci = wkr; ci < conditions.size(); ci += workers) {
                const Row r = RunCondition(conditions[ci], ci, perCondition, both);
                if (write(fd[1], &ci, sizeof ci) != sizeof ci || write(fd[1], &r, sizeof r) != sizeof r)
                    _exit(1);
            }
            _exit(0);
        }
        close(fd[1]);
        pipes.push_back(fd[0]);
        children.push_back(pid);
    }
    for (int fd : pipes) {
        size_t ci = 0;
        Row r;
        while (read(fd, &ci, sizeof ci) == sizeof ci && read(fd, &r, sizeof r) == sizeof r)
            if (ci < rows.size())
                rows[ci] = r;
        close(fd);
    }
    for (pid_t pid : children)
        waitpid(pid, nullptr, 0);

    std::printf("Packets per condition: %ld; columns: sent exact missed false exact%%\n", perCondition);
    std::printf("%-26s | %-39s%s\n", "condition", "second reader alone",
                both ? " | merged (list decoder + second reader)" : "");
    Tally totalWire, totalBoth;
    CDataManager::MergeCounts counts;
    for (size_t ci = 0; ci < conditions.size(); ++ci) {
        const Condition& c = conditions[ci];
        if (c.badLength && (ci == 0 || !conditions[ci - 1].badLength))
            std::printf("Packets one message byte short or long for their header (square): every good frame is "
                        "false\n");
        char label[64];
        std::snprintf(label, sizeof label, "%s %+3.0f%% (%.2f kHz)", c.square ? "square    " : "low-passed",
                      (c.rate - 1.0) * 100.0, 2.0 * c.rate);
        std::printf("%-26s", label);
        Print("wire", rows[ci].wire);
        if (both)
            Print("both", rows[ci].merged);
        std::printf("\n");
        if (!c.badLength) {
            totalWire += rows[ci].wire;
            totalBoth += rows[ci].merged;
        }
        counts.agreed += rows[ci].counts.agreed;
        counts.recovered += rows[ci].counts.recovered;
        counts.corrected += rows[ci].counts.corrected;
        counts.disputed += rows[ci].counts.disputed;
        counts.refused += rows[ci].counts.refused;
    }
    std::printf("%-26s", "all well-formed packets");
    Print("wire", totalWire);
    if (both)
        Print("both", totalBoth);
    if (both)
        std::printf("\nmerge: agreed %lld, recovered %lld, corrected %lld, disputed %lld, refused %lld",
                    (long long)counts.agreed, (long long)counts.recovered, (long long)counts.corrected,
                    (long long)counts.disputed, (long long)counts.refused);
    std::printf("\n%.1f s\n", std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
    return 0;
}
