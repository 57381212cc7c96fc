#include "common/Clock.h"

#include <chrono>

int64_t SteadyClock::NowMs() const
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

namespace {
SteadyClock g_steady;
std::atomic<Clock*> g_clock{&g_steady};
}  // namespace

void SetClock(Clock* clock)
{
    g_clock.store(clock ? clock : &g_steady, std::memory_order_release);
}

Clock& CurrentClock()
{
    return *g_clock.load(std::memory_order_acquire);
}
