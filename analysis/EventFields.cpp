#include "analysis/EventFields.h"

#include <cctype>

namespace analysis {

const DecodedValue* EventFields::Find(const std::string& name) const
{
    for (const DecodedValue& v : decoded) {
        if (name == v.name)
            return &v;
    }
    return nullptr;
}

std::string PacketName(int direction, uint8_t header)
{
    if (direction == kDirTx) {
        switch (header) {
        case 0x00: return "FSKDataNotAvailable";
        case 0x01: return "FSKErrorStatus";
        case 0x1E: return "FSKCLOAKRCS";
        case 0x1F: return "FSKChargeStatus";
        case 0x2E: return "FSKGetRequest";
        case 0x2F: return "FSKEDS";
        case 0x30: return "FSKIdentification";
        case 0x31: return "FSKCapability";
        case 0x3F: return "FSKINVSDSRKEST";
        case 0x4F: return "SimultaneousAuxiliaryDataControl";
        case 0x5F: return "FSKPLAP";
        case 0x8F: return "FSKXIDECAP";
        default: return std::string();
        }
    }
    if (direction != kDirRx)
        return std::string();
    switch (header) {
    case 0x01: return "SignalStrength";
    case 0x02: return "EndPowerTransfer";
    case 0x03: return "ControlError";
    case 0x04: return "ReceivedPower";
    case 0x05: return "ChargeStatus";
    case 0x06: return "PowerControlHoldOff";
    case 0x07: return "GeneralRequest";
    case 0x09: return "Renegotiate";
    case 0x18: return "CloakRequest";
    case 0x19: return "ExControlError";
    case 0x20: return "SpecificRequest";
    case 0x22: return "FODStatus";
    case 0x28: return "GetRequest";
    case 0x29: return "EnableDataStreams";
    case 0x31: return "ReceivedPower1_2_2";
    case 0x38: return "SimultaneousDataStreamResponse";
    case 0x48: return "SimultaneousAuxiliaryDataControl";
    case 0x51: return "Configuration";
    case 0x54: return "WPIDMost";
    case 0x55: return "WPIDLast";
    case 0x58: return "REPORT_PLA";
    case 0x71: return "Identification";
    case 0x78: return "PLAP";
    case 0x81: return "ExtendedIdentification";
    case 0x84: return "ExtendedPowerReceiverCapabilities";
    default: return std::string();
    }
}

namespace {

bool StartsWith(const std::string& s, const char* head)
{
    return s.compare(0, std::char_traits<char>::length(head), head) == 0;
}

std::string Trim(const std::string& s)
{
    size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a])))
        ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1])))
        --b;
    return s.substr(a, b - a);
}

}  // namespace

int InferDirection(const MsgInfo& e)
{
    if (e.direction == kDirTx || e.direction == kDirRx)
        return e.direction;
    if (e.type == kTypeTxPattern || e.type == kTypeDigitalPing)
        return kDirTx;
    if (e.type == kTypeChecksumOrProprietary)
        return e.packet.premambleCount > 0 ? kDirRx : kDirNone;
    if (e.type < 0 || e.type >= kTypeTxPattern)
        return kDirNone;
    const uint8_t header = static_cast<uint8_t>(e.type);
    const bool rx = !PacketName(kDirRx, header).empty();
    const bool tx = !PacketName(kDirTx, header).empty();
    if (rx && tx) {
        const std::string t = Trim(e.common.typeString);
        return StartsWith(t, "SignalStrength") || StartsWith(t, "ReceivedPower") ? kDirRx : kDirTx;
    }
    return rx ? kDirRx : tx ? kDirTx : kDirNone;
}

std::string TypeName(const MsgInfo& e, int direction)
{
    switch (e.type) {
    case kTypeTxPattern: return "TxPattern";
    case kTypeDigitalPing: return "DigitalPing";
    case kTypeChecksumOrProprietary:
        return e.eventG.warningCount > 0 || e.common.typeString == "Proprietary" ? "Proprietary" : "ChecksumError";
    case kTypeViolation: return "Violation";
    case kTypeDeviceStatus: return "ReceiverDeviceStatus";
    case kTypeContract: return "PowerTransferContract";
    default: break;
    }
    if (e.type < 0 || e.type >= kTypeTxPattern)
        return std::string();
    return PacketName(direction, static_cast<uint8_t>(e.type));
}

const char* PhaseWord(int phase)
{
    switch (phase) {
    case 1: return "ping";
    case 2: return "config";
    case 3: return "negotiation";
    case 4: return "calibration";
    case 5: return "power";
    default: return "";
    }
}

const char* DirWord(int dir)
{
    return dir == kDirTx ? "tx" : dir == kDirRx ? "rx" : "none";
}

EventFields MakeEventFields(const MsgInfo& e, int64_t number, int phase, double timeMs)
{
    EventFields f;
    f.number = number;
    f.timeMs = timeMs;
    f.dir = InferDirection(e);
    f.phase = phase;
    f.type = e.type;
    f.typeName = TypeName(e, f.dir);
    f.typeString = Trim(e.common.typeString);
    f.error = e.packet.Status == "Error" || e.common.typeString == "ChecksumError" || e.eventG.failureCount > 0 ||
              e.type == kTypeViolation;
    f.reading = e.packet.reading;
    const QByteArray utf8 = e.str.toUtf8();
    f.text.assign(utf8.constData(), static_cast<size_t>(utf8.size()));
    f.bytes = ParseSpacedHex(e.packet.PacketData);
    f.isPattern = e.type == kTypeTxPattern && !f.bytes.empty();
    FrameView frame;
    frame.direction = f.dir;
    frame.type = e.type;
    frame.bytes = f.bytes;
    DecodedValues(frame, f.decoded);
    return f;
}

EventFields EventFieldsBuilder::Next(const MsgInfo& e, int64_t number, int phase)
{
    if (e.timing.startTime != 0)
        m_lastMs = static_cast<double>(static_cast<int64_t>(e.timing.startTime) - m_originUs) / 1000.0;
    return MakeEventFields(e, number, phase, m_lastMs);
}

}  // namespace analysis
