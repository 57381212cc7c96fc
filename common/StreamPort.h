// What a stream consumer sees of a data port: a reader that collects chunks in a
// queue, opened and closed by name. The serial port reader is one; a recorded
// stream or a test feed are others.
#pragma once

#include "common/Data.h"

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
