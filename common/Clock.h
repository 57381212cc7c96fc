// The millisecond tick that everything asking "how long since" reads. Live it is
// the steady clock; a replay makes it follow capture time; tests set it by hand.
#pragma once

#include <atomic>
#include <cstdint>

class Clock {
public:
    virtual ~Clock() = default;
    virtual int64_t NowMs() const = 0;
};

class SteadyClock : public Clock {
public:
    int64_t NowMs() const override;
};

class ManualClock : public Clock {
public:
    explicit ManualClock(int64_t startMs = 1) : m_now(startMs) {}
    int64_t NowMs() const override { return m_now.load(std::memory_order_relaxed); }
    void Set(int64_t ms) { m_now.store(ms, std::memory_order_relaxed); }
    void Advance(int64_t ms) { m_now.fetch_add(ms, std::memory_order_relaxed); }

private:
    std::atomic<int64_t> m_now;
};

// The process-wide clock. Installing nullptr goes back to the steady clock; the
// installed clock must outlive every reader.
void SetClock(Clock* clock);
Clock& CurrentClock();
inline int64_t TickMs() { return CurrentClock().NowMs(); }
