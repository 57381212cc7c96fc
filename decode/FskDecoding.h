// The FSK decoding thread: slices the transmitter's packets and decodes them,
// passes digital pings on while no receiver link runs, declares the link lost
// after 1800 ms without an ASK packet, and records the carrier frequency.
// Two of these loops run at once on the same lists.
#pragma once

#include "common/DigitalPingInfo.h"
#include "common/MyThread.h"
#include "decode/ThreadFSK.h"

#include <atomic>
#include <memory>
#include <vector>

class FskDecodingHost {
public:
    virtual ~FskDecodingHost() = default;
    virtual bool IsAcquiring() const = 0;
    virtual void DecodeFsk(std::vector<PulseRecord>& changes, const std::shared_ptr<TriggerData>& packet) = 0;
    virtual void AddDigitalPing(const DigitalPingInfoPtr& ping) = 0;
    // True when no ASK packet was decoded since the link was last lost.
    virtual bool LinkIdle() const = 0;
    // If an ASK packet was seen and the last one is more than 1800 ms old,
    // marks the link idle and returns true, once per loss whichever loop asks.
    virtual bool ClaimLinkLoss() = 0;
    // The link is lost: reset it, report the timeout, re-send the DAC value.
    virtual void LinkLost() = 0;
    virtual void PushFrequency(double first, double second) = 0;
    // The carrier's edges (for the timing checker), oldest first.
    virtual void AddCarrierEdges(const std::vector<CarrierEdge>& edges) { (void)edges; }

    // The second FSK reader, for hosts that have one: whether it reads, the
    // words of the stream's wire feed as they came (each with its capture time
    // in 60 MHz ticks), and how far the FSK chain has got: every packet that
    // begins before `us` (capture time, microseconds) has been decoded.
    virtual bool ReadsFskWire() const { return false; }
    virtual void ReadFskWire(const uint16_t* words, const int64_t* ticks, size_t n)
    {
        (void)words;
        (void)ticks;
        (void)n;
    }
    virtual void FskChainPassed(uint64_t us) { (void)us; }
};

// One pass of the loop. Returns the milliseconds to sleep: 200 while not
// acquiring, 10 when no packet was taken, else 0.
int FskDecodingPass(CThreadFSK& fsk, FskDecodingHost& host);

void RunFskDecoding(const std::atomic<bool>& running, CThreadFSK& fsk, FskDecodingHost& host);
