// coilscope-cli check as a user runs it: on raw capture files, on a session
// file with its timing file beside it, its lines, its JSON and its exit status.
#include "ProcessFixtures.h"
#include "sim/SessionScript.h"
#include "sim/StreamSynth.h"

#include <gtest/gtest.h>

#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

using e2e::Result;
using e2e::RunCli;

namespace {

// The built-in session with a breach, as the emulator streams it, written
// into two raw capture files; returns their paths as arguments.
std::string WriteBreach(const std::string& name, const std::string& breach, double seconds = 34.0)
{
    const std::string dir = e2e::Folder("check-" + name);
    coilsim::SynthOptions o;
    o.seed = 5;
    coilsim::StreamSynth synth(coilsim::SessionScript::Default(5, breach), o);
    std::ofstream ask(dir + "/s.2k.bin", std::ios::binary), fsk(dir + "/s.fsk.bin", std::ios::binary);
    std::vector<uint8_t> a, f;
    while (synth.StreamUs() < static_cast<uint64_t>(seconds * 1e6)) {
        synth.NextFrames(a, f);
        ask.write(reinterpret_cast<const char*>(a.data()), static_cast<std::streamsize>(a.size()));
        fsk.write(reinterpret_cast<const char*>(f.data()), static_cast<std::streamsize>(f.size()));
    }
    return e2e::Quote(dir + "/s.2k.bin") + " " + e2e::Quote(dir + "/s.fsk.bin");
}

const std::regex kLine(R"(^\d+\.\d{3} [a-z-]+ [0-9.]+ (ms|Hz|bits) [<>] [0-9.]+ (ms|Hz|bits) event \d+$)");

}  // namespace

TEST(CliCheck, ABreachIsOneLineThenTheSummaryAndStatusOne)
{
    const Result r = RunCli("check " + WriteBreach("timeout", "ce-timeout"));
    EXPECT_EQ(r.status, 1) << r.out;
    const auto lines = e2e::Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_TRUE(std::regex_match(lines[0], kLine)) << lines[0];
    EXPECT_NE(lines[0].find(" ce-timeout 2023.075 ms > 1800 ms event "), std::string::npos) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(^checked \d+ packets: 1 errors, 0 warnings$)"))) << lines[1];
}

TEST(CliCheck, AWarningAloneLeavesStatusZero)
{
    const Result r = RunCli("check " + WriteBreach("late", "ce-interval"));
    EXPECT_EQ(r.status, 0) << r.out;
    const auto lines = e2e::Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_NE(lines[0].find(" ce-interval "), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(": 0 errors, 1 warnings"), std::string::npos) << lines[1];
}

TEST(CliCheck, JsonGivesOneObjectPerFindingWithTheSameFields)
{
    const Result r = RunCli("check --json " + WriteBreach("json", "ask-preamble"));
    EXPECT_EQ(r.status, 1);
    const auto lines = e2e::Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    Json::Value f, s;
    Json::Reader reader;
    ASSERT_TRUE(reader.parse(lines[0], f));
    EXPECT_EQ(f["rule"].asString(), "ask-preamble");
    EXPECT_EQ(f["severity"].asString(), "error");
    EXPECT_EQ(f["measured"].asDouble(), 9.0);
    EXPECT_EQ(f["unit"].asString(), "bits");
    EXPECT_EQ(f["op"].asString(), "<");
    EXPECT_EQ(f["limit"].asDouble(), 11.0);
    EXPECT_TRUE(f["event"].isIntegral());
    EXPECT_TRUE(f["time_ms"].isNumeric());
    ASSERT_TRUE(reader.parse(lines[1], s));
    EXPECT_EQ(s["errors"].asInt(), 1);
    EXPECT_EQ(s["warnings"].asInt(), 0);
}

TEST(CliCheck, ASessionFileIsJudgedWithItsTimingFileAsTheCaptureWas)
{
    const std::string files = WriteBreach("sid", "terminate-after-ept");
    const std::string dir = e2e::Folder("check-sid-out");
    const std::string sid = dir + "/s.sid";
    ASSERT_EQ(RunCli("replay " + files + " --sid " + e2e::Quote(sid)).status, 0);
    // The replay saved the carrier's edges and its finding beside the .sid.
    const std::string timing = e2e::ReadFile(dir + "/s.timing");
    EXPECT_NE(timing.find("{\"carrier\":\"off\""), std::string::npos);
    EXPECT_NE(timing.find("\"rule\":\"terminate-after-ept\""), std::string::npos);
    const Result raw = RunCli("check " + files);
    const Result fromSid = RunCli("check " + e2e::Quote(sid));
    EXPECT_EQ(raw.status, 0);
    EXPECT_EQ(fromSid.status, 0);
    // The same finding of the same event, the session's packets timed on the
    // envelopes of the records that replay --sid saved beside it.
    const auto a = e2e::Lines(raw.out), b = e2e::Lines(fromSid.out);
    ASSERT_EQ(a.size(), 2u) << raw.out;
    ASSERT_EQ(b.size(), 2u) << fromSid.out;
    const std::regex parts(R"(^([0-9.]+) ([a-z-]+) ([0-9.]+) ms > 28 ms (event \d+)$)");
    std::smatch ma, mb;
    ASSERT_TRUE(std::regex_match(a[0], ma, parts)) << a[0];
    ASSERT_TRUE(std::regex_match(b[0], mb, parts)) << b[0];
    EXPECT_EQ(ma[2], "terminate-after-ept");
    EXPECT_EQ(mb[2], ma[2]);
    EXPECT_EQ(mb[4], ma[4]);
    EXPECT_NEAR(std::stod(mb[1]), std::stod(ma[1]), 0.2);
    EXPECT_NEAR(std::stod(mb[3]), std::stod(ma[3]), 0.2);
    EXPECT_EQ(b[1], a[1]);
}

TEST(CliCheck, TheRecordedEmulatorSessionIsChecked)
{
    const std::string data = COILSCOPE_TEST_DATA;
    const Result r = RunCli("check " + data + "/emulator.2k.bin " + data + "/emulator.fsk.bin");
    const auto lines = e2e::Lines(r.out);
    ASSERT_FALSE(lines.empty());
    for (size_t i = 0; i + 1 < lines.size(); ++i)
        EXPECT_TRUE(std::regex_match(lines[i], kLine)) << lines[i];
    EXPECT_TRUE(std::regex_match(lines.back(), std::regex(R"(^checked \d+ packets: \d+ errors, \d+ warnings$)")))
        << lines.back();
}

TEST(CliCheck, BadInputIsStatusTwo)
{
    EXPECT_EQ(RunCli("check").status, 2);
    EXPECT_EQ(RunCli("check /nonexistent/x.sid").status, 2);
    EXPECT_EQ(RunCli("check /nonexistent/a.2k.bin").status, 2);
    EXPECT_EQ(RunCli("check a b c").status, 2);
    EXPECT_EQ(RunCli("check --bogus x.sid").status, 2);
    EXPECT_EQ(RunCli("check --help").status, 0);
}

TEST(SimBreach, AnUnknownBreachIsRefusedAndHelpListsThem)
{
    const e2e::Result bad = e2e::Shell(std::string(COILSCOPE_SIM) + " --breach nothing 2>&1");
    EXPECT_EQ(bad.status, 2);
    const e2e::Result help = e2e::Shell(std::string(COILSCOPE_SIM) + " --help");
    for (const auto& b : coilsim::Breaches())
        EXPECT_NE(help.out.find(std::string("  ") + b.name), std::string::npos) << b.name;
}

// Through the real programs: coilscope-sim breaks the rule on the ports,
// coilscope-cli captures from it, and checking the raw captures finds the
// breach once and nothing else.
TEST(SimBreach, ALiveCaptureOfABreachIsFoundOnceByCheck)
{
    const std::string dir = e2e::Folder("check-live");
    e2e::Sim sim(dir, {"--breach", "ce-interval", "--speed", "5", "--record", dir + "/ask.bin", dir + "/fsk.bin"});
    ASSERT_TRUE(sim.ok);
    // 4 s at five times real speed: 20 s of stream, the breach at about 11 s.
    const Result capture = e2e::Shell(sim.Env() + std::string(COILSCOPE_CLI) + " capture --seconds 4 2>/dev/null");
    sim.Stop();
    ASSERT_EQ(capture.status, 0);
    const Result r = RunCli("check " + e2e::Quote(dir + "/ask.bin") + " " + e2e::Quote(dir + "/fsk.bin"));
    const auto lines = e2e::Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_NE(lines[0].find(" ce-interval "), std::string::npos) << r.out;
    EXPECT_NE(lines[1].find(": 0 errors, 1 warnings"), std::string::npos) << r.out;
    EXPECT_EQ(r.status, 0);

    // The capture's own session: its .timing beside the .sid holds the
    // carrier's edges and the finding, and checking the .sid finds it again.
    const std::string tag = "session saved in ";
    const size_t at = capture.out.find(tag);
    ASSERT_NE(at, std::string::npos) << capture.out.substr(0, 300);
    const std::string folder = capture.out.substr(at + tag.size(), capture.out.find('\n', at) - at - tag.size());
    std::string sid;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().extension() == ".sid")
            sid = entry.path().string();
    ASSERT_FALSE(sid.empty()) << folder;
    const std::string timing = e2e::ReadFile(sid.substr(0, sid.size() - 4) + ".timing");
    EXPECT_NE(timing.find("\"rule\":\"ce-interval\""), std::string::npos) << timing.substr(0, 300);
    const Result again = RunCli("check " + e2e::Quote(sid));
    // The live session is what the host read in time: on a loaded machine it
    // may have missed a frame the recording holds, so it is only asked to
    // hold the breach.
    EXPECT_NE(again.out.find(" ce-interval "), std::string::npos) << again.out;
}
