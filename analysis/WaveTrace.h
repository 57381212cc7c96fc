// The wave of one packet: its capture record as a trace against time from the
// packet's start (the ASK envelope in ADC counts, or the FSK carrier
// frequency in kHz from the period words), with the decoded rows that lie
// under it as a logic analyser's decoder draws them: the bit cells, the bytes
// (start, data, parity and stop bits), the packet, and for a merged packet
// which reader read what.
//
// The rows are found in the trace itself: it is sliced into the data line
// (with hysteresis around the middle of its swing), the line's edges are read
// as differential bi-phase (an edge at every cell, a second one inside a
// one), and the frame starts with the start bit after the preamble's ones
// (four or more on the receiver's side; the transmitter's may have none).
// The byte values shown are the event's own.
#pragma once

#include "events/MsgInfo.h"

#include <cstdint>
#include <string>
#include <vector>

namespace analysis {

struct WaveCell {
    double t0 = 0.0, t1 = 0.0;  // ms from the trace's start
    int value = 0;              // a bit's 0 or 1; a byte's value
};

struct WaveByte {
    int index = 0;              // place in the frame, 0 = header
    double t0 = 0.0, t1 = 0.0;  // start bit's start to stop bit's end
    double dataT0 = 0.0, dataT1 = 0.0;      // the eight data bits
    double parityT0 = 0.0, parityT1 = 0.0;  // the parity bit; the stop bit follows
    int value = 0;              // as decoded from the trace
    bool parityOk = true;       // odd parity from the receiver, even from the transmitter
    bool stopOk = true;
};

struct WaveTrace {
    bool ask = true;            // false: FSK
    std::string unit;           // "ADC counts" or "kHz"
    std::vector<double> t;      // ms from the record's first sample
    std::vector<double> v;
    double duration = 0.0;      // ms
    std::vector<WaveCell> bits;
    std::vector<WaveByte> bytes;
    // The packet: its span, its name and whether its checksum holds.
    double packetT0 = 0.0, packetT1 = 0.0;
    std::string packetText;
    bool checksumOk = false;
    // Which reader read what, for a packet of the merged ASK or FSK readers
    // (empty otherwise).
    std::string readers;
};

// Whether an event's record is the receiver's (ASK): by its direction, or
// for an event read back from a file (direction 0) by the record itself (an
// FSK record carries its two periods).
bool IsAskEvent(const MsgInfo& event);

// The trace and rows of an event's capture record; an event without a
// record, or with an empty one, gives an empty trace.
WaveTrace BuildWaveTrace(const MsgInfo& event);

// The trace alone from a record (the part of BuildWaveTrace before the rows).
void TraceOfRecord(const TriggerData& record, bool ask, WaveTrace& out);

// The data line of a trace: 1 at the level it starts on (the link at rest),
// sliced with hysteresis of an eighth of the swing around its middle.
std::vector<uint8_t> SliceLine(const std::vector<double>& values);

// Reads the bit cells and bytes from a trace's data line (times from `t`).
void ReadBiPhase(const std::vector<double>& t, const std::vector<uint8_t>& line, WaveTrace& out);

}  // namespace analysis
