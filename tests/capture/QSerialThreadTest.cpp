// QSerialThread with its real reader thread on real pseudo-terminals, and its
// reply assembler on its own.
#include "PtyPair.h"
#include "capture/QSerialThread.h"
#include "common/Clock.h"

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using SteadyClock_ = std::chrono::steady_clock;


void SleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}


std::vector<uint8_t> Bytes(const DataPtr& d)
{
    return std::vector<uint8_t>(d->buffer.get(), d->buffer.get() + d->length);
}

std::vector<uint8_t> Concat(const std::list<DataPtr>& chunks)
{
    std::vector<uint8_t> all;
    for (const DataPtr& d : chunks)
        all.insert(all.end(), d->buffer.get(), d->buffer.get() + d->length);
    return all;
}

size_t TotalBytes(const std::list<DataPtr>& chunks)
{
    size_t n = 0;
    for (const DataPtr& d : chunks)
        n += static_cast<size_t>(d->length);
    return n;
}

// Sweeps the reader's output into out until it holds want bytes or timeoutMs
// passed.
void CollectBytes(QSerialThread& t, std::list<DataPtr>& out, size_t want, int timeoutMs = 10000)
{
    const auto t0 = SteadyClock_::now();
    while (TotalBytes(out) < want && MsSince(t0) < timeoutMs) {
        t.WaitReplies(out, 0, 0);
        SleepMs(2);
    }
}

void CollectReplies(QSerialThread& t, std::list<DataPtr>& out, size_t want, int timeoutMs = 10000)
{
    const auto t0 = SteadyClock_::now();
    while (out.size() < want && MsSince(t0) < timeoutMs) {
        t.WaitReplies(out, 0, 0);
        SleepMs(2);
    }
}

bool WaitFill(QSerialThread& t, int32_t fill, int timeoutMs = 10000)
{
    const auto t0 = SteadyClock_::now();
    while (MsSince(t0) < timeoutMs) {
        if (t.AssemblerFill() == fill)
            return true;
        SleepMs(1);
    }
    return false;
}

// Waits until pred() holds, for up to ten seconds; whether it came to hold.
template <class Pred>
bool WaitUntil(Pred pred)
{
    const auto t0 = SteadyClock_::now();
    while (!pred() && MsSince(t0) < 10000)
        SleepMs(1);
    return pred();
}

// A hand-driven clock that counts how often it was read: a call that has read
// it once has taken its entry tick, and one that read it again after a step
// has seen the step.
class CountingClock : public Clock {
public:
    explicit CountingClock(int64_t startMs) : m_now(startMs) {}
    int64_t NowMs() const override
    {
        const int64_t now = m_now.load();
        m_reads.fetch_add(1);
        return now;
    }
    void Advance(int64_t ms) { m_now.fetch_add(ms); }
    int64_t Reads() const { return m_reads.load(); }

private:
    std::atomic<int64_t> m_now;
    mutable std::atomic<int64_t> m_reads{0};
};

// Installs a hand-driven clock for the length of a test.
class ManualClockScope {
public:
    ManualClockScope() { SetClock(&clock); }
    ~ManualClockScope() { SetClock(nullptr); }
    CountingClock clock{1000};
};

// Waits until the clock has been read `reads` times in all, or until done
// (the call under test returned); true when the reads came.
bool WaitForReads(const CountingClock& clock, int64_t reads, const std::atomic<bool>& done)
{
    const auto t0 = SteadyClock_::now();
    while (clock.Reads() < reads && !done.load() && MsSince(t0) < 10000)
        SleepMs(1);
    return clock.Reads() >= reads;
}

// Waits until a call blocked on the clock has read it three times more since
// the last step (so twice after it, whatever it read while the step was
// made: each of its checks has seen the step), or has returned.
void WaitForLooksAfterTheStep(const CountingClock& clock, const std::atomic<bool>& done)
{
    WaitForReads(clock, clock.Reads() + 3, done);
}

std::vector<uint8_t> Repeat(uint8_t value, size_t n)
{
    return std::vector<uint8_t>(n, value);
}

// Joins a thread blocked on the hand-driven clock. Should it still wait after
// ten seconds (it missed a step of the clock), the clock jumps far ahead to set
// it free, and the test fails instead of hanging.
void JoinOrRelease(std::thread& th, const std::atomic<bool>& done, CountingClock& clock)
{
    const auto t0 = SteadyClock_::now();
    while (!done.load() && MsSince(t0) < 10000)
        SleepMs(2);
    if (!done.load()) {
        ADD_FAILURE() << "the call did not return when its time had come";
        clock.Advance(1000000);
    }
    th.join();
}

}  // namespace

// ---- ReplyAssembler ----

TEST(ReplyAssembler, ModeOneCutsRepliesAtEachTerminator)
{
    ReplyAssembler a;
    a.SetMode(1);
    const uint8_t bytes[] = {0x05, 0x00, 0x09, 0x11, '9', '0', '1', 0x00, 0x00, 0x41};
    ASSERT_TRUE(a.Add(bytes, sizeof bytes));
    std::list<DataPtr> out;
    a.Take(out);
    ASSERT_EQ(out.size(), 3u);
    auto it = out.begin();
    EXPECT_EQ(Bytes(*it++), (std::vector<uint8_t>{0x05, 0x00}));
    EXPECT_EQ(Bytes(*it++), (std::vector<uint8_t>{0x09, 0x11, '9', '0', '1', 0x00}));
    EXPECT_EQ(Bytes(*it++), (std::vector<uint8_t>{0x00}));
    EXPECT_EQ(a.Fill(), 1);
}

TEST(ReplyAssembler, ReplyWithoutTerminatorWaitsForIt)
{
    ReplyAssembler a;
    a.SetMode(1);
    const uint8_t head[] = {0x26, 0x20, 'Q', 'U'};
    ASSERT_TRUE(a.Add(head, sizeof head));
    std::list<DataPtr> out;
    a.Take(out);
    a.Take(out);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(a.Fill(), 4);
    const uint8_t tail[] = {'J', 'D', 0x00};
    ASSERT_TRUE(a.Add(tail, sizeof tail));
    a.Take(out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Bytes(out.front()), (std::vector<uint8_t>{0x26, 0x20, 'Q', 'U', 'J', 'D', 0x00}));
    EXPECT_EQ(out.front()->length, 7);
    EXPECT_EQ(a.Fill(), 0);
}

TEST(ReplyAssembler, BacklogOf15360DropsTheNextChunkWhole)
{
    ReplyAssembler a;
    a.SetMode(1);
    const std::vector<uint8_t> backlog = Repeat(0x41, 15000);
    ASSERT_TRUE(a.Add(backlog.data(), 15000));
    // 15000 + 360 reaches the limit: the whole chunk goes, not the part that
    // would not fit, terminator included.
    std::vector<uint8_t> chunk = Repeat(0x42, 360);
    chunk.back() = 0x00;
    EXPECT_FALSE(a.Add(chunk.data(), 360));
    EXPECT_EQ(a.Fill(), 15000);
    std::list<DataPtr> out;
    a.Take(out);
    EXPECT_TRUE(out.empty());
    // One byte less stays below the limit and is kept.
    EXPECT_TRUE(a.Add(chunk.data() + 1, 359));
    EXPECT_EQ(a.Fill(), 15359);
    a.Take(out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.front()->length, 15359);
    EXPECT_EQ(a.Fill(), 0);
}

TEST(ReplyAssembler, ChunkOfTheLimitOnAnEmptyBufferIsDropped)
{
    ReplyAssembler a;
    a.SetMode(1);
    const std::vector<uint8_t> big = Repeat(0x00, ReplyAssembler::kAcceptLimit);
    EXPECT_FALSE(a.Add(big.data(), ReplyAssembler::kAcceptLimit));
    EXPECT_EQ(a.Fill(), 0);
    EXPECT_TRUE(a.Add(big.data(), ReplyAssembler::kAcceptLimit - 1));
    EXPECT_EQ(a.Fill(), ReplyAssembler::kAcceptLimit - 1);
}

TEST(ReplyAssembler, ModeTwoTakesFixedSixteenByteReplies)
{
    ReplyAssembler a;
    a.SetMode(2);
    std::vector<uint8_t> bytes = {0x77, 0x78};  // noise before the first reply
    for (int r = 0; r < 2; ++r) {
        bytes.push_back(0x10);
        for (int i = 1; i < 16; ++i)
            bytes.push_back(static_cast<uint8_t>(0x10 * r + i));
    }
    bytes.push_back(0x99);                 // noise between
    bytes.insert(bytes.end(), {0x10, 1, 2});  // a reply still arriving
    ASSERT_TRUE(a.Add(bytes.data(), static_cast<int32_t>(bytes.size())));
    std::list<DataPtr> out;
    a.Take(out);
    ASSERT_EQ(out.size(), 2u);
    for (const DataPtr& d : out) {
        EXPECT_EQ(d->length, 16);
        EXPECT_EQ(d->buffer[0], 0x10);
    }
    EXPECT_EQ(out.back()->buffer[15], 0x1F);
    // The partial reply stays, everything else went.
    EXPECT_EQ(a.Fill(), 3);
    std::vector<uint8_t> rest;
    for (int i = 3; i < 16; ++i)
        rest.push_back(static_cast<uint8_t>(i));
    ASSERT_TRUE(a.Add(rest.data(), static_cast<int32_t>(rest.size())));
    out.clear();
    a.Take(out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.front()->buffer[1], 1);
    EXPECT_EQ(out.front()->buffer[15], 15);
    EXPECT_EQ(a.Fill(), 0);
}

TEST(ReplyAssembler, ModeTwoWaitsForSixteenBytesAndDropsNoise)
{
    ReplyAssembler a;
    a.SetMode(2);
    const std::vector<uint8_t> few = Repeat(0x33, 15);
    ASSERT_TRUE(a.Add(few.data(), 15));
    std::list<DataPtr> out;
    a.Take(out);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(a.Fill(), 15);  // fewer than 16 held: nothing looked at
    const uint8_t one = 0x34;
    ASSERT_TRUE(a.Add(&one, 1));
    a.Take(out);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(a.Fill(), 0);  // no 0x10 anywhere: all dropped
}

TEST(ReplyAssembler, ClearFillForgetsEverythingHeld)
{
    ReplyAssembler a;
    a.SetMode(1);
    const uint8_t bytes[] = {1, 2, 3};
    ASSERT_TRUE(a.Add(bytes, 3));
    a.ClearFill();
    EXPECT_EQ(a.Fill(), 0);
    const uint8_t reply[] = {7, 0};
    ASSERT_TRUE(a.Add(reply, 2));
    std::list<DataPtr> out;
    a.Take(out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Bytes(out.front()), (std::vector<uint8_t>{7, 0}));
}

// ---- QSerialThread ----

TEST(QSerialThread, OpenOfMissingPathReturnsFalseAndStartsNoThread)
{
    QSerialThread t;
    EXPECT_FALSE(t.OpenPort("/dev/coilscope-no-such-port-77", 1024000, 1, true));
    EXPECT_FALSE(t.IsRunning());
    EXPECT_FALSE(t.IsPortOpen());
    const uint8_t cmd[] = {0x07, 0x00};
    EXPECT_EQ(t.Send(cmd, 2), 0);
    t.ClosePort();
    EXPECT_FALSE(t.IsRunning());
}

TEST(QSerialThread, OpenStartsTheReaderWithTheQueueMode)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    EXPECT_EQ(t.Granularity(), 1);
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    EXPECT_TRUE(t.IsRunning());
    EXPECT_TRUE(t.IsPortOpen());
    EXPECT_EQ(t.QueueMode(), 1);
    t.ClosePort();
    EXPECT_FALSE(t.IsRunning());
    EXPECT_FALSE(t.IsPortOpen());
    t.ClosePort();  // a second close does nothing
}

TEST(QSerialThread, QueueModeZeroDeliversTheFarSidesBytesAsChunks)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 0, true));

    std::vector<uint8_t> sent;
    for (int burst = 0; burst < 8; ++burst) {
        std::vector<uint8_t> b;
        for (int i = 0; i < 300; ++i)
            b.push_back(static_cast<uint8_t>(burst * 31 + i));
        pty.WriteFar(b);
        sent.insert(sent.end(), b.begin(), b.end());
        SleepMs(3);
    }
    std::list<DataPtr> out;
    CollectBytes(t, out, sent.size());
    EXPECT_EQ(Concat(out), sent);
    for (const DataPtr& d : out) {
        EXPECT_GT(d->length, 0);
        EXPECT_LE(d->length, d->capacity);
    }
    t.ClosePort();
}

TEST(QSerialThread, ModeOneSplitsRepliesAtTheTerminator)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    pty.WriteFar({0x05, 0x00, 0x09, 0x11, '9', '0', '1', 0x00, 0x24});
    std::list<DataPtr> out;
    CollectReplies(t, out, 2);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(Bytes(out.front()), (std::vector<uint8_t>{0x05, 0x00}));
    EXPECT_EQ(Bytes(out.back()), (std::vector<uint8_t>{0x09, 0x11, '9', '0', '1', 0x00}));
    EXPECT_TRUE(WaitFill(t, 1));
    t.ClosePort();
}

TEST(QSerialThread, ReplyWithoutTerminatorStaysInTheAssemblerUntilItComes)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    pty.WriteFar({0x26, 0x20, 'A', 'B'});
    ASSERT_TRUE(WaitFill(t, 4));
    std::list<DataPtr> out;
    t.WaitReplies(out, 0, 0);
    EXPECT_TRUE(out.empty());
    SleepMs(20);  // a few reader passes
    t.WaitReplies(out, 0, 0);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(t.AssemblerFill(), 4);

    pty.WriteFar({'C', 'D', 0x00});
    CollectReplies(t, out, 1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Bytes(out.front()), (std::vector<uint8_t>{0x26, 0x20, 'A', 'B', 'C', 'D', 0x00}));
    t.ClosePort();
}

TEST(QSerialThread, GranularityTwoWithSevenBytesReadsSixAndTheSeventhWaits)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 0, true));
    t.SetGranularity(2);
    pty.WriteFar({1, 2, 3, 4, 5, 6, 7});
    std::list<DataPtr> out;
    CollectBytes(t, out, 6);
    SleepMs(30);  // several more passes: the seventh byte must not come alone
    t.WaitReplies(out, 0, 0);
    EXPECT_EQ(Concat(out), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    for (const DataPtr& d : out)
        EXPECT_EQ(d->length % 2, 0);

    pty.WriteFar({8});
    CollectBytes(t, out, 8);
    EXPECT_EQ(Concat(out), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    t.ClosePort();
}

TEST(QSerialThread, WaitRepliesWithEmptyQueueAndZeroTimesReturnsAtOnce)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    for (int mode : {0, 1}) {
        QSerialThread t;
        ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, mode, true));
        // Under one wait pass (15 ms): the call never sleeps.
        const int64_t fastest = FastestOf(5, 14, [&] {
            std::list<DataPtr> out;
            const auto t0 = SteadyClock_::now();
            t.WaitReplies(out, 0, 0);
            const int64_t ms = MsSince(t0);
            EXPECT_TRUE(out.empty());
            return ms;
        });
        EXPECT_LT(fastest, 15) << "mode " << mode;
        t.ClosePort();
    }
}

TEST(QSerialThread, ReplyAt20msWithWaits150And300ReturnsALittleAfter150ms)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    // Well before the total wait of 300 ms; a try that a loaded machine held
    // up past the bound is made again.
    const int64_t fastest = FastestOf(5, 260, [&] {
        std::thread device([&pty] {
            SleepMs(20);
            pty.WriteFar({0x05, 0x00});
        });
        std::list<DataPtr> out;
        const int64_t t0 = TickMs();  // the tick WaitReplies counts
        t.WaitReplies(out, 150, 300);
        const int64_t ms = TickMs() - t0;
        device.join();
        EXPECT_GE(ms, 150);
        // A try that ran late may have returned at the total wait before the
        // reply was in; it is swept up here so that the next try starts clean.
        CollectReplies(t, out, 1);
        EXPECT_EQ(out.size(), 1u);
        if (!out.empty()) {
            EXPECT_EQ(Bytes(out.front()), (std::vector<uint8_t>{0x05, 0x00}));
        }
        return ms;
    });
    EXPECT_LE(fastest, 260);
    t.ClosePort();
}

TEST(QSerialThread, WaitRepliesWithNothingArrivingReturnsAtTheTotalWait)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    const int64_t fastest = FastestOf(5, 420, [&] {
        std::list<DataPtr> out;
        const int64_t t0 = TickMs();  // the tick WaitReplies counts
        t.WaitReplies(out, 150, 300);
        const int64_t ms = TickMs() - t0;
        EXPECT_GE(ms, 300);
        EXPECT_TRUE(out.empty());
        return ms;
    });
    EXPECT_LE(fastest, 420);
    t.ClosePort();
}

TEST(QSerialThread, WaitRepliesCountsTicksOfTheInstalledClock)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    ManualClockScope scope;
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    pty.WriteFar({0x09, 0x10, 0x00});
    ASSERT_TRUE(WaitFill(t, 3));

    // A reply is there from the start, yet the call returns only once more
    // than firstMs ticks have passed.
    std::atomic<bool> done{false};
    std::list<DataPtr> out;
    std::thread waiter([&] {
        t.WaitReplies(out, 150, 300);
        done.store(true);
    });
    // The call has taken its entry tick, then swept the reply up and looked
    // at the clock again, and waits on.
    EXPECT_TRUE(WaitForReads(scope.clock, 1, done));
    WaitForReads(scope.clock, 4, done);
    EXPECT_FALSE(done.load());
    scope.clock.Advance(150);
    WaitForLooksAfterTheStep(scope.clock, done);
    EXPECT_FALSE(done.load());
    scope.clock.Advance(1);
    JoinOrRelease(waiter, done, scope.clock);
    EXPECT_TRUE(done.load());
    ASSERT_EQ(out.size(), 1u);

    // Nothing arrives: the call ends when totalMs ticks have passed.
    done.store(false);
    out.clear();
    const int64_t before = scope.clock.Reads();
    std::thread empty([&] {
        t.WaitReplies(out, 150, 300);
        done.store(true);
    });
    EXPECT_TRUE(WaitForReads(scope.clock, before + 1, done));  // the entry tick is taken
    scope.clock.Advance(299);
    WaitForLooksAfterTheStep(scope.clock, done);
    EXPECT_FALSE(done.load());
    scope.clock.Advance(1);
    JoinOrRelease(empty, done, scope.clock);
    EXPECT_TRUE(out.empty());
    t.ClosePort();
}

TEST(QSerialThread, DrainForThrowsAwayEverythingAndEmptiesTheAssembler)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    // What waited goes, and the drain lasts its time: measured on the tick
    // DrainFor counts (a millisecond tick read partway through a millisecond,
    // so wall time may fall short of it by under one), and not much longer (a
    // try that a loaded machine held up past the bound is made again).
    const int64_t fastest = FastestOf(5, 250, [&] {
        pty.WriteFar({0x07, 0x00, 0x41, 0x42});  // one reply and the start of another
        EXPECT_TRUE(WaitFill(t, 4));
        const int64_t t0 = TickMs();
        t.DrainFor(100);
        const int64_t ms = TickMs() - t0;
        EXPECT_GE(ms, 100);
        EXPECT_EQ(t.AssemblerFill(), 0);
        std::list<DataPtr> out;
        t.WaitReplies(out, 0, 0);
        EXPECT_TRUE(out.empty());
        return ms;
    });
    EXPECT_LE(fastest, 250);

    // What arrives while it drains goes as well, the start of a reply among
    // it. The drain runs on the hand-driven clock, so that it ends only once
    // the reader has taken the bytes and the drain has swept the whole reply
    // out of them (the 0x43 is left).
    {
        ManualClockScope scope;
        std::atomic<bool> done{false};
        std::thread drainer([&] {
            t.DrainFor(100);
            done.store(true);
        });
        EXPECT_TRUE(WaitForReads(scope.clock, 1, done));  // the entry tick is taken
        pty.WriteFar({0x07, 0x00, 0x43});
        EXPECT_TRUE(WaitFill(t, 1));
        EXPECT_FALSE(done.load());
        scope.clock.Advance(100);
        JoinOrRelease(drainer, done, scope.clock);
    }
    EXPECT_EQ(t.AssemblerFill(), 0);
    std::list<DataPtr> out;
    t.WaitReplies(out, 0, 0);
    EXPECT_TRUE(out.empty());

    // What comes next is a clean reply, with nothing of the old ones in front.
    pty.WriteFar({0x05, 0x00});
    CollectReplies(t, out, 1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Bytes(out.front()), (std::vector<uint8_t>{0x05, 0x00}));
    t.ClosePort();
}

TEST(QSerialThread, DrainForEmptiesTheChunkQueueInModeZero)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    // A second descriptor on the terminal, taken before the port claims it,
    // tells how many bytes wait in the terminal's input queue.
    const int probe = ::open(pty.SlavePath().c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(probe, 0);
    auto waiting = [probe] {
        int n = -1;
        return ::ioctl(probe, FIONREAD, &n) == 0 ? n : -1;
    };
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 0, true));
    // While the reader may only take whole pieces of 1000 bytes, the 500 bytes
    // wait in the terminal.
    t.SetGranularity(1000);
    pty.WriteFar(Repeat(0x5A, 500));
    ASSERT_TRUE(WaitUntil([&] { return waiting() == 500; }));
    {
        // The drain runs on the hand-driven clock: it ends once the reader has
        // taken the bytes, and many passes of the drain later (counted by its
        // reads of the clock), which give the reader its moment to queue them
        // after its read many times over.
        ManualClockScope scope;
        std::atomic<bool> done{false};
        std::thread drainer([&] {
            t.DrainFor(100);
            done.store(true);
        });
        EXPECT_TRUE(WaitForReads(scope.clock, 1, done));  // the entry tick is taken
        t.SetGranularity(1);
        EXPECT_TRUE(WaitUntil([&] { return waiting() == 0; }));
        WaitForReads(scope.clock, scope.clock.Reads() + 40, done);
        EXPECT_FALSE(done.load());
        scope.clock.Advance(100);
        JoinOrRelease(drainer, done, scope.clock);
    }
    std::list<DataPtr> out;
    t.WaitReplies(out, 0, 0);
    EXPECT_TRUE(out.empty());
    t.ClosePort();
    ::close(probe);
}

TEST(QSerialThread, DrainForLetsTheApplicationsEventLoopRun)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    int argc = 1;
    char name[] = "capture_tests";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    bool delivered = false;
    QMetaObject::invokeMethod(&app, [&delivered] { delivered = true; }, Qt::QueuedConnection);

    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    t.DrainFor(30);
    EXPECT_TRUE(delivered);
    t.ClosePort();
}

TEST(QSerialThread, DrainForReadsTheInstalledClock)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    ManualClockScope scope;
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    std::atomic<bool> done{false};
    std::thread drainer([&] {
        t.DrainFor(300);
        done.store(true);
    });
    EXPECT_TRUE(WaitForReads(scope.clock, 1, done));  // the entry tick is taken
    scope.clock.Advance(299);
    WaitForLooksAfterTheStep(scope.clock, done);
    EXPECT_FALSE(done.load());
    scope.clock.Advance(1);
    JoinOrRelease(drainer, done, scope.clock);
    EXPECT_TRUE(done.load());
    t.ClosePort();
}

TEST(QSerialThread, FarSideClosingWhileTheReaderRunsLeavesEmptyQueuesAndNoCrash)
{
    for (int mode : {0, 1}) {
        // The close is quick: a try that a loaded machine held up past the
        // bound is made again.
        const int64_t fastest = FastestOf(5, 250, [mode]() -> int64_t {
            PtyPair pty;
            EXPECT_TRUE(pty.Ok());
            QSerialThread t;
            EXPECT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, mode, true));
            pty.WriteFar({0x05, 0x00});
            std::list<DataPtr> out;
            CollectBytes(t, out, 2);
            EXPECT_EQ(TotalBytes(out), 2u) << "mode " << mode;

            pty.CloseFar();
            SleepMs(40);  // the reader keeps passing over the vanished port
            EXPECT_TRUE(t.IsRunning());
            out.clear();
            t.WaitReplies(out, 0, 0);
            EXPECT_TRUE(out.empty());
            t.WaitReplies(out, 20, 60);
            EXPECT_TRUE(out.empty());
            EXPECT_EQ(t.AssemblerFill(), 0);
            const uint8_t cmd[] = {0x03, 0x00};
            EXPECT_EQ(t.Send(cmd, 2), 0);

            const auto t0 = SteadyClock_::now();
            t.ClosePort();
            const int64_t ms = MsSince(t0);
            EXPECT_FALSE(t.IsRunning());
            return ms;
        });
        EXPECT_LE(fastest, 250) << "mode " << mode;
    }
}

TEST(QSerialThread, DestroyingAnOpenReaderStopsAndJoinsIt)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    auto t = std::make_unique<QSerialThread>();
    ASSERT_TRUE(t->OpenPort(pty.SlavePath(), 1024000, 0, true));
    pty.WriteFar(Repeat(0x11, 100));
    SleepMs(10);
    t.reset();  // no ClosePort: the destructor does it
    SUCCEED();
}

TEST(QSerialThread, SendWritesAtOnceToTheFarSide)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    const uint8_t cmd[] = {0x09, 0x00};
    EXPECT_EQ(t.Send(cmd, 2, 1000), 2);
    EXPECT_EQ(pty.ReadFar(2, 10000), (std::vector<uint8_t>{0x09, 0x00}));
    t.ClosePort();
}

TEST(QSerialThread, ReopenAfterCloseReadsAgain)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    QSerialThread t;
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 1, true));
    t.ClosePort();
    ASSERT_TRUE(t.OpenPort(pty.SlavePath(), 1024000, 0, true));
    EXPECT_EQ(t.QueueMode(), 0);
    pty.WriteFar({1, 2, 3});
    std::list<DataPtr> out;
    CollectBytes(t, out, 3);
    EXPECT_EQ(Concat(out), (std::vector<uint8_t>{1, 2, 3}));
    t.ClosePort();
}
