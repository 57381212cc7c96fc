// A second reader of the transmitter's FSK, independent of the carrier
// tracker, the packet detector and the FSK frame decoder: it reads every
// period word the FSK stream parser delivers, in capture order, and gives back
// the packets whose start bits, parity bits, stop bits, length and checksum
// all hold, and the one-byte response patterns.
//
// (The method and the reasons for it are described in FskWireReader.cpp.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// One packet or response pattern read off the period words.
struct FskWireFrame {
    std::vector<uint8_t> bytes;  // header, message bytes, checksum; or the pattern's byte
    bool pattern = false;        // a one-byte response pattern
    uint8_t patternBits = 0;     // the pattern's eight bits as sent, first bit highest
    int64_t startTicks = 0;      // capture time of the first change of the modulation, 60 MHz ticks
    int64_t endTicks = 0;        // end of the last bit
    int cyclesPerBit = 0;        // 512 or 128
    int leadOnes = 0;            // ones before the header's start bit
    int32_t carrierPeriod = 0;   // unmodulated word, ticks per 16 cycles
    int32_t modulatedPeriod = 0; // modulated word
    int polarity = 0;            // +1: modulated words are longer (lower frequency); -1 shorter
};

class FskWireReader {
public:
    // The carrier is looked for within this band (its edges included).
    explicit FskWireReader(int32_t minFreqHz = 110000, int32_t maxFreqHz = 210000);

    // One period word and the capture time at its end (60 MHz ticks), as the
    // stream parser gives them. Times may step a little at frame boundaries;
    // a time more than 10 ms behind the previous one is a new capture and
    // drops any packet in progress.
    void Feed(uint16_t word, int64_t ticks);
    void Feed(const uint16_t* words, const int64_t* ticks, size_t n);

    // The packets and patterns finished since the last call, oldest first.
    std::vector<FskWireFrame> Take();
    bool HasFrames() const { return !out_.empty(); }

    // Every packet that begins before this capture time (ticks) has been given
    // out by Take or will never be: the reader has looked past it.
    int64_t SettledThrough() const { return settled_; }

    // Forgets everything, as at the start of a capture.
    void Reset();

    // The byte the pattern table names for eight bits as sent: the ND pattern
    // (01010101) is named by 0xBB, the others by their own bits. Bits that are
    // no response pattern give false.
    static bool PatternByte(uint8_t bits, uint8_t& byte);
    // Number of message bytes behind a header by the Qi length rule.
    static int MessageSize(uint8_t header);

    // Ticks per 16-cycle word at the band's edges (with the rounding of the
    // word allowed for).
    int32_t MinCarrierPeriod() const { return minPeriod_; }
    int32_t MaxCarrierPeriod() const { return maxPeriod_; }

private:
    enum class State { NoCarrier, Carrier, Packet };
    static constexpr int kRing = 16;

    void NoCarrierWord(uint64_t k);
    void CarrierWord(int32_t w, uint64_t k);
    void PacketWord(int32_t w, uint64_t k);
    void StartPacket(uint64_t k);
    void Transition(double position, uint64_t k);
    void Finish(uint64_t k);
    void Fail();
    void LoseCarrier();
    void Release(uint64_t k);
    void Settle(int64_t ticks);
    int64_t StartTicks(uint64_t j) const;
    bool Decode(const std::vector<uint8_t>& bits, FskWireFrame& frame) const;
    int64_t TicksAt(double cycle, uint64_t k) const;
    int32_t W(uint64_t k) const { return words_[k % kRing]; }
    int64_t EndTicks(uint64_t k) const { return ends_[k % kRing]; }

    int32_t minPeriod_, maxPeriod_;
    State state_ = State::NoCarrier;
    uint64_t count_ = 0;      // words since the reset; word k spans cycles 16k to 16k + 16
    uint64_t fresh_ = 0;      // words since the carrier was lost
    int32_t words_[kRing] = {};
    int64_t ends_[kRing] = {};
    int64_t lastTicks_ = 0;
    int64_t settled_ = 0;

    // The carrier between packets: period and mean deviation of its words.
    double carrier_ = 0.0;
    double deviation_ = 0.0;
    int departs_ = 0;         // consecutive words beyond the threshold, on one side
    int departSign_ = 0;
    uint64_t departFirst_ = 0;
    int quiet_ = 0;           // carrier words in a row, counted up to the number needed
    int quietBefore_ = 0;     // ... before the departure under way

    // Across a packet: the two levels and the slicer.
    double level0_ = 0.0, level1_ = 0.0, scale_ = 0.0;
    double f_[kRing] = {};    // share of each recent word's cycles that were modulated
    bool high_ = false;       // slicer state: modulated
    bool pending_ = false;    // a change seen at word pendingWord_, placed one word later
    bool pendingRising_ = false;
    uint64_t pendingWord_ = 0;
    uint64_t packetFirst_ = 0;  // first departing word
    int transitions_ = 0;
    double lastCycle_ = 0.0;  // cycle of the newest change
    int64_t startTicks_ = 0, lastChangeTicks_ = 0;
    double half_ = 0.0;       // half a bit in cycles, once known
    double origin_ = 0.0;     // cycle of the first change
    double offset_ = 0.0;     // mean offset of the changes from the grid of half bits
    long lastHalf_ = 0;       // grid line of the newest change
    bool halfPending_ = false;
    std::vector<uint8_t> bits_;
    // A frame read, given out once the carrier has stayed quiet after it.
    bool held_ = false;
    FskWireFrame heldFrame_;

    std::vector<FskWireFrame> out_;
};
