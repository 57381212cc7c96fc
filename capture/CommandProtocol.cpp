#include "capture/CommandProtocol.h"

#include <QByteArray>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace SnifferCommand;

namespace {

// Length of the text at bytes, up to the first NUL or n.
int TextLength(const uint8_t* bytes, int n)
{
    if (bytes == nullptr || n <= 0)
        return 0;
    const void* nul = std::memchr(bytes, 0, static_cast<size_t>(n));
    return nul ? static_cast<int>(static_cast<const uint8_t*>(nul) - bytes) : n;
}

std::string TextField(const uint8_t* record, int offset, int size)
{
    const uint8_t* field = record + offset;
    return std::string(reinterpret_cast<const char*>(field), static_cast<size_t>(TextLength(field, size)));
}

void PutTextField(uint8_t* record, int offset, int size, const std::string& text)
{
    const size_t n = std::min(text.size(), static_cast<size_t>(size - 1));
    std::memcpy(record + offset, text.data(), n);
    record[offset + static_cast<int>(n)] = 0;
}

void PutLe32(uint8_t* out, uint32_t v)
{
    out[0] = static_cast<uint8_t>(v);
    out[1] = static_cast<uint8_t>(v >> 8);
    out[2] = static_cast<uint8_t>(v >> 16);
    out[3] = static_cast<uint8_t>(v >> 24);
}

}  // namespace

// ---- Commands ----

CommandBytes BuildCommand(uint8_t code)
{
    return CommandBytes{code, kTerminator};
}

CommandBytes BuildDisconnectCommand() { return BuildCommand(kDisconnect); }
CommandBytes BuildStartCommand() { return BuildCommand(kStartStream); }
CommandBytes BuildStopCommand() { return BuildCommand(kStopStream); }
CommandBytes BuildPortQueryCommand() { return BuildCommand(kPortQuery); }
CommandBytes BuildDeviceRecordCommand() { return BuildCommand(kDeviceRecord); }

CommandBytes BuildBase64Command(uint8_t code, const uint8_t* payload, int n)
{
    const QByteArray text =
        QByteArray(reinterpret_cast<const char*>(payload), payload != nullptr && n > 0 ? n : 0).toBase64();
    CommandBytes bytes;
    bytes.reserve(static_cast<size_t>(text.size()) + 2);
    bytes.push_back(code);
    bytes.insert(bytes.end(), text.constBegin(), text.constEnd());
    bytes.push_back(kTerminator);
    return bytes;
}

CommandBytes BuildFirmwareQueryCommand()
{
    uint8_t payload[12];
    for (size_t i = 0; i < kFirmwareImageWords.size(); ++i)
        PutLe32(payload + 4 * i, kFirmwareImageWords[i]);
    return BuildBase64Command(kFirmwareQuery, payload, sizeof payload);
}

CommandBytes BuildSetDacCommand(int32_t value)
{
    uint8_t payload[4];
    PutLe32(payload, static_cast<uint32_t>(value));
    return BuildBase64Command(kSetDac, payload, sizeof payload);
}

bool DecodeBase64Command(const uint8_t* bytes, int n, uint8_t code, std::vector<uint8_t>& payload)
{
    payload.clear();
    if (!ReplyStartsWith(bytes, n, code))
        return false;
    const int textLength = TextLength(bytes + 1, n - 1);
    const QByteArray decoded =
        QByteArray::fromBase64(QByteArray(reinterpret_cast<const char*>(bytes + 1), textLength));
    payload.assign(decoded.constBegin(), decoded.constEnd());
    return true;
}

bool DecodeSetDacCommand(const uint8_t* bytes, int n, int32_t& value)
{
    std::vector<uint8_t> payload;
    if (!DecodeBase64Command(bytes, n, kSetDac, payload) || payload.size() != 4)
        return false;
    const uint32_t v = static_cast<uint32_t>(payload[0]) | static_cast<uint32_t>(payload[1]) << 8 |
                       static_cast<uint32_t>(payload[2]) << 16 | static_cast<uint32_t>(payload[3]) << 24;
    value = static_cast<int32_t>(v);
    return true;
}

// ---- Replies ----

bool ReplyStartsWith(const uint8_t* reply, int n, uint8_t code)
{
    return reply != nullptr && n >= 1 && reply[0] == code;
}

bool ReplyStartsWith(const Data& reply, uint8_t code)
{
    return ReplyStartsWith(reply.buffer.get(), std::min(reply.length, reply.capacity), code);
}

bool StartConfirmed(const std::list<DataPtr>& replies)
{
    for (const DataPtr& reply : replies) {
        if (reply && ReplyStartsWith(*reply, kStartStream))
            return true;
    }
    return false;
}

PortReply ParsePortReply(const uint8_t* reply, int n)
{
    PortReply result;
    if (reply == nullptr || n < 2 || reply[0] != kPortQuery)
        return result;
    switch (reply[1]) {
    case kPortAsk: result.kind = PortKind::Ask; break;
    case kPortCommand: result.kind = PortKind::Command; break;
    case kPortFsk: result.kind = PortKind::Fsk; break;
    case kPortBoot: result.kind = PortKind::Boot; break;
    default: return result;
    }
    if (result.kind == PortKind::Command && n > 2) {
        const std::string text(reinterpret_cast<const char*>(reply + 2),
                               static_cast<size_t>(TextLength(reply + 2, n - 2)));
        result.hasFirmwareNumber = !text.empty();
        result.firmwareNumber = std::atoi(text.c_str());
        result.firmwareHeaders = result.firmwareNumber > kHeaderFirmwareAbove;
    }
    return result;
}

PortReply ParsePortReply(const Data& reply)
{
    return ParsePortReply(reply.buffer.get(), std::min(reply.length, reply.capacity));
}

CommandBytes BuildPortReply(uint8_t kind, const std::string& text)
{
    CommandBytes bytes(text.size() + 3);
    bytes[0] = kPortQuery;
    bytes[1] = kind;
    std::memcpy(bytes.data() + 2, text.data(), text.size());
    bytes.back() = kTerminator;
    return bytes;
}

int DecodeDeviceRecordReply(const uint8_t* reply, int n, uint8_t* record, int recordSize)
{
    if (reply == nullptr || n < 2 || reply[0] != kDeviceRecord || reply[1] != 0x20)
        return -1;
    const int textLength = TextLength(reply + 2, n - 2);
    const QByteArray decoded =
        QByteArray::fromBase64(QByteArray(reinterpret_cast<const char*>(reply + 2), textLength));
    const int copied = std::min(static_cast<int>(decoded.size()), std::max(recordSize, 0));
    if (record != nullptr && copied > 0)
        std::memcpy(record, decoded.constData(), static_cast<size_t>(copied));
    return record != nullptr ? copied : 0;
}

int DecodeDeviceRecordReply(const Data& reply, uint8_t* record, int recordSize)
{
    return DecodeDeviceRecordReply(reply.buffer.get(), std::min(reply.length, reply.capacity), record, recordSize);
}

CommandBytes BuildDeviceRecordReply(const uint8_t* record, int n)
{
    CommandBytes bytes = BuildBase64Command(kDeviceRecord, record, n);
    bytes.insert(bytes.begin() + 1, 0x20);
    return bytes;
}

void WriteDeviceRecord(const DeviceRecordFields& fields, uint8_t* record)
{
    using namespace DeviceRecordLayout;
    std::memset(record, 0, kDeviceRecordSize);
    PutTextField(record, kBuildDateOffset, kBuildDateSize, fields.firmwareBuildDate);
    PutTextField(record, kBootLoaderOffset, kBootLoaderSize, fields.bootLoaderVersion);
    PutTextField(record, kFirmwareOffset, kFirmwareSize, fields.firewareVersion);
    PutTextField(record, kHardwareOffset, kHardwareSize, fields.hardwareVersion);
    std::memcpy(record + kDeviceNumberOffset, fields.deviceNumber.data(), kDeviceNumberSize);
    PutTextField(record, kDeviceTypeOffset, kDeviceTypeSize, fields.deviceType);
    PutTextField(record, kSoftwareOffset, kSoftwareSize, fields.softwareVersion);
}

std::string DeviceSerialText(const uint8_t* record)
{
    using namespace DeviceRecordLayout;
    std::string text;
    text.reserve(3 * kDeviceNumberCounted);
    for (int i = 0; i < kDeviceNumberCounted; ++i) {
        char pair[4];
        std::snprintf(pair, sizeof pair, "%02X ", static_cast<unsigned>(record[kDeviceNumberOffset + i]));
        text += pair;
    }
    return text;
}

std::string FirmwareBuildDate(const uint8_t* record)
{
    using namespace DeviceRecordLayout;
    return TextField(record, kBuildDateOffset, kBuildDateSize);
}

DeviceGroup DeviceGroupFromRecord(const uint8_t* record)
{
    using namespace DeviceRecordLayout;
    DeviceGroup g;
    g.firmwareBuildDate = FirmwareBuildDate(record);
    g.bootLoaderVersion = TextField(record, kBootLoaderOffset, kBootLoaderSize);
    g.firewareVersion = TextField(record, kFirmwareOffset, kFirmwareSize);
    g.hardwareVersion = TextField(record, kHardwareOffset, kHardwareSize);
    g.serialNumber = DeviceSerialText(record);
    g.deviceType = TextField(record, kDeviceTypeOffset, kDeviceTypeSize);
    g.softwareVersion = TextField(record, kSoftwareOffset, kSoftwareSize);
    return g;
}

bool BuildDateMatchesHost(const uint8_t* record)
{
    return FirmwareBuildDate(record) == kHostFirmwareBuildDate;
}

FirmwareAnswer ParseFirmwareReply(const uint8_t* reply, int n)
{
    if (reply == nullptr || n < 2 || reply[0] != kFirmwareQuery)
        return FirmwareAnswer::None;
    if (reply[1] == '!')
        return FirmwareAnswer::Rejected;
    if (reply[1] == ' ')
        return FirmwareAnswer::Accepted;
    return FirmwareAnswer::None;
}

FirmwareAnswer ParseFirmwareReply(const Data& reply)
{
    return ParseFirmwareReply(reply.buffer.get(), std::min(reply.length, reply.capacity));
}

bool FirmwareIncompatible(const uint8_t* reply, int n, const uint8_t* record)
{
    switch (ParseFirmwareReply(reply, n)) {
    case FirmwareAnswer::Rejected: return true;
    case FirmwareAnswer::Accepted: return !BuildDateMatchesHost(record);
    case FirmwareAnswer::None: return false;
    }
    return false;
}
