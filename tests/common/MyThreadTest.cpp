#include "common/MyThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

class Counter : public MyThread {
public:
    ~Counter() override { Stop(); }
    void Run() override
    {
        runs.fetch_add(1);
        while (m_running.load(std::memory_order_relaxed))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void Run1() override { run1s.fetch_add(1); }
    std::atomic<int> runs{0};
    std::atomic<int> run1s{0};
};

class OnlyRun : public MyThread {
public:
    ~OnlyRun() override { Stop(); }
    void Run() override { ran = true; }
    std::atomic<bool> ran{false};
};

}  // namespace

TEST(MyThread, StartRunsRunAndRun1OnceEach)
{
    Counter c;
    c.Start();
    c.Start();  // already running: nothing more starts
    EXPECT_TRUE(c.IsRunning());
    c.Stop();
    EXPECT_EQ(c.runs.load(), 1);
    EXPECT_EQ(c.run1s.load(), 1);
    EXPECT_FALSE(c.IsRunning());
}

TEST(MyThread, StopWhenNotRunningDoesNothingAndRestartWorks)
{
    Counter c;
    c.Stop();
    c.Start();
    c.Stop();
    c.Stop();
    c.Start();
    c.Stop();
    EXPECT_EQ(c.runs.load(), 2);
}

TEST(MyThread, Run1HasAnEmptyBodyByDefault)
{
    OnlyRun t;
    t.Start();
    t.Stop();
    EXPECT_TRUE(t.ran.load());
}

TEST(MyThreadDeathTest, JoinableHandleAtDestructionEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto* t = new std::thread([] { std::this_thread::sleep_for(std::chrono::seconds(1)); });
            struct Holder : MyThread {
                void Run() override {}
                void Adopt(std::thread&& th) { m_thread1 = std::move(th); }
            };
            Holder h;
            h.Adopt(std::move(*t));
        },
        "");
}
