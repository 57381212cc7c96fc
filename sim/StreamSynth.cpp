#include "sim/StreamSynth.h"

#include "sim/FskSynth.h"

#include <algorithm>
#include <cmath>

namespace coilsim {

namespace {

using Kind = ScriptStep::Kind;

// Long steps are synthesized in pieces of at most this much stream time.
constexpr uint64_t kChunkTicks = 50 * kTicksPerMs;

uint64_t MsToTicks(double ms) {
    return ms <= 0.0 ? 0 : static_cast<uint64_t>(std::llround(ms * static_cast<double>(kTicksPerMs)));
}

void PutWord(std::vector<uint8_t>& out, uint16_t w) {
    out.push_back(static_cast<uint8_t>(w & 0xFF));
    out.push_back(static_cast<uint8_t>(w >> 8));
}

void PutDword(std::vector<uint8_t>& out, uint32_t v) {
    PutWord(out, static_cast<uint16_t>(v & 0xFFFF));
    PutWord(out, static_cast<uint16_t>(v >> 16));
}

}  // namespace

int SwingForDac(int32_t dac) {
    const int most = kAskMaxLevel - kAskIdleLevel;
    if (dac <= 0) return most;
    const double swing = 3000.0 * static_cast<double>(kDefaultDac) / static_cast<double>(dac);
    return static_cast<int>(std::clamp(std::round(swing), 0.0, static_cast<double>(most)));
}

StreamSynth::StreamSynth(SessionScript script, const SynthOptions& options)
    : script_(std::move(script)),
      options_(options),
      ask_(AskParams(), options.seed),
      preambleRng_(options.seed ^ 0x5A17u) {}

qisim::AskWaveParams StreamSynth::AskParams() const {
    qisim::AskWaveParams p;
    p.samplesPerBit = bitRateHz_ > 0.0 ? 40000.0 / bitRateHz_ : kAskSamplesPerBit;
    p.idleLevel = kAskIdleLevel;
    p.swing = SwingForDac(dac_);
    p.riseSamples = 2.0;
    p.noiseFraction = options_.noise ? 0.02 : 0.0;
    p.jitterSamples = options_.noise ? 1.0 : 0.0;
    return p;
}

void StreamSynth::SetDac(int32_t dac) {
    dac_ = dac;
    ask_.SetParams(AskParams());
}

uint32_t StreamSynth::NextFskSeed() {
    // A fresh FSK writer per piece, each with its own noise.
    return options_.seed * 2654435761u + 0x9E3779B9u * ++fskChunks_;
}

void StreamSynth::AppendWords(const std::vector<uint16_t>& words) {
    for (uint16_t w : words) {
        fskBuffer_.push_back(w);
        fskTicks_ += w;
    }
}

void StreamSynth::PadAsk(uint64_t ticks) {
    const uint64_t samples = (ticks + kTicksPerSample - 1) / kTicksPerSample;
    if (samples <= askSamples_) return;
    ask_.Idle(static_cast<size_t>(samples - askSamples_));
    for (uint16_t s : ask_.TakeSamples()) askBuffer_.push_back(s);
    askSamples_ = samples;
}

void StreamSynth::PadFsk(uint64_t ticks) {
    while (fskTicks_ < ticks) {
        const uint64_t piece = std::min(ticks - fskTicks_, kChunkTicks);
        qisim::FskWaveParams p;
        p.carrierHz = carrierHz_;
        p.depthTicks = kFskDepthTicks;
        p.polarity = kFskPolarity;
        p.cyclesPerBit = kFskCyclesPerBit;
        p.noiseTicks = options_.noise ? 1.0 : 0.0;
        qisim::FskWaveWriter w(p, NextFskSeed());
        const double ms = static_cast<double>(piece) / static_cast<double>(kTicksPerMs);
        if (carrierOn_)
            w.CarrierMs(ms);
        else
            w.OffMs(ms);
        AppendWords(w.Words());
    }
}

void StreamSynth::PlayAsk(const std::vector<uint8_t>& bytes) {
    int preamble = preamble_;
    if (preamble <= 0) preamble = std::uniform_int_distribution<int>(11, 16)(preambleRng_);
    ScriptedPacket packet;
    packet.bytes = qisim::WithChecksum(bytes);
    const size_t first = ask_.Packet(packet.bytes, preamble);
    const std::vector<uint16_t> samples = ask_.TakeSamples();
    packet.startUs = (askSamples_ + first) * 25;
    for (uint16_t s : samples) askBuffer_.push_back(s);
    askSamples_ += samples.size();
    packet.endUs = askSamples_ * 25;
    packets_.push_back(std::move(packet));
    cursor_ = std::max(cursor_, askSamples_ * kTicksPerSample);
    PadFsk(cursor_);
}

void StreamSynth::PlayFsk(const ScriptStep& step) {
    // A transmitter that talks has its carrier on.
    carrierOn_ = true;
    qisim::FskWaveParams p;
    p.carrierHz = carrierHz_;
    p.depthTicks = kFskDepthTicks;
    p.polarity = kFskPolarity;
    p.cyclesPerBit = kFskCyclesPerBit;
    p.noiseTicks = options_.noise ? 1.0 : 0.0;
    qisim::FskWaveWriter w(p, NextFskSeed());
    ScriptedPacket packet;
    packet.fsk = true;
    if (step.kind == Kind::Pattern) {
        packet.pattern = true;
        packet.bytes = step.bytes;
        w.Pattern(step.bytes.at(0));
    } else {
        packet.bytes = qisim::WithChecksum(step.bytes);
        w.Packet(packet.bytes, 0);  // no lead ones before the start bit
    }
    packet.startUs = fskTicks_ / 60;
    AppendWords(w.Words());
    packet.endUs = fskTicks_ / 60;
    packets_.push_back(std::move(packet));
    cursor_ = std::max(cursor_, fskTicks_);
    PadAsk(cursor_);
}

// One piece of work: a packet, or a piece of at most 50 ms of a step that
// takes time.
void StreamSynth::Advance() {
    if (!active_) {
        ScriptStep step;
        if (!script_.Next(step)) {
            // The script has ended: the link stays as it is.
            ended_ = true;
            step = ScriptStep();
            step.kind = Kind::Wait;
            step.ms = 50;
        }
        switch (step.kind) {
        case Kind::Ask:
            PlayAsk(step.bytes);
            return;
        case Kind::Fsk:
        case Kind::Pattern:
            PlayFsk(step);
            return;
        case Kind::Preamble:
            preamble_ = step.preamble;
            return;
        case Kind::BitRate:
            bitRateHz_ = step.hz;
            ask_.SetParams(AskParams());
            return;
        case Kind::Repeat:
            return;  // followed by the script itself
        case Kind::Ping:
        case Kind::Carrier:
            carrierOn_ = true;
            if (step.hz > 0.0) carrierHz_ = step.hz;
            break;
        case Kind::Off:
            carrierOn_ = false;
            break;
        case Kind::Wait:
            break;
        }
        active_ = true;
        activeIsPing_ = step.kind == Kind::Ping;
        activeEnd_ = cursor_ + MsToTicks(step.ms);
    }
    const uint64_t end = std::min(activeEnd_, cursor_ + kChunkTicks);
    PadAsk(end);
    PadFsk(end);
    cursor_ = end;
    if (cursor_ >= activeEnd_) {
        active_ = false;
        if (activeIsPing_) carrierOn_ = false;
    }
}

void StreamSynth::Fill(uint64_t ticks) {
    // Every Advance either plays a packet or moves the cursor on, except for
    // steps that take no time; Parse makes sure that a repeated script has a
    // step that takes time.
    while (askSamples_ * kTicksPerSample < ticks || fskTicks_ < ticks) Advance();
}

void StreamSynth::AppendUntil(uint64_t streamUs, std::vector<uint8_t>& ask, std::vector<uint8_t>& fsk) {
    std::vector<uint8_t> a, f;
    while (StreamUs() < streamUs) {
        NextFrames(a, f);
        ask.insert(ask.end(), a.begin(), a.end());
        fsk.insert(fsk.end(), f.begin(), f.end());
    }
}

void StreamSynth::NextFrames(std::vector<uint8_t>& askFrame, std::vector<uint8_t>& fskFrame) {
    const uint64_t boundary = (frames_ + 1) * kTicksPerFrame;
    Fill(boundary);

    // ASK: the next 200 samples, stamped with the frame's start in ms.
    std::vector<uint16_t> samples(askBuffer_.begin(), askBuffer_.begin() + kAskSamplesPerFrame);
    askBuffer_.erase(askBuffer_.begin(), askBuffer_.begin() + kAskSamplesPerFrame);
    askFrame = qisim::AskStreamFrames(samples, kAskSamplesPerFrame, StampMs(frames_ * 5));

    // FSK: the words that end within this frame's 5 ms, stamped with the ms
    // at the end of the last of them (the same framing as FskStreamFrames).
    size_t count = 0;
    uint64_t end = fskBufferStart_;
    while (count < fskBuffer_.size() && end + fskBuffer_[count] <= boundary) end += fskBuffer_[count++];
    fskFrame.clear();
    fskFrame.reserve(8 + 2 * count);
    PutDword(fskFrame, static_cast<uint32_t>(count * 2));
    PutDword(fskFrame, StampMs(end / kTicksPerMs));
    for (size_t i = 0; i < count; ++i) PutWord(fskFrame, fskBuffer_[i]);
    fskBuffer_.erase(fskBuffer_.begin(), fskBuffer_.begin() + static_cast<std::ptrdiff_t>(count));
    fskBufferStart_ = end;
    ++frames_;
}

std::vector<ScriptedPacket> StreamSynth::TakeStartedPackets() {
    std::vector<ScriptedPacket> out;
    const uint64_t now = StreamUs();
    while (!packets_.empty() && packets_.front().startUs < now) {
        out.push_back(std::move(packets_.front()));
        packets_.pop_front();
    }
    return out;
}

}  // namespace coilsim
