// sigrok session files (.sr): the zip archive that sigrok-cli and PulseView
// save and open. It holds a "version" entry ("2"), a "metadata" entry (an INI
// text naming the channels and the sample rate) and the samples: logic
// samples of `unitsize` bytes each, channel probeN in bit N-1, in entries
// "logic-1-1", "logic-1-2" ...; each analog channel's values as 32-bit
// little-endian floats in "analog-1-N-1", "analog-1-N-2" ... where N is the
// channel's number. All channels share one sample rate.
//
// The archive itself is read and written by libzip; this file knows only what
// lies inside it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace interchange {

struct SigrokChannel {
    std::string name;
    bool analog = false;
    int number = 0;  // probeN / analogN of the metadata, from 1
};

struct SigrokCapture {
    uint64_t samplerate = 0;  // Hz
    std::vector<SigrokChannel> channels;
    // Logic samples, `unitsize` bytes each, little-endian; channel probeN in bit N-1.
    unsigned unitsize = 1;
    std::vector<uint8_t> logic;
    // Analog values by channel number.
    std::map<int, std::vector<float>> analog;

    const SigrokChannel* Find(const std::string& name) const;
    size_t LogicSamples() const { return unitsize ? logic.size() / unitsize : 0; }
    // The level of a logic channel at a sample (false past the end).
    bool Bit(const SigrokChannel& channel, size_t sample) const;
    // Samples of a channel (logic or analog).
    size_t Samples(const SigrokChannel& channel) const;
    // "qi (logic), ask (analog)": the channels for a message.
    std::string ChannelList() const;
};

// Uncompressed sample bytes a file may hold before it is refused (a zip can
// claim any size; this keeps a hostile or broken file from taking the memory).
constexpr uint64_t kMaxSampleBytes = 1ull << 31;

// Reads a sigrok session from a file or from bytes in memory. False with a
// message in `error` when the bytes are not a zip archive, have no sigrok
// metadata or version, or name no channel; a damaged sample entry is refused
// too. Never reads out of bounds, whatever the bytes.
bool ReadSigrokSession(const std::string& path, SigrokCapture& capture, std::string& error);
bool ReadSigrokSession(const uint8_t* bytes, size_t size, SigrokCapture& capture, std::string& error,
                       uint64_t maxSampleBytes = kMaxSampleBytes);

// Writes a session in the form sigrok-cli 0.7 and PulseView open. Logic and
// analog channels are numbered in the order given, logic ones first. False
// with a message when the file cannot be written.
bool WriteSigrokSession(const std::string& path, const SigrokCapture& capture, std::string& error);

// "40 kHz", "1 MHz", "250 kHz", "12345 Hz": a sample rate as sigrok writes it.
std::string SamplerateText(uint64_t hz);
// Parses a sample rate as sigrok writes it ("40 kHz", "1 MHz", "1.5 MHz",
// "40000"); 0 when the text is not one.
uint64_t ParseSamplerate(const std::string& text);

}  // namespace interchange
