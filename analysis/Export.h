// Writing the shown events out: CSV, JSON lines and the plain text of the log.
// The window's File > Export and `coilscope-cli show --format` use these.
#pragma once

#include "analysis/EventFields.h"
#include "events/MsgInfo.h"

#include <json/json.h>

#include <ostream>
#include <string>

namespace analysis {

// An event as one JSON object with its groups as nested objects: what
// coilscope-cli prints for --json.
Json::Value EventJson(const MsgInfo& event);
// The same as one line of compact JSON, without its line feed.
std::string EventJsonLine(const MsgInfo& event);

// The CSV header: "number,time_ms,dir,phase,type,bytes,text,status,reading".
const char* CsvHeader();
// One field quoted as RFC 4180 wants: in double quotes, with each double
// quote doubled, when it holds a comma, a double quote, a carriage return or
// a line feed (or starts or ends with a blank); as it is otherwise.
std::string CsvField(const std::string& text);
// One row, without its line end: the number; the time in milliseconds with
// three decimals; rx, tx or none; the phase's word (empty for none); the type
// as "0x03 ControlError" (the code in hex, then the name if there is one; the
// codes the system adds, such as 253, likewise); the bytes as upper-case hex
// pairs separated by blanks; the text; ok or error; the reading mark.
std::string CsvRow(const EventFields& fields);

// The event's line in the log as the event log model writes it (UTF-8), or
// an empty string for the events that have none there (device status,
// contract). A violation's line carries the number after its record's,
// which the model gives its item.
std::string EventLogText(const MsgInfo& event, int64_t number);

enum class ExportFormat { Csv, Json, Text };

// Parses "csv", "json" or "text".
bool ParseExportFormat(const std::string& word, ExportFormat& format);

// Writes events to a stream in one of the formats; CSV rows end in CR LF as
// RFC 4180 has it, JSON and text lines in LF.
class ExportWriter {
public:
    ExportWriter(std::ostream& out, ExportFormat format);
    // The CSV header; nothing for the other formats.
    void Begin();
    void Write(const MsgInfo& event, const EventFields& fields);

private:
    std::ostream& m_out;
    ExportFormat m_format;
};

}  // namespace analysis
