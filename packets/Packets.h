// Qi packets: the raw frame record that the demodulators hand on, and the base
// of every typed packet.
#pragma once

#include "common/TriggerData.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// Span of one frame on the capture clock.
struct TimingRecord {
    uint64_t bitTimesUs = 0;        // end minus start, microseconds
    uint64_t carrierCurrentHz = 0;  // carrier frequency handed to the decoder
    std::string duration;           // bitTimesUs as time text
    uint64_t endTime = 0;
    std::string endTimeStamp;
    uint64_t startTime = 0;
    std::string startTimeStamp;
};

// What the demodulator found out about one frame.
struct PacketRecord {
    std::string dataPacketError;   // reserved, stays empty
    uint64_t numbytesInPacket = 0;  // header and checksum included
    std::string PacketData;        // spaced upper-case hex of the frame
    std::string Status;            // "NoError" or "Error"
    uint64_t premambleCount = 0;   // preamble bits (ASK only)
    float controlErrorValue = 0.0f;
    int32_t controlErrorFreq = 0;
};

class CMsgData {
public:
    // Bytes of the frame area: message, then checksum, then size, as one run.
    static constexpr size_t kMessageBytes = 50;
    static constexpr size_t kFrameArea = kMessageBytes + 2;

    CMsgData() = default;
    virtual ~CMsgData() = default;
    CMsgData(const CMsgData&) = default;
    CMsgData& operator=(const CMsgData&) = default;

    virtual void typeString(std::string& out) { out.clear(); }
    virtual void Summary(std::string& out) { out.clear(); }

    // Byte i of the frame area (message, then checksum, then size); 0 past it.
    uint8_t FrameByte(size_t i) const;
    // Writes byte i of the frame area; writes past the area are dropped.
    void SetFrameByte(size_t i, uint8_t value);
    // Puts a whole frame (header first, checksum last) into the area and sets
    // size to its length. A frame longer than the area keeps what fits.
    void SetFrame(const uint8_t* bytes, size_t n);
    // A copy of the frame area, message then checksum then size: the bytes a
    // typed packet is built from, addressed from the frame's header byte.
    std::array<uint8_t, kFrameArea> FrameArea() const;

    uint8_t header = 0;
    uint8_t message[kMessageBytes] = {};
    uint8_t checksum = 0;
    uint8_t size = 0;
    uint64_t reserved1 = 0;
    uint64_t reserved2 = 0;
    std::string logData;
    uint8_t reservedFlag = 0;
    uint32_t direction = 0;  // 1 = FSK (transmitter to receiver), 2 = ASK
    uint8_t pattern = 0;     // 1 for a single-byte FSK response pattern
    uint64_t powerValue = 0;
    double powerRatio = 0.0;
    TimingRecord timing;
    PacketRecord packet;
    std::shared_ptr<TriggerData> capture;
};

using CMsgDataPtr = std::shared_ptr<CMsgData>;

// Fills the timing block of a frame from its capture record: start and end in
// microseconds, their difference, and the three time texts.
void FillTiming(CMsgData& frame, const TriggerData& capture, uint64_t carrierHz);
