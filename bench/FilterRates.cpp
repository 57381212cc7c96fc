// Not a Google benchmark: the display filter over an eight-hour session.
// Ten minutes of the emulator's session are replayed through the decoders and
// the event log model (for numbers and phases), then repeated, shifted in
// number and time, up to 440 000 events, about what eight hours of a live
// session hold. Printed: the time to gather the events' fields, the time of
// each filter over the gathered fields and over the events themselves
// (gathering included), and the cost per event against a live session's
// rate. `make bench` prints them.
#include "TenMinuteSession.h"
#include "analysis/EventFields.h"
#include "analysis/Filter.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv)
{
    const size_t target = argc > 1 ? static_cast<size_t>(std::atol(argv[1])) : 440000;
    LongSession longSession = MakeLongSession(target);
    if (longSession.events.empty()) {
        std::fprintf(stderr, "filter_rates: the replay gave no events\n");
        return 1;
    }
    std::printf("ten minutes of the emulator's session: %zu events, repeated to %zu\n", longSession.tenMinutes,
                target);
    const std::vector<MsgInfo>& events = longSession.events;
    const std::vector<int>& phases = longSession.phases;

    auto t0 = std::chrono::steady_clock::now();
    std::vector<analysis::EventFields> fields;
    fields.reserve(events.size());
    analysis::EventFieldsBuilder builder;
    for (size_t k = 0; k < events.size(); ++k)
        fields.push_back(builder.Next(events[k], events[k].id, phases[k]));
    const double gather = Seconds(t0);
    std::printf("gathering the fields of %zu events: %.3f s (%.2f us an event)\n", events.size(), gather,
                gather * 1e6 / static_cast<double>(events.size()));

    double worst = 0.0;
    for (const char* text : BenchFilters()) {
        analysis::Filter filter;
        analysis::FilterError error;
        if (!filter.Compile(text, error)) {
            std::fprintf(stderr, "filter_rates: %s: %s\n", text, error.message.c_str());
            return 1;
        }
        t0 = std::chrono::steady_clock::now();
        size_t matched = 0;
        for (const analysis::EventFields& ef : fields)
            matched += filter.Matches(ef) ? 1 : 0;
        const double over = Seconds(t0);
        // From the events themselves: what a view that keeps no fields pays.
        t0 = std::chrono::steady_clock::now();
        size_t again = 0;
        analysis::EventFieldsBuilder b;
        for (size_t k = 0; k < events.size(); ++k)
            again += filter.Matches(b.Next(events[k], events[k].id, phases[k])) ? 1 : 0;
        const double whole = Seconds(t0);
        worst = std::max(worst, whole);
        std::printf("%-90s %7zu matched: %.3f s over the fields, %.3f s from the events%s\n", text, matched, over,
                    whole, again == matched ? "" : " (COUNTS DIFFER)");
    }
    const double perEvent = worst / static_cast<double>(events.size());
    std::printf("slowest filter from the events: %.3f s for %zu events (target < 1 s): %s\n", worst, events.size(),
                worst < 1.0 ? "met" : "NOT MET");
    std::printf("live: %.2f us an event; a live session brings about 15 events a second, %.5f %% of one core\n",
                perEvent * 1e6, perEvent * 15.0 * 100.0);
    return worst < 1.0 ? 0 : 1;
}
