#include "app/CliShow.h"

#include "events/EventLogModel.h"
#include "events/SessionFile.h"

#include <cstdio>
#include <iostream>
#include <string>

namespace {

const char* kShowHelp =
    "usage: coilscope-cli show FILE.sid [--json] [--filter EXPR] [--format csv|json|text]\n"
    "\n"
    "Prints the records of a session file, one line each: the record's number,\n"
    "its type text and the text the event tree shows, separated by tabs.\n"
    "A damaged record prints with empty fields and the rest of the file goes on.\n"
    "\n"
    "options:\n"
    "  --json         print each record as one JSON object, its groups as nested\n"
    "                 objects (the same as --format json)\n"
    "  --format csv   one row per record: number,time_ms,dir,phase,type,bytes,\n"
    "                 text,status,reading (a header row first, RFC 4180 quoting)\n"
    "  --format json  as --json\n"
    "  --format text  the log lines, as the event log writes them\n"
    "  --filter EXPR  only the records the display filter matches, e.g.\n"
    "                 'type == \"ControlError\" && ce.value < 0' or\n"
    "                 'phase == power || status == error' (fields and operators:\n"
    "                 README, \"Display filter\"). A bad expression is refused\n"
    "                 with the column and what was expected, status 2.\n"
    "\n"
    "The records are numbered from 1 in the file's order; the phase is the one\n"
    "the event log gives each record when it reads the file in that order. A\n"
    "session file keeps no direction: dir is inferred from the type.\n"
    "\n"
    "examples:\n"
    "  coilscope-cli show ~/.local/share/Coilscope/2026_11_22\\ 10_00_00/EventWindow_2026_11_22\\ 10_00_00.sid\n"
    "  coilscope-cli show session.sid --filter 'phase == negotiation' --format csv > nego.csv\n";

}  // namespace

bool CompileCliFilter(const char* command, const std::string& text, analysis::Filter& filter)
{
    analysis::FilterError error;
    if (filter.Compile(text, error))
        return true;
    std::fprintf(stderr, "coilscope-cli %s: bad filter: %s\n  %s\n  %s^\n", command, error.message.c_str(),
                 text.c_str(), std::string(error.position, ' ').c_str());
    return false;
}

bool TakeCliFilter(const char* command, int argc, char** argv, int& i, std::string& text)
{
    if (i + 1 >= argc) {
        std::fprintf(stderr, "coilscope-cli %s: --filter needs an expression\n", command);
        return false;
    }
    text = argv[++i];
    return true;
}

int RunShow(int argc, char** argv)
{
    bool formatted = false;
    analysis::ExportFormat format = analysis::ExportFormat::Json;
    std::string path;
    std::string filterText;
    bool filtered = false;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kShowHelp, stdout);
            return 0;
        }
        if (a == "--json") {
            formatted = true;
            format = analysis::ExportFormat::Json;
        } else if (a == "--format") {
            if (i + 1 >= argc || !analysis::ParseExportFormat(argv[i + 1], format)) {
                std::fprintf(stderr, "coilscope-cli show: --format takes csv, json or text\n");
                return 2;
            }
            formatted = true;
            ++i;
        } else if (a == "--filter") {
            if (!TakeCliFilter("show", argc, argv, i, filterText))
                return 2;
            filtered = true;
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            std::fprintf(stderr, "coilscope-cli show: unknown option %s (try --help)\n", a.c_str());
            return 2;
        } else if (path.empty()) {
            path = a;
        } else {
            std::fprintf(stderr, "coilscope-cli show: one file at a time (got %s and %s)\n", path.c_str(), a.c_str());
            return 2;
        }
    }
    analysis::Filter filter;
    if (filtered && !CompileCliFilter("show", filterText, filter))
        return 2;
    if (path.empty()) {
        std::fprintf(stderr, "coilscope-cli show: no file given: coilscope-cli show FILE.sid\n");
        return 2;
    }
    std::vector<MsgInfoPtr> events;
    std::string error;
    if (!OpenSessionFile(path, events, error)) {
        std::fprintf(stderr, "coilscope-cli show: %s\n", error.c_str());
        return 2;
    }
    // The phases as the event log classifies the records in the file's order.
    // The model takes copies: the records keep the numbers the file gave them.
    std::vector<int> phases(events.size(), 0);
    if (filtered || formatted) {
        EventLogModel model;
        size_t at = 0;
        model.eventAdded = [&](const MsgInfo&, int phase) {
            if (at < phases.size())
                phases[at] = phase;
            ++at;
        };
        std::vector<MsgInfoPtr> copies;
        copies.reserve(events.size());
        for (const auto& e : events)
            copies.push_back(std::make_shared<MsgInfo>(*e));
        model.AddEvents(copies);
    }
    analysis::EventFieldsBuilder builder;
    analysis::ExportWriter writer(std::cout, format);
    if (formatted)
        writer.Begin();
    for (size_t k = 0; k < events.size(); ++k) {
        const MsgInfo& e = *events[k];
        if (filtered || formatted) {
            const analysis::EventFields fields = builder.Next(e, e.id, phases[k]);
            if (!filter.Matches(fields))
                continue;
            if (formatted) {
                writer.Write(e, fields);
                continue;
            }
        }
        std::cout << e.id << "\t" << e.common.typeString << "\t" << e.str.toStdString() << "\n";
    }
    return 0;
}
