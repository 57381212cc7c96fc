// The data manager stands between the decoders and the views. Worker threads
// hand it raw frames; on the interface thread's refresh it dispatches them,
// turns packets into events, keeps the events in capture-time order and
// releases them a second behind real time.
#pragma once

#include "common/DigitalPingInfo.h"
#include "decode/AskWireReader.h"
#include "decode/DataFilter.h"
#include "decode/FskFrameDecoder.h"
#include "events/MsgInfo.h"
#include "packets/Interface.h"

#include <atomic>
#include <deque>
#include <list>
#include <mutex>
#include <vector>

class CDataManager : public CallbackInterface {
public:
    CDataManager();
    ~CDataManager() override;

    // ---- from the worker threads
    // Runs the ASK frame decoder with the current carrier frequency in whole Hz;
    // the byte count of the last frame found, 0 for none.
    int DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst, int flag);
    // Runs the FSK frame decoder with the current carrier frequency.
    void DecodeFsk(std::vector<PulseRecord>& levelChanges, const std::shared_ptr<TriggerData>& packet);
    void AddDigitalPing(const DigitalPingInfoPtr& ping);
    void AddCepTimeout();
    // Forgets what the link negotiated.
    void ResetLink();
    void PushFrequency(double first, double second);

    // ---- the second ASK reader
    // On (the default) or off, set before a capture starts. Off, every frame
    // of the list decoder goes to the dispatcher as it comes, as without a
    // second reader.
    void SetSecondAskReader(bool on) { m_secondReader.store(on, std::memory_order_relaxed); }
    bool SecondAskReader() const { return m_secondReader.load(std::memory_order_relaxed); }
    // From the ASK decoding thread: the stream's samples as they came, and how
    // far the list decoder has got (every burst below `sample` is decoded).
    void ReadWire(const int32_t* samples, size_t n, uint64_t first);
    void ListDecoderPassed(uint64_t sample);
    // From the thread that feeds the reader (tests): frames read elsewhere, and
    // how far that reader has looked.
    void AddWireFrames(const std::vector<AskWireFrame>& frames, uint64_t settledThrough);
    // Every held frame is settled now, with what both readers gave: the end of
    // a capture or a replay, when no more samples will come.
    void SettleHeldFrames() { m_settleAll.store(true, std::memory_order_relaxed); }

    struct MergeCounts {
        int64_t recovered = 0;  // the second reader's frames where the list decoder had none
        int64_t corrected = 0;  // the second reader's frames where the list decoder read other bytes
        int64_t agreed = 0;     // frames both read alike
    };
    MergeCounts Merges() const { return m_merges; }

    // A held frame is given out after this long even when a reader has not
    // caught up (a stream that stopped in the middle of a packet).
    static constexpr int64_t kHoldLimitMs = 1500;

    // ---- from the interface thread
    // Dispatches every finished frame, names the response patterns, and moves
    // the events that are ready into `out` (replacing what it held).
    void GetEvents(std::vector<MsgInfoPtr>& out);
    void Clear();

    double FirstHistoryValue();
    double CarrierFrequency();
    double ReceivedPowerPercent() const { return m_powerFraction * 100.0; }
    double ControlErrorValue() const { return m_controlError; }
    int64_t ReceivedPowerRaw() const { return m_powerRaw; }
    double ReceivedPowerValue() const { return m_powerValue; }
    int NegotiatedPower() const { return m_dispatcher.PowerReference(); }
    // Failed bursts in the upper 32 bits, decoded frames in the lower.
    uint64_t FilterCounters() const;

    int64_t GoodPackets() const { return m_goodPackets.load(std::memory_order_relaxed); }
    void AddGoodPacket() { m_goodPackets.fetch_add(1, std::memory_order_relaxed); }
    int64_t LastLevelChange() const { return m_lastLevelChange.load(std::memory_order_relaxed); }
    void SetLastLevelChange(int64_t tick) { m_lastLevelChange.store(tick, std::memory_order_relaxed); }
    // Zeroes the failed-burst and decoded-frame counts of the ASK decoder.
    void ResetCounters() { m_askFilter.ResetCounters(); }

    CDataFilter& AskFilter() { return m_askFilter; }
    FskFrameDecoder& FskFilter() { return m_fskFilter; }
    CInterface& Dispatcher() { return m_dispatcher; }
    size_t QueuedEvents();

    // ---- the 26 slots of the dispatcher
    void OnChecksumError(std::shared_ptr<CMsgData> frame) override;
    void OnSignalStrength(CMsgData& packet) override;
    void OnEndPowerTransfer(CMsgData& packet) override;
    void OnPowerControlHoldOff(CMsgData& packet) override;
    void OnConfiguration(CMsgData& packet) override;
    void OnIdentification(CMsgData& packet) override;
    void OnExtendedIdentification(CMsgData& packet) override;
    void OnReserved7(CMsgData& packet) override;
    void OnControlError(CMsgData& packet) override;
    void OnReceivedPower(CMsgData& packet) override;
    void OnChargeStatus(CMsgData& packet) override;
    void OnReceivedPower1_2_2(CMsgData& packet) override;
    void OnGeneralRequest(CMsgData& packet) override;
    void OnRenegotiate(CMsgData& packet) override;
    void OnSpecificRequest(CMsgData& packet) override;
    void OnFODStatus(CMsgData& packet) override;
    void OnWPIDMost(CMsgData& packet) override;
    void OnWPIDLast(CMsgData& packet) override;
    void OnProprietary(std::shared_ptr<CMsgData> frame) override;
    void OnExControlError(CMsgData& packet) override;
    void OnSimultaneousDataStreamResponse(CMsgData& packet) override;
    void OnSimultaneousAuxiliaryDataControl(CMsgData& packet) override;
    void OnFSKDataNotAvailable(CMsgData& packet) override;
    void OnFSKIdentification(CMsgData& packet) override;
    void OnFSKCapability(CMsgData& packet) override;
    void OnPacket(CMsgData& packet) override;

private:
    enum class Form { Plain, Spoken, SpokenHz, Named };
    MsgInfoPtr Make(CMsgData& packet, Form form);
    MsgInfoPtr RawEvent(const CMsgData& frame, const char* name);
    void SetControlError(CMsgData& packet, MsgInfo& event);
    void Enqueue(const MsgInfoPtr& event);
    int FrequencyHz();

    // One frame held for the merge of the two ASK readers: its span in sample
    // numbers and, for the second reader's, its bytes.
    struct Held {
        std::shared_ptr<CMsgData> frame;
        uint64_t first = 0, last = 0;
        bool wire = false;
        int64_t heldSince = 0;
    };
    std::shared_ptr<CMsgData> WireFrame(const AskWireFrame& w);
    void TakeAskFrames();
    void ReleaseHeld();
    void ResolveCluster(std::vector<Held>& cluster);

    CInterface m_dispatcher;
    CDataFilter m_askFilter;
    FskFrameDecoder m_fskFilter;

    std::mutex m_historyMutex;
    std::deque<double> m_history1;
    std::deque<double> m_history2;

    std::mutex m_queueMutex;
    std::list<MsgInfoPtr> m_queue;

    // Written by slots and by ResetLink from a worker; read by the views.
    std::atomic<double> m_powerFraction{0.0};
    std::atomic<int64_t> m_powerRaw{0};
    std::atomic<double> m_controlError{0.0};
    std::atomic<double> m_powerValue{0.0};
    std::atomic<int64_t> m_goodPackets{0};
    std::atomic<int64_t> m_lastLevelChange{0};
    // A link reset from a worker thread empties the dispatcher's held packets on
    // the interface thread, before it dispatches anything more.
    std::atomic<bool> m_resetPending{false};

    // The second ASK reader, on the ASK decoding thread, with the newest
    // samples it was given (the recovered frames' capture records).
    std::atomic<bool> m_secondReader{true};
    AskWireReader m_wireReader;
    std::vector<int32_t> m_wireRing;
    uint64_t m_wireRingNext = 0;  // number of the sample after the newest in the ring
    std::mutex m_wireMutex;
    std::vector<std::pair<AskWireFrame, std::shared_ptr<CMsgData>>> m_wireOut;  // guarded
    std::atomic<uint64_t> m_wireSettled{0};
    std::atomic<uint64_t> m_listPassed{0};
    std::atomic<bool> m_settleAll{false};
    // On the interface thread: frames of both readers waiting for the other.
    std::deque<Held> m_held;
    MergeCounts m_merges;
};
