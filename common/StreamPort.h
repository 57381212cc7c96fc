// What a stream consumer sees of a data port: a reader that collects chunks in a
// queue, opened and closed by name. The serial port reader is one; a recorded
// stream or a test feed are others.
#pragma once

#include "common/Data.h"

#include <functional>
#include <list>
#include <memory>
#include <string>

class ChunkSource {
public:
    virtual ~ChunkSource() = default;
    // Moves queued chunks to the end of out. With 0 and 0 it is one sweep that
    // never waits.
    virtual void WaitReplies(std::list<DataPtr>& out, int firstMs, int totalMs) = 0;
};

class StreamPort : public ChunkSource {
public:
    // Opens the named port and starts its reader; false when it does not open.
    virtual bool OpenPort(const std::string& path, int baud, int queueMode, bool hardwareFlow) = 0;
    virtual void ClosePort() = 0;
    // Reads are cut to multiples of n bytes.
    virtual void SetGranularity(int n) = 0;
};

using StreamPortFactory = std::function<std::unique_ptr<StreamPort>()>;

// Makes a data port with the factory and opens it at the baud rate in queue
// mode 0 with hardware flow control, reading whole 16-bit words. Null when
// there is no factory or the port does not open.
inline std::unique_ptr<StreamPort> OpenDataPort(const StreamPortFactory& factory, const std::string& name, int baud)
{
    if (!factory)
        return nullptr;
    std::unique_ptr<StreamPort> port = factory();
    if (!port || !port->OpenPort(name, baud, 0, true))
        return nullptr;
    port->SetGranularity(2);
    return port;
}

// Closes and forgets a data port.
inline void CloseDataPort(std::unique_ptr<StreamPort>& port)
{
    if (port) {
        port->ClosePort();
        port.reset();
    }
}
