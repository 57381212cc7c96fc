// coilscope-cli --filter and --format over a replayed emulator session: the
// filtered output holds exactly the events that a count over the unfiltered
// --json output finds.
#include "ProcessFixtures.h"
#include "sim/StreamSynth.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using e2e::Lines;
using e2e::Result;
using e2e::RunCli;

namespace {

std::vector<Json::Value> JsonLines(const std::string& text)
{
    std::vector<Json::Value> out;
    Json::CharReaderBuilder b;
    for (const std::string& line : Lines(text)) {
        Json::Value v;
        std::string errors;
        std::unique_ptr<Json::CharReader> reader(b.newCharReader());
        EXPECT_TRUE(reader->parse(line.data(), line.data() + line.size(), &v, &errors)) << line;
        out.push_back(v);
    }
    return out;
}

// Forty seconds of the emulator's built-in session (power transfer settles
// around a control error of 0, so negative ones come), as its two streams.
struct Session {
    std::string dir, ask, fsk;
    Session()
    {
        dir = std::string(std::getenv("XDG_DATA_HOME")) + "/filter-session";
        std::system(("mkdir -p '" + dir + "'").c_str());
        ask = dir + "/ask.2k.bin";
        fsk = dir + "/fsk.fsk.bin";
        coilsim::SynthOptions o;
        o.seed = 3;
        coilsim::StreamSynth synth(coilsim::SessionScript::Default(3), o);
        std::ofstream a(ask, std::ios::binary), f(fsk, std::ios::binary);
        std::vector<uint8_t> af, ff;
        while (synth.StreamUs() < 40ULL * 1000000ULL) {
            synth.NextFrames(af, ff);
            a.write(reinterpret_cast<const char*>(af.data()), static_cast<std::streamsize>(af.size()));
            f.write(reinterpret_cast<const char*>(ff.data()), static_cast<std::streamsize>(ff.size()));
        }
    }
    std::string Files() const { return "'" + ask + "' '" + fsk + "'"; }
};

const Session& TheSession()
{
    static Session s;
    return s;
}

// The frame's bytes from the spaced hex of the JSON's packet group.
std::vector<int> Bytes(const Json::Value& e)
{
    std::vector<int> out;
    std::istringstream in(e["packet"]["PacketData"].asString());
    std::string pair;
    while (in >> pair)
        out.push_back(std::stoi(pair, nullptr, 16));
    return out;
}

const char* kNegativeControlErrors = "'type == \"ControlError\" && ce.value < 0'";

}  // namespace

TEST(CliFilter, ReplayGivesExactlyTheEventsCountedFromTheJsonOutput)
{
    const Session& s = TheSession();
    const Result all = RunCli("replay " + s.Files() + " --json");
    ASSERT_EQ(all.status, 0);
    // The count, as a script over the unfiltered output makes it: type 3 and
    // the signed message byte below 0.
    std::vector<int> expected;
    for (const Json::Value& e : JsonLines(all.out)) {
        const std::vector<int> b = Bytes(e);
        if (e["type"].asInt() == 3 && b.size() >= 2 && static_cast<int8_t>(b[1]) < 0)
            expected.push_back(e["id"].asInt());
    }
    ASSERT_GT(expected.size(), 10u);

    const Result filtered = RunCli("replay " + s.Files() + " --json --filter " + kNegativeControlErrors);
    ASSERT_EQ(filtered.status, 0);
    std::vector<int> got;
    for (const Json::Value& e : JsonLines(filtered.out))
        got.push_back(e["id"].asInt());
    EXPECT_EQ(got, expected);

    // The text output: the same events, each its log line exactly as the
    // unfiltered log has it, and the heading of their phase once.
    const Result text = RunCli("replay " + s.Files());
    const Result textFiltered = RunCli("replay " + s.Files() + " --filter " + kNegativeControlErrors);
    ASSERT_EQ(textFiltered.status, 0);
    std::set<std::string> allLines;
    for (const std::string& l : Lines(text.out))
        allLines.insert(l);
    size_t events = 0;
    for (const std::string& l : Lines(textFiltered.out)) {
        if (l.rfind("-- ", 0) == 0)
            continue;
        events += 1;
        EXPECT_TRUE(allLines.count(l)) << l;
        EXPECT_EQ(l.rfind("Rx [", 0), 0u) << l;
    }
    EXPECT_EQ(events, expected.size());
    EXPECT_EQ(Lines(textFiltered.out).front(), "-- Power Transfer Phase --");
}

TEST(CliFilter, ShowFiltersASessionFileAndWritesCsvJsonAndText)
{
    const Session& s = TheSession();
    const std::string sid = s.dir + "/again.sid";
    ASSERT_EQ(RunCli("replay " + s.Files() + " --sid '" + sid + "'").status, 0);

    const Result json = RunCli("show '" + sid + "' --json");
    ASSERT_EQ(json.status, 0);
    // --json is --format json, and neither changed without a filter.
    EXPECT_EQ(RunCli("show '" + sid + "' --format json").out, json.out);
    std::vector<int> expected;
    const std::vector<Json::Value> records = JsonLines(json.out);
    for (const Json::Value& e : records) {
        const std::vector<int> b = Bytes(e);
        if (e["type"].asInt() == 3 && b.size() >= 2 && static_cast<int8_t>(b[1]) < 0)
            expected.push_back(e["id"].asInt());
    }
    ASSERT_GT(expected.size(), 10u);

    const Result csv = RunCli("show '" + sid + "' --format csv --filter " + kNegativeControlErrors);
    ASSERT_EQ(csv.status, 0);
    const std::vector<std::string> rows = Lines(csv.out);
    ASSERT_EQ(rows.size(), expected.size() + 1);
    EXPECT_EQ(rows[0], "number,time_ms,dir,phase,type,bytes,text,status,reading\r");
    for (size_t k = 0; k < expected.size(); ++k) {
        EXPECT_EQ(rows[k + 1].rfind(std::to_string(expected[k]) + ",", 0), 0u) << rows[k + 1];
        // A session file keeps no direction: a control error is the receiver's.
        EXPECT_NE(rows[k + 1].find(",rx,power,0x03 ControlError,03 "), std::string::npos) << rows[k + 1];
        EXPECT_NE(rows[k + 1].find(",ok,\r"), std::string::npos) << rows[k + 1];
    }

    const Result text = RunCli("show '" + sid + "' --format text --filter 'number <= 3'");
    ASSERT_EQ(text.status, 0);
    const std::vector<std::string> lines = Lines(text.out);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "   [1] " + records[0]["str"].asString());

    // The default form keeps its tab-separated lines, filtered.
    const Result plain = RunCli("show '" + sid + "' --filter 'number == " + std::to_string(expected[0]) + "'");
    EXPECT_EQ(plain.out, std::to_string(expected[0]) + "\tControlError \t" +
                             records[static_cast<size_t>(expected[0] - 1)]["str"].asString() + "\n");

    // Phase and time come through: the negotiation's requests, ms after 0.
    const Result nego = RunCli("show '" + sid + "' --format csv --filter 'phase == negotiation && dir == rx'");
    const std::vector<std::string> negoRows = Lines(nego.out);
    ASSERT_GT(negoRows.size(), 2u);
    EXPECT_NE(negoRows[1].find(",rx,negotiation,0x20 SpecificRequest,"), std::string::npos) << negoRows[1];
}

TEST(CliFilter, ABadExpressionIsRefusedWithItsColumnBeforeAnyWork)
{
    for (const std::string& command : {std::string("show /nonexistent.sid"), std::string("replay /nonexistent.bin"),
                                       std::string("capture --seconds 1")}) {
        const Result r = RunCli(command + " --filter 'type == '", true);
        EXPECT_EQ(r.status, 2) << command;
        EXPECT_NE(r.out.find("bad filter: column 9: expected a value after '=='"), std::string::npos)
            << command << ": " << r.out;
        // The filter, and a caret under the column.
        EXPECT_NE(r.out.find("  type == \n          ^\n"), std::string::npos) << r.out;
    }
    const Result unknown = RunCli("show /nonexistent.sid --filter 'colour == red'", true);
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.out.find("column 1: expected a field name, not 'colour'"), std::string::npos) << unknown.out;
    const Result format = RunCli("show /nonexistent.sid --format xml", true);
    EXPECT_EQ(format.status, 2);
    EXPECT_NE(format.out.find("--format takes csv, json or text"), std::string::npos);
}

TEST(CliFilter, HelpTellsTheOptions)
{
    EXPECT_NE(RunCli("show --help").out.find("--filter EXPR"), std::string::npos);
    EXPECT_NE(RunCli("show --help").out.find("--format csv"), std::string::npos);
    EXPECT_NE(RunCli("replay --help").out.find("--filter EXPR"), std::string::npos);
    EXPECT_NE(RunCli("capture --help").out.find("--filter EXPR"), std::string::npos);
}
