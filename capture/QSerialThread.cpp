#include "capture/QSerialThread.h"

#include "common/Clock.h"

#include <QCoreApplication>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

// ---- ReplyAssembler ----

void ReplyAssembler::SetMode(int32_t mode)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_mode = mode;
}

int32_t ReplyAssembler::Mode() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_mode;
}

bool ReplyAssembler::Add(const uint8_t* bytes, int32_t n)
{
    if (bytes == nullptr || n <= 0)
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (static_cast<int64_t>(m_fill) + n >= kAcceptLimit)
        return false;  // the whole chunk goes, not the part that would not fit
    std::memcpy(m_buffer + m_fill, bytes, static_cast<size_t>(n));
    m_fill += n;
    return true;
}

void ReplyAssembler::Take(std::list<DataPtr>& out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_mode == 1)
        TakeTerminated(out);
    else if (m_mode == 2)
        TakeFixed(out);
}

int32_t ReplyAssembler::Fill() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fill;
}

void ReplyAssembler::ClearFill()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fill = 0;
}

// Each 0x00 ends a reply, which keeps its terminator. The bytes after the last
// terminator move to the front and wait for theirs.
void ReplyAssembler::TakeTerminated(std::list<DataPtr>& out)
{
    int32_t start = 0;
    for (int32_t i = 0; i < m_fill; ++i) {
        if (m_buffer[i] != 0x00)
            continue;
        out.push_back(Data::FromBytes(m_buffer + start, i - start + 1));
        start = i + 1;
    }
    if (start > 0) {
        std::memmove(m_buffer, m_buffer + start, static_cast<size_t>(m_fill - start));
        m_fill -= start;
    }
}

// A 0x10 with at least 16 bytes from it on is a reply; the walk goes on behind
// it. A 0x10 too close to the end is the start of a reply still arriving and is
// kept with what follows it; every other byte is dropped.
void ReplyAssembler::TakeFixed(std::list<DataPtr>& out)
{
    if (m_fill < kFixedReplySize)
        return;
    int32_t keepFrom = m_fill;
    int32_t i = 0;
    while (i < m_fill) {
        if (m_buffer[i] != kFixedReplyStart) {
            ++i;
            continue;
        }
        if (m_fill - i >= kFixedReplySize) {
            out.push_back(Data::FromBytes(m_buffer + i, kFixedReplySize));
            i += kFixedReplySize;
            continue;
        }
        keepFrom = i;
        break;
    }
    std::memmove(m_buffer, m_buffer + keepFrom, static_cast<size_t>(m_fill - keepFrom));
    m_fill -= keepFrom;
}

// ---- QSerialThread ----

namespace {

void PassSleep()
{
    std::this_thread::sleep_for(std::chrono::microseconds(QSerialThread::kPassSleepUs));
}

}  // namespace

QSerialThread::~QSerialThread()
{
    ClosePort();
}

bool QSerialThread::OpenPort(const std::string& path, int baud, int queueMode, bool hardwareFlow)
{
    if (m_open.load(std::memory_order_relaxed) || IsRunning())
        ClosePort();
    // Only a port that opened and purged counts; anything else is closed again
    // so that no half-opened port stays behind.
    if (m_port.Open(path, baud, hardwareFlow) != 1) {
        m_port.Close();
        return false;
    }
    m_open.store(true, std::memory_order_relaxed);
    m_queueMode.store(queueMode, std::memory_order_relaxed);
    m_assembler.SetMode(queueMode);
    Start();
    return true;
}

void QSerialThread::ClosePort()
{
    if (m_port.IsOpen()) {
        // Waits for a read under way, so the reader never reads a closed port.
        std::lock_guard<std::mutex> lock(m_readMutex);
        m_port.Close();
    }
    m_open.store(false, std::memory_order_relaxed);
    Stop();
}

void QSerialThread::SetGranularity(int n)
{
    m_granularity.store(n, std::memory_order_relaxed);
}

int QSerialThread::Send(const uint8_t* bytes, int n, int /*timeout*/)
{
    return m_port.Write(bytes, n);
}

void QSerialThread::Run()
{
    while (m_running.load(std::memory_order_relaxed)) {
        int32_t available = m_port.BytesAvailable();
        if (available < 1) {
            PassSleep();
            continue;
        }
        int32_t granularity = m_granularity.load(std::memory_order_relaxed);
        if (granularity < 1)
            granularity = 1;
        available -= available % granularity;

        DataPtr chunk;
        {
            std::lock_guard<std::mutex> lock(m_readMutex);
            chunk = std::make_shared<Data>(available);
            const int n = m_port.Read(chunk->buffer.get(), available);
            chunk->length = n;
        }
        if (chunk->length == 0) {
            PassSleep();
            continue;
        }

        if (m_queueMode.load(std::memory_order_relaxed) == 0) {
            std::lock_guard<std::mutex> lock(m_queueMutex);
            m_queue.push_back(std::move(chunk));
        } else {
            m_assembler.Add(chunk->buffer.get(), chunk->length);
        }
        PassSleep();
    }
}

void QSerialThread::Sweep(std::list<DataPtr>& out)
{
    if (m_queueMode.load(std::memory_order_relaxed) == 0) {
        std::unique_lock<std::mutex> lock(m_queueMutex, std::try_to_lock);
        if (lock.owns_lock())
            out.splice(out.end(), m_queue);
    } else {
        m_assembler.Take(out);
    }
}

void QSerialThread::WaitReplies(std::list<DataPtr>& out, int firstMs, int totalMs)
{
    const int64_t entry = TickMs();
    for (;;) {
        Sweep(out);
        if (TickMs() - entry > firstMs && !out.empty())
            return;
        if (totalMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(kWaitPassMs));
        if (TickMs() - entry >= totalMs)
            return;
    }
}

void QSerialThread::DrainFor(int ms)
{
    const int64_t entry = TickMs();
    while (TickMs() - entry < ms) {
        if (QCoreApplication::instance() != nullptr)
            QCoreApplication::processEvents();
        std::list<DataPtr> discarded;
        Sweep(discarded);
        PassSleep();
    }
    m_assembler.ClearFill();
}
