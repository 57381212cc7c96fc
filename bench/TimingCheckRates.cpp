// The cost of live timing checking: ten minutes of the emulator's session
// replayed through the decoders and the data manager (events with their
// capture records, and the carrier's edges, as the window gets them), then
// the timing checker alone over them, as the event window runs it on each
// refresh. Prints the share of one core that checking takes at real speed;
// the budget is 0.5 %.
#include "CheckedSession.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 600.0;
    AppSettings::Instance();
    std::vector<uint8_t> ask, fsk;
    SynthesizeSession(seconds, 3, std::string(), ask, fsk);
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    StreamReplay replay(std::move(ask), std::move(fsk), &settings);
    EventLogModel model;
    struct Batch {
        std::vector<CarrierEdge> edges;
        std::vector<MsgInfoPtr> events;
    };
    std::vector<Batch> batches;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        Batch b;
        replay.Manager().TakeCarrierEdges(b.edges);
        model.AddEvents(events);  // numbered as the window numbers them
        b.events = events;
        batches.push_back(std::move(b));
    });
    size_t events = 0;
    for (const Batch& b : batches)
        events += b.events.size();

    const int rounds = 5;
    double best = 1e300;
    size_t packets = 0, findings = 0;
    for (int r = 0; r < rounds; ++r) {
        analysis::TimingChecker checker;
        const auto t0 = std::chrono::steady_clock::now();
        for (const Batch& b : batches) {
            checker.AddCarrierEdges(b.edges);
            for (const auto& e : b.events)
                checker.Add(*e, e->id);
        }
        checker.Finish();
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        best = std::min(best, s);
        packets = checker.PacketsChecked();
        findings = checker.Findings().size();
    }
    const double share = best / seconds * 100.0;
    std::printf("timing checker: %.0f s of session, %zu events, %zu packets checked, %zu findings\n", seconds, events,
                packets, findings);
    std::printf("  %.2f ms for the whole session (best of %d), %.3f us an event: %.4f %% of one core at real speed "
                "(budget 0.5 %%): %s\n",
                best * 1e3, rounds, best * 1e6 / static_cast<double>(std::max<size_t>(events, 1)), share,
                share < 0.5 ? "within" : "OVER");
    return share < 0.5 ? 0 : 1;
}
