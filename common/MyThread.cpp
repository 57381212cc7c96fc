#include "common/MyThread.h"

void MyThread::Start()
{
    if (m_running.load(std::memory_order_relaxed))
        return;
    m_running.store(true, std::memory_order_relaxed);
    m_thread1 = std::thread([this] { Run(); });
    m_thread2 = std::thread([this] { Run1(); });
}

void MyThread::Stop()
{
    if (!m_running.load(std::memory_order_relaxed))
        return;
    m_running.store(false, std::memory_order_relaxed);
    if (m_thread1.joinable())
        m_thread1.join();
    if (m_thread2.joinable())
        m_thread2.join();
}
