#include "sim/FskSynth.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace qisim {

namespace {

constexpr double kTickHz = 60e6;
constexpr double kTicksPerMs = 60000.0;
constexpr double kCyclesPerWord = 16.0;
constexpr int kWordsPerBitUnit = 32;  // cycles per bit must split into whole words per half bit
constexpr uint16_t kOffWord = 0xFFFF;
constexpr uint64_t kTicksPerFrame = 300000;  // 5 ms

void CheckParams(const FskWaveParams& p) {
    if (!(p.carrierHz > 0.0) || !std::isfinite(p.driftHzPerSecond) || (p.polarity != 1 && p.polarity != -1) ||
        p.cyclesPerBit <= 0 || p.cyclesPerBit % kWordsPerBitUnit != 0 || !(p.noiseTicks >= 0.0) ||
        !std::isfinite(p.depthTicks) || p.gridOffsetCycles < 0 || p.gridOffsetCycles > 15)
        throw std::invalid_argument("FskWaveParams: carrierHz must be positive, polarity +1 or -1, "
                                    "cyclesPerBit a positive multiple of 32, noiseTicks non-negative, "
                                    "depthTicks finite, gridOffsetCycles 0..15");
}

void CheckMs(double ms) {
    if (!std::isfinite(ms)) throw std::invalid_argument("FskWaveWriter: duration must be finite");
}

}  // namespace

std::vector<uint8_t> FskPacketBits(const std::vector<uint8_t>& frame, int leadOnes) {
    std::vector<uint8_t> bits(static_cast<size_t>(std::max(leadOnes, 0)), 1);
    bits.reserve(bits.size() + 11 * frame.size());
    for (uint8_t byte : frame) {
        bits.push_back(0);
        uint8_t parity = 0;
        for (int i = 0; i < 8; ++i) {
            const uint8_t bit = (byte >> i) & 1;
            parity ^= bit;
            bits.push_back(bit);
        }
        bits.push_back(parity);  // even parity over data plus parity
        bits.push_back(1);
    }
    return bits;
}

std::vector<uint8_t> FskPatternBits(uint8_t pattern) {
    std::vector<uint8_t> bits;
    for (int i = 7; i >= 0; --i) bits.push_back((pattern >> i) & 1);
    return bits;
}

FskWaveWriter::FskWaveWriter(const FskWaveParams& params, uint32_t seed) : params_(params), rng_(seed) {
    CheckParams(params_);
}

void FskWaveWriter::SetParams(const FskWaveParams& params) {
    CheckParams(params);
    params_ = params;
}

// The operating frequency follows the elapsed time at the start of the word.
// A frequency driven to zero or below by the drift reads as the counter's limit.
void FskWaveWriter::Append(double shiftTicks) {
    const double hz = params_.carrierHz + params_.driftHzPerSecond * (static_cast<double>(ticks_) / kTickHz);
    double ticks = hz > 0.0 ? kCyclesPerWord * kTickHz / hz + shiftTicks : 65535.0;
    if (params_.noiseTicks > 0.0) ticks += params_.noiseTicks * unitNoise_(rng_);
    AppendRaw(static_cast<uint16_t>(std::clamp(std::round(ticks), 1.0, 65535.0)));
}

void FskWaveWriter::AppendRaw(uint16_t word) {
    words_.push_back(word);
    ticks_ += word;
}

void FskWaveWriter::Carrier(size_t words) {
    for (size_t i = 0; i < words; ++i) Append(0.0);
}

void FskWaveWriter::CarrierMs(double ms) {
    CheckMs(ms);
    const uint64_t start = ticks_;
    while (static_cast<double>(ticks_ - start) < ms * kTicksPerMs) Append(0.0);
}

void FskWaveWriter::OffMs(double ms) {
    CheckMs(ms);
    const uint64_t start = ticks_;
    while (static_cast<double>(ticks_ - start) < ms * kTicksPerMs) AppendRaw(kOffWord);
}

// Each half bit is a whole number of words, so every transition falls on a word
// boundary. If the last bit leaves the carrier modulated, one unmodulated word
// marks the return at the end of the bit.
size_t FskWaveWriter::Bits(const std::vector<uint8_t>& bits) {
    if (params_.randomGridOffset)
        return BitsOffGrid(bits, static_cast<int>(rng_() % 16));
    if (params_.gridOffsetCycles != 0)
        return BitsOffGrid(bits, params_.gridOffsetCycles);
    const size_t start = words_.size();
    const size_t halfWords = static_cast<size_t>(params_.cyclesPerBit) / kWordsPerBitUnit;
    const double shift = static_cast<double>(params_.polarity) * params_.depthTicks;
    bool modulated = false;
    const auto half = [&] {
        for (size_t i = 0; i < halfWords; ++i) Append(modulated ? shift : 0.0);
    };
    for (uint8_t bit : bits) {
        modulated = !modulated;
        half();
        if (bit) modulated = !modulated;
        half();
    }
    if (modulated) Append(0.0);
    return start;
}

// The modulation state of every carrier cycle from the start of the word that
// holds the first change (offset cycles of carrier first) to the end of the
// word that holds the return to carrier; each word takes the share of its 16
// cycles that are modulated.
size_t FskWaveWriter::BitsOffGrid(const std::vector<uint8_t>& bits, int offset) {
    const size_t start = words_.size();
    const size_t halfCycles = static_cast<size_t>(params_.cyclesPerBit) / 2;
    std::vector<uint8_t> cycles(static_cast<size_t>(offset), 0);
    cycles.reserve(cycles.size() + bits.size() * 2 * halfCycles + 16);
    uint8_t modulated = 0;
    for (uint8_t bit : bits) {
        modulated ^= 1;
        cycles.insert(cycles.end(), halfCycles, modulated);
        if (bit) modulated ^= 1;
        cycles.insert(cycles.end(), halfCycles, modulated);
    }
    while (cycles.size() % 16 != 0) cycles.push_back(0);
    const double shift = static_cast<double>(params_.polarity) * params_.depthTicks;
    for (size_t w = 0; w < cycles.size(); w += 16) {
        int m = 0;
        for (size_t c = w; c < w + 16; ++c) m += cycles[c];
        Append(shift * m / 16.0);
    }
    return start;
}

std::vector<uint8_t> FskStreamFrames(const std::vector<uint16_t>& words, uint32_t firstStampMs) {
    std::vector<uint8_t> out;
    out.reserve(words.size() * 2 + 8 * (words.size() / 4 + 1));
    const auto word = [&out](uint16_t w) {
        out.push_back(static_cast<uint8_t>(w & 0xFF));
        out.push_back(static_cast<uint8_t>(w >> 8));
    };
    const auto dword = [&word](uint32_t v) {
        word(static_cast<uint16_t>(v & 0xFFFF));
        word(static_cast<uint16_t>(v >> 16));
    };
    // A word belongs to frame k when its end tick lies in (k * 5 ms, (k + 1) * 5 ms];
    // zero words at tick 0 go to the first frame.
    const auto frameOf = [](uint64_t end) { return end == 0 ? 0 : (end - 1) / kTicksPerFrame; };

    uint64_t end = 0;
    size_t first = 0;
    while (first < words.size()) {
        const uint64_t frame = frameOf(end + words[first]);
        size_t last = first;
        for (; last < words.size() && frameOf(end + words[last]) == frame; ++last) end += words[last];
        dword(static_cast<uint32_t>((last - first) * 2));
        // The device clock wraps at 32 bits.
        dword(firstStampMs + static_cast<uint32_t>(end / static_cast<uint64_t>(kTicksPerMs)));
        for (size_t i = first; i < last; ++i) word(words[i]);
        first = last;
    }
    return out;
}

}  // namespace qisim
