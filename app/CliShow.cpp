#include "app/CliShow.h"

#include "events/SessionFile.h"

#include <cstdio>
#include <iostream>
#include <string>

namespace {

const char* kShowHelp =
    "usage: coilscope-cli show FILE.sid [--json]\n"
    "\n"
    "Prints the records of a session file, one line each: the record's number,\n"
    "its type text and the text the event tree shows, separated by tabs.\n"
    "A damaged record prints with empty fields and the rest of the file goes on.\n"
    "\n"
    "options:\n"
    "  --json   print each record as one JSON object, its groups as nested\n"
    "           objects\n"
    "\n"
    "example:\n"
    "  coilscope-cli show ~/.local/share/Coilscope/2026_11_22\\ 10_00_00/EventWindow_2026_11_22\\ 10_00_00.sid\n";

}  // namespace

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

int RunShow(int argc, char** argv)
{
    bool json = false;
    std::string path;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kShowHelp, stdout);
            return 0;
        }
        if (a == "--json") {
            json = true;
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
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    for (const auto& e : events) {
        if (json)
            std::cout << Json::writeString(builder, EventJson(*e)) << "\n";
        else
            std::cout << e->id << "\t" << e->common.typeString << "\t" << e->str.toStdString() << "\n";
    }
    return 0;
}
