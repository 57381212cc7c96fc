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
    // Set only where the second ASK reader had a say: "recovered" when the
    // list decoder gave nothing there, "corrected" when it read other bytes
    // (then otherReading holds the list decoder's bytes as spaced hex);
    // "disputed" when the two readings contradict each other and the signal
    // does not settle it, and "refused" when the list decoder's good frame
    // breaks the Qi length rule, "unconfirmed" when the second reader finds
    // no packet where the list decoder read one, even reading the span
    // again: these go out as "Error" frames, a disputed one with the other
    // reader's bytes in otherReading (for a packet the second reader could
    // not finish, the bytes it read whole).
    std::string reading;
    std::string otherReading;
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

// ---------------------------------------------------------------------------
// Typed packets. Each class has an empty instance (default constructor: null
// views, empty strings, zero bytes, no text evaluated) and a frame constructor
// taking the frame area: frame[0] is the Qi header byte, frame[1] the first
// message byte. The frame constructor copies the header and the class's message
// bytes, sets checksum and size, points its views at its own message, then
// evaluates Summary, then typeString, and sets logData to the two joined.
// Copies of a class with a view point that view at their own message; a view
// that was null stays null.
// ---------------------------------------------------------------------------

// Name of a single-byte FSK response pattern ("ACK", "NAK", ...), or the spaced
// hex of the byte ("55 ") when it has no name.
std::string PatternName(uint8_t byte);

// --- Identification and configuration --------------------------------------

// ASK 0x51. Summary also sets powerValue, the three texts, the detected
// polarity of the settings record and writes one log line, on every call.
class Configuration : public CMsgData {
public:
    Configuration() = default;
    explicit Configuration(const uint8_t* frame);
    Configuration(const Configuration& other);
    Configuration& operator=(const Configuration& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
    std::string maxPowerText;
    std::string guarPowerText;
    std::string contractText;
};

// ASK 0x71. Summary also sets the three texts.
class Identification : public CMsgData {
public:
    Identification() = default;
    explicit Identification(const uint8_t* frame);
    Identification(const Identification& other);
    Identification& operator=(const Identification& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
    std::string versionText;
    std::string manufacturerText;
    std::string deviceText;
};

// ASK 0x81. Its views are never set by a constructor, so its Summary is empty;
// the decode behind them only runs when a reader points them at the message.
class ExtendedIdentification : public CMsgData {
public:
    ExtendedIdentification() = default;
    explicit ExtendedIdentification(const uint8_t* frame);
    ExtendedIdentification(const ExtendedIdentification& other);
    ExtendedIdentification& operator=(const ExtendedIdentification& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
    const uint8_t* msgBytes = nullptr;
};

// ASK 0x84. Takes three message bytes but reads m3, m5 and m7, so its Summary
// is constant.
class ExtendedPowerReceiverCapabilities : public CMsgData {
public:
    ExtendedPowerReceiverCapabilities() = default;
    explicit ExtendedPowerReceiverCapabilities(const uint8_t* frame);
    ExtendedPowerReceiverCapabilities(const ExtendedPowerReceiverCapabilities& other);
    ExtendedPowerReceiverCapabilities& operator=(const ExtendedPowerReceiverCapabilities& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
};

// ASK 0x54: message bytes from frame[1..4] and frame[6], checksum frame[7].
class WPIDMost : public CMsgData {
public:
    WPIDMost() = default;
    explicit WPIDMost(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x55, laid out as WPIDMost.
class WPIDLast : public CMsgData {
public:
    WPIDLast() = default;
    explicit WPIDLast(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// --- Transmitter responses over FSK (FSKCapability first: ReceivedPower
// embeds one) ----------------------------------------------------------------

// FSK 0x31. Summary also sets powerValue.
class FSKCapability : public CMsgData {
public:
    FSKCapability() = default;
    explicit FSKCapability(const uint8_t* frame);
    FSKCapability(const FSKCapability& other);
    FSKCapability& operator=(const FSKCapability& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
};

// FSK 0x30.
class FSKIdentification : public CMsgData {
public:
    FSKIdentification() = default;
    explicit FSKIdentification(const uint8_t* frame);
    FSKIdentification(const FSKIdentification& other);
    FSKIdentification& operator=(const FSKIdentification& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
};

// FSK 0x8F: extended identification or extended capabilities, by m0 >> 4.
// Takes m0 to m7 although its size is 9.
class FSKXIDECAP : public CMsgData {
public:
    FSKXIDECAP() = default;
    explicit FSKXIDECAP(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x3F: inverter voltage, stream response or estimated K, by m0.
class FSKINVSDSRKEST : public CMsgData {
public:
    FSKINVSDSRKEST() = default;
    explicit FSKINVSDSRKEST(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x1E: cloak request or regulation control status, by m0's high nibble.
class FSKCLOAKRCS : public CMsgData {
public:
    FSKCLOAKRCS() = default;
    explicit FSKCLOAKRCS(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x1F.
class FSKChargeStatus : public CMsgData {
public:
    FSKChargeStatus() = default;
    explicit FSKChargeStatus(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x00.
class FSKDataNotAvailable : public CMsgData {
public:
    FSKDataNotAvailable() = default;
    explicit FSKDataNotAvailable(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x01.
class FSKErrorStatus : public CMsgData {
public:
    FSKErrorStatus() = default;
    explicit FSKErrorStatus(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x2E.
class FSKGetRequest : public CMsgData {
public:
    FSKGetRequest() = default;
    explicit FSKGetRequest(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// FSK 0x5F.
class FSKPLAP : public CMsgData {
public:
    FSKPLAP() = default;
    explicit FSKPLAP(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// --- Power transfer control -------------------------------------------------

// ASK 0x03: signed control error in percent.
class ControlError : public CMsgData {
public:
    ControlError() = default;
    explicit ControlError(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x19, printed as ControlError.
class ExControlError : public CMsgData {
public:
    ExControlError() = default;
    explicit ExControlError(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x04: m0 / 128 of the power reference. Summary also sets power and
// powerRatio.
class ReceivedPower : public CMsgData {
public:
    ReceivedPower() = default;
    ReceivedPower(const uint8_t* frame, int reference);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    FSKCapability capability;  // stays empty
    float power = 0.0f;        // watts
    int64_t reference = 0;     // power reference, whole watts
};

// ASK 0x31: mode, 16-bit ratio of the reference, and the host's wall clock at
// the moment of each Summary call.
class ReceivedPower1_2_2 : public CMsgData {
public:
    ReceivedPower1_2_2() = default;
    ReceivedPower1_2_2(const uint8_t* frame, int reference);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    FSKCapability capability;  // stays empty
    float power = 0.0f;        // watts
    int64_t reference = 0;     // power reference, whole watts
};

// ASK 0x05.
class ChargeStatus : public CMsgData {
public:
    ChargeStatus() = default;
    explicit ChargeStatus(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x02.
class EndPowerTransfer : public CMsgData {
public:
    EndPowerTransfer() = default;
    explicit EndPowerTransfer(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x01.
class SignalStrength : public CMsgData {
public:
    SignalStrength() = default;
    explicit SignalStrength(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x06.
class PowerControlHoldOff : public CMsgData {
public:
    PowerControlHoldOff() = default;
    explicit PowerControlHoldOff(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x22.
class FODStatus : public CMsgData {
public:
    FODStatus() = default;
    explicit FODStatus(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x09.
class Renegotiate : public CMsgData {
public:
    Renegotiate() = default;
    explicit Renegotiate(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x07: the whole text is in typeString, chosen by m0.
class GeneralRequest : public CMsgData {
public:
    GeneralRequest() = default;
    explicit GeneralRequest(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// --- Negotiation requests ---------------------------------------------------

// ASK 0x20. Summary may set guaranteedPower and powerValue.
class SpecificRequest : public CMsgData {
public:
    SpecificRequest() = default;
    explicit SpecificRequest(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    float guaranteedPower = 0.0f;  // watts, 0 unless the request states one
};

// ASK 0x28.
class GetRequest : public CMsgData {
public:
    GetRequest() = default;
    explicit GetRequest(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x29.
class EnableDataStreams : public CMsgData {
public:
    EnableDataStreams() = default;
    explicit EnableDataStreams(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x18.
class CloakRequest : public CMsgData {
public:
    CloakRequest() = default;
    explicit CloakRequest(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x78. Takes m0 to m4 but prints m1 to m6, so "TX: " is always 0.
class PLAP : public CMsgData {
public:
    PLAP() = default;
    explicit PLAP(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// ASK 0x58.
class REPORT_PLA : public CMsgData {
public:
    REPORT_PLA() = default;
    explicit REPORT_PLA(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};

// --- Data streams -----------------------------------------------------------

// ASK 0x48, and FSK 0x4F with the same layout; checksum is frame[5] in both.
class SimultaneousAuxiliaryDataControl : public CMsgData {
public:
    SimultaneousAuxiliaryDataControl() = default;
    explicit SimultaneousAuxiliaryDataControl(const uint8_t* frame);
    SimultaneousAuxiliaryDataControl(const SimultaneousAuxiliaryDataControl& other);
    SimultaneousAuxiliaryDataControl& operator=(const SimultaneousAuxiliaryDataControl& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
    std::string text1;  // reserved, stay empty
    std::string text2;
    std::string text3;
};

// ASK 0x38.
class SimultaneousDataStreamResponse : public CMsgData {
public:
    SimultaneousDataStreamResponse() = default;
    explicit SimultaneousDataStreamResponse(const uint8_t* frame);
    SimultaneousDataStreamResponse(const SimultaneousDataStreamResponse& other);
    SimultaneousDataStreamResponse& operator=(const SimultaneousDataStreamResponse& other);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;

    const uint8_t* msg = nullptr;
    std::string text1;  // reserved, stay empty
    std::string text2;
    std::string text3;
};

// FSK 0x2F.
class FSKEDS : public CMsgData {
public:
    FSKEDS() = default;
    explicit FSKEDS(const uint8_t* frame);

    void typeString(std::string& out) override;
    void Summary(std::string& out) override;
};
