// The transmitter-to-receiver frame decoder: level changes of one FSK packet
// become pulses, the pulses a one-byte response pattern or a frame whose
// bytes pass the parity check. Frames and patterns wait in an output list.
#pragma once

#include "common/TriggerData.h"
#include "decode/DataFilter.h"
#include "packets/Packets.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

// The byte assembler of the FSK side: as the ASK one, but a byte is kept only
// when its parity bit equals the XOR of its data bits.
struct FskAssembler : RecvDec {
    FskAssembler() { checkParity = true; }
    void Reset() { *this = FskAssembler(); }
};

// The level slicer: the mean of the four words before each word, compared with
// the packet's two periods; a change is noted where the nearer one changes.
// Duration and mark of each change are its word index.
std::vector<PulseRecord> SliceLevels(const TriggerData& packet);

class FskFrameDecoder {
public:
    FskFrameDecoder();

    // Decodes the level changes of one packet with the carrier frequency in Hz.
    // Two decoding threads may call this at once; they take turns.
    void DecodeBurst(const std::vector<PulseRecord>& changes, const std::shared_ptr<TriggerData>& packet,
                     uint64_t frequency);

    // Appends a finished frame (a packet, or a pattern with `pattern` 1).
    void Emit(std::shared_ptr<CMsgData> frame);
    // Pops the oldest frame, or null.
    std::shared_ptr<CMsgData> TakeFrame();
    void Clear();

    double BitPeriod() const { return m_bitPeriod; }
    int64_t ErrorFrames() const { return m_errors.load(std::memory_order_relaxed); }
    int64_t GoodFrames() const { return m_good.load(std::memory_order_relaxed); }
    int LastHeader() const { return m_lastHeader; }
    int64_t HeaderRepeats() const { return m_headerRepeats; }

    // The two decoders of a pulse list from index i (the table is loaded by
    // DecodeBurst; tests load it with LoadDurations).
    void DecodePattern(int i, const std::shared_ptr<TriggerData>& packet, uint64_t frequency);
    void DecodeFrame(int i, const std::shared_ptr<TriggerData>& packet, uint64_t frequency);
    void LoadDurations(const std::vector<int64_t>& durations, double bitPeriod);
    const FskAssembler& Assembler() const { return m_assembler; }

private:
    void ResetTable();
    int64_t D(int i) const { return m_table[static_cast<size_t>(i)]; }
    std::shared_ptr<CMsgData> Complete(const uint8_t* bytes, size_t n, const std::shared_ptr<TriggerData>& packet,
                                       uint64_t frequency, bool good);

    std::mutex m_decodeMutex;  // the two decoding threads take turns
    double m_bitPeriod = 32.0;
    double m_lastPosition = 0.0;
    std::array<int64_t, 1000> m_table;
    std::array<uint8_t, 1000> m_levels;
    int m_count = 0;
    std::mutex m_mutex;
    std::list<std::shared_ptr<CMsgData>> m_output;
    FskAssembler m_assembler;
    std::atomic<int64_t> m_errors{0};
    std::atomic<int64_t> m_good{0};
    int m_lastHeader = -1;
    int64_t m_headerRepeats = 0;
};
