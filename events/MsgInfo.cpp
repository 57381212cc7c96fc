#include "events/MsgInfo.h"

#include <exception>

namespace {

// Parses one document of a record; false when it does not parse. The reader
// gives up on too deep a nesting by throwing: that is a damaged record too.
bool ParseDocument(const std::string& text, Json::Value& doc)
{
    try {
        Json::Reader reader;
        return reader.parse(text, doc, true);
    } catch (const std::exception&) {
        return false;
    }
}

// Numbers are written as 32-bit Json integers whatever their width in memory.
Json::Value Int32(int64_t v)
{
    return Json::Value(static_cast<Json::Int>(static_cast<int32_t>(v)));
}

std::string Styled(const Json::Value& v)
{
    Json::StyledWriter writer;
    return writer.write(v);
}

void TakeString(const Json::Value& v, const char* key, std::string& field)
{
    const Json::Value* m = v.find(key, key + std::char_traits<char>::length(key));
    if (m && m->type() == Json::stringValue)
        field = m->asString();
}

// A signed Json integer only: a number too large for a signed 32-bit integer
// is read by the parser as unsigned and so is left out.
template <class T>
void TakeInt(const Json::Value& v, const char* key, T& field)
{
    const Json::Value* m = v.find(key, key + std::char_traits<char>::length(key));
    if (m && m->type() == Json::intValue)
        field = static_cast<T>(m->asLargestInt());
}

void TakeReal(const Json::Value& v, const char* key, float& field)
{
    const Json::Value* m = v.find(key, key + std::char_traits<char>::length(key));
    if (m && m->type() == Json::realValue)
        field = static_cast<float>(m->asDouble());
}

// A group held as the text of its own document.
template <class G>
void TakeGroup(const Json::Value& v, const char* key, G& group)
{
    std::string text;
    TakeString(v, key, text);
    if (text.empty())
        return;
    Json::Value doc;
    if (!ParseDocument(text, doc) || !doc.isObject())
        return;
    ReadGroup(doc, group);
}

}  // namespace

Json::Value WriteGroup(const CommonGroup& g)
{
    Json::Value v(Json::objectValue);
    v["Summary"] = g.Summary;
    v["eventNumber"] = Int32(g.eventNumber);
    v["logData"] = g.logData;
    v["typeString"] = g.typeString;
    return v;
}

Json::Value WriteGroup(const DeviceGroup& g)
{
    Json::Value v(Json::objectValue);
    v["bootLoaderVersion"] = g.bootLoaderVersion;
    v["deviceType"] = g.deviceType;
    v["firewareVersion"] = g.firewareVersion;
    v["firmwareBuildDate"] = g.firmwareBuildDate;
    v["hardwareVersion"] = g.hardwareVersion;
    v["serialNumber"] = g.serialNumber;
    v["softwareVersion"] = g.softwareVersion;
    return v;
}

Json::Value WriteGroup(const EventGroup& g)
{
    Json::Value v(Json::objectValue);
    v["FirstEventNumber"] = Int32(g.FirstEventNumber);
    v["eventCount"] = Int32(g.eventCount);
    v["failureCount"] = Int32(g.failureCount);
    v["lastEventNumber"] = Int32(g.lastEventNumber);
    v["phase"] = g.phase;
    v["warningCount"] = Int32(g.warningCount);
    return v;
}

Json::Value WriteGroup(const PacketRecord& g)
{
    Json::Value v(Json::objectValue);
    v["PacketData"] = g.PacketData;
    v["Status"] = g.Status;
    v["controlErrorFreq"] = Int32(g.controlErrorFreq);
    v["controlErrorValue"] = static_cast<double>(g.controlErrorValue);
    v["dataPacketError"] = g.dataPacketError;
    v["numbytesInPacket"] = Int32(static_cast<int64_t>(g.numbytesInPacket));
    v["premambleCount"] = Int32(static_cast<int64_t>(g.premambleCount));
    // Only where the second reader had a say, so that every other record
    // stays as it always was.
    if (!g.reading.empty())
        v["reading"] = g.reading;
    if (!g.otherReading.empty())
        v["otherReading"] = g.otherReading;
    return v;
}

Json::Value WriteGroup(const TimingsGroup& g)
{
    Json::Value v(Json::objectValue);
    v["duration"] = g.duration;
    v["endTime"] = Int32(g.endTime);
    v["endTimeStamp"] = g.endTimeStamp;
    v["startTime"] = Int32(g.startTime);
    v["startTimeStamp"] = g.startTimeStamp;
    return v;
}

Json::Value WriteGroup(const TimingRecord& g)
{
    Json::Value v(Json::objectValue);
    v["bitTimesUs"] = Int32(static_cast<int64_t>(g.bitTimesUs));
    v["carrierCurrentHz"] = Int32(static_cast<int64_t>(g.carrierCurrentHz));
    v["duration"] = g.duration;
    v["endTime"] = Int32(static_cast<int64_t>(g.endTime));
    v["endTimeStamp"] = g.endTimeStamp;
    v["startTime"] = Int32(static_cast<int64_t>(g.startTime));
    v["startTimeStamp"] = g.startTimeStamp;
    return v;
}

Json::Value WriteGroup(const TimingSampleGroup& g)
{
    Json::Value v(Json::objectValue);
    v["time"] = g.time;
    return v;
}

void ReadGroup(const Json::Value& v, CommonGroup& g)
{
    TakeString(v, "Summary", g.Summary);
    TakeInt(v, "eventNumber", g.eventNumber);
    TakeString(v, "logData", g.logData);
    TakeString(v, "typeString", g.typeString);
}

void ReadGroup(const Json::Value& v, DeviceGroup& g)
{
    TakeString(v, "bootLoaderVersion", g.bootLoaderVersion);
    TakeString(v, "deviceType", g.deviceType);
    TakeString(v, "firewareVersion", g.firewareVersion);
    TakeString(v, "firmwareBuildDate", g.firmwareBuildDate);
    TakeString(v, "hardwareVersion", g.hardwareVersion);
    TakeString(v, "serialNumber", g.serialNumber);
    TakeString(v, "softwareVersion", g.softwareVersion);
}

void ReadGroup(const Json::Value& v, EventGroup& g)
{
    TakeInt(v, "FirstEventNumber", g.FirstEventNumber);
    TakeInt(v, "eventCount", g.eventCount);
    TakeInt(v, "failureCount", g.failureCount);
    TakeInt(v, "lastEventNumber", g.lastEventNumber);
    TakeString(v, "phase", g.phase);
    TakeInt(v, "warningCount", g.warningCount);
}

void ReadGroup(const Json::Value& v, PacketRecord& g)
{
    // "Status" is written and never read: a loaded event has an empty one.
    TakeString(v, "PacketData", g.PacketData);
    TakeInt(v, "controlErrorFreq", g.controlErrorFreq);
    TakeReal(v, "controlErrorValue", g.controlErrorValue);
    TakeString(v, "dataPacketError", g.dataPacketError);
    TakeInt(v, "numbytesInPacket", g.numbytesInPacket);
    TakeInt(v, "premambleCount", g.premambleCount);
    TakeString(v, "reading", g.reading);
    TakeString(v, "otherReading", g.otherReading);
}

void ReadGroup(const Json::Value& v, TimingsGroup& g)
{
    TakeString(v, "duration", g.duration);
    TakeInt(v, "endTime", g.endTime);
    TakeString(v, "endTimeStamp", g.endTimeStamp);
    TakeInt(v, "startTime", g.startTime);
    TakeString(v, "startTimeStamp", g.startTimeStamp);
}

void ReadGroup(const Json::Value& v, TimingRecord& g)
{
    TakeInt(v, "bitTimesUs", g.bitTimesUs);
    TakeInt(v, "carrierCurrentHz", g.carrierCurrentHz);
    TakeString(v, "duration", g.duration);
    TakeInt(v, "endTime", g.endTime);
    TakeString(v, "endTimeStamp", g.endTimeStamp);
    TakeInt(v, "startTime", g.startTime);
    TakeString(v, "startTimeStamp", g.startTimeStamp);
}

void ReadGroup(const Json::Value& v, TimingSampleGroup& g)
{
    TakeString(v, "time", g.time);
}

std::string MsgInfo::ToJson() const
{
    Json::Value v(Json::objectValue);
    v["common"] = Styled(WriteGroup(common));
    v["device"] = Styled(WriteGroup(device));
    v["eventG"] = Styled(WriteGroup(eventG));
    v["id"] = Json::Value(static_cast<Json::Int>(id));
    v["packet"] = Styled(WriteGroup(packet));
    const QByteArray utf8 = str.toUtf8();
    v["str"] = std::string(utf8.constData(), static_cast<size_t>(utf8.size()));
    v["timing"] = Styled(WriteGroup(timing));
    v["timings"] = Styled(WriteGroup(timings));
    v["timingsample"] = Styled(WriteGroup(timingsample));
    v["type"] = Json::Value(static_cast<Json::Int>(type));
    return Styled(v);
}

bool MsgInfo::FromJson(const std::string& text)
{
    Json::Value v;
    if (!ParseDocument(text, v) || !v.isObject())
        return false;
    TakeGroup(v, "common", common);
    TakeGroup(v, "device", device);
    TakeGroup(v, "eventG", eventG);
    TakeInt(v, "id", id);
    TakeGroup(v, "packet", packet);
    std::string s;
    const Json::Value* m = v.find("str", "str" + 3);
    if (m && m->type() == Json::stringValue) {
        s = m->asString();
        str = QString::fromUtf8(s.data(), static_cast<int>(s.size()));
    }
    TakeGroup(v, "timing", timing);
    TakeGroup(v, "timings", timings);
    TakeGroup(v, "timingsample", timingsample);
    TakeInt(v, "type", type);
    return true;
}
