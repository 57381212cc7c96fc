// Dissection: the decoded fields of one packet as a tree, each with the bytes
// and bits of the frame it came from. The property pane shows the tree and
// the bytes pane highlights a field's bytes; the display filter reads its
// decoded fields (ce.value, config.wsize, ...) from the same tables, so that
// what the pane shows and what the filter compares never disagree.
//
// Everything here is pure byte-to-text logic: no packet class is constructed
// (some of their constructors write settings and the application log), the
// bits are read from the frame's bytes by the tables in Dissect.cpp.
#pragma once

#include "events/MsgInfo.h"

#include <cstdint>
#include <string>
#include <vector>

namespace analysis {

struct DissectedField {
    std::string name;   // "Window size"
    std::string value;  // "16", "Negative", "0x002a"
    std::string unit;   // "ms", "W", "%" or empty
    // Where the field lies in the frame: its first byte (0 = the header
    // byte), how many bytes it touches, the highest bit it takes in its first
    // byte (7 = most significant) and how many bits it has. byteOffset is -1
    // for a field computed from others (a percentage, a name).
    int byteOffset = -1;
    int byteCount = 0;
    int firstBit = 7;
    int bitCount = 0;
    // The display filter's name of this field ("config.wsize"), or empty.
    std::string filterName;
    std::vector<DissectedField> children;

    // "byte 3, bits 7-3", "bytes 1-2", "byte 1" or "" (no bytes).
    std::string BitsText() const;
    // True when the field takes frame byte `index`.
    bool Covers(int index) const { return byteOffset >= 0 && index >= byteOffset && index < byteOffset + byteCount; }
};

// The frame and what it is, as a dissection needs them.
struct FrameView {
    int direction = 0;  // 1 transmitter (FSK), 2 receiver (ASK), 0 unknown
    int32_t type = 0;   // the event's type code
    std::vector<uint8_t> bytes;  // the whole frame, header first, checksum last
};

// The fields of a frame: first "Header" (the packet's name), then the
// packet's own fields, then "Checksum" for a receiver packet. A frame of an
// unknown header, a response pattern and a digital ping have what can be
// said of them; an event without bytes has none.
std::vector<DissectedField> DissectFrame(const FrameView& frame);

// The same for an event: its bytes (packet.PacketData), its type and its
// direction (inferred for a record read back from a session file, see
// EventFields.h). A digital ping, which has no bytes, gives its duration and
// carrier frequency.
std::vector<DissectedField> Dissect(const MsgInfo& event);

// The deepest field that takes frame byte `index` (for the bytes pane:
// selecting a byte selects its field), as the path of child indexes from the
// top level; empty when no field takes it.
std::vector<int> FieldPathAtByte(const std::vector<DissectedField>& fields, int index);

// One decoded value the display filter can compare: a number, or a text for
// the few fields that are text (id.version).
struct DecodedValue {
    const char* name = nullptr;  // "ce.value"
    bool isText = false;
    int64_t number = 0;
    std::string text;
};

// The decoded filter values of a frame, from the same tables as DissectFrame,
// without building the tree (the filter reads them for every event).
void DecodedValues(const FrameView& frame, std::vector<DecodedValue>& out);

// The decoded field names the filter knows, for its parser and its help.
const std::vector<std::string>& DecodedFieldNames();

// Frame bytes from the spaced hex of packet.PacketData ("03 FF FC ").
std::vector<uint8_t> ParseSpacedHex(const std::string& text);

}  // namespace analysis
