// The typed packets: byte-to-text decoding of every Qi packet the system knows,
// in both directions.
#include "packets/Packets.h"

#include "common/TimeText.h"
#include "services/Log.h"
#include "services/SettingParams.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <locale>
#include <sstream>

namespace {

// A 32-bit float as default stream formatting writes it: six significant
// digits, no trailing zeros.
std::string FloatText(float value)
{
    std::ostringstream os;
    os.imbue(std::locale::classic());
    os << value;
    return os.str();
}

// Two lower-case hex digits of one byte.
std::string LowerHex(unsigned value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02x", value & 0xFFu);
    return text;
}

// Two upper-case hex digits of one byte.
std::string UpperHex(unsigned value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02X", value & 0xFFu);
    return text;
}

std::string Dec(long long value)
{
    return std::to_string(value);
}

// Header, the first `size` message bytes (frame[1] onwards) and the size of
// the class. The checksum is left to the caller.
void TakeFrame(CMsgData& packet, const uint8_t* frame, uint8_t size)
{
    packet.header = frame[0];
    for (size_t i = 0; i < size; ++i)
        packet.message[i] = frame[1 + i];
    packet.size = size;
}

// Header, message and checksum of a class of the ASK table whose checksum is
// the byte behind its message.
void TakeAskFrame(CMsgData& packet, const uint8_t* frame, uint8_t size)
{
    TakeFrame(packet, frame, size);
    packet.checksum = frame[size + 1];
}

// The last step of every frame constructor: Summary first, then typeString,
// and logData as the two joined.
void Complete(CMsgData& packet)
{
    std::string summary;
    packet.Summary(summary);
    std::string type;
    packet.typeString(type);
    packet.logData = type + summary;
}

// A copied view points at the copy's own message, or stays null.
const uint8_t* Repoint(const uint8_t* sourceView, const uint8_t* ownMessage)
{
    return sourceView ? ownMessage : nullptr;
}

// Depth texts of the configuration, row by m4 bit 7, column by the selector.
std::string ToleranceDepth(int negative, int selector)
{
    static const char* const table[2][4] = {
        {"FSK = ns + / -16.5ns", "FSK = 78ns + / -16.5ns", "FSK = 140.5ns + / -16.5ns",
         "FSK = 265.5ns + / -16.5ns"},
        {"FSK = -46.75ns + / -16.5ns", "FSK = -78ns + / -16.5ns", "FSK = -140.5ns + / -16.5ns",
         "FSK = -265.5ns + / -16.5ns"},
    };
    if (negative < 0 || negative > 1 || selector < 0 || selector > 3)
        return std::string();
    return table[negative][selector];
}

std::string PlainDepth(int negative, int selector)
{
    static const char* const table[2][4] = {
        {"FSK = 46.75ns", "FSK = 78ns", "FSK = 140.5ns", "FSK = 265.5ns"},
        {"FSK = -46.75ns", "FSK = -78ns", "FSK = -140.5ns", "FSK = -265.5ns"},
    };
    if (negative < 0 || negative > 1 || selector < 0 || selector > 3)
        return std::string();
    return table[negative][selector];
}

// Signed control error as "%.1f" followed by "%".
std::string ControlErrorText(uint8_t m0)
{
    const float value = static_cast<float>(static_cast<int8_t>(m0));
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(value));
    return std::string(text) + "%";
}

// Local wall clock of the host as "%02d:%02d:%02d.%03d".
std::string WallClockText()
{
    using namespace std::chrono;
    const system_clock::time_point now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    const long long ms =
        duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min,
                  parts.tm_sec, static_cast<int>(ms));
    return text;
}

}  // namespace

std::string PatternName(uint8_t byte)
{
    switch (byte) {
    case 0x00: return "NAK";
    case 0x88: return "MPP";
    case 0xBB: return "ND";
    case 0xCC: return "ATN";
    case 0xF0: return "APP";
    case 0xFF: return "ACK";
    default: return SpacedHex(&byte, 1);
    }
}

// ===========================================================================
// Identification and configuration
// ===========================================================================

Configuration::Configuration(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 5);
    msg = message;
    Complete(*this);
}

Configuration::Configuration(const Configuration& other)
    : CMsgData(other),
      msg(Repoint(other.msg, message)),
      maxPowerText(other.maxPowerText),
      guarPowerText(other.guarPowerText),
      contractText(other.contractText)
{
}

Configuration& Configuration::operator=(const Configuration& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    maxPowerText = other.maxPowerText;
    guarPowerText = other.guarPowerText;
    contractText = other.contractText;
    return *this;
}

void Configuration::typeString(std::string& out)
{
    out = "Configuration ";
}

void Configuration::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    // The power field is bits 1 to 5 of m0 taken as whole watts; m1 is not
    // read; bit 6 of m4 is both the depth selector and the polarity.
    const int power = (msg[0] >> 1) & 31;
    const bool prop = (msg[2] & 0x80) != 0;
    const int count = msg[2] & 7;
    const int wsize = (msg[3] >> 3) * 4;
    const int woff = (msg[3] & 7) * 4;
    const int neg = (msg[4] >> 7) & 1;
    const int selector = (msg[4] >> 6) & 1;
    const bool polarity = (msg[4] & 0x40) != 0;

    out = "Rx Configuration : " + Dec(power) + "W, " + "Prop = " + (prop ? "True" : "False") +
          ", " + "Count = " + Dec(count) + ", " + "Wsize = " + Dec(wsize) + "ms, " +
          "Woff = " + Dec(woff) + "ms, " + "Neg = " + (neg ? "True" : "False") + ", " +
          ToleranceDepth(neg, selector);

    maxPowerText = "MaxPower=" + Dec(power) + "W";
    guarPowerText = "GuarPower=" + Dec(power) + "W";
    powerValue = static_cast<uint64_t>(power);
    contractText = maxPowerText + ", " + guarPowerText + ", " + PlainDepth(neg, selector) +
                   (polarity ? ", Polarity=Negative" : ", Polarity=Positive") +
                   ", PktTpye=8Bit";
    SettingParams::Instance().detectedPolarity.store(polarity ? 1 : -1,
                                                     std::memory_order_relaxed);
    if (polarity)
        Log::Printf("Polarity is True");
    else
        Log::Printf("Polarity is False");
}

Identification::Identification(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 7);
    msg = message;
    Complete(*this);
}

Identification::Identification(const Identification& other)
    : CMsgData(other),
      msg(Repoint(other.msg, message)),
      versionText(other.versionText),
      manufacturerText(other.manufacturerText),
      deviceText(other.deviceText)
{
}

Identification& Identification::operator=(const Identification& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    versionText = other.versionText;
    manufacturerText = other.manufacturerText;
    deviceText = other.deviceText;
    return *this;
}

void Identification::typeString(std::string& out)
{
    out = "Identification ";
}

void Identification::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    const int major = msg[0] >> 4;
    const int minor = msg[0] & 15;
    const int ext = msg[3] >> 7;
    const std::string manufacturer = LowerHex(msg[1]) + LowerHex(msg[2]);
    const std::string device =
        LowerHex(msg[3] & 127) + LowerHex(msg[4]) + LowerHex(msg[5]) + LowerHex(msg[6]);

    out = "Identification: " + Dec(major) + "." + Dec(minor) + ", " + "0x" + manufacturer +
          ", " + "0x" + device + ", " + "Ext " + Dec(ext);

    versionText = "v" + Dec(major) + "." + Dec(minor);
    manufacturerText = "Mfr=0x" + manufacturer;
    deviceText = "Dev=0x" + device;
}

ExtendedIdentification::ExtendedIdentification(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 8);
    // msg and msgBytes stay null: the decode behind them is not opened here.
    Complete(*this);
}

ExtendedIdentification::ExtendedIdentification(const ExtendedIdentification& other)
    : CMsgData(other), msg(Repoint(other.msg, message)), msgBytes(Repoint(other.msgBytes, message))
{
}

ExtendedIdentification& ExtendedIdentification::operator=(const ExtendedIdentification& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    msgBytes = Repoint(other.msgBytes, message);
    return *this;
}

void ExtendedIdentification::typeString(std::string& out)
{
    out = "ExtendedIdentification ";
}

void ExtendedIdentification::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    if (msg[0] == 0xFE) {
        if (!msgBytes)
            return;
        const uint8_t* m = msgBytes;
        const uint8_t shifted = static_cast<uint8_t>(m[1] << 3);
        const uint8_t mfg[3] = {static_cast<uint8_t>(m[1] >> 5),
                                static_cast<uint8_t>(((m[2] ^ shifted) & 0x0F) ^ shifted), m[7]};
        const uint8_t vrect[2] = {static_cast<uint8_t>(m[2] >> 4), m[3]};
        out = "MPP Extended Identification: ";
        out += "Mfg Rsvd: " + SpacedHex(mfg, 3);
        out += "VRECT: " + SpacedHex(vrect, 2);
        out += "Alpha0 Rx: " + LowerHex(m[4]);
        out += "Alpha1 Rx: " + LowerHex(m[5]);
        out += "Alpha-Kth Rx: " + LowerHex(m[6]);
        return;
    }
    out = "Count " + std::string(reinterpret_cast<const char*>(msg), 8);
}

ExtendedPowerReceiverCapabilities::ExtendedPowerReceiverCapabilities(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 3);
    msg = message;
    Complete(*this);
}

ExtendedPowerReceiverCapabilities::ExtendedPowerReceiverCapabilities(
    const ExtendedPowerReceiverCapabilities& other)
    : CMsgData(other), msg(Repoint(other.msg, message))
{
}

ExtendedPowerReceiverCapabilities& ExtendedPowerReceiverCapabilities::operator=(
    const ExtendedPowerReceiverCapabilities& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    return *this;
}

void ExtendedPowerReceiverCapabilities::typeString(std::string& out)
{
    out = "Extended Power Receiver Capabilities ";
}

void ExtendedPowerReceiverCapabilities::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    // Only m0 to m2 are stored: m3, m5 and m7 read the zero fill.
    out = "MPP Extended Identification: ";
    out += "Minimum Charging Power Level: " + LowerHex(msg[3] >> 4);
    out += "Concurrent Data Streams: " + LowerHex(msg[5] & 7);
    out += "Data Stream Buffer Size: " + LowerHex((msg[5] >> 3) & 7);
    out += "Mfg Rsvd: " + LowerHex(msg[7]);
}

namespace {

// Wireless power ID halves: m0 to m3 from frame[1..4], m4 from frame[6];
// frame[5] is skipped and frame[7] is the checksum.
void TakeWpidFrame(CMsgData& packet, const uint8_t* frame)
{
    packet.header = frame[0];
    for (size_t i = 0; i < 4; ++i)
        packet.message[i] = frame[1 + i];
    packet.message[4] = frame[6];
    packet.checksum = frame[7];
    packet.size = 5;
}

}  // namespace

WPIDMost::WPIDMost(const uint8_t* frame)
{
    TakeWpidFrame(*this, frame);
    Complete(*this);
}

void WPIDMost::typeString(std::string& out)
{
    out = "Wireless Power ID ";
}

void WPIDMost::Summary(std::string& out)
{
    out = "Wireless Power ID Most " + SpacedHex(message, 3);
}

WPIDLast::WPIDLast(const uint8_t* frame)
{
    TakeWpidFrame(*this, frame);
    Complete(*this);
}

void WPIDLast::typeString(std::string& out)
{
    out = "Wireless Power ID ";
}

void WPIDLast::Summary(std::string& out)
{
    out = "Wireless Power ID Last " + SpacedHex(message, 3);
}

// ===========================================================================
// Power transfer control
// ===========================================================================

ControlError::ControlError(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void ControlError::typeString(std::string& out)
{
    out = "ControlError ";
}

void ControlError::Summary(std::string& out)
{
    out = ControlErrorText(message[0]);
}

ExControlError::ExControlError(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void ExControlError::typeString(std::string& out)
{
    out = "ExControlError ";
}

void ExControlError::Summary(std::string& out)
{
    out = ControlErrorText(message[0]);
}

ReceivedPower::ReceivedPower(const uint8_t* frame, int reference_)
{
    TakeAskFrame(*this, frame, 1);
    reference = reference_;
    Complete(*this);
}

void ReceivedPower::typeString(std::string& out)
{
    out = "ReceivedPower ";
}

void ReceivedPower::Summary(std::string& out)
{
    const float ratio = static_cast<float>(message[0]) * 0.0078125f;
    power = static_cast<float>(reference) * ratio;
    powerRatio = static_cast<double>(ratio);
    out = FloatText(ratio * 100.0f) + "% " + FloatText(power) + "W";
}

ReceivedPower1_2_2::ReceivedPower1_2_2(const uint8_t* frame, int reference_)
{
    TakeAskFrame(*this, frame, 3);
    reference = reference_;
    Complete(*this);
}

void ReceivedPower1_2_2::typeString(std::string& out)
{
    out = "ReceivedPower ";
}

void ReceivedPower1_2_2::Summary(std::string& out)
{
    std::string mode;
    switch (message[0] & 7) {
    case 0: mode = "Mode 0 (NormalMode_ResponseExpected); "; break;
    case 1: mode = "Mode 1 (LightLoadCal_ResponseExpected); "; break;
    case 2: mode = "Mode 2 (LoadConnectedCal_ResponseExpected); "; break;
    case 4: mode = "Mode 4 (NormalMode_NoResponseExpected); "; break;
    default: break;
    }
    const unsigned raw = (static_cast<unsigned>(message[1]) << 8) + message[2];
    const float ratio = static_cast<float>(raw) * 3.0517578125e-05f;
    power = static_cast<float>(reference) * ratio;
    powerRatio = static_cast<double>(ratio);
    out = mode + FloatText(ratio * 100.0f) + "% " + FloatText(power) + "W " + WallClockText();
}

ChargeStatus::ChargeStatus(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void ChargeStatus::typeString(std::string& out)
{
    out = "ChargeStatus ";
}

void ChargeStatus::Summary(std::string& out)
{
    out = Dec(message[0]);
}

EndPowerTransfer::EndPowerTransfer(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void EndPowerTransfer::typeString(std::string& out)
{
    out = "EndPowerTransfer ";
}

void EndPowerTransfer::Summary(std::string& out)
{
    switch (message[0]) {
    case 0: out = "Unknown"; break;
    case 1: out = "Charge Complete"; break;
    case 2: out = "Internal Fault"; break;
    case 3: out = "Over Temperature"; break;
    case 4: out = "Over Voltage"; break;
    case 5: out = "Over Current"; break;
    case 6: out = "Batter Failure"; break;
    case 7: out = "Reconfigure"; break;
    case 8: out = "No response"; break;
    default: out = "Reserved"; break;
    }
}

SignalStrength::SignalStrength(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void SignalStrength::typeString(std::string& out)
{
    out = "SignalStrength ";
}

void SignalStrength::Summary(std::string& out)
{
    const float value = static_cast<float>(message[0]) * 100.0f * 0.00390625f;
    out = FloatText(value);
}

PowerControlHoldOff::PowerControlHoldOff(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void PowerControlHoldOff::typeString(std::string& out)
{
    out = "PowerControlHoldOff ";
}

void PowerControlHoldOff::Summary(std::string& out)
{
    out = "PowerControlHoldOff " + Dec(message[0]) + " ms";
}

FODStatus::FODStatus(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 2);
    Complete(*this);
}

void FODStatus::typeString(std::string& out)
{
    out = "FOD Status Packet";
}

void FODStatus::Summary(std::string& out)
{
    out = "Test0; Q = " + Dec(message[1]);
}

Renegotiate::Renegotiate(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void Renegotiate::typeString(std::string& out)
{
    out = "Renegotiate ";
}

void Renegotiate::Summary(std::string& out)
{
    out = "Renegotiate";
}

GeneralRequest::GeneralRequest(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void GeneralRequest::typeString(std::string& out)
{
    switch (message[0]) {
    case 0x00: out = "Power Transmitter Data Not Available"; break;
    case 0x30: out = "Request Tx ID"; break;
    case 0x31: out = "Request Tx Capability"; break;
    default: out = "Reserved"; break;
    }
}

void GeneralRequest::Summary(std::string& out)
{
    out.clear();
}

// ===========================================================================
// Negotiation requests
// ===========================================================================

SpecificRequest::SpecificRequest(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 2);
    guaranteedPower = 0.0f;
    Complete(*this);
}

void SpecificRequest::typeString(std::string& out)
{
    out = "Specific Request ";
}

void SpecificRequest::Summary(std::string& out)
{
    const uint8_t m1 = message[1];
    switch (message[0]) {
    case 0x00:
        out = "End Negotiation: count=" + Dec(m1);
        break;
    case 0x01:
        // The text keeps the half watt; the stored values drop it.
        out = "Guaranteed Power " + FloatText(static_cast<float>(m1) * 0.5f) + " W";
        guaranteedPower = static_cast<float>(m1 >> 1);
        powerValue = static_cast<uint64_t>(m1 >> 1);
        break;
    case 0x02:
        out = "Received Power Packet Type 0x" + LowerHex(m1);
        break;
    case 0x03:
        out = std::string("FSK Parameters ") + "with Polarity:" + Dec((m1 >> 2) & 1) +
              " depth:" + Dec(m1 & 3);
        break;
    case 0x04:
        out = "Maximum Power " + Dec(m1 >> 1);
        powerValue = static_cast<uint64_t>(m1 >> 1);
        break;
    case 0xF0:
        out = (m1 & 3) == 1 ? "Frequency Selection 360KHz" : "Frequency Selection Reserved";
        break;
    case 0xF3:
        out = "Power level " + Dec(m1 * 100) + " mW";
        powerValue = static_cast<uint64_t>(m1 / 10);
        break;
    case 0xF5:
        out = "Cloak Ping Delay - Low Byte " + Dec(m1);
        break;
    case 0xF6:
        out = (m1 & 1) ? "Power Control Profile: Low-K power profile"
                       : "Power Control Profile: Default profile selected";
        break;
    case 0xF7:
        out = "Cloak Ping Delay - High Byte " + Dec(m1 & 3);
        break;
    case 0xF8:
        out = "Cloak Detect Ping Delay: " + Dec((m1 & 15) * 100) + " ms";
        break;
    default:
        out = "Reserved";
        break;
    }
}

GetRequest::GetRequest(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 2);
    Complete(*this);
}

void GetRequest::typeString(std::string& out)
{
    out = "GetRequest ";
}

void GetRequest::Summary(std::string& out)
{
    switch (message[1] & 31) {
    case 0: out = "PTx Extended Identification"; break;
    case 2: out = "PTx Inverter Voltage"; break;
    case 3: out = "PTx Power Loss Accounting Parameters"; break;
    case 4: out = "PTx Extended Capabilities"; break;
    case 5: out = "PTx Regulation Control Status"; break;
    case 6: out = "PTx Charge Status"; break;
    case 7: out = "PTx Estimated K"; break;
    case 9: out = "PTx Error Status"; break;
    default: out = "Reserved"; break;
    }
}

EnableDataStreams::EnableDataStreams(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 2);
    Complete(*this);
}

void EnableDataStreams::typeString(std::string& out)
{
    out = "EnableDataStreams ";
}

void EnableDataStreams::Summary(std::string& out)
{
    out = "Streams Bitmask " + SpacedHex(message, 2);
}

CloakRequest::CloakRequest(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 1);
    Complete(*this);
}

void CloakRequest::typeString(std::string& out)
{
    out = "CloakRequest ";
}

void CloakRequest::Summary(std::string& out)
{
    switch (message[0] & 7) {
    case 0: out = "Cloak: Generic"; break;
    case 1: out = "Cloak: Forced"; break;
    case 2: out = "Cloak: Thermally constrained"; break;
    case 3: out = "Cloak: Insufficient Power"; break;
    case 4: out = "Cloak: Coex Mitigation"; break;
    case 5: out = "Cloak: End of Charge"; break;
    case 6: out = "Cloak: PTx initiated"; break;
    default: out = "Reserved"; break;
    }
}

PLAP::PLAP(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 5);
    Complete(*this);
}

void PLAP::typeString(std::string& out)
{
    out = "PLAP ";
}

void PLAP::Summary(std::string& out)
{
    // The layout starts at m1 and runs past the five stored bytes: m5 and m6
    // read the zero fill.
    const uint8_t* m = message;
    out = "FM: " + Dec((m[1] << 8) + m[2]) + "DC: " + Dec((m[3] << 8) + m[4]) + "TX: " +
          Dec((m[5] << 8) + m[6]);
}

REPORT_PLA::REPORT_PLA(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 5);
    Complete(*this);
}

void REPORT_PLA::typeString(std::string& out)
{
    out = "Report ";
}

void REPORT_PLA::Summary(std::string& out)
{
    const uint8_t* m = message;
    switch (m[0] >> 5) {
    case 0:
        if ((m[0] & 3) == 2) {
            const uint8_t id[3] = {static_cast<uint8_t>(m[1] & 0x3F), m[2],
                                   static_cast<uint8_t>(m[3] >> 5)};
            out = "select:0 PRx Identification " + SpacedHex(id, 3);
        } else {
            out = "select:0 Reserved";
        }
        break;
    case 1:
        out = "select:1 Power Loss Accounting " + Dec((m[1] << 8) + m[2]) + "mW " + "PRECT: " +
              Dec((m[3] << 8) + m[4]) + "mW";
        break;
    default:
        out = "Reserved";
        break;
    }
}

// ===========================================================================
// Data streams
// ===========================================================================

SimultaneousAuxiliaryDataControl::SimultaneousAuxiliaryDataControl(const uint8_t* frame)
{
    // The checksum is frame[5], the same byte as the last message byte; the
    // FSK header 0x4F uses the same layout.
    TakeFrame(*this, frame, 5);
    checksum = frame[5];
    msg = message;
    Complete(*this);
}

SimultaneousAuxiliaryDataControl::SimultaneousAuxiliaryDataControl(
    const SimultaneousAuxiliaryDataControl& other)
    : CMsgData(other),
      msg(Repoint(other.msg, message)),
      text1(other.text1),
      text2(other.text2),
      text3(other.text3)
{
}

SimultaneousAuxiliaryDataControl& SimultaneousAuxiliaryDataControl::operator=(
    const SimultaneousAuxiliaryDataControl& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    text1 = other.text1;
    text2 = other.text2;
    text3 = other.text3;
    return *this;
}

void SimultaneousAuxiliaryDataControl::typeString(std::string& out)
{
    out = "SADC ";
}

void SimultaneousAuxiliaryDataControl::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    const int stream = msg[1] >> 4;
    switch (msg[0] >> 5) {
    case 0:
        out = " Reset All Stream";
        break;
    case 1:
        out = " Reset Stream " + Dec(stream);
        break;
    case 2:
        out = " Close and Abort Stream " + Dec(stream);
        break;
    case 3:
        out = " Close and Complete Stream " + Dec(stream) + " crc-16 " + UpperHex(msg[2]) +
              UpperHex(msg[3]);
        break;
    case 4:
        out = " Open Stream " + Dec(stream) + " Transfer size in bytes " +
              Dec((msg[2] << 8) + msg[3]);
        break;
    default:
        break;
    }
}

SimultaneousDataStreamResponse::SimultaneousDataStreamResponse(const uint8_t* frame)
{
    TakeAskFrame(*this, frame, 3);
    msg = message;
    Complete(*this);
}

SimultaneousDataStreamResponse::SimultaneousDataStreamResponse(
    const SimultaneousDataStreamResponse& other)
    : CMsgData(other),
      msg(Repoint(other.msg, message)),
      text1(other.text1),
      text2(other.text2),
      text3(other.text3)
{
}

SimultaneousDataStreamResponse& SimultaneousDataStreamResponse::operator=(
    const SimultaneousDataStreamResponse& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    text1 = other.text1;
    text2 = other.text2;
    text3 = other.text3;
    return *this;
}

void SimultaneousDataStreamResponse::typeString(std::string& out)
{
    out = "SDSR ";
}

void SimultaneousDataStreamResponse::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    static const char* const answers[4] = {" ACK", " UNEXPECTED", " ERR_BUSY", " ERR_CRC"};
    out = "StreamNumber: " + Dec(msg[1] >> 4) + answers[msg[2] >> 6];
}

FSKEDS::FSKEDS(const uint8_t* frame)
{
    TakeFrame(*this, frame, 2);
    Complete(*this);
}

void FSKEDS::typeString(std::string& out)
{
    out = " Enabled Data Streams ";
}

void FSKEDS::Summary(std::string& out)
{
    out = "Streams Bitmask " + SpacedHex(message, 2);
}

// ===========================================================================
// Transmitter responses over FSK. None of them stores a checksum.
// ===========================================================================

FSKCapability::FSKCapability(const uint8_t* frame)
{
    TakeFrame(*this, frame, 3);
    msg = message;
    Complete(*this);
}

FSKCapability::FSKCapability(const FSKCapability& other)
    : CMsgData(other), msg(Repoint(other.msg, message))
{
}

FSKCapability& FSKCapability::operator=(const FSKCapability& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    return *this;
}

void FSKCapability::typeString(std::string& out)
{
    out = "Power Transmitter Capability";
}

void FSKCapability::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    const float guaranteed = static_cast<float>(msg[0] & 0x3F) * 0.5f;
    const float potential = static_cast<float>(msg[1] & 0x3F) * 0.5f;
    out = std::string("FSK ") + "Guaranteed " + FloatText(guaranteed) + " W, " + "Potential " +
          FloatText(potential) + " W, " + "WPID " + Dec((msg[2] >> 1) & 1) + ", " +
          "Not Res Sens " + Dec(msg[2] & 1);
    powerValue = static_cast<uint64_t>(guaranteed);
}

FSKIdentification::FSKIdentification(const uint8_t* frame)
{
    TakeFrame(*this, frame, 3);
    msg = message;
    Complete(*this);
}

FSKIdentification::FSKIdentification(const FSKIdentification& other)
    : CMsgData(other), msg(Repoint(other.msg, message))
{
}

FSKIdentification& FSKIdentification::operator=(const FSKIdentification& other)
{
    CMsgData::operator=(other);
    msg = Repoint(other.msg, message);
    return *this;
}

void FSKIdentification::typeString(std::string& out)
{
    out = "Power Transmitter Identification";
}

void FSKIdentification::Summary(std::string& out)
{
    out.clear();
    if (!msg)
        return;
    out = "v" + Dec(msg[0] >> 4) + "." + Dec(msg[0] & 15) + ", " + "Mfr=0x" + LowerHex(msg[1]) +
          LowerHex(msg[2]);
}

FSKXIDECAP::FSKXIDECAP(const uint8_t* frame)
{
    // Eight bytes are taken although the size is 9: m8 reads the zero fill.
    TakeFrame(*this, frame, 8);
    size = 9;
    Complete(*this);
}

void FSKXIDECAP::typeString(std::string& out)
{
    switch (message[0] >> 4) {
    case 0: out = "Extended Power Transmitter Identification "; break;
    case 1: out = "Extended Power Transmitter Extended Capabilities "; break;
    default: out = "Reserved "; break;
    }
}

void FSKXIDECAP::Summary(std::string& out)
{
    const uint8_t* m = message;
    switch (m[0] >> 4) {
    case 0: {
        const uint8_t id[3] = {static_cast<uint8_t>(m[4] & 0x3F), m[5],
                               static_cast<uint8_t>(m[6] >> 3)};
        const uint8_t reserved[3] = {static_cast<uint8_t>(m[6] & 7), m[7], m[8]};
        out = "Device Identifier: " + SpacedHex(id, 3) + "Mfg Reserved: " + SpacedHex(reserved, 3);
        break;
    }
    case 1: {
        static const char* const reasons[8] = {
            "No Limit",
            "Reserved",
            "Foreign Object Presence",
            "Brown-Out Protection",
            "Over Temperature",
            "Maximum Inverter Voltage Reached",
            "Over Current",
            "Maximum Available Power",
        };
        const int code = m[5] & 15;
        const std::string reason = code < 8 ? reasons[code] : "Reseved";
        out = "Potential Load Power: " + Dec(((m[1] & 3) << 8) + m[2]) + "mW" +
              "Negotiable Load Power: " + Dec(((m[3] & 3) << 8) + m[4]) + "mW" +
              "Power Limit Reason:" + reason + "Buffer SIze: " + Dec((m[6] >> 3) & 7) +
              "Concurrent Data Streams:" + Dec(m[6] & 7);
        break;
    }
    default:
        out = "Reserved ";
        break;
    }
}

FSKINVSDSRKEST::FSKINVSDSRKEST(const uint8_t* frame)
{
    TakeFrame(*this, frame, 3);
    Complete(*this);
}

void FSKINVSDSRKEST::typeString(std::string& out)
{
    switch (message[0]) {
    case 0: out = "Inverter Voltage "; break;
    case 1: out = "Simultaneous Data Stream Response "; break;
    case 2: out = "Estimated K - KEST "; break;
    default: out = "Reserved "; break;
    }
}

void FSKINVSDSRKEST::Summary(std::string& out)
{
    const uint8_t* m = message;
    switch (m[0]) {
    case 0:
        out = Dec((((m[1] & 0x3F) << 8) + m[2]) * 2) + "mV";
        break;
    case 1: {
        static const char* const answers[4] = {" ACK", " UNEXPECTED", " ERR_BUSY", " ERR_CRC"};
        out = "Stream Number" + LowerHex(m[1] & 15) + answers[m[2] & 3];
        break;
    }
    case 2:
        out = "The value of the estimated K by the Power Transmitter " +
              Dec(((m[1] & 15) << 8) + m[2]);
        break;
    default:
        out = "Reserved ";
        break;
    }
}

FSKCLOAKRCS::FSKCLOAKRCS(const uint8_t* frame)
{
    TakeFrame(*this, frame, 1);
    Complete(*this);
}

void FSKCLOAKRCS::typeString(std::string& out)
{
    switch (message[0] >> 4) {
    case 0: out = "Cloak Request  "; break;
    case 3: out = "Regulation Control Status "; break;
    default: out = "Reserved "; break;
    }
}

void FSKCLOAKRCS::Summary(std::string& out)
{
    const int low = message[0] & 15;
    switch (message[0] >> 4) {
    case 0:
        // Code 1 has no name here, unlike the receiver's cloak request.
        switch (low) {
        case 0: out = "Cloak: Generic"; break;
        case 2: out = "Cloak: Thermally constrained"; break;
        case 3: out = "Cloak: Insufficient Power"; break;
        case 4: out = "Cloak: Coex Mitigation"; break;
        default: out = "Reserved"; break;
        }
        break;
    case 3:
        switch (low) {
        case 0: out = "Normal operation"; break;
        case 1: out = "Reached maximum allocated power"; break;
        case 2: out = "System protections enabled"; break;
        case 3: out = "Reached maximum supported voltage"; break;
        case 4: out = "Reached minimum supported voltage"; break;
        default: out = "Reserved"; break;
        }
        break;
    default:
        out = "Reserved ";
        break;
    }
}

FSKChargeStatus::FSKChargeStatus(const uint8_t* frame)
{
    TakeFrame(*this, frame, 1);
    Complete(*this);
}

void FSKChargeStatus::typeString(std::string& out)
{
    out = "Charge Status ";
}

void FSKChargeStatus::Summary(std::string& out)
{
    const uint8_t m0 = message[0];
    if (m0 <= 100)
        out = "Battery charge level:" + Dec(m0);
    else if (m0 == 254)
        out = "Battery level is temporarily not available";
    else if (m0 == 255)
        out = " Device does not have a battery";
    else
        out = "Reserved";
}

FSKDataNotAvailable::FSKDataNotAvailable(const uint8_t* frame)
{
    TakeFrame(*this, frame, 1);
    Complete(*this);
}

void FSKDataNotAvailable::typeString(std::string& out)
{
    out = "Power Transmitter Data Not Available";
}

void FSKDataNotAvailable::Summary(std::string& out)
{
    out = "FSK ";
}

FSKErrorStatus::FSKErrorStatus(const uint8_t* frame)
{
    TakeFrame(*this, frame, 1);
    Complete(*this);
}

void FSKErrorStatus::typeString(std::string& out)
{
    out = "Error Status ";
}

void FSKErrorStatus::Summary(std::string& out)
{
    switch (message[0] & 3) {
    case 0: out = "FSK Error Status : No Error"; break;
    case 1: out = "FSK Error Status : Unable to compute k-est"; break;
    default: out = "FSK Reseved"; break;
    }
}

FSKGetRequest::FSKGetRequest(const uint8_t* frame)
{
    TakeFrame(*this, frame, 2);
    Complete(*this);
}

void FSKGetRequest::typeString(std::string& out)
{
    out = "GetRequest ";
}

void FSKGetRequest::Summary(std::string& out)
{
    switch (message[1] & 15) {
    case 1: out = "Power Loss Accounting Parameters"; break;
    case 2: out = "PRx Identification"; break;
    case 3: out = "PRx Charge Status (Refer to Qi Communications Protocol - CHS)"; break;
    case 4: out = "PRx Enabled Data Streams"; break;
    default: out = "Reserved"; break;
    }
}

FSKPLAP::FSKPLAP(const uint8_t* frame)
{
    TakeFrame(*this, frame, 5);
    Complete(*this);
}

void FSKPLAP::typeString(std::string& out)
{
    out = " Power Loss Accounting Parameters ";
}

void FSKPLAP::Summary(std::string& out)
{
    out = "Constant used in Power Loss Accounting formula: " + SpacedHex(message, 2);
}
