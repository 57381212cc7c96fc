// A Qi link written as a sigrok session, on the capture clock of the session
// (sample n lies n x 25 us after the sniffer's port was opened), at the
// sniffer's ASK rate of 40 kHz:
//   - "ask", analog: the ASK envelope in ADC counts;
//   - "qi", logic: the receiver's demodulated data line, high at rest, the
//     line that sigrok's own "qi" decoder reads; it is sliced from the ASK
//     envelope of each receiver packet's capture record;
//   - "fsk", analog: the carrier frequency in kHz from the FSK period words
//     (0 where no carrier is known).
// From raw capture files every sample and word goes in. From a session file
// (.sid with its records beside it) the capture records are placed at their
// times: between two ASK records the envelope holds the level at rest (the
// level the record before began with), and between FSK records the carrier
// holds its last frequency.
#pragma once

#include "events/MsgInfo.h"
#include "interchange/SigrokSession.h"

#include <cstdint>
#include <string>
#include <vector>

namespace interchange {

struct LinkSignals {
    std::vector<float> ask;     // ADC counts, one per 25 us
    std::vector<uint8_t> qi;    // 1 high (rest), 0 low
    std::vector<float> fskKHz;  // kHz, 0 for none

    size_t Size() const { return ask.size(); }
    // Grows every signal to n samples (ask holds its last value, qi rests
    // high, fsk holds its last value or stays 0).
    void Resize(size_t n);
};

// Whether an event's record is the receiver's (ASK) or the transmitter's
// (FSK): by the event's direction, or for an event read back from a file by
// the record itself (FSK records carry their two periods).
bool IsAskRecord(const MsgInfo& event);

// The envelope and carrier of raw capture streams (the bytes of .2k.bin and
// .fsk.bin files, header and a cut first frame skipped as the replay does).
LinkSignals SignalsFromStreams(const uint8_t* ask, size_t askSize, const uint8_t* fsk, size_t fskSize);
// The envelope and carrier of the events' capture records.
LinkSignals SignalsFromRecords(const std::vector<MsgInfoPtr>& events);
// Draws the receiver's data line from the ASK records of the events.
void DrawReceiverLine(const std::vector<MsgInfoPtr>& events, LinkSignals& link);
// The data line of one ASK record's envelope, sample by sample from its
// first: sliced with hysteresis around the middle of its swing, the level it
// starts at (the link at rest) high. The last bit cell, which the record
// ends inside, is closed by an edge half a bit after the last one, and the
// line runs on for three half cells past it (so it may be longer than the
// record).
std::vector<uint8_t> SliceEnvelope(const std::vector<int32_t>& samples);

SigrokCapture CaptureFromSignals(const LinkSignals& link);

// The whole export: raw capture files (either may be empty) or a session file
// with the record file beside it. False with a message on a file that cannot
// be read or written.
// A session longer than this (56 minutes at 40 kHz) is refused by the
// export: every channel is held in memory while the archive is written.
constexpr uint64_t kMaxExportSamples = 1ull << 27;

bool ExportStreams(const std::string& askPath, const std::string& fskPath, const std::string& outPath,
                   std::string& error);
bool ExportSession(const std::string& sidPath, const std::string& outPath, std::string& error);
// The events of a session with their records loaded from the record file
// beside it (through its reader); false with a message if the .sid cannot be
// read.
bool LoadSessionWithRecords(const std::string& sidPath, std::vector<MsgInfoPtr>& events, std::string& error);

}  // namespace interchange
