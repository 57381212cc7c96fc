#include "sim/AskSynth.h"

#include "common/AskFrameBits.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

namespace qisim {

namespace {

constexpr double kMaxLevel = 4095.0;
constexpr size_t kSamplesPerMs = 40;

void CheckParams(const AskWaveParams& p) {
    if (!(p.samplesPerBit > 0.0) || !(p.riseSamples >= 0.0) || !(p.noiseFraction >= 0.0) ||
        !(p.jitterSamples >= 0.0) || !(p.lowPassSamples >= 0.0) || !(p.startPhase >= 0.0) || !(p.startPhase < p.samplesPerBit))
        throw std::invalid_argument("AskWaveParams: samplesPerBit must be positive, "
                                    "riseSamples, noiseFraction and jitterSamples non-negative, "
                                    "startPhase in [0, samplesPerBit)");
}

}  // namespace

int QiMessageSize(uint8_t header) {
    if (header < 0x20) return 1;
    if (header < 0x80) return 2 + (header - 0x20) / 16;
    if (header < 0xE0) return 8 + (header - 0x80) / 8;
    return 20 + (header - 0xE0) / 4;
}

std::vector<uint8_t> WithChecksum(std::vector<uint8_t> headerAndMessage) {
    uint8_t checksum = 0;
    for (uint8_t b : headerAndMessage) checksum ^= b;
    headerAndMessage.push_back(checksum);
    return headerAndMessage;
}

std::vector<uint8_t> AskPacketBits(const std::vector<uint8_t>& frame, int preambleOnes) {
    std::vector<uint8_t> bits(static_cast<size_t>(std::max(preambleOnes, 0)), 1);
    AppendAskByteBits(bits, frame);
    return bits;
}

AskWaveWriter::AskWaveWriter(const AskWaveParams& params, uint32_t seed) : params_(params), rng_(seed) {
    CheckParams(params_);
}

void AskWaveWriter::SetParams(const AskWaveParams& params) {
    CheckParams(params);
    params_ = params;
}

double AskWaveWriter::Jitter() {
    const double j = params_.jitterSamples;
    return j > 0.0 ? std::uniform_real_distribution<double>(-j, j)(rng_) : 0.0;
}

void AskWaveWriter::Append(double level) {
    // The low-pass follows the envelope all along, so that switching it on
    // starts from the level the envelope had.
    if (params_.lowPassSamples > 0.0 && filterPrimed_) {
        filtered_ += (level - filtered_) * (1.0 - std::exp(-1.0 / params_.lowPassSamples));
        level = filtered_;
    } else {
        filtered_ = level;
    }
    filterPrimed_ = true;
    const double sigma = params_.noiseFraction * std::abs(params_.swing);
    if (sigma > 0.0) level += sigma * unitNoise_(rng_);
    samples_.push_back(static_cast<uint16_t>(std::clamp(std::round(level), 0.0, kMaxLevel)));
}

void AskWaveWriter::Idle(size_t samples) {
    for (size_t i = 0; i < samples; ++i) Append(params_.idleLevel);
}

size_t AskWaveWriter::Packet(const std::vector<uint8_t>& frame, int preambleOnes) {
    return Bits(AskPacketBits(frame, preambleOnes));
}

// Edge times are kept relative to the packet start (the current end of the
// sample vector) as doubles. Each transition is a linear ramp that begins at its
// edge time and lasts riseSamples; the envelope is the idle level plus the sum of
// all ramps (alternately +swing and -swing), so ramps that overlap simply add up.
size_t AskWaveWriter::Bits(const std::vector<uint8_t>& bits) {
    const size_t start = samples_.size();
    if (bits.empty()) return start;

    const double spb = params_.samplesPerBit;
    const double phase = params_.startPhase;
    std::vector<double> nominal;
    for (size_t k = 0; k < bits.size(); ++k) {
        nominal.push_back(phase + k * spb);
        if (bits[k]) nominal.push_back(phase + k * spb + spb / 2);
    }
    const double bitsEnd = phase + bits.size() * spb;
    if (nominal.size() % 2 == 1) nominal.push_back(bitsEnd);  // back to idle at the end of the last bit

    // Every edge stays inside its own cell: between the midpoints to its nominal
    // neighbours, less half a sample on each side (a quarter of the gap for gaps
    // under two samples). So jitter never swaps two edges, neighbouring edges stay
    // at least a sample apart, and the first edge never precedes the packet start.
    const size_t count = nominal.size();
    const auto margin = [](double gap) { return std::min(0.5, gap / 4); };
    std::vector<double> edges(count);
    for (size_t i = 0; i < count; ++i) {
        const double lo = i == 0 ? phase
                                 : (nominal[i - 1] + nominal[i]) / 2 + margin(nominal[i] - nominal[i - 1]);
        const double hi = i + 1 < count ? (nominal[i] + nominal[i + 1]) / 2 - margin(nominal[i + 1] - nominal[i])
                                        : std::numeric_limits<double>::infinity();
        edges[i] = std::clamp(nominal[i] + Jitter(), lo, hi);
    }

    const double rise = params_.riseSamples;
    const auto delta = [this](size_t i) { return i % 2 == 0 ? params_.swing : -params_.swing; };
    const auto last = static_cast<size_t>(std::ceil(std::max(bitsEnd, edges.back() + rise)));

    size_t settled = 0;  // edges whose ramps are complete at the current sample
    double settledLevel = params_.idleLevel;
    for (size_t n = 0; n <= last; ++n) {
        const double t = static_cast<double>(n);
        for (; settled < count && t >= edges[settled] + rise; ++settled) settledLevel += delta(settled);
        double level = settledLevel;
        // Ramps under way (only with rise > 0: a step is settled as soon as t reaches it).
        for (size_t i = settled; i < count && edges[i] <= t; ++i) level += delta(i) * (t - edges[i]) / rise;
        Append(level);
    }
    return start;
}

std::vector<uint16_t> AskWaveWriter::TakeSamples() {
    std::vector<uint16_t> out = std::move(samples_);
    samples_.clear();
    return out;
}

std::vector<uint8_t> AskStreamFrames(const std::vector<uint16_t>& samples, size_t samplesPerFrame,
                                     uint32_t firstStampMs) {
    if (samplesPerFrame == 0) throw std::invalid_argument("AskStreamFrames: samplesPerFrame must be positive");
    std::vector<uint8_t> out;
    const size_t frames = (samples.size() + samplesPerFrame - 1) / samplesPerFrame;
    out.reserve(frames * 8 + samples.size() * 2);
    const auto word = [&out](uint16_t w) {
        out.push_back(static_cast<uint8_t>(w & 0xFF));
        out.push_back(static_cast<uint8_t>(w >> 8));
    };
    const auto dword = [&word](uint32_t v) {
        word(static_cast<uint16_t>(v & 0xFFFF));
        word(static_cast<uint16_t>(v >> 16));
    };
    for (size_t k = 0; k < frames; ++k) {
        const size_t first = k * samplesPerFrame;
        const size_t n = std::min(samplesPerFrame, samples.size() - first);
        dword(static_cast<uint32_t>(n * 2));
        // The device clock wraps at 32 bits.
        dword(firstStampMs + static_cast<uint32_t>(static_cast<uint64_t>(k) * samplesPerFrame / kSamplesPerMs));
        for (size_t i = first; i < first + n; ++i) word(samples[i]);
    }
    return out;
}

std::vector<std::vector<uint8_t>> CutChunks(const std::vector<uint8_t>& bytes, size_t chunkSize) {
    if (chunkSize == 0) throw std::invalid_argument("CutChunks: chunkSize must be positive");
    std::vector<std::vector<uint8_t>> chunks;
    for (size_t pos = 0; pos < bytes.size(); pos += chunkSize) {
        const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(pos);
        chunks.emplace_back(from, from + static_cast<std::ptrdiff_t>(std::min(chunkSize, bytes.size() - pos)));
    }
    return chunks;
}

}  // namespace qisim
