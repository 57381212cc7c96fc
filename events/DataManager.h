// The data manager stands between the decoders and the views. Worker threads
// hand it raw frames; on the interface thread's refresh it dispatches them,
// turns packets into events, keeps the events in capture-time order and
// releases them a second behind real time.
#pragma once

#include "common/CarrierEdge.h"
#include "common/DigitalPingInfo.h"
#include "decode/AskWireReader.h"
#include "decode/DataFilter.h"
#include "decode/FskFrameDecoder.h"
#include "decode/FskWireReader.h"
#include "events/MsgInfo.h"
#include "packets/Interface.h"

#include <atomic>
#include <deque>
#include <functional>
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
    // The carrier's edges as the FSK side saw them, kept for the timing
    // checker until taken (oldest first); an acquisition's start and Clear
    // drop what was not taken.
    void AddCarrierEdges(const std::vector<CarrierEdge>& edges);
    void TakeCarrierEdges(std::vector<CarrierEdge>& out);

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
        int64_t recovered = 0;  // the second reader's frames where the first reader had none
        int64_t corrected = 0;  // the second reader's frames where the first reader read other bytes
        int64_t agreed = 0;     // frames both read alike
        // Good readings of the two that contradict each other where the
        // signal does not settle which is right: shown as an error frame
        // with both readings.
        int64_t disputed = 0;
        // Good frames of the first reader against the Qi length rule (ASK):
        // shown as an error frame.
        int64_t refused = 0;
        // Good ASK frames of the list decoder where the second reader, even
        // reading the span afresh, finds no packet: nothing in the signal
        // confirms the reading, so it is shown as an error frame.
        int64_t unconfirmed = 0;
    };
    MergeCounts Merges() const { return m_ask.counts; }

    // ---- the second FSK reader
    // The same for the transmitter's side, beside the FSK frame decoder. Off,
    // every frame of the frame decoder is handled as it comes. The band is
    // the one the carrier tracker is built with.
    void SetSecondFskReader(bool on) { m_secondFskReader.store(on, std::memory_order_relaxed); }
    bool SecondFskReader() const { return m_secondFskReader.load(std::memory_order_relaxed); }
    // (Taken by the reader when it is next fed, on the thread that feeds it.)
    void SetFskBand(int32_t minFreqHz, int32_t maxFreqHz)
    {
        m_fskBandMin.store(minFreqHz, std::memory_order_relaxed);
        m_fskBandMax.store(maxFreqHz, std::memory_order_relaxed);
    }
    // From an FSK decoding thread: the period words as they came, with their
    // capture times (60 MHz ticks), and how far the frame decoder has got
    // (every packet beginning before `us` is decoded).
    void ReadFskWire(const uint16_t* words, const int64_t* ticks, size_t n);
    void FskChainPassed(uint64_t us);
    // From the thread that feeds the reader (tests): frames read elsewhere, and
    // how far that reader has looked (ticks).
    void AddFskWireFrames(const std::vector<FskWireFrame>& frames, int64_t settledThroughTicks);
    MergeCounts FskMerges() const { return m_fsk.counts; }

    // A held frame is given out after this long even when a reader has not
    // caught up (a stream that stopped in the middle of a packet).
    static constexpr int64_t kHoldLimitMs = 1500;
    // A good frame of the second reader whose transitions all lie within
    // this many half bits of its bit clock is held firmly by the signal: it
    // corrects a good frame of the first reader that reads other bytes.
    // Further off, the two good readings are disputed.
    static constexpr double kFirmDrift = 0.3;

    // ---- from the interface thread
    // Dispatches every finished frame, names the response patterns, and moves
    // the events that are ready into `out` (replacing what it held).
    void GetEvents(std::vector<MsgInfoPtr>& out);
    // The end of an acquisition, once its decoding threads have stopped: every
    // held frame is settled, every finished frame dispatched and every queued
    // event handed over at once, in queue order, without the second of delay
    // that waits for a late frame of the other direction (no frame comes any
    // more). What an acquisition heard is thus all in its own session.
    void TakeAllEvents(std::vector<MsgInfoPtr>& out);
    // The start of an acquisition, before its decoding threads run: whatever
    // an earlier acquisition left (queued events, finished frames, frames the
    // readers hold for each other, the second readers' places in the stream)
    // is dropped, since both streams count their time from this start again.
    // The link's state (phase, cached packets, counters) stays.
    void BeginAcquisition();
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

    // One frame held for the merge of two readers: its span (sample numbers
    // on the ASK side, microseconds on the FSK side) and whose it is.
    struct Held {
        std::shared_ptr<CMsgData> frame;
        uint64_t first = 0, last = 0;
        bool wire = false;
        int64_t heldSince = 0;
        // Second ASK reader: a packet that did not check (never shown: it
        // only judges the first reader's reading of its span), the bits it
        // read from the start bit on, and how far its transitions lay from
        // the bit clock.
        bool failed = false;
        std::vector<uint8_t> bits;
        double drift = 0.0;
    };
    // The merge of a first reader (the list decoder, the FSK frame decoder)
    // with a second reader: the second reader's frames as they come, the two
    // progress marks, the frames waiting for each other and the tally.
    struct MergeLane {
        std::mutex wireMutex;
        std::vector<Held> wireOut;  // guarded by wireMutex
        std::atomic<uint64_t> wireSettled{0};
        std::atomic<uint64_t> firstPassed{0};
        std::deque<Held> held;
        MergeCounts counts;
        void Clear();
    };
    void GetEventsReleasing(std::vector<MsgInfoPtr>& out, bool releaseAll);
    std::shared_ptr<CMsgData> WireFrame(const AskWireFrame& w);
    // A frame of the second ASK reader held for the merge (failed ones as
    // error frames, kept only to judge the list decoder's).
    Held WireHeld(const AskWireFrame& w);
    // The second reader's frame `second` stands in place of the first
    // reader's `first`, which read other bytes: marked "corrected", or
    // "disputed" (an error frame) where both were good and the second is
    // further than kFirmDrift from its bit clock; counted in the lane.
    static void MarkReplacement(MergeLane& lane, CMsgData& second, const CMsgData& first, double drift);
    std::shared_ptr<CMsgData> FskWireMsg(const FskWireFrame& w);
    // Takes what both readers of the lane have finished, then settles every
    // cluster of overlapping frames that both readers have looked past (or
    // that waited too long, or all of them) and hands the frames that stand
    // to `deliver` in capture order.
    void ReleaseHeld(MergeLane& lane, const std::function<std::shared_ptr<CMsgData>()>& takeFirst, uint64_t unitUs,
                     bool all, const std::function<void(const std::shared_ptr<CMsgData>&)>& deliver);
    void ResolveCluster(MergeLane& lane, std::vector<Held>& cluster,
                        const std::function<void(const std::shared_ptr<CMsgData>&)>& deliver);
    // A frame of the FSK side: a packet to the dispatcher, a pattern named.
    void DeliverFsk(const std::shared_ptr<CMsgData>& frame);

    CInterface m_dispatcher;
    CDataFilter m_askFilter;
    FskFrameDecoder m_fskFilter;

    std::mutex m_historyMutex;
    std::deque<double> m_history1;
    std::deque<double> m_history2;

    std::mutex m_queueMutex;
    std::list<MsgInfoPtr> m_queue;

    std::mutex m_edgeMutex;
    std::vector<CarrierEdge> m_edges;  // guarded by m_edgeMutex

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
    // samples it was given (the recovered frames' capture records, and a
    // second look at a span where the list decoder alone read a packet).
    // The ASK thread writes the ring under m_wireRingMutex; the merge copies
    // from it under the same lock.
    std::atomic<bool> m_secondReader{true};
    AskWireReader m_wireReader;
    std::mutex m_wireRingMutex;
    std::vector<int32_t> m_wireRing;
    uint64_t m_wireRingNext = 0;  // number of the sample after the newest in the ring
    uint64_t m_wireRingOldest = 0; // number of the first sample since the stream began or broke off
    // The ring's samples `first` through `last` into `out`; false when the
    // ring does not hold them all (any more, or yet).
    bool CopyWireSamples(uint64_t first, uint64_t last, std::vector<int32_t>& out);
    // The second reader's frames over samples `first` through `last` read
    // afresh, with a margin of idle before and after: what the signal says
    // of a span where the list decoder alone read a packet. False when the
    // samples are no longer at hand.
    // minPreambleHalves > 0 sets the shortest preamble the reading takes.
    bool ReadAgain(uint64_t first, uint64_t last, std::vector<AskWireFrame>& frames, long minPreambleHalves = 0);
    static constexpr long kShortPreambleHalves = 12;
    // The second FSK reader, on the FSK decoding threads in turn, with the
    // newest words it was given.
    std::atomic<bool> m_secondFskReader{true};
    FskWireReader m_fskWireReader;
    std::atomic<int32_t> m_fskBandMin{110000}, m_fskBandMax{210000};
    int32_t m_fskReaderMin = 110000, m_fskReaderMax = 210000;  // the band the reader was built with
    std::vector<uint16_t> m_fskRingWords;
    std::vector<int64_t> m_fskRingTicks;
    uint64_t m_fskRingNext = 0;  // count of words put in the ring
    std::atomic<bool> m_settleAll{false};
    MergeLane m_ask;
    MergeLane m_fsk;
};
