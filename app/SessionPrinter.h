// How capture and replay show a session on the terminal: the event log
// model's lines as it writes them, each phase announced by a heading line
// where its group opens; or, with --json, each event as one JSON object.
#pragma once

#include "events/EventLogModel.h"

#include <json/json.h>

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

class SessionPrinter {
public:
    SessionPrinter(EventLogModel& model, std::ostream& out, bool json);

    // Call before the model takes a batch (or a marker) ...
    void Before();
    // ... and after, with the batch's events (empty for a marker).
    void After(const std::vector<MsgInfoPtr>& batch);

private:
    EventLogModel& m_model;
    std::ostream& m_out;
    bool m_json;
    int64_t m_before = 0;
    // Headings by the number of the log line they stand before.
    std::map<int64_t, std::string> m_headings;
    Json::StreamWriterBuilder m_builder;
};
