// How capture and replay show a session on the terminal: the event log
// model's lines as it writes them, each phase announced by a heading line
// where its group opens; or, with --json, each event as one JSON object.
// With a display filter, only the events it matches are shown (their lines
// as the model writes them, a phase's heading before the first one shown in
// its group); the markers' lines, which are no events, are then left out.
#pragma once

#include "analysis/Filter.h"
#include "events/EventLogModel.h"

#include <json/json.h>

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

class SessionPrinter {
public:
    SessionPrinter(EventLogModel& model, std::ostream& out, bool json, const analysis::Filter* filter = nullptr);

    // Call before the model takes a batch (or a marker) ...
    void Before();
    // ... and after, with the batch's events (empty for a marker).
    void After(const std::vector<MsgInfoPtr>& batch);

    // Events the filter let through so far.
    int64_t Shown() const { return m_shown; }

private:
    EventLogModel& m_model;
    std::ostream& m_out;
    bool m_json;
    const analysis::Filter* m_filter;
    int64_t m_before = 0;
    // Headings by the number of the log line they stand before.
    std::map<int64_t, std::string> m_headings;
    Json::StreamWriterBuilder m_builder;
    // Filtered: the events of the batch the filter matched, the heading that
    // waits for its group's first shown event, and the fields' time.
    std::set<const MsgInfo*> m_matched;
    std::string m_pendingHeading;
    analysis::EventFieldsBuilder m_fields;
    int64_t m_shown = 0;
};
