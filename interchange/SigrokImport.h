// A sigrok capture of a Qi link turned into the sniffer's own streams, so that
// it plays through the very decoders a live capture or a raw capture file
// goes through (StreamReplay):
//   - the receiver's side comes from one channel: a logic channel that carries
//     the demodulated ASK data line, at any sample rate, or an analog channel
//     with the ASK envelope; either is resampled to the sniffer's 40 kHz and
//     framed as the device frames its ASK samples;
//   - the transmitter's side, when the capture has an analog channel "fsk"
//     with the carrier frequency in kHz (as Coilscope exports it), becomes
//     period words (the ticks of 16 carrier cycles at 60 MHz) framed as the
//     device frames them.
#pragma once

#include "interchange/SigrokSession.h"

#include <cstdint>
#include <string>
#include <vector>

namespace interchange {

// The sniffer's ASK sample rate, and the lowest rate that still carries the
// 2 kHz bi-phase line: four samples a half bit, so that an edge lands within
// a quarter of a half bit of where it was.
constexpr uint64_t kAskRate = 40000;
constexpr uint64_t kMinImportRate = 16000;

// Envelope levels that a logic data line becomes: the idle level (line high)
// low and the modulated level high, as the sniffer sees a receiver's load
// modulation.
constexpr int kLineIdleLevel = 600;
constexpr int kLineActiveLevel = 3600;

// Names of the channels that Coilscope writes.
constexpr const char* kQiChannel = "qi";
constexpr const char* kAskChannel = "ask";
constexpr const char* kFskChannel = "fsk";

struct ImportedStreams {
    std::vector<uint8_t> ask;  // ASK stream frames, as the device sends them
    std::vector<uint8_t> fsk;  // FSK stream frames; empty without an "fsk" channel
    std::string askChannel;    // the channel read for each side ("" for none)
    std::string fskChannel;
    bool askFromLogic = false;
    size_t askSamples = 0;     // at 40 kHz
    size_t fskWords = 0;
};

// The channel that carries the receiver's side: `wanted` if given (it must
// exist); otherwise the analog channel "ask", else the logic channel "qi",
// else the only logic channel, else the first analog channel that is not
// "fsk". Null, with a message, when there is none.
const SigrokChannel* ChooseAskChannel(const SigrokCapture& capture, const std::string& wanted, std::string& error);

// Makes the streams. False, with a message, when the channel does not exist
// or the sample rate is below kMinImportRate.
bool StreamsFromSigrok(const SigrokCapture& capture, const std::string& askChannel, ImportedStreams& out,
                       std::string& error);

// The envelope samples at 40 kHz that a channel gives (the part of
// StreamsFromSigrok before the framing). Analog values that are whole
// numbers from 0 to 4095 are taken as ADC counts as they are (Coilscope's own
// export); any other scale (the volts of a scope) is mapped linearly onto
// the counts between kLineIdleLevel and kLineActiveLevel.
std::vector<uint16_t> AskSamplesFromChannel(const SigrokCapture& capture, const SigrokChannel& channel);
// The period words of an analog carrier frequency channel (kHz), in runs of
// carrier: each run with the tick (60 MHz, from the capture's start) at which
// its first word begins.
struct WordRun {
    uint64_t startTicks = 0;
    std::vector<uint16_t> words;
};
std::vector<WordRun> WordsFromFrequency(const SigrokCapture& capture, const SigrokChannel& channel);

}  // namespace interchange
