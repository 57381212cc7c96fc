// The wire format between the host and the sniffer's command port: building
// each command's bytes and reading each reply. Commands and replies are byte
// strings ended by 0x00; binary content travels as standard padded base64.
// Everything here is a pure function of its arguments.
#pragma once

#include "common/Data.h"
#include "events/MsgInfo.h"

#include <array>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace SnifferCommand {

// Command codes, the first byte of a command and of its reply.
constexpr uint8_t kDisconnect = 0x03;    // host disconnects
constexpr uint8_t kStartStream = 0x05;   // start streaming; a reply starting 0x05 confirms
constexpr uint8_t kStopStream = 0x07;    // stop streaming
constexpr uint8_t kPortQuery = 0x09;     // which port is this?
constexpr uint8_t kFirmwareQuery = 0x24; // '$', firmware compatibility query
constexpr uint8_t kDeviceRecord = 0x26;  // '&', read the device record
constexpr uint8_t kSetDac = 0x29;        // ')', set the DAC value
constexpr uint8_t kTerminator = 0x00;

// Second byte of the reply to kPortQuery.
constexpr uint8_t kPortAsk = 0x10;
constexpr uint8_t kPortCommand = 0x11;
constexpr uint8_t kPortFsk = 0x12;
constexpr uint8_t kPortBoot = 0x13;

// The image description of the '$' query, sent as three little-endian words.
constexpr std::array<uint32_t, 3> kFirmwareImageWords = {0x08020000u, 0x000070F8u, 0x5A2F10F3u};
// Firmware numbers above this take capture file headers.
constexpr int kHeaderFirmwareAbove = 900;
// The firmware build date this host was made for.
constexpr const char* kHostFirmwareBuildDate = "2023.05.20";

constexpr int kDeviceRecordSize = 1024;

// The message box of an incompatible firmware.
constexpr const char* kFirmwareErrorTitle = "Error";
constexpr const char* kFirmwareErrorText = "Fireware is incompatible, Please UpdateFireware under sniffer menu.";

}  // namespace SnifferCommand

using CommandBytes = std::vector<uint8_t>;

// ---- Commands ----

// code followed by the terminator: 0x03, 0x05, 0x07, 0x09 and 0x26.
CommandBytes BuildCommand(uint8_t code);
CommandBytes BuildDisconnectCommand();      // 03 00
CommandBytes BuildStartCommand();           // 05 00
CommandBytes BuildStopCommand();            // 07 00
CommandBytes BuildPortQueryCommand();       // 09 00
CommandBytes BuildDeviceRecordCommand();    // 26 00
// code, the base64 of payload, the terminator.
CommandBytes BuildBase64Command(uint8_t code, const uint8_t* payload, int n);
// '$' with the base64 of the three image words: 18 bytes.
CommandBytes BuildFirmwareQueryCommand();
// ')' with the base64 of value as a signed 32-bit little-endian number: 10
// bytes. 1700 gives 29 "pAYAAA==" 00.
CommandBytes BuildSetDacCommand(int32_t value);

// The payload of a command built by BuildBase64Command: true when bytes start
// with code and carry base64 text up to the terminator (or the end).
bool DecodeBase64Command(const uint8_t* bytes, int n, uint8_t code, std::vector<uint8_t>& payload);
// The value of a ')' command; false when bytes are no such command or the
// payload is not 4 bytes long.
bool DecodeSetDacCommand(const uint8_t* bytes, int n, int32_t& value);

// ---- Replies ----

// True when the reply holds at least one byte and starts with code.
bool ReplyStartsWith(const uint8_t* reply, int n, uint8_t code);
bool ReplyStartsWith(const Data& reply, uint8_t code);
// True when one of the replies confirms the start of streaming.
bool StartConfirmed(const std::list<DataPtr>& replies);

enum class PortKind { None, Ask, Command, Fsk, Boot };

struct PortReply {
    PortKind kind = PortKind::None;  // None: not a reply to the port query
    bool hasFirmwareNumber = false;  // the command port gave text after its two bytes
    int firmwareNumber = 0;          // atoi of that text
    bool firmwareHeaders = false;    // command port with a number above 900
};

// Reads a reply to the port query: 0x09, the kind, and on the command port the
// firmware number as decimal text up to the terminator.
PortReply ParsePortReply(const uint8_t* reply, int n);
PortReply ParsePortReply(const Data& reply);
// The device side of it: 0x09, kind, text, 0x00.
CommandBytes BuildPortReply(uint8_t kind, const std::string& text = std::string());

// Reads a reply to '&' (0x26, 0x20, base64 text, 0x00) into record: the
// decoded bytes, at most recordSize of them, are copied to its start and the
// rest of record is left alone. Returns the bytes copied, or -1 when the reply
// is no device record.
int DecodeDeviceRecordReply(const uint8_t* reply, int n, uint8_t* record, int recordSize);
int DecodeDeviceRecordReply(const Data& reply, uint8_t* record, int recordSize);
// The device side of it: 0x26, 0x20, the base64 of n record bytes, 0x00.
CommandBytes BuildDeviceRecordReply(const uint8_t* record, int n);

// The fields of the device record, as the device writes them.
struct DeviceRecordFields {
    std::string firmwareBuildDate;  // offset 4, 32 bytes
    std::string bootLoaderVersion;  // offset 36, 16 bytes
    std::string firewareVersion;    // offset 68, 16 bytes
    std::string hardwareVersion;    // offset 84, 16 bytes
    std::array<uint8_t, 16> deviceNumber{};  // offset 100, 16 bytes; the first 9 count
    std::string deviceType;         // offset 116, 16 bytes
    std::string softwareVersion;    // offset 148 to the end
};

namespace DeviceRecordLayout {
constexpr int kBuildDateOffset = 4, kBuildDateSize = 32;
constexpr int kBootLoaderOffset = 36, kBootLoaderSize = 16;
constexpr int kFirmwareOffset = 68, kFirmwareSize = 16;
constexpr int kHardwareOffset = 84, kHardwareSize = 16;
constexpr int kDeviceNumberOffset = 100, kDeviceNumberSize = 16, kDeviceNumberCounted = 9;
constexpr int kDeviceTypeOffset = 116, kDeviceTypeSize = 16;
constexpr int kSoftwareOffset = 148, kSoftwareSize = SnifferCommand::kDeviceRecordSize - 148;
}  // namespace DeviceRecordLayout

// Writes the fields into a zeroed 1024-byte record; each text is cut so that
// it keeps its terminating NUL within its field.
void WriteDeviceRecord(const DeviceRecordFields& fields, uint8_t* record);
// The record's fields as the event's device group: texts up to their NUL
// within their field, serialNumber as the first 9 bytes of the device number
// in upper-case hexadecimal pairs each followed by one blank ("01 02 ... ").
DeviceGroup DeviceGroupFromRecord(const uint8_t* record);
// The 9 counted bytes of the device number as "01 02 ... " text.
std::string DeviceSerialText(const uint8_t* record);
// The build date text of the record.
std::string FirmwareBuildDate(const uint8_t* record);
// True when the record's build date is the one this host was made for.
bool BuildDateMatchesHost(const uint8_t* record);

enum class FirmwareAnswer { None, Rejected, Accepted };

// A reply to '$': "$!" rejected, "$ " accepted, anything else none.
FirmwareAnswer ParseFirmwareReply(const uint8_t* reply, int n);
FirmwareAnswer ParseFirmwareReply(const Data& reply);
// True when the reply means the firmware can't be used: rejected, or accepted
// while the record's build date differs from the host's.
bool FirmwareIncompatible(const uint8_t* reply, int n, const uint8_t* record);
