// Not a timing benchmark: how the second ASK reader, alone and merged with the
// list decoder as the user sees it, reads receiver packets per condition
// (tests/support/AskConditions.h: bit rate 2 kHz -8 % .. +8 % in 1 % steps,
// square or low-passed envelope; per packet its own sample phase, header,
// swing and polarity, preamble 11..25, noise, jitter), and what comes of
// packets against the Qi length rule.
//
// Per condition: sent, exact (a good frame with the sent bytes where the
// packet lies), missed (no such frame: nothing, or an error frame), false (a
// good frame that was not sent there).
//
// Usage: ask_wire_rates [packets per condition, default 100000] [wire|both]
// ("wire" runs the second reader alone, "both" the merged output too, which
// runs the whole replay chain and takes much longer).
#include "AskConditions.h"
#include "MergedReplay.h"
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

using Condition = AskCondition;
using Tally = AskConditionTally;
using Found = AskFoundFrame;

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

std::vector<Found> RunBoth(const std::vector<uint16_t>& samples) { return MergedGoodFrames(samples, &g_counts); }

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
        const AskConditionStream s = MakeAskConditionStream(c, n, static_cast<uint32_t>(1000003u * ci + 7919u * k + 17u));
        row.wire += ScoreAskConditionStream(s, RunWire(s.samples));
        if (both)
            row.merged += ScoreAskConditionStream(s, RunBoth(s.samples));
    }
    row.counts = g_counts;
    return row;
}

}  // namespace

int main(int argc, char** argv)
{
    const long perCondition = argc > 1 ? std::atol(argv[1]) : 100000;
    const bool both = argc > 2 && std::string(argv[2]) == "both";
    const std::vector<Condition> conditions = AskConditions();

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
        counts.unconfirmed += rows[ci].counts.unconfirmed;
    }
    std::printf("%-26s", "all well-formed packets");
    Print("wire", totalWire);
    if (both)
        Print("both", totalBoth);
    if (both)
        std::printf("\nmerge: agreed %lld, recovered %lld, corrected %lld, disputed %lld, refused %lld, "
                    "unconfirmed %lld",
                    (long long)counts.agreed, (long long)counts.recovered, (long long)counts.corrected,
                    (long long)counts.disputed, (long long)counts.refused, (long long)counts.unconfirmed);
    std::printf("\n%.1f s\n", std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
    return 0;
}
