// Plays a session script into the sniffer's two streams, one 5 ms frame of
// each at a time: the ASK envelope (200 samples a frame at 40 kHz) and the FSK
// period words (the words that end within the frame's 5 ms). The signal is
// synthesized step by step just ahead of the frames, so memory stays bounded
// however long a session runs.
#pragma once

#include "sim/AskSynth.h"
#include "sim/SessionScript.h"

#include <cstdint>
#include <deque>
#include <vector>

namespace coilsim {

// One packet as the script played it, for the record of what was sent.
struct ScriptedPacket {
    bool fsk = false;      // transmitter to receiver
    bool pattern = false;  // a one-byte response pattern
    std::vector<uint8_t> bytes;  // as sent, checksum included
    uint64_t startUs = 0;  // stream time of its first transition
    uint64_t endUs = 0;    // stream time at its end
};

struct SynthOptions {
    uint32_t seed = 1;
    bool noise = false;  // 2 % envelope noise, 1 sample edge jitter, 1 tick FSK noise
};

// Signal conventions of the streams.
constexpr int kAskSamplesPerFrame = 200;
constexpr uint64_t kTicksPerSample = 1500;     // 25 us at 60 MHz
constexpr uint64_t kTicksPerFrame = 300000;    // 5 ms
constexpr uint64_t kTicksPerMs = 60000;
constexpr int kAskIdleLevel = 600;
constexpr int kAskMaxLevel = 4095;
constexpr double kAskSamplesPerBit = 20.0;     // 2 kHz
constexpr int kFskDepthTicks = 60;
constexpr int kFskPolarity = -1;               // modulated periods are shorter
constexpr int kFskCyclesPerBit = 512;
constexpr int32_t kDefaultDac = 1700;

// The envelope's swing for a DAC value. The host's automatic level raises the
// DAC when the swing is too large and lowers it when it is too small, so the
// swing falls as the DAC rises: 3000 at 1700, the middle of the 2800 to 3200
// that the host holds, and 2800 to 3200 for DAC values from about 1594 to 1821.
int SwingForDac(int32_t dac);

class StreamSynth {
public:
    StreamSynth(SessionScript script, const SynthOptions& options);

    // Packets synthesized from now on take the swing of this DAC value.
    void SetDac(int32_t dac);
    int32_t Dac() const { return dac_; }

    // Frame number FramesMade() of each stream, as the device sends it.
    void NextFrames(std::vector<uint8_t>& askFrame, std::vector<uint8_t>& fskFrame);
    uint64_t FramesMade() const { return frames_; }
    // Appends the frames of both streams until the stream time reaches
    // `streamUs`: a recording of that much of the session, as the device sends it.
    void AppendUntil(uint64_t streamUs, std::vector<uint8_t>& ask, std::vector<uint8_t>& fsk);
    // Stream time covered by the frames made so far.
    uint64_t StreamUs() const { return frames_ * 5000; }
    // The device's clock starts again with each acquisition: the frames made
    // from now on carry time stamps counted from this point of the stream, as
    // the host counts the samples of an acquisition from its start.
    void RestartStamps() { stampOriginMs_ = frames_ * 5; }

    // The packets that started within the frames made so far, oldest first.
    std::vector<ScriptedPacket> TakeStartedPackets();

    // True once a script without repeat has played its last step.
    bool ScriptEnded() const { return ended_; }

private:
    uint32_t StampMs(uint64_t streamMs) const {
        return static_cast<uint32_t>(streamMs > stampOriginMs_ ? streamMs - stampOriginMs_ : 0);
    }
    void Fill(uint64_t ticks);
    void Advance();
    void PlayAsk(const std::vector<uint8_t>& bytes);
    void PlayFsk(const ScriptStep& step);
    void PadAsk(uint64_t ticks);
    void PadFsk(uint64_t ticks);
    void AppendWords(const std::vector<uint16_t>& words);
    qisim::AskWaveParams AskParams() const;
    uint32_t NextFskSeed();

    SessionScript script_;
    SynthOptions options_;
    int32_t dac_ = kDefaultDac;
    double bitRateHz_ = 0.0;  // ASK bit rate of the next packets; 0: 2 kHz (before ask_, which reads it)
    qisim::AskWaveWriter ask_;

    // The link as the script left it.
    bool carrierOn_ = false;
    double carrierHz_ = kDefaultCarrierHz;
    int preamble_ = 0;
    std::mt19937 preambleRng_;
    uint32_t fskChunks_ = 0;

    // A step that takes time, under way: it ends at activeEnd_ ticks.
    bool active_ = false;
    bool activeIsPing_ = false;
    uint64_t activeEnd_ = 0;
    bool ended_ = false;

    // Stream time of the script (ticks), and how far each stream is synthesized.
    uint64_t cursor_ = 0;
    uint64_t askSamples_ = 0;
    uint64_t fskTicks_ = 0;

    // Synthesized and not yet framed.
    std::deque<uint16_t> askBuffer_;
    std::deque<uint16_t> fskBuffer_;
    uint64_t fskBufferStart_ = 0;  // ticks at the start of the first buffered word

    std::deque<ScriptedPacket> packets_;
    uint64_t frames_ = 0;
    uint64_t stampOriginMs_ = 0;  // stream ms of the current acquisition's start
};

}  // namespace coilsim
