// The worker base of every thread in the system: two threads, one running Run()
// and one running Run1(), started and stopped together behind one running flag.
#pragma once

#include <atomic>
#include <thread>

class MyThread {
public:
    MyThread() = default;
    MyThread(const MyThread&) = delete;
    MyThread& operator=(const MyThread&) = delete;
    // A handle that is still joinable here ends the process (std::thread's rule):
    // every owner stops its workers before it goes.
    virtual ~MyThread() = default;

    // If not running: set the flag, start the Run thread and then the Run1 thread.
    virtual void Start();
    // If running: clear the flag and join both threads.
    virtual void Stop();
    virtual void Run() = 0;
    virtual void Run1() {}

    bool IsRunning() const { return m_running.load(std::memory_order_relaxed); }

protected:
    // Polled by the workers at the top of each pass; read and written without a
    // lock from several threads, hence atomic with relaxed ordering.
    std::atomic<bool> m_running{false};
    std::thread m_thread1;
    std::thread m_thread2;
};
