// The event record: one decoded packet of either direction, one digital ping,
// or a record the system makes itself. Split into named groups, each with its
// own Json document in a session file.
#pragma once

#include "common/TriggerData.h"
#include "packets/Packets.h"

#include <QString>

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>

struct CommonGroup {
    int64_t eventNumber = 0;
    std::string logData;
    std::string Summary;
    std::string typeString;
};

struct DeviceGroup {
    std::string bootLoaderVersion;
    std::string deviceType;
    std::string firmwareBuildDate;
    std::string firewareVersion;
    std::string hardwareVersion;
    std::string serialNumber;
    std::string softwareVersion;
};

struct EventGroup {
    int64_t eventCount = 0;
    int64_t failureCount = 0;
    int64_t FirstEventNumber = 0;
    int64_t lastEventNumber = 0;
    std::string phase;
    int64_t warningCount = 0;
};

struct TimingsGroup {
    std::string duration;
    int64_t endTime = 0;
    std::string endTimeStamp;
    int64_t startTime = 0;
    std::string startTimeStamp;
};

struct TimingSampleGroup {
    std::string time;
};

// Writers give one group as a Json object; readers take each key only if it is
// present with the expected Json type and leave the field as it is otherwise.
Json::Value WriteGroup(const CommonGroup& g);
Json::Value WriteGroup(const DeviceGroup& g);
Json::Value WriteGroup(const EventGroup& g);
Json::Value WriteGroup(const PacketRecord& g);
Json::Value WriteGroup(const TimingsGroup& g);
Json::Value WriteGroup(const TimingRecord& g);
Json::Value WriteGroup(const TimingSampleGroup& g);
void ReadGroup(const Json::Value& v, CommonGroup& g);
void ReadGroup(const Json::Value& v, DeviceGroup& g);
void ReadGroup(const Json::Value& v, EventGroup& g);
void ReadGroup(const Json::Value& v, PacketRecord& g);  // "Status" is not read
void ReadGroup(const Json::Value& v, TimingsGroup& g);
void ReadGroup(const Json::Value& v, TimingRecord& g);
void ReadGroup(const Json::Value& v, TimingSampleGroup& g);

class MsgInfo {
public:
    int32_t id = 0;
    CommonGroup common;
    DeviceGroup device;
    EventGroup eventG;
    PacketRecord packet;
    TimingsGroup timings;
    TimingRecord timing;
    TimingSampleGroup timingsample;
    std::shared_ptr<TriggerData> capture;  // shared by copies; not stored on disk
    int64_t enqueueTick = 0;               // not stored on disk
    QString str;
    int32_t type = 0;
    int32_t direction = 0;  // 0 none, 1 FSK (Tx), 2 ASK (Rx); not stored on disk

    // The whole record as a styled Json document; the groups are the texts of
    // their own documents held in Json strings.
    std::string ToJson() const;
    // Fills the record from a document. Text that does not parse leaves the
    // record as it is; a damaged key leaves its field as it is.
    // False when the text is not a JSON object (the fields then stay as they were).
    bool FromJson(const std::string& text);
};

using MsgInfoPtr = std::shared_ptr<MsgInfo>;

// Event type codes that the system adds to the packet headers.
enum EventType : int32_t {
    kTypeTxPattern = 240,
    kTypeDigitalPing = 253,
    kTypeChecksumOrProprietary = 255,
    kTypeViolation = 256,
    kTypeDeviceStatus = 258,
    kTypeContract = 259,
};
