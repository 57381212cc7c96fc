// Synthesis of the receiver-to-transmitter (ASK) side of a Qi link as the sniffer
// sees it: Qi bytes become a bit stream, the bit stream a differential bi-phase
// envelope sampled at 40 kHz, and the envelope the device's stream frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace qisim {

// Number of message bytes behind a header by the Qi length rule.
int QiMessageSize(uint8_t header);

// Header plus message bytes with the XOR checksum appended.
std::vector<uint8_t> WithChecksum(std::vector<uint8_t> headerAndMessage);

// The bits of one packet in the order they are sent: preambleOnes ones, then for
// each byte a start bit 0, eight data bits least significant first, an odd
// parity bit and a stop bit 1. Each entry is 0 or 1.
std::vector<uint8_t> AskPacketBits(const std::vector<uint8_t>& frame, int preambleOnes);

struct AskWaveParams {
    double samplesPerBit = 20.0;  // full bit width in 40 kHz samples (20 = 2 kHz)
    int idleLevel = 1000;         // envelope while the receiver does not modulate
    int swing = 1500;             // modulated level = idleLevel + swing (may be negative)
    double riseSamples = 2.0;     // duration of a transition, 0 % to 100 %, in samples
    double noiseFraction = 0.0;   // standard deviation of additive noise as a fraction of |swing|
    double jitterSamples = 0.0;   // every edge moves by a uniform amount in [-j, +j] samples
    // Where the packet's first transition lies after the first sample of the
    // packet, in samples (0 <= phase < samplesPerBit): every edge moves by it,
    // so that packets can start anywhere between two samples. With
    // riseSamples 0 the envelope is square: a transition at time t takes
    // effect at the first sample at or after t.
    double startPhase = 0.0;
    // Time constant of a first-order low-pass (the receiver's and the
    // sniffer's front end) applied to the envelope before the noise, in
    // samples; 0 leaves the envelope as built.
    double lowPassSamples = 0.0;
};

// Builds an envelope sample series packet by packet. Levels are clamped to the
// 12-bit range 0..4095.
class AskWaveWriter {
public:
    explicit AskWaveWriter(const AskWaveParams& params, uint32_t seed = 1);

    void SetParams(const AskWaveParams& params);
    const AskWaveParams& Params() const { return params_; }

    // Unmodulated envelope for the given number of samples.
    void Idle(size_t samples);

    // One packet: AskPacketBits(frame, preambleOnes) in differential bi-phase.
    // Every bit begins with a transition and a one has a second one at half
    // the bit; after the last bit the envelope returns to the idle level.
    // Returns the sample index at which the packet's first transition lies.
    size_t Packet(const std::vector<uint8_t>& frame, int preambleOnes);

    // Same, for an arbitrary bit list (entries 0 or 1).
    size_t Bits(const std::vector<uint8_t>& bits);

    const std::vector<uint16_t>& Samples() const { return samples_; }
    std::vector<uint16_t> TakeSamples();

private:
    // Uniform edge displacement in [-jitterSamples, +jitterSamples].
    double Jitter();
    // Appends one sample of the given envelope level plus noise, rounded and clamped.
    void Append(double level);

    AskWaveParams params_;
    std::mt19937 rng_;
    std::normal_distribution<double> unitNoise_{0.0, 1.0};
    double filtered_ = 0.0;  // output of the low-pass
    bool filterPrimed_ = false;
    std::vector<uint16_t> samples_;
};

// Wraps samples into the device's ASK stream frames: payload length in bytes as
// an unsigned 32-bit value (low word first), a 32-bit millisecond stamp (low word
// first), then the sample words; every word little-endian. A frame holds
// samplesPerFrame samples (the last one may hold fewer); the stamp of frame k is
// firstStampMs + k * samplesPerFrame / 40.
std::vector<uint8_t> AskStreamFrames(const std::vector<uint16_t>& samples,
                                     size_t samplesPerFrame = 200,
                                     uint32_t firstStampMs = 0);

// Cuts a byte stream into chunks of chunkSize bytes; the last one may be shorter.
std::vector<std::vector<uint8_t>> CutChunks(const std::vector<uint8_t>& bytes, size_t chunkSize);

}  // namespace qisim
