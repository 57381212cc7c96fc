// The ASK frame decoder: finds bit period and preamble in a burst of pulses and
// decodes bytes as a list of scored hypotheses, forking where two readings tie.
// The Qi checksum picks the survivor.
#pragma once

#include "common/TriggerData.h"
#include "packets/Packets.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

// One hypothesis: a byte assembler fed bit by bit.
struct RecvDec {
    int32_t state = 1;  // 1 waits for a start bit, 2..9 data bits, 10 parity, 11 stop
    uint8_t current = 0;
    uint8_t bytes[1024] = {};
    uint8_t length = 0;
    uint8_t parity = 0;  // running XOR of the data bits; never compared here
    int64_t ones = 0;
    // The FSK side keeps a byte only when its parity bit equals the XOR of its
    // data bits; the ASK side never looks at the parity bit.
    bool checkParity = false;

    void Bit(int b);
    // More than two bytes, and the XOR of all but the last equals the last.
    bool ChecksumHolds() const;
};

class CDataFilter {
public:
    struct TableEntry {
        int64_t duration = -1;  // working duration, rewritten by the timing correction
        int64_t pristine = -1;
        uint8_t level = 0;
        int64_t mark = -1;
    };
    static constexpr size_t kTableSize = 1000;

    CDataFilter();

    // Decodes one burst. Returns the byte count of the frame taken, 0 for none.
    int DecodeBurst(const std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst,
                    uint64_t frequency, int flag);

    // Emits the candidates of the last successful attempt; see the source.
    int SyncHeadEnd(const std::shared_ptr<TriggerData>& burst, int start, uint64_t frequency);

    // Pops the oldest frame, or null.
    std::shared_ptr<CMsgData> TakeFrame();
    // Queues a frame decoded elsewhere (a recorded one, for instance).
    void PutFrame(std::shared_ptr<CMsgData> frame);

    void Reset() { m_phase.store(0, std::memory_order_relaxed); }
    void Clear();

    // Preamble search over the pulse table; the index one pulse before the last
    // half bit of the preamble, or a negative number.
    int PreambleSearch() const;
    // One decoding attempt from a start index with correction limit c.
    bool TryDecode(int start, int c);
    // Phase after a frame with this header (or system code) in the given phase.
    static int PhaseFor(int code, int phase);

    // Completes a frame from a hypothesis's bytes.
    static std::shared_ptr<CMsgData> CompleteFrame(const RecvDec& dec, const std::shared_ptr<TriggerData>& burst,
                                                   int start, uint64_t frequency, bool good);

    int Phase() const { return m_phase.load(std::memory_order_relaxed); }
    void SetPhase(int phase) { m_phase.store(phase, std::memory_order_relaxed); }
    double BitPeriod() const { return m_bitPeriod; }
    int64_t FailedBursts() const { return m_failed.load(std::memory_order_relaxed); }
    int64_t DecodedFrames() const { return m_decoded.load(std::memory_order_relaxed); }
    void SetDecodedFrames(int64_t n) { m_decoded.store(n, std::memory_order_relaxed); }
    void ResetCounters()
    {
        m_failed.store(0, std::memory_order_relaxed);
        m_decoded.store(0, std::memory_order_relaxed);
    }
    size_t PendingFrames();

    // Loads durations into the table directly (pristine and working), for a
    // decoding attempt without a burst.
    void LoadDurations(const std::vector<int64_t>& durations, double bitPeriod);
    std::vector<std::shared_ptr<RecvDec>>& Hypotheses() { return m_hypotheses; }

private:
    void ResetTable();
    void Feed(int b);
    void Fork(int first0, int first1, int clone0, int clone1);

    double m_bitPeriod = 20.0;
    // Written on the ASK decoding thread, read on the interface thread.
    std::atomic<int> m_phase{0};
    std::array<TableEntry, kTableSize> m_table;
    int m_count = 0;
    std::mutex m_mutex;
    std::list<std::shared_ptr<CMsgData>> m_output;
    std::vector<std::shared_ptr<RecvDec>> m_hypotheses;
    std::atomic<int64_t> m_failed{0};
    std::atomic<int64_t> m_decoded{0};
};
