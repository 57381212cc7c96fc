#include "analysis/Dissect.h"

#include "analysis/EventFields.h"
#include "common/TimeText.h"
#include "packets/Packets.h"

#include <cctype>
#include <cstdio>

namespace analysis {

namespace {

// How a field's bits become its value text.
enum class Kind {
    Unsigned,  // decimal
    Signed,    // two's complement over the field's bits, decimal
    Hex,       // "0x" and two digits a byte
    Bool,      // "True" / "False"
    Named,     // the name the table gives, then the raw value in brackets
    Version,   // major.minor from the high and low nibble
    Scaled,    // raw (signed when `isSigned`) times `scale`, "%g"
};

using NameFn = const char* (*)(int64_t);

struct Desc {
    const char* name;
    int byte;   // frame byte of the field's first bit (0 = header)
    int hiBit;  // its highest bit in that byte
    int bits;   // length; a field may run over several bytes, big-endian
    Kind kind;
    const char* unit = "";
    const char* filter = nullptr;  // display filter name
    int mul = 1;                   // the value is the raw field times this
    double scale = 0.0;            // Scaled: value = raw * scale
    NameFn names = nullptr;
    int depth = 0;  // 1: a child of the last field of depth 0
    bool isSigned = false;
};

Desc F(const char* name, int byte, int hiBit, int bits, Kind kind, const char* unit = "", const char* filter = nullptr)
{
    Desc d{name, byte, hiBit, bits, kind};
    d.unit = unit;
    d.filter = filter;
    return d;
}

Desc Mul(Desc d, int mul)
{
    d.mul = mul;
    return d;
}

Desc Named(const char* name, int byte, int hiBit, int bits, NameFn names, const char* filter = nullptr)
{
    Desc d{name, byte, hiBit, bits, Kind::Named};
    d.names = names;
    d.filter = filter;
    return d;
}

Desc Scaled(const char* name, int byte, int hiBit, int bits, double scale, const char* unit, bool isSigned = false)
{
    Desc d{name, byte, hiBit, bits, Kind::Scaled};
    d.scale = scale;
    d.unit = unit;
    d.isSigned = isSigned;
    return d;
}

Desc Child(Desc d)
{
    d.depth = 1;
    return d;
}

uint64_t Bits(const std::vector<uint8_t>& b, int byte, int hiBit, int bits)
{
    const int start = byte * 8 + (7 - hiBit);
    uint64_t v = 0;
    for (int i = 0; i < bits; ++i) {
        const int bit = start + i;
        const size_t at = static_cast<size_t>(bit / 8);
        const int shift = 7 - bit % 8;
        v = (v << 1) | (at < b.size() ? static_cast<uint64_t>((b[at] >> shift) & 1) : 0u);
    }
    return v;
}

int64_t SignExtend(uint64_t raw, int bits)
{
    if (bits <= 0 || bits >= 64)
        return static_cast<int64_t>(raw);
    const uint64_t sign = static_cast<uint64_t>(1) << (bits - 1);
    return static_cast<int64_t>((raw ^ sign)) - static_cast<int64_t>(sign);
}

std::string Num(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

std::string HexValue(uint64_t raw, int bits)
{
    const int digits = (bits + 3) / 4 + ((bits + 3) / 4) % 2;
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%0*llx", digits, static_cast<unsigned long long>(raw));
    return buf;
}

// --- name tables, as the packet classes print them ---------------------------

const char* EptName(int64_t v)
{
    static const char* names[] = {"Unknown",      "Charge Complete", "Internal Fault", "Over Temperature",
                                  "Over Voltage", "Over Current",    "Batter Failure", "Reconfigure",
                                  "No response"};
    return v >= 0 && v <= 8 ? names[v] : "Reserved";
}

const char* GeneralRequestName(int64_t v)
{
    switch (v) {
    case 0x00: return "Power Transmitter Data Not Available";
    case 0x30: return "Request Tx ID";
    case 0x31: return "Request Tx Capability";
    default: return "Reserved";
    }
}

const char* CloakName(int64_t v)
{
    static const char* names[] = {"Generic",     "Forced",          "Thermally constrained", "Insufficient Power",
                                  "Coex Mitigation", "End of Charge", "PTx initiated",         "Reserved"};
    return v >= 0 && v <= 7 ? names[v] : "Reserved";
}

const char* SpecificRequestName(int64_t v)
{
    switch (v) {
    case 0x00: return "End Negotiation";
    case 0x01: return "Guaranteed Power";
    case 0x02: return "Received Power Packet Type";
    case 0x03: return "FSK Parameters";
    case 0x04: return "Maximum Power";
    case 0xF0: return "Frequency Selection";
    case 0xF3: return "Power level";
    case 0xF5: return "Cloak Ping Delay - Low Byte";
    case 0xF6: return "Power Control Profile";
    case 0xF7: return "Cloak Ping Delay - High Byte";
    case 0xF8: return "Cloak Detect Ping Delay";
    default: return "Reserved";
    }
}

const char* GetRequestName(int64_t v)
{
    switch (v) {
    case 0: return "PTx Extended Identification";
    case 2: return "PTx Inverter Voltage";
    case 3: return "PTx Power Loss Accounting Parameters";
    case 4: return "PTx Extended Capabilities";
    case 5: return "PTx Regulation Control Status";
    case 6: return "PTx Charge Status";
    case 7: return "PTx Estimated K";
    case 9: return "PTx Error Status";
    default: return "Reserved";
    }
}

const char* RpModeName(int64_t v)
{
    switch (v) {
    case 0: return "NormalMode_ResponseExpected";
    case 1: return "LightLoadCal_ResponseExpected";
    case 2: return "LoadConnectedCal_ResponseExpected";
    case 4: return "NormalMode_NoResponseExpected";
    default: return "Reserved";
    }
}

const char* StreamAnswerName(int64_t v)
{
    static const char* names[] = {"ACK", "UNEXPECTED", "ERR_BUSY", "ERR_CRC"};
    return v >= 0 && v <= 3 ? names[v] : "Reserved";
}

const char* SadcCommandName(int64_t v)
{
    static const char* names[] = {"Reset All Stream", "Reset Stream", "Close and Abort Stream",
                                  "Close and Complete Stream", "Open Stream"};
    return v >= 0 && v <= 4 ? names[v] : "Reserved";
}

const char* PolarityName(int64_t v)
{
    return v ? "Negative" : "Positive";
}

const char* DepthName(int64_t v)
{
    // As the configuration's contract text tells it: Neg (bit 7) picks the
    // sign, the selector (bit 6, which is the polarity bit too) the depth.
    static const char* names[] = {"FSK = 46.75ns", "FSK = 78ns", "FSK = -46.75ns", "FSK = -78ns"};
    return v >= 0 && v <= 3 ? names[v] : "";
}

const char* PowerClassName(int64_t v)
{
    static const char* names[] = {"Class 0", "Class 1", "Class 2", "Class 3"};
    return v >= 0 && v <= 3 ? names[v] : "Reserved";
}

const char* FskErrorName(int64_t v)
{
    switch (v) {
    case 0: return "No Error";
    case 1: return "Unable to compute k-est";
    default: return "Reserved";
    }
}

const char* FskGetRequestName(int64_t v)
{
    switch (v) {
    case 1: return "Power Loss Accounting Parameters";
    case 2: return "PRx Identification";
    case 3: return "PRx Charge Status";
    case 4: return "PRx Enabled Data Streams";
    default: return "Reserved";
    }
}

const char* CloakRcsKindName(int64_t v)
{
    switch (v) {
    case 0: return "Cloak Request";
    case 3: return "Regulation Control Status";
    default: return "Reserved";
    }
}

const char* InvKindName(int64_t v)
{
    switch (v) {
    case 0: return "Inverter Voltage";
    case 1: return "Simultaneous Data Stream Response";
    case 2: return "Estimated K - KEST";
    default: return "Reserved";
    }
}

const char* XidKindName(int64_t v)
{
    switch (v) {
    case 0: return "Extended Power Transmitter Identification";
    case 1: return "Extended Power Transmitter Extended Capabilities";
    default: return "Reserved";
    }
}

const char* LimitReasonName(int64_t v)
{
    static const char* names[] = {"No Limit",         "Reserved",      "Foreign Object Presence", "Brown-Out Protection",
                                  "Over Temperature", "Maximum Inverter Voltage Reached", "Over Current",
                                  "Maximum Available Power"};
    return v >= 0 && v <= 7 ? names[v] : "Reseved";
}

const char* ReportSelectName(int64_t v)
{
    switch (v) {
    case 0: return "PRx Identification";
    case 1: return "Power Loss Accounting";
    default: return "Reserved";
    }
}

// The layout of each packet class: its fields in frame order.
void Layout(const FrameView& f, std::vector<Desc>& d)
{
    const std::vector<uint8_t>& b = f.bytes;
    const uint8_t header = b.empty() ? 0 : b[0];
    auto m = [&b](size_t i) -> uint8_t { return i + 1 < b.size() ? b[i + 1] : 0; };
    if (f.direction == 1) {
        switch (header) {
        case 0x01: d.push_back(Named("Error status", 1, 1, 2, FskErrorName)); return;
        case 0x1E:
            d.push_back(Named("Kind", 1, 7, 4, CloakRcsKindName));
            d.push_back(F("Code", 1, 3, 4, Kind::Unsigned));
            return;
        case 0x1F: d.push_back(F("Battery charge level", 1, 7, 8, Kind::Unsigned, "%")); return;
        case 0x2E: d.push_back(Named("Request", 2, 3, 4, FskGetRequestName)); return;
        case 0x2F: d.push_back(F("Streams bitmask", 1, 7, 16, Kind::Hex)); return;
        case 0x30:
            d.push_back(F("Version", 1, 7, 8, Kind::Version));
            d.push_back(Child(F("Major version", 1, 7, 4, Kind::Unsigned)));
            d.push_back(Child(F("Minor version", 1, 3, 4, Kind::Unsigned)));
            d.push_back(F("Manufacturer code", 2, 7, 16, Kind::Hex));
            return;
        case 0x31:
            d.push_back(Scaled("Guaranteed power", 1, 5, 6, 0.5, "W"));
            d.push_back(Scaled("Potential power", 2, 5, 6, 0.5, "W"));
            d.push_back(F("WPID", 3, 1, 1, Kind::Unsigned));
            d.push_back(F("Not Res Sens", 3, 0, 1, Kind::Unsigned));
            return;
        case 0x3F:
            d.push_back(Named("Kind", 1, 7, 8, InvKindName));
            if (m(0) == 0)
                d.push_back(Mul(F("Inverter voltage", 2, 5, 14, Kind::Unsigned, "mV"), 2));
            else if (m(0) == 1) {
                d.push_back(F("Stream number", 2, 3, 4, Kind::Unsigned));
                d.push_back(Named("Answer", 3, 1, 2, StreamAnswerName));
            } else if (m(0) == 2)
                d.push_back(F("Estimated K", 2, 3, 12, Kind::Unsigned));
            return;
        case 0x4F:
            d.push_back(Named("Command", 1, 7, 3, SadcCommandName));
            d.push_back(F("Stream number", 2, 7, 4, Kind::Unsigned));
            d.push_back(F("Value", 3, 7, 16, Kind::Hex));
            return;
        case 0x5F: d.push_back(F("Power loss accounting constant", 1, 7, 16, Kind::Hex)); return;
        case 0x8F:
            d.push_back(Named("Kind", 1, 7, 4, XidKindName));
            if ((m(0) >> 4) == 0) {
                d.push_back(F("Device identifier", 5, 5, 19, Kind::Hex));
            } else if ((m(0) >> 4) == 1) {
                d.push_back(F("Potential load power", 2, 1, 10, Kind::Unsigned, "mW"));
                d.push_back(F("Negotiable load power", 4, 1, 10, Kind::Unsigned, "mW"));
                d.push_back(Named("Power limit reason", 6, 3, 4, LimitReasonName));
                d.push_back(F("Buffer size", 7, 5, 3, Kind::Unsigned));
                d.push_back(F("Concurrent data streams", 7, 2, 3, Kind::Unsigned));
            }
            return;
        default: return;
        }
    }
    switch (header) {
    case 0x01: d.push_back(Scaled("Signal strength", 1, 7, 8, 100.0 / 256.0, "%")); return;
    case 0x02: d.push_back(Named("End power transfer code", 1, 7, 8, EptName, "ept.code")); return;
    case 0x03:
    case 0x19:
        d.push_back(F("Control error value", 1, 7, 8, Kind::Signed, "", "ce.value"));
        d.push_back(Child(Scaled("Percentage", 1, 7, 8, 1.0, "%", true)));
        return;
    case 0x04:
        d.push_back(F("Received power value", 1, 7, 8, Kind::Unsigned, "", "rp.value"));
        d.push_back(Child(Scaled("Fraction of the reference", 1, 7, 8, 100.0 / 128.0, "%")));
        return;
    case 0x05: d.push_back(F("Charge status", 1, 7, 8, Kind::Unsigned, "%")); return;
    case 0x06: d.push_back(F("Hold-off time", 1, 7, 8, Kind::Unsigned, "ms")); return;
    case 0x07: d.push_back(Named("Request", 1, 7, 8, GeneralRequestName)); return;
    case 0x18: d.push_back(Named("Reason", 1, 2, 3, CloakName)); return;
    case 0x20:
        d.push_back(Named("Request", 1, 7, 8, SpecificRequestName));
        d.push_back(F("Request parameter", 2, 7, 8, Kind::Unsigned));
        if (m(0) == 0x01)
            d.push_back(Child(Scaled("Guaranteed power", 2, 7, 8, 0.5, "W")));
        else if (m(0) == 0x04)
            d.push_back(Child(F("Maximum power", 2, 7, 7, Kind::Unsigned, "W")));
        else if (m(0) == 0x03) {
            d.push_back(Child(F("Polarity", 2, 2, 1, Kind::Unsigned)));
            d.push_back(Child(F("Depth", 2, 1, 2, Kind::Unsigned)));
        } else if (m(0) == 0xF3)
            d.push_back(Child(Scaled("Power level", 2, 7, 8, 100.0, "mW")));
        return;
    case 0x22:
        d.push_back(F("Mode", 1, 7, 8, Kind::Hex));
        d.push_back(F("Quality factor", 2, 7, 8, Kind::Unsigned));
        return;
    case 0x28: d.push_back(Named("Request", 2, 4, 5, GetRequestName)); return;
    case 0x29: d.push_back(F("Streams bitmask", 1, 7, 16, Kind::Hex)); return;
    case 0x31:
        d.push_back(Named("Mode", 1, 2, 3, RpModeName, "rp.mode"));
        d.push_back(F("Received power value", 2, 7, 16, Kind::Unsigned, "", "rp.value"));
        d.push_back(Child(Scaled("Fraction of the reference", 2, 7, 16, 100.0 / 32768.0, "%")));
        return;
    case 0x38:
        d.push_back(F("Stream number", 2, 7, 4, Kind::Unsigned));
        d.push_back(Named("Answer", 3, 7, 2, StreamAnswerName));
        return;
    case 0x48:
        d.push_back(Named("Command", 1, 7, 3, SadcCommandName));
        d.push_back(F("Stream number", 2, 7, 4, Kind::Unsigned));
        d.push_back(F("Value", 3, 7, 16, Kind::Hex));
        return;
    case 0x51:
        d.push_back(Named("Power class", 1, 7, 2, PowerClassName));
        d.push_back(F("Maximum power", 1, 5, 5, Kind::Unsigned, "W", "config.power"));
        d.push_back(F("Prop", 3, 7, 1, Kind::Bool, "", "config.prop"));
        d.push_back(F("Count", 3, 2, 3, Kind::Unsigned, "", "config.count"));
        d.push_back(Mul(F("Window size", 4, 7, 5, Kind::Unsigned, "ms", "config.wsize"), 4));
        d.push_back(Mul(F("Window offset", 4, 2, 3, Kind::Unsigned, "ms", "config.woff"), 4));
        d.push_back(F("Neg", 5, 7, 1, Kind::Bool, "", "config.neg"));
        d.push_back(Named("Polarity", 5, 6, 1, PolarityName));
        d.push_back(Named("Depth", 5, 7, 2, DepthName));
        return;
    case 0x54:
    case 0x55: d.push_back(F("Wireless power ID bytes", 1, 7, 32, Kind::Hex)); return;
    case 0x58:
        d.push_back(Named("Select", 1, 7, 3, ReportSelectName));
        if ((m(0) >> 5) == 0)
            d.push_back(F("PRx identification", 2, 5, 19, Kind::Hex));
        else if ((m(0) >> 5) == 1) {
            d.push_back(F("Power loss", 2, 7, 16, Kind::Unsigned, "mW"));
            d.push_back(F("PRECT", 4, 7, 16, Kind::Unsigned, "mW"));
        }
        return;
    case 0x71:
        d.push_back(F("Version", 1, 7, 8, Kind::Version, "", "id.version"));
        d.push_back(Child(F("Major version", 1, 7, 4, Kind::Unsigned)));
        d.push_back(Child(F("Minor version", 1, 3, 4, Kind::Unsigned)));
        d.push_back(F("Manufacturer code", 2, 7, 16, Kind::Hex, "", "id.manufacturer"));
        d.push_back(F("Extended", 4, 7, 1, Kind::Unsigned, "", "id.ext"));
        d.push_back(F("Device identifier", 4, 6, 31, Kind::Hex, "", "id.device"));
        return;
    case 0x78:
        d.push_back(F("FM", 2, 7, 16, Kind::Unsigned));
        d.push_back(F("DC", 4, 7, 16, Kind::Unsigned));
        return;
    case 0x81: d.push_back(F("Extended device identifier", 1, 7, 64, Kind::Hex)); return;
    case 0x84: d.push_back(F("Capabilities", 1, 7, 24, Kind::Hex)); return;
    default: return;
    }
}

DissectedField Build(const Desc& d, const std::vector<uint8_t>& b)
{
    DissectedField f;
    f.name = d.name;
    f.unit = d.unit;
    if (d.filter)
        f.filterName = d.filter;
    f.byteOffset = d.byte;
    f.firstBit = d.hiBit;
    f.bitCount = d.bits;
    const int start = d.byte * 8 + (7 - d.hiBit);
    f.byteCount = (start + d.bits - 1) / 8 - d.byte + 1;
    const uint64_t raw = Bits(b, d.byte, d.hiBit, d.bits);
    switch (d.kind) {
    case Kind::Unsigned: f.value = std::to_string(raw * static_cast<uint64_t>(d.mul)); break;
    case Kind::Signed: f.value = std::to_string(SignExtend(raw, d.bits) * d.mul); break;
    case Kind::Hex: f.value = HexValue(raw, d.bits); break;
    case Kind::Bool: f.value = raw ? "True" : "False"; break;
    case Kind::Named: f.value = std::string(d.names(static_cast<int64_t>(raw))) + " (" + std::to_string(raw) + ")"; break;
    case Kind::Version: f.value = std::to_string(raw >> 4) + "." + std::to_string(raw & 15); break;
    case Kind::Scaled: {
        const double v = d.isSigned ? static_cast<double>(SignExtend(raw, d.bits)) : static_cast<double>(raw);
        f.value = Num(v * d.scale);
        break;
    }
    }
    return f;
}

DecodedValue Value(const Desc& d, const std::vector<uint8_t>& b)
{
    DecodedValue v;
    v.name = d.filter;
    const uint64_t raw = Bits(b, d.byte, d.hiBit, d.bits);
    if (d.kind == Kind::Version) {
        v.isText = true;
        v.text = std::to_string(raw >> 4) + "." + std::to_string(raw & 15);
    } else if (d.kind == Kind::Signed) {
        v.number = SignExtend(raw, d.bits) * d.mul;
    } else {
        v.number = static_cast<int64_t>(raw) * d.mul;
    }
    return v;
}

}  // namespace

std::string DissectedField::BitsText() const
{
    if (byteOffset < 0 || byteCount <= 0)
        return std::string();
    if (byteCount > 1) {
        const bool whole = firstBit == 7 && bitCount == byteCount * 8;
        std::string s = "bytes " + std::to_string(byteOffset) + "-" + std::to_string(byteOffset + byteCount - 1);
        if (!whole)
            s += ", " + std::to_string(bitCount) + " bits from bit " + std::to_string(firstBit);
        return s;
    }
    std::string s = "byte " + std::to_string(byteOffset);
    if (bitCount == 8)
        return s;
    if (bitCount == 1)
        return s + ", bit " + std::to_string(firstBit);
    return s + ", bits " + std::to_string(firstBit) + "-" + std::to_string(firstBit - bitCount + 1);
}

std::vector<DissectedField> DissectFrame(const FrameView& frame)
{
    std::vector<DissectedField> out;
    const std::vector<uint8_t>& b = frame.bytes;
    if (b.empty())
        return out;
    if (frame.type == kTypeTxPattern) {
        DissectedField f;
        f.name = "Response pattern";
        f.value = PatternName(b[0]);
        if (!f.value.empty() && f.value.back() == ' ')
            f.value.pop_back();
        f.byteOffset = 0;
        f.byteCount = 1;
        f.bitCount = 8;
        f.filterName = "pattern";
        out.push_back(f);
        return out;
    }
    DissectedField header;
    header.name = "Header";
    header.byteOffset = 0;
    header.byteCount = 1;
    header.bitCount = 8;
    header.value = HexValue(b[0], 8);
    const std::string name = PacketName(frame.direction, b[0]);
    if (!name.empty())
        header.value += " " + name;
    header.filterName = "type";
    out.push_back(header);
    if (frame.type < kTypeTxPattern || frame.type == kTypeChecksumOrProprietary) {
        std::vector<Desc> descs;
        if (frame.type != kTypeChecksumOrProprietary)
            Layout(frame, descs);
        for (const Desc& d : descs) {
            // A field past the frame's end is not there.
            if (static_cast<size_t>(d.byte) >= b.size())
                continue;
            if (d.depth == 1 && !out.empty())
                out.back().children.push_back(Build(d, b));
            else
                out.push_back(Build(d, b));
        }
        if (b.size() >= 2) {
            uint8_t x = 0;
            for (size_t i = 0; i + 1 < b.size(); ++i)
                x ^= b[i];
            DissectedField sum;
            sum.name = "Checksum";
            sum.byteOffset = static_cast<int>(b.size() - 1);
            sum.byteCount = 1;
            sum.bitCount = 8;
            sum.value = HexValue(b.back(), 8) + (x == b.back() ? " (correct)" : " (wrong, " + HexValue(x, 8) + " expected)");
            out.push_back(sum);
        }
    }
    return out;
}

std::vector<DissectedField> Dissect(const MsgInfo& event)
{
    if (event.type == kTypeDigitalPing) {
        // No bytes: what the ping's record measured.
        std::vector<DissectedField> out(2);
        out[0].name = "Duration";
        out[0].value = Num(static_cast<double>(event.timing.bitTimesUs) / 1000.0);
        out[0].unit = "ms";
        out[1].name = "Carrier frequency";
        out[1].value = std::to_string(event.timing.carrierCurrentHz);
        out[1].unit = "Hz";
        return out;
    }
    FrameView f;
    f.direction = InferDirection(event);
    f.type = event.type;
    f.bytes = ParseSpacedHex(event.packet.PacketData);
    return DissectFrame(f);
}

namespace {

bool PathAt(const std::vector<DissectedField>& fields, int index, std::vector<int>& path)
{
    // The narrowest field wins: children first, then the field with the
    // fewest bits among those that take the byte.
    int best = -1;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (!fields[i].Covers(index))
            continue;
        if (best < 0 || fields[i].bitCount < fields[static_cast<size_t>(best)].bitCount)
            best = static_cast<int>(i);
    }
    if (best < 0)
        return false;
    path.push_back(best);
    PathAt(fields[static_cast<size_t>(best)].children, index, path);
    return true;
}

}  // namespace

std::vector<int> FieldPathAtByte(const std::vector<DissectedField>& fields, int index)
{
    std::vector<int> path;
    PathAt(fields, index, path);
    return path;
}

void DecodedValues(const FrameView& frame, std::vector<DecodedValue>& out)
{
    out.clear();
    if (frame.bytes.empty() || frame.type >= kTypeTxPattern)
        return;
    std::vector<Desc> descs;
    Layout(frame, descs);
    for (const Desc& d : descs) {
        if (d.filter && static_cast<size_t>(d.byte) < frame.bytes.size())
            out.push_back(Value(d, frame.bytes));
    }
}

const std::vector<std::string>& DecodedFieldNames()
{
    static const std::vector<std::string> names = {
        "ce.value",    "rp.value",     "rp.mode",      "id.version",  "id.manufacturer", "id.device", "id.ext",
        "config.power", "config.prop", "config.count", "config.wsize", "config.woff",    "config.neg", "ept.code"};
    return names;
}

std::vector<uint8_t> ParseSpacedHex(const std::string& text)
{
    std::vector<uint8_t> out;
    out.reserve(text.size() / 3 + 1);
    int nibbles = 0;
    uint8_t cur = 0;
    for (char c : text) {
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else {
            nibbles = 0;
            continue;
        }
        cur = static_cast<uint8_t>((cur << 4) | v);
        if (++nibbles == 2) {
            out.push_back(cur);
            nibbles = 0;
            cur = 0;
        }
    }
    return out;
}

}  // namespace analysis
