#include "app/CliCheck.h"
#include "app/CliFiles.h"

#include "analysis/TimingChecker.h"
#include "analysis/TimingFile.h"
#include "app/CliReplay.h"
#include "events/EventLogModel.h"
#include "events/RecordStore.h"
#include "events/SessionFile.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"

#include <json/json.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

const char* kCheckHelp =
    "usage: coilscope-cli check SESSION.sid [--json]\n"
    "       coilscope-cli check ASKFILE [FSKFILE] [--json] [--ask-reader list|both] [--fsk-reader list|both]\n"
    "\n"
    "Judges every packet of a session against the Qi timing rules and prints\n"
    "one line per finding, in capture order:\n"
    "  <time ms> <rule> <measured> <limit> event <number>\n"
    "for instance \"12034.125 ce-interval 412 ms > 350 ms event 57\", then\n"
    "\"checked <N> packets: <E> errors, <W> warnings\". --json prints one JSON\n"
    "object per finding (time_ms, rule, severity, measured, unit, op, limit,\n"
    "event, events, text) and then {\"checked\":N,\"errors\":E,\"warnings\":W}.\n"
    "\n"
    "Rules (limits from the settings, m_timing_* in setting.txt):\n"
    "  ping-to-first-packet  carrier on to the receiver's first packet   <= 65 ms     error\n"
    "  config-packet-gap     identification & configuration: end of a\n"
    "                        packet to the start of the next              <= 21 ms     error\n"
    "  config-packet-length  identification & configuration: a packet    <= 170 ms    error\n"
    "  ce-interval           power transfer: Control Error to the next   <= 350 ms    warning\n"
    "  ce-timeout            no Control Error while the carrier stays on  > 1800 ms   error\n"
    "                        (not after End Power Transfer)\n"
    "  holdoff-range         Power Control Hold-off value                5 - 205 ms   error\n"
    "  ask-bit-rate          a receiver packet's bit rate                2 kHz +- 4 %  error\n"
    "  ask-preamble          a receiver packet's preamble ones           11 - 25      error\n"
    "  fsk-response-window   end of a receiver packet to the start of\n"
    "                        the transmitter's response                  <= 10 ms     warning\n"
    "  terminate-after-ept   End Power Transfer to the carrier going off <= 28 ms     warning\n"
    "\n"
    "A receiver packet is measured on the envelope of its capture record\n"
    "(its start, end, bit rate and preamble). A session file is judged with\n"
    "the carrier's edges from the .timing file beside it and the capture\n"
    "records from its .rec, when they are there (without them, with the\n"
    "decoders' spans and preamble counts);\n"
    "without carrier edges (an ASK capture alone, an older session) the rules\n"
    "that need the carrier are not judged. Raw capture files go through the\n"
    "decoders as `replay` plays them, numbered as `replay` numbers them; a\n"
    "session file's events are numbered as `show` numbers its records.\n"
    "\n"
    "Exit status: 0 no error found (warnings may be), 1 one or more errors,\n"
    "2 bad input.\n";

int Report(analysis::TimingChecker& checker, bool json)
{
    std::vector<analysis::TimingFinding> findings = checker.Findings();
    analysis::SortFindings(findings);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    for (const auto& f : findings) {
        if (json)
            std::cout << Json::writeString(builder, f.ToJson()) << "\n";
        else
            std::cout << f.Line() << "\n";
    }
    if (json) {
        Json::Value s(Json::objectValue);
        s["checked"] = Json::UInt64(checker.PacketsChecked());
        s["errors"] = Json::UInt64(checker.Errors());
        s["warnings"] = Json::UInt64(checker.Warnings());
        std::cout << Json::writeString(builder, s) << "\n";
    } else {
        std::cout << "checked " << checker.PacketsChecked() << " packets: " << checker.Errors() << " errors, "
                  << checker.Warnings() << " warnings\n";
    }
    std::cout << std::flush;
    return checker.Errors() > 0 ? 1 : 0;
}

}  // namespace

int RunCheck(int argc, char** argv)
{
    std::vector<std::string> files;
    bool json = false;
    int askReader = -1, fskReader = -1;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kCheckHelp, stdout);
            return 0;
        }
        if (a == "--json")
            json = true;
        else if (a == "--ask-reader" && i + 1 < argc) {
            bool both = true;
            if (!ParseAskReader(argv[++i], both))
                return 2;
            askReader = both ? 1 : 0;
        } else if (a == "--fsk-reader" && i + 1 < argc) {
            bool both = true;
            if (!ParseFskReader(argv[++i], both))
                return 2;
            fskReader = both ? 1 : 0;
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            std::fprintf(stderr, "coilscope-cli check: unknown option %s (try --help)\n", a.c_str());
            return 2;
        } else
            files.push_back(a);
    }
    if (files.empty() || files.size() > 2) {
        std::fprintf(stderr, "coilscope-cli check: give ASKFILE [FSKFILE] or one SESSION.sid (try --help)\n");
        return 2;
    }

    analysis::TimingChecker checker(analysis::TimingLimits::FromSettings(SettingParams::Instance()));

    if (files.size() == 1 && EndsWith(files[0], ".sid")) {
        std::vector<MsgInfoPtr> events;
        std::string error;
        if (!OpenSessionFile(files[0], events, error)) {
            std::fprintf(stderr, "coilscope-cli check: %s\n", error.c_str());
            return 2;
        }
        // The carrier's edges saved beside the session, and the capture
        // records (the transmitter's packets start where their words say).
        std::vector<CarrierEdge> edges;
        std::vector<analysis::TimingFinding> saved;
        analysis::TimingFile::Read(analysis::TimingFile::PathBeside(files[0]), edges, saved);
        checker.AddCarrierEdges(edges);
        RecordStore records;
        const bool haveRecords = records.Open(RecordStore::PathBeside(files[0]));
        for (const auto& e : events) {
            if (haveRecords && !e->capture)
                e->capture = records.Load(static_cast<uint64_t>(e->id));
            checker.Add(*e, e->id);
            e->capture.reset();
        }
        checker.Finish();
        return Report(checker, json);
    }

    std::vector<uint8_t> ask, fsk;
    if (!ReadAll(files[0], ask)) {
        std::fprintf(stderr, "coilscope-cli check: cannot open %s\n", files[0].c_str());
        return 2;
    }
    if (files.size() == 2 && !ReadAll(files[1], fsk)) {
        std::fprintf(stderr, "coilscope-cli check: cannot open %s\n", files[1].c_str());
        return 2;
    }
    if (ask.empty() && fsk.empty()) {
        std::fprintf(stderr, "coilscope-cli check: %s holds no stream\n", files[0].c_str());
        return 2;
    }
    const int64_t endUs = analysis::StreamsEndUs(ask, fsk);
    StreamReplay replay(std::move(ask), std::move(fsk));
    if (askReader >= 0)
        replay.Manager().SetSecondAskReader(askReader == 1);
    if (fskReader >= 0)
        replay.Manager().SetSecondFskReader(fskReader == 1);
    // Numbered as replay numbers them: through the event log model (no files).
    EventLogModel model;
    model.eventAdded = [&](const MsgInfo& e, int) { checker.Add(e, e.id); };
    std::vector<CarrierEdge> edges;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        edges.clear();
        replay.Manager().TakeCarrierEdges(edges);
        checker.AddCarrierEdges(edges);
        model.AddEvents(events);
    });
    edges.clear();
    replay.Manager().TakeCarrierEdges(edges);
    checker.AddCarrierEdges(edges);
    checker.Finish(endUs);
    return Report(checker, json);
}
