// What the decoding threads share around the data manager: the acquiring flag,
// the time of the last ASK packet (the CEP timeout), and the automatic level
// of the device's DAC. The acquisition controller owns one and plugs the DAC
// sender in; a replay or a test runs the same threads on one without a device.
#pragma once

#include "decode/AskDecoding.h"
#include "decode/FskDecoding.h"
#include "events/DataManager.h"

#include <atomic>
#include <functional>

class DecoderLink : public AskDecodingHost, public FskDecodingHost {
public:
    explicit DecoderLink(CDataManager& manager) : m_manager(manager) {}

    // ---- the ASK decoding thread
    bool IsAcquiring() const override { return m_acquiring.load(std::memory_order_relaxed); }
    int DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst, int flag) override
    {
        return m_manager.DecodeAsk(pulses, burst, flag);
    }
    void CountGoodPacket() override { m_manager.AddGoodPacket(); }
    void SetLastAskTime(int64_t tick) override { m_lastAskTime.store(tick, std::memory_order_relaxed); }
    // The automatic level: after the eleventh good packet, at most every 201 ms,
    // one step of 10 toward a swing of 2800 to 3200, within 1500 to 2400.
    void AutoDacLevel(int64_t amplitude) override;
    bool ReadsWire() const override { return m_manager.SecondAskReader(); }
    void ReadWire(const int32_t* samples, size_t n, uint64_t first) override { m_manager.ReadWire(samples, n, first); }
    void ListDecoderPassed(uint64_t sample) override { m_manager.ListDecoderPassed(sample); }

    // ---- the FSK decoding threads
    void DecodeFsk(std::vector<PulseRecord>& changes, const std::shared_ptr<TriggerData>& packet) override
    {
        m_manager.DecodeFsk(changes, packet);
    }
    void AddDigitalPing(const DigitalPingInfoPtr& ping) override { m_manager.AddDigitalPing(ping); }
    bool LinkIdle() const override { return m_lastAskTime.load(std::memory_order_relaxed) == 0; }
    bool ClaimLinkLoss() override;
    void LinkLost() override;
    void PushFrequency(double first, double second) override { m_manager.PushFrequency(first, second); }
    void AddCarrierEdges(const std::vector<CarrierEdge>& edges) override { m_manager.AddCarrierEdges(edges); }
    bool ReadsFskWire() const override { return m_manager.SecondFskReader(); }
    void ReadFskWire(const uint16_t* words, const int64_t* ticks, size_t n) override
    {
        m_manager.ReadFskWire(words, ticks, n);
    }
    void FskChainPassed(uint64_t us) override { m_manager.FskChainPassed(us); }

    // ---- the controller
    void SetAcquiring(bool on) { m_acquiring.store(on, std::memory_order_relaxed); }
    int64_t LastAskTime() const { return m_lastAskTime.load(std::memory_order_relaxed); }
    int DacValue() const { return m_dacValue.load(std::memory_order_relaxed); }
    void SetDacValue(int value) { m_dacValue.store(value, std::memory_order_relaxed); }
    // "Manual Acting" of the ASK panel: the automatic level stays still.
    void SetManualActing(bool on) { m_manualActing.store(on, std::memory_order_relaxed); }
    // Sends a DAC value to the device (the command port of the controller).
    std::function<void(int)> sendDac;
    // Moves the ASK panel's slider to a value.
    std::function<void(int)> showDac;

private:
    CDataManager& m_manager;
    std::atomic<bool> m_acquiring{false};
    std::atomic<int64_t> m_lastAskTime{0};
    std::atomic<int> m_dacValue{1700};
    std::atomic<bool> m_manualActing{false};
};
