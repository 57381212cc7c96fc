#include "app/CliReplay.h"
#include "app/CliFiles.h"

#include "analysis/TimingChecker.h"
#include "analysis/TimingFile.h"
#include "app/CliShow.h"
#include "app/SessionPrinter.h"
#include "events/EventLogModel.h"
#include "events/RecordStore.h"
#include "events/SessionFile.h"
#include "events/StreamReplay.h"
#include "interchange/SigrokImport.h"
#include "services/AppSettings.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <unistd.h>

namespace {

const char* kReplayHelp =
    "usage: coilscope-cli replay ASKFILE [FSKFILE] [--sid OUT] [--json] [--filter EXPR]\n"
    "                            [--ask-reader list|both] [--fsk-reader list|both]\n"
    "       coilscope-cli replay SESSION.sid [--sid OUT] [--json] [--filter EXPR]\n"
    "       coilscope-cli replay CAPTURE.sr [--ask-channel NAME] [--sid OUT] [--json] [--filter EXPR]\n"
    "\n"
    "Raw capture files (.2k.bin, .fsk.bin; a capture header is skipped, and so\n"
    "is a frame cut by the start of the file, told on stderr) go\n"
    "through the same decoders and data manager as a live capture, in capture\n"
    "time order, and the session's log is printed (--json: one JSON object per\n"
    "event). --sid OUT also writes the events as a session file, and beside it\n"
    "their capture records (OUT's name with .rec: the waves of the packets) and\n"
    "OUT's .timing file: the carrier's edges and the timing findings (see check).\n"
    "--ask-reader both (the default, unless the settings turn the second\n"
    "reader off) reads the receiver's packets with the list decoder and a\n"
    "second reader, which recovers what the list decoder missed and corrects\n"
    "what it misread (\"reading\" and \"otherReading\" in --json); list keeps\n"
    "the list decoder alone.\n"
    "--fsk-reader both (the default, unless the settings turn it off) reads the\n"
    "transmitter's packets and response patterns with the FSK frame decoder\n"
    "and a second reader of the period words, merged the same way; list keeps\n"
    "the frame decoder alone.\n"
    "A session file (.sid) is played through the event log between a Start\n"
    "and a Stop marker, as opening it in the window does, and nothing is\n"
    "written: the session stays where it is. --sid OUT saves the replayed\n"
    "session anew: OUT, its capture records beside it (OUT's name with .rec)\n"
    "and its log (with .log), told on stderr.\n"
    "A sigrok session (.sr, as sigrok-cli and PulseView save it) is decoded\n"
    "the same way: the receiver's side from a logic channel with the\n"
    "demodulated ASK data line (any sample rate of 16 kHz or more) or an\n"
    "analog channel with the ASK envelope, resampled to the sniffer's 40 kHz;\n"
    "the transmitter's side from an analog channel \"fsk\" with the carrier\n"
    "frequency in kHz, if there is one. --ask-channel NAME picks the channel;\n"
    "without it: \"ask\" (analog), else \"qi\" (logic), else the only logic\n"
    "channel, else the first analog one.\n"
    "--filter EXPR prints only the events the display filter matches (as\n"
    "show --filter; the session files still get every event). A bad\n"
    "expression is refused with the column and what was expected, status 2,\n"
    "before anything is played.\n"
    "\n"
    "examples:\n"
    "  coilscope-cli replay ask.2k.bin fsk.fsk.bin --sid again.sid\n"
    "  coilscope-cli replay EventWindow_2026_11_22\\ 10_00_00.sid\n"
    "  coilscope-cli replay EventWindow_2026_11_22\\ 10_00_00.sid --sid copy.sid\n"
    "  coilscope-cli replay link.sr --ask-channel D2\n"
    "  coilscope-cli replay ask.2k.bin fsk.fsk.bin --filter 'type == \"ControlError\" && ce.value < 0'\n";

}  // namespace

bool ParseReaderChoice(const char* option, const char* value, bool& both)
{
    const std::string v = value ? value : "";
    if (v == "list" || v == "both") {
        both = v == "both";
        return true;
    }
    std::fprintf(stderr, "coilscope-cli: %s takes list or both, not \"%s\"\n", option, v.c_str());
    return false;
}

bool ParseAskReader(const char* value, bool& both)
{
    return ParseReaderChoice("--ask-reader", value, both);
}

bool ParseFskReader(const char* value, bool& both)
{
    return ParseReaderChoice("--fsk-reader", value, both);
}

int RunReplay(int argc, char** argv)
{
    std::vector<std::string> files;
    std::string sidOut;
    bool json = false;
    int askReader = -1;  // -1: as the settings say
    int fskReader = -1;
    bool filtered = false;
    std::string filterText;
    std::string askChannel;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kReplayHelp, stdout);
            return 0;
        }
        if (a == "--json")
            json = true;
        else if (a == "--sid" && i + 1 < argc)
            sidOut = argv[++i];
        else if (a == "--ask-channel" && i + 1 < argc)
            askChannel = argv[++i];
        else if (a == "--filter") {
            if (!TakeCliFilter("replay", argc, argv, i, filterText))
                return 2;
            filtered = true;
        }
        else if (a == "--ask-reader" && i + 1 < argc) {
            bool both = true;
            if (!ParseAskReader(argv[++i], both))
                return 2;
            askReader = both ? 1 : 0;
        }
        else if (a == "--fsk-reader" && i + 1 < argc) {
            bool both = true;
            if (!ParseFskReader(argv[++i], both))
                return 2;
            fskReader = both ? 1 : 0;
        }
        else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            std::fprintf(stderr, "coilscope-cli replay: unknown option %s (try --help)\n", a.c_str());
            return 2;
        } else
            files.push_back(a);
    }
    analysis::Filter filter;
    if (filtered && !CompileCliFilter("replay", filterText, filter))
        return 2;
    if (files.empty() || files.size() > 2) {
        std::fprintf(stderr, "coilscope-cli replay: give ASKFILE [FSKFILE] or one SESSION.sid (try --help)\n");
        return 2;
    }

    EventLogModel model;
    SessionPrinter printer(model, std::cout, json, &filter);

    if (files.size() == 1 && EndsWith(files[0], ".sid")) {
        std::vector<MsgInfoPtr> events;
        std::vector<uint64_t> offsets;
        std::string error;
        if (!OpenSessionFile(files[0], events, error, &offsets)) {
            std::fprintf(stderr, "coilscope-cli replay: %s\n", error.c_str());
            return 2;
        }
        std::string logOut;
        if (sidOut.empty()) {
            // Shown where it lies: the Start marker writes nothing.
            model.ShowInPlace(files[0], std::move(offsets));
        } else {
            // Saved anew only when asked: OUT, and beside it its records and log.
            if (std::FILE* probe = std::fopen(sidOut.c_str(), "ab"))
                std::fclose(probe);
            else {
                std::fprintf(stderr, "coilscope-cli replay: cannot write %s\n", sidOut.c_str());
                return 2;
            }
            const std::string rec = RecordStore::PathBeside(sidOut);
            logOut = rec.substr(0, rec.size() - 4) + ".log";
            model.SetSessionFiles(sidOut, logOut);
            // The capture records beside the .sid, if any, go with the events
            // into the replayed session's own record file.
            model.SetRecordSource(files[0]);
        }
        printer.Before();
        model.StartAcquisition();
        model.AddEvents(events);
        model.StopAcquisition();
        printer.After(events);
        model.CloseStreams();
        std::cout << std::flush;
        if (!sidOut.empty())
            std::fprintf(stderr, "replayed session saved in %s (capture records in %s, log in %s)\n", sidOut.c_str(),
                         RecordStore::PathBeside(sidOut).c_str(), logOut.c_str());
        return 0;
    }

    std::vector<uint8_t> ask, fsk;
    if (files.size() == 1 && EndsWith(files[0], ".sr")) {
        // A sigrok session becomes the sniffer's two streams.
        interchange::SigrokCapture capture;
        interchange::ImportedStreams streams;
        std::string error;
        if (!interchange::ReadSigrokSession(files[0], capture, error) ||
            !interchange::StreamsFromSigrok(capture, askChannel, streams, error)) {
            std::fprintf(stderr, "coilscope-cli replay: %s\n", error.c_str());
            return 2;
        }
        std::fprintf(stderr, "replay: receiver from %s channel \"%s\" at %s%s%s%s\n",
                     streams.askFromLogic ? "logic" : "analog", streams.askChannel.c_str(),
                     interchange::SamplerateText(capture.samplerate).c_str(),
                     streams.fskChannel.empty() ? "" : ", transmitter from analog channel \"",
                     streams.fskChannel.c_str(), streams.fskChannel.empty() ? "" : "\"");
        ask = std::move(streams.ask);
        fsk = std::move(streams.fsk);
    } else if (!askChannel.empty()) {
        std::fprintf(stderr, "coilscope-cli replay: --ask-channel goes with a sigrok session (.sr)\n");
        return 2;
    } else if (!ReadAll(files[0], ask)) {
        std::fprintf(stderr, "coilscope-cli replay: cannot open %s\n", files[0].c_str());
        return 2;
    }
    if (files.size() == 2 && (EndsWith(files[0], ".sr") || !ReadAll(files[1], fsk))) {
        std::fprintf(stderr, "coilscope-cli replay: cannot open %s\n", files[1].c_str());
        return 2;
    }
    std::FILE* sid = nullptr;
    // The capture records of the events go beside the .sid, numbered by their
    // place in it, as a live capture stores them: opening the session shows
    // their waves.
    RecordStore records;
    uint64_t sidRecords = 0;
    if (!sidOut.empty()) {
        sid = std::fopen(sidOut.c_str(), "wb");
        if (!sid) {
            std::fprintf(stderr, "coilscope-cli replay: cannot write %s\n", sidOut.c_str());
            return 2;
        }
        if (!records.Create(RecordStore::PathBeside(sidOut)))
            std::fprintf(stderr, "coilscope-cli replay: cannot write %s: the session is saved without its waves\n",
                         RecordStore::PathBeside(sidOut).c_str());
    }
    StreamReplay replay(std::move(ask), std::move(fsk));
    if (askReader >= 0)
        replay.Manager().SetSecondAskReader(askReader == 1);
    if (fskReader >= 0)
        replay.Manager().SetSecondFskReader(fskReader == 1);
    // A capture begins where the port was when streaming started, often inside
    // a frame: what lies before the first whole frame is not played.
    if (replay.SkippedAsk() > 0)
        std::fprintf(stderr, "replay: skipped %zu bytes before the first whole frame of %s\n", replay.SkippedAsk(),
                     files[0].c_str());
    if (replay.SkippedFsk() > 0)
        std::fprintf(stderr, "replay: skipped %zu bytes before the first whole frame of %s\n", replay.SkippedFsk(),
                     files[1].c_str());
    // With --sid, the timing file beside it: the carrier's edges as they
    // come and the findings of the timing checker.
    analysis::TimingFile timingFile;
    analysis::TimingChecker checker(analysis::TimingLimits::FromSettings(SettingParams::Instance()));
    std::vector<CarrierEdge> edges;
    if (sid && timingFile.Create(analysis::TimingFile::PathBeside(sidOut))) {
        checker.onFinding = [&](const analysis::TimingFinding& f) { timingFile.WriteFinding(f); };
        // After the printer's own look at each event (its filter), if it has one.
        auto before = model.eventAdded;
        model.eventAdded = [&checker, before](const MsgInfo& e, int phase) {
            if (before)
                before(e, phase);
            checker.Add(e, e.id);
        };
    }
    auto takeEdges = [&] {
        if (!timingFile.IsOpen())
            return;
        edges.clear();
        replay.Manager().TakeCarrierEdges(edges);
        for (const CarrierEdge& e : edges)
            timingFile.WriteEdge(e);
        checker.AddCarrierEdges(edges);
    };
    const bool showProgress = isatty(2) && replay.DurationMs() > 60000.0;
    int shown = -1;  // the percentage on the terminal; written again only when it changes
    replay.Run(
        [&](std::vector<MsgInfoPtr>& events) {
            for (const auto& e : events) {
                if (!WriteSessionRecord(sid, *e))
                    continue;
                ++sidRecords;
                if (e->capture)
                    records.Append(sidRecords, *e->capture, EventTag(*e));
            }
            takeEdges();
            printer.Before();
            model.AddEvents(events);
            printer.After(events);
        },
        [&](double done) {
            const int percent = std::min(99, static_cast<int>(done * 100.0));
            if (showProgress && percent != shown) {
                std::fprintf(stderr, "\rreplay %3d %%", percent);
                shown = percent;
            }
        });
    if (showProgress)
        std::fputs("\rreplay 100 %\n", stderr);
    takeEdges();
    if (timingFile.IsOpen())
        checker.Finish();
    // What the second readers changed, as the session's statistics tell it.
    CDataManager& manager = replay.Manager();
    if (manager.SecondAskReader()) {
        const CDataManager::MergeCounts c = manager.Merges();
        std::fprintf(stderr,
                     "readers: ASK agreed %lld, recovered %lld, corrected %lld, disputed %lld, refused %lld, "
                     "unconfirmed %lld\n",
                     (long long)c.agreed, (long long)c.recovered, (long long)c.corrected, (long long)c.disputed,
                     (long long)c.refused, (long long)c.unconfirmed);
    }
    if (manager.SecondFskReader()) {
        const CDataManager::MergeCounts c = manager.FskMerges();
        std::fprintf(stderr, "readers: FSK agreed %lld, recovered %lld, corrected %lld, disputed %lld\n",
                     (long long)c.agreed, (long long)c.recovered, (long long)c.corrected, (long long)c.disputed);
    }
    std::cout << std::flush;
    if (sid) {
        std::fclose(sid);
        records.Close();
        std::fprintf(stderr, "session saved in %s (capture records in %s, timing in %s)\n", sidOut.c_str(),
                     RecordStore::PathBeside(sidOut).c_str(), analysis::TimingFile::PathBeside(sidOut).c_str());
    }
    return 0;
}
