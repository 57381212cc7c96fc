#include "analysis/Export.h"

#include "events/EventLogModel.h"

#include <cstdio>

namespace analysis {

Json::Value EventJson(const MsgInfo& e)
{
    Json::Value v(Json::objectValue);
    v["id"] = e.id;
    v["type"] = e.type;
    v["direction"] = e.direction;
    const QByteArray utf8 = e.str.toUtf8();
    v["str"] = std::string(utf8.constData(), static_cast<size_t>(utf8.size()));
    v["common"] = WriteGroup(e.common);
    v["device"] = WriteGroup(e.device);
    v["eventG"] = WriteGroup(e.eventG);
    v["packet"] = WriteGroup(e.packet);
    v["timing"] = WriteGroup(e.timing);
    v["timings"] = WriteGroup(e.timings);
    v["timingsample"] = WriteGroup(e.timingsample);
    return v;
}

std::string EventJsonLine(const MsgInfo& event)
{
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        return b;
    }();
    return Json::writeString(builder, EventJson(event));
}

const char* CsvHeader()
{
    return "number,time_ms,dir,phase,type,bytes,text,status,reading";
}

std::string CsvField(const std::string& text)
{
    const bool quote = text.find_first_of(",\"\r\n") != std::string::npos ||
                       (!text.empty() && (text.front() == ' ' || text.back() == ' '));
    if (!quote)
        return text;
    std::string out = "\"";
    for (char c : text) {
        if (c == '"')
            out += "\"\"";
        else
            out.push_back(c);
    }
    out.push_back('"');
    return out;
}

std::string CsvRow(const EventFields& f)
{
    char time[48];
    std::snprintf(time, sizeof time, "%.3f", f.timeMs);
    char code[16];
    std::snprintf(code, sizeof code, "0x%02X", static_cast<unsigned>(f.type));
    std::string type = code;
    if (!f.typeName.empty())
        type += " " + f.typeName;
    std::string bytes;
    static const char* digits = "0123456789ABCDEF";
    for (uint8_t b : f.bytes) {
        if (!bytes.empty())
            bytes.push_back(' ');
        bytes.push_back(digits[b >> 4]);
        bytes.push_back(digits[b & 15]);
    }
    std::string row;
    row += std::to_string(f.number);
    row += ',';
    row += time;
    row += ',';
    row += DirWord(f.dir);
    row += ',';
    row += PhaseWord(f.phase);
    row += ',';
    row += CsvField(type);
    row += ',';
    row += bytes;
    row += ',';
    row += CsvField(f.text);
    row += ',';
    row += f.error ? "error" : "ok";
    row += ',';
    row += CsvField(f.reading);
    return row;
}

std::string EventLogText(const MsgInfo& e, int64_t number)
{
    if (e.type == kTypeDeviceStatus || e.type == kTypeContract)
        return std::string();
    int direction = e.direction;
    int64_t n = number;
    if (e.type == kTypeDigitalPing)
        direction = 0;
    if (e.type == kTypeViolation) {
        direction = 0;
        n = number + 1;
    }
    return EventLogLine(static_cast<int32_t>(n), e.str, direction).toStdString();
}

bool ParseExportFormat(const std::string& word, ExportFormat& format)
{
    if (word == "csv")
        format = ExportFormat::Csv;
    else if (word == "json")
        format = ExportFormat::Json;
    else if (word == "text")
        format = ExportFormat::Text;
    else
        return false;
    return true;
}

ExportWriter::ExportWriter(std::ostream& out, ExportFormat format) : m_out(out), m_format(format) {}

void ExportWriter::Begin()
{
    if (m_format == ExportFormat::Csv)
        m_out << CsvHeader() << "\r\n";
}

void ExportWriter::Write(const MsgInfo& event, const EventFields& fields)
{
    switch (m_format) {
    case ExportFormat::Csv:
        m_out << CsvRow(fields) << "\r\n";
        break;
    case ExportFormat::Json:
        m_out << EventJsonLine(event) << "\n";
        break;
    case ExportFormat::Text: {
        const std::string line = EventLogText(event, fields.number);
        if (!line.empty())
            m_out << line << "\n";
        break;
    }
    }
}

}  // namespace analysis
