// The transmitter-to-receiver frame decoder's output: frames and single-byte
// response patterns, under one mutex, taken by the data manager's pump.
#pragma once

#include "packets/Packets.h"

#include <list>
#include <memory>
#include <mutex>

class FskFrameDecoder {
public:
    // Appends a finished frame (a packet, or a pattern with `pattern` 1).
    void Emit(std::shared_ptr<CMsgData> frame)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_output.push_back(std::move(frame));
    }

    // Pops the oldest frame, or null.
    std::shared_ptr<CMsgData> TakeFrame()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_output.empty())
            return nullptr;
        auto f = m_output.front();
        m_output.pop_front();
        return f;
    }

    void Clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_output.clear();
    }

private:
    std::mutex m_mutex;
    std::list<std::shared_ptr<CMsgData>> m_output;
};
