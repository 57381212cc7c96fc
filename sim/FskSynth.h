// Synthesis of the transmitter side of a Qi link as the sniffer's FSK port sees
// it: every word is the duration of 16 carrier cycles in ticks of a 60 MHz
// clock (a word w means 960000000 / w hertz). Carrier, digital pings, FSK
// packets and single-byte response patterns, and the device's stream frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace qisim {

// Bits of one transmitter packet: leadOnes ones, then per byte a start bit 0,
// eight data bits least significant first, a parity bit equal to the XOR of
// the eight data bits, and a stop bit 1.
std::vector<uint8_t> FskPacketBits(const std::vector<uint8_t>& frame, int leadOnes);

// The eight bits of a response pattern, most significant first.
std::vector<uint8_t> FskPatternBits(uint8_t pattern);

struct FskWaveParams {
    double carrierHz = 128000.0;   // operating frequency while not modulating
    double driftHzPerSecond = 0.0; // slow drift of the operating frequency
    double depthTicks = 60;        // period shift of a modulated word, in ticks per 16 cycles
    int polarity = 1;              // +1: modulated words are longer by depthTicks; -1: shorter
    int cyclesPerBit = 512;        // 512 or 128 carrier cycles a bit (32 or 8 words)
    double noiseTicks = 0.0;       // standard deviation of gaussian noise added to each word
    // Where a packet's bits lie on the 16-cycle grid of the words: a packet
    // begins this many carrier cycles (0..15) into a word, so that the
    // modulation changes inside words; with randomGridOffset each packet takes
    // its own offset from the writer's generator.
    int gridOffsetCycles = 0;
    bool randomGridOffset = false;
};

// Period shift of a word, in ticks per 16 cycles, for a modulation depth given
// as the change of one carrier cycle's period in nanoseconds (16 cycles of a
// 60 MHz clock: 0.96 ticks a nanosecond).
inline double FskDepthTicks(double depthNs) { return depthNs * 0.96; }

class FskWaveWriter {
public:
    explicit FskWaveWriter(const FskWaveParams& params, uint32_t seed = 1);

    void SetParams(const FskWaveParams& params);
    const FskWaveParams& Params() const { return params_; }

    // Unmodulated carrier for this many words, or for this many milliseconds.
    void Carrier(size_t words);
    void CarrierMs(double ms);
    // No carrier for this many milliseconds: the device then reports words of
    // 0xFFFF (its counter's limit) so that time keeps running.
    void OffMs(double ms);
    // A digital ping: carrier for `ms` milliseconds between two silences that
    // are not written here.
    void PingMs(double ms) { CarrierMs(ms); }

    // Differential bi-phase of the bits on the carrier: the modulation state
    // toggles at every bit boundary and, for a one, at half the bit. The state
    // returns to unmodulated after the last bit. Returns the index of the
    // first word of the packet. With a grid offset, the words are made cycle
    // by cycle: a word that holds a change of state is the mix of the two
    // periods in the proportion of its cycles.
    size_t Bits(const std::vector<uint8_t>& bits);
    size_t Packet(const std::vector<uint8_t>& frame, int leadOnes) { return Bits(FskPacketBits(frame, leadOnes)); }
    size_t Pattern(uint8_t pattern) { return Bits(FskPatternBits(pattern)); }

    const std::vector<uint16_t>& Words() const { return words_; }
    // Elapsed time of all words so far, in 60 MHz ticks.
    uint64_t Ticks() const { return ticks_; }

private:
    // Appends one word: the unmodulated period at the current elapsed time plus
    // shiftTicks and noise, rounded and clamped to 1..65535.
    void Append(double shiftTicks);
    // Appends a word as it is.
    void AppendRaw(uint16_t word);
    size_t BitsOffGrid(const std::vector<uint8_t>& bits, int offset);

    FskWaveParams params_;
    std::mt19937 rng_;
    std::normal_distribution<double> unitNoise_{0.0, 1.0};
    std::vector<uint16_t> words_;
    uint64_t ticks_ = 0;
};

// Wraps words into the device's FSK stream frames, one frame per 5 ms of
// stream time: payload length in bytes (unsigned 32 bits, low word first), the
// device's millisecond time stamp at the end of the frame's data (unsigned 32
// bits, low word first), then the words; every word little-endian. A frame
// holds the words that end within its 5 ms; the stamp is the elapsed ticks at
// its last word divided by 60000, plus firstStampMs.
std::vector<uint8_t> FskStreamFrames(const std::vector<uint16_t>& words, uint32_t firstStampMs = 0);

}  // namespace qisim
