// The values the display filter sees for one event. Built from the event
// record plus what only the event log model knows: the event's number and the
// power phase it was classified into.
//
// Where each value comes from:
// - number: the number the event log model gave the event (its id once the
//   model took it; `show` uses the record's number in the file).
// - time: milliseconds since the session's start. The capture clock counts
//   microseconds from the start of the acquisition, so this is
//   timing.startTime / 1000 minus the builder's origin (0 unless set). An event
//   without a capture time of its own (contract, device status, violation)
//   takes the time of the event before it.
// - dir: the event's direction (1 tx, 2 rx, 0 none). A record read back from a
//   session file keeps no direction; InferDirection tells it from the type and
//   the type text (see there).
// - phase: the model's phase (1 ping ... 5 power); 0 for none.
// - type: the event type code (a packet's header byte below 240) and its name.
// - status: "error" for a frame whose checksum failed (packet.Status "Error",
//   a "ChecksumError" event, a failure count) and for a violation; else "ok".
//   A session file does not keep packet.Status, the other marks it does.
// - reading: "recovered" or "corrected" where the second reader of the data
//   manager had a say (packet.reading), else none.
// - text: the text the event tree shows (str), as UTF-8.
// - bytes: the frame (packet.PacketData).
// - decoded fields: from the dissection tables (Dissect.h).
#pragma once

#include "analysis/Dissect.h"
#include "events/MsgInfo.h"

#include <cstdint>
#include <string>
#include <vector>

namespace analysis {

enum Direction : int { kDirNone = 0, kDirTx = 1, kDirRx = 2 };

struct EventFields {
    int64_t number = 0;
    double timeMs = 0.0;
    int dir = kDirNone;
    int phase = 0;  // 1 ping, 2 config, 3 negotiation, 4 calibration, 5 power; 0 none
    int32_t type = 0;
    std::string typeName;    // the packet class or event name ("ControlError"), or empty
    std::string typeString;  // the event's own type text, blanks at its ends removed
    bool error = false;
    std::string reading;  // "recovered", "corrected" or empty
    std::string text;     // the tree's text, UTF-8
    std::vector<uint8_t> bytes;
    bool isPattern = false;  // a response pattern; its byte is bytes[0]
    std::vector<DecodedValue> decoded;

    // A decoded value by its filter name, or null when the packet has none.
    const DecodedValue* Find(const std::string& name) const;
};

// The direction of an event. A live event has its own. For one read back from
// a session file (direction 0): response patterns and digital pings are the
// transmitter's; a packet whose header only one direction's table knows is
// that direction's; where both know it (0x01, 0x31) the type text decides
// ("SignalStrength" and "ReceivedPower" are the receiver's); a checksum error
// or proprietary frame with a preamble count is the receiver's (only the ASK
// path counts one). Anything else has none.
int InferDirection(const MsgInfo& event);

// The packet class name of a header in a direction ("ControlError",
// "FSKCapability"), or empty when the dispatcher does not know it.
std::string PacketName(int direction, uint8_t header);

// The name of an event's type: the packet class name for a packet, the event's
// own name for the records the system makes ("TxPattern", "DigitalPing",
// "ChecksumError", "Proprietary", "Violation", "ReceiverDeviceStatus",
// "PowerTransferContract").
std::string TypeName(const MsgInfo& event, int direction);

// "ping", "config", "negotiation", "calibration", "power", or "" for 0.
const char* PhaseWord(int phase);
// "rx", "tx" or "none".
const char* DirWord(int dir);

// The fields of one event with the given number, phase and time.
EventFields MakeEventFields(const MsgInfo& event, int64_t number, int phase, double timeMs);

// Follows a session in order: gives each event its time (an event without a
// capture time takes the one before it) and builds its fields.
class EventFieldsBuilder {
public:
    // Times are counted from this capture time (microseconds).
    void SetOriginUs(int64_t originUs) { m_originUs = originUs; }
    EventFields Next(const MsgInfo& event, int64_t number, int phase);
    void Reset() { m_lastMs = 0.0; }

private:
    int64_t m_originUs = 0;
    double m_lastMs = 0.0;
};

}  // namespace analysis
