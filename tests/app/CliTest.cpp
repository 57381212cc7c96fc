// coilscope-cli as a user runs it: the program itself, its output and its
// exit status.
#include "ProcessFixtures.h"
#include "events/EventLogModel.h"
#include "events/RecordStore.h"
#include "events/SessionFile.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <array>
#include <regex>
#include <vector>
#include <cstdio>
#include <cstdlib>
#include <string>

using e2e::Result;
using e2e::RunCli;

namespace {

// The standard output of a shell command.
std::string RunShell(const std::string& command) { return e2e::Shell(command).out; }

}  // namespace

TEST(CliDecode, ControlError)
{
    const Result r = RunCli("decode 03 FF FC");
    EXPECT_EQ(r.status, 0);
    // The packet's text, then the event the data manager makes of it.
    EXPECT_EQ(r.out, "ControlError -1.0%\nControlError -1.0% @0HZ\n");
}

TEST(CliDecode, PowerControlHoldOff)
{
    const Result r = RunCli("decode 06 05 03");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "PowerControlHoldOff PowerControlHoldOff 5 ms\nPowerControlHoldOff PowerControlHoldOff 5 ms\n");
}

TEST(CliDecode, TransmitterChargeStatus)
{
    const Result r = RunCli("decode --fsk 1F 64 7B");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Charge Status Battery charge level:100\nCharge Status Battery charge level:100 @0HZ\n");
}

TEST(CliDecode, BlanksAndLetterCaseDoNotMatter)
{
    const std::string expected = RunCli("decode 03 FF FC").out;
    EXPECT_EQ(RunCli("decode 03fffc").out, expected);
    EXPECT_EQ(RunCli("decode '03 ff FC'").out, expected);
    EXPECT_EQ(RunCli("decode 03 F f FC").out, expected);
}

TEST(CliDecode, UnknownHeaderIsProprietary)
{
    const Result r = RunCli("decode 08 01 09");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Proprietary 08 01 09 \nProprietary 08 01 09 \n");
}

TEST(CliDecode, ReceiverFrameStartingWithZeroIsAChecksumError)
{
    const Result r = RunCli("decode 00 01 01");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "ChecksumError 00 01 01 \nChecksumError 00 01 01 \n");
}

TEST(CliDecode, JsonGivesOneObject)
{
    const Result r = RunCli("decode --json 03 FF FC");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\"class\":\"ControlError\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"logData\":\"ControlError -1.0%\""), std::string::npos);
    EXPECT_NE(r.out.find("\"typeString\":\"ControlError \""), std::string::npos);
    EXPECT_NE(r.out.find("\"direction\":\"ASK\""), std::string::npos);
    EXPECT_NE(r.out.find("\"header\":3"), std::string::npos);
    EXPECT_NE(r.out.find("\"powerValue\":0"), std::string::npos);
    EXPECT_NE(r.out.find("\"powerRatio\":0"), std::string::npos);
    // One object for the packet, then one for its event.
    const size_t first = r.out.find('\n');
    ASSERT_NE(first, std::string::npos);
    const std::string eventLine = r.out.substr(first + 1);
    EXPECT_EQ(eventLine.find('\n'), eventLine.size() - 1);
    EXPECT_NE(eventLine.find("\"str\":\"ControlError -1.0% @0HZ\""), std::string::npos) << eventLine;
    EXPECT_NE(eventLine.find("\"common\":{"), std::string::npos);
    EXPECT_NE(eventLine.find("\"eventCount\":1"), std::string::npos);
}

TEST(CliDecode, ConfigurationGivesThreeEvents)
{
    const Result r = RunCli("decode 51 0A 00 83 0A C0 1A");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "Configuration Rx Configuration : 5W, Prop = True, Count = 3, Wsize = 4ms, Woff = 8ms, Neg = True, FSK = -78ns + / -16.5ns\n"
              "Configuration Rx Configuration : 5W, Prop = True, Count = 3, Wsize = 4ms, Woff = 8ms, Neg = True, FSK = -78ns + / -16.5ns\n"
              "Receiver Device Status : MaxPower=5W\n"
              "Power Transfer Contract : MaxPower=5W, GuarPower=5W, FSK = -78ns, Polarity=Negative, PktTpye=8Bit\n");
}

TEST(CliDecode, BadInputSaysWhatIsWrongAndExitsTwo)
{
    struct Case {
        const char* args;
        const char* says;
    } cases[] = {
        {"decode 03 FF FC 1", "odd number of hexadecimal digits"},
        {"decode 03 FG FC", "'G' is not a hexadecimal digit"},
        {"decode", "no bytes given"},
        {"decode --fsk", "no bytes given"},
        {"decode --bogus 03", "unknown option --bogus"},
    };
    for (const Case& c : cases) {
        const Result r = RunCli(c.args, true);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_NE(r.out.find(c.says), std::string::npos) << c.args << ": " << r.out;
        EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << "one line: " << r.out;
    }
    std::string many = "decode";
    for (int i = 0; i < 53; ++i)
        many += " 01";
    const Result r = RunCli(many, true);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("53 bytes is more than a frame holds (52)"), std::string::npos) << r.out;
}

TEST(CliDecode, HelpExplainsWithAnExample)
{
    const Result r = RunCli("decode --help");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("usage: coilscope-cli decode [--fsk] [--json] HEX..."), std::string::npos);
    EXPECT_NE(r.out.find("coilscope-cli decode 03 FF FC"), std::string::npos);
    const Result top = RunCli("--help");
    EXPECT_EQ(top.status, 0);
    EXPECT_NE(top.out.find("decode"), std::string::npos);
}

TEST(CliShow, PrintsEachRecordOfASessionFile)
{
    const std::string dir = std::string(std::getenv("XDG_DATA_HOME")) + "/show-test";
    std::system(("mkdir -p '" + dir + "'").c_str());
    const std::string path = dir + "/s.sid";
    {
        // Two records written by the decoder's own path, one damaged between.
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_TRUE(f);
        const char* docs[] = {
            "{ \"common\" : \"{ \\\"typeString\\\" : \\\"ControlError \\\" }\", \"str\" : \"ControlError -1.0% @0HZ\", \"type\" : 3 }",
            "{ broken",
            "{ \"str\" : \"Digital Ping 65ms @ 128000HZ\", \"type\" : 253 }",
        };
        for (const char* d : docs) {
            std::fputs(d, f);
            std::fputc(0, f);
        }
        std::fclose(f);
    }
    const Result r = RunCli("show '" + path + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "1\tControlError \tControlError -1.0% @0HZ\n2\t\t\n3\t\tDigital Ping 65ms @ 128000HZ\n");
    const Result j = RunCli("show --json '" + path + "'");
    EXPECT_EQ(j.status, 0);
    EXPECT_NE(j.out.find("\"id\":3"), std::string::npos) << j.out;
    EXPECT_NE(j.out.find("\"eventG\":{\"FirstEventNumber\":3"), std::string::npos) << j.out;
}

TEST(CliShow, MissingFileIsAOneLineErrorWithStatusTwo)
{
    const Result r = RunCli("show /nonexistent/x.sid", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "coilscope-cli show: Can't open \"/nonexistent/x.sid\": No such file or directory. Expected a "
                     "session file (.sid).\n");
    EXPECT_EQ(RunCli("show", true).status, 2);
    EXPECT_EQ(RunCli("show /tmp", true).status, 2);
}

// Files in which no record is an event: show and replay refuse them with the
// window's message and status 2, and replay makes no session folder.
TEST(CliShow, FilesWithoutOneEventAreRefusedWithStatusTwo)
{
    const std::string dir = std::string(std::getenv("XDG_DATA_HOME")) + "/not-sessions";
    std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
    struct Case {
        std::string name;
        std::string bytes;
        std::string message;
    };
    const std::string record =
        "{ \"str\" : \"Digital Ping 65ms @ 128000HZ\", \"type\" : 253 }";
    const std::vector<Case> cases = {
        {"empty.sid", "", "is empty. Expected a session file (.sid) with at least one event record."},
        {"notes.sid", "Notes of the bench session\nsecond line\n",
         "is not a session file: none of its records is an event. Expected a session file (.sid) of event records "
         "in JSON, each ended by a 0 byte."},
        {"cut.sid", record.substr(0, 20),
         "is not a session file: none of its records is an event. Expected a session file (.sid) of event records "
         "in JSON, each ended by a 0 byte."},
    };
    const std::string sessions = std::string(std::getenv("XDG_DATA_HOME")) + "/Coilscope";
    for (const Case& c : cases) {
        const std::string path = dir + "/" + c.name;
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_TRUE(f);
        std::fwrite(c.bytes.data(), 1, c.bytes.size(), f);
        std::fclose(f);
        for (const char* command : {"show", "replay"}) {
            const std::string before = RunShell("ls '" + sessions + "' 2>/dev/null");
            const Result r = RunCli(std::string(command) + " '" + path + "'", true);
            EXPECT_EQ(r.status, 2) << command << " " << c.name;
            EXPECT_EQ(r.out, std::string("coilscope-cli ") + command + ": \"" + path + "\" " + c.message + "\n");
            EXPECT_EQ(RunShell("ls '" + sessions + "' 2>/dev/null"), before) << command << " " << c.name;
        }
    }
    // The same record whole is a session of one event.
    const std::string path = dir + "/one.sid";
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f);
    std::fwrite(record.data(), 1, record.size() + 1, f);
    std::fclose(f);
    const Result r = RunCli("show '" + path + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "1\t\tDigital Ping 65ms @ 128000HZ\n");
}

TEST(Cli, FirstRunWritesAFreshSettingsFile)
{
    const std::string file = std::string(std::getenv("XDG_CONFIG_HOME")) + "/Coilscope/setting.txt";
    std::remove(file.c_str());
    RunCli("decode 03 FF FC");
    FILE* f = std::fopen(file.c_str(), "rb");
    ASSERT_TRUE(f) << file;
    char buffer[4096] = {};
    std::fread(buffer, 1, sizeof buffer - 1, f);
    std::fclose(f);
    EXPECT_NE(std::string(buffer).find("\"params_ver\" : 20190713"), std::string::npos) << buffer;
}

TEST(CliReplay, SessionFileIsToldPhaseByPhaseBetweenTheMarkers)
{
    const std::string dir = std::string(std::getenv("XDG_DATA_HOME")) + "/replay-test";
    std::system(("mkdir -p '" + dir + "'").c_str());
    const std::string path = dir + "/s.sid";
    {
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_TRUE(f);
        // A loaded event has no direction: the lines have the blank prefix.
        const char* docs[] = {
            "{ \"str\" : \"Digital Ping 65ms @ 128000HZ\", \"type\" : 253 }",
            "{ \"str\" : \"SignalStrength 50%\", \"type\" : 1 }",
            "{ \"str\" : \"Configuration\", \"type\" : 81 }",
            "{ \"str\" : \"ControlError 1.0% @0HZ\", \"type\" : 3 }",
            "{ \"str\" : \"ControlError 2.0% @0HZ\", \"type\" : 3 }",
        };
        for (const char* d : docs) {
            std::fputs(d, f);
            std::fputc(0, f);
        }
        std::fclose(f);
    }
    const std::string data = std::getenv("XDG_DATA_HOME");
    const std::string sessionsBefore = RunShell("ls -R '" + data + "/Coilscope' 2>/dev/null");
    const Result r = RunCli("replay '" + path + "'");
    EXPECT_EQ(r.status, 0);
    // Each line; the markers carry the time of day, so only their start is fixed.
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < r.out.size()) {
        const size_t end = r.out.find('\n', at);
        lines.push_back(r.out.substr(at, end - at));
        at = end == std::string::npos ? r.out.size() : end + 1;
    }
    ASSERT_EQ(lines.size(), 10u) << r.out;
    EXPECT_EQ(lines[0].rfind("   [1] Start Acquisition: Acquisition started at ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1], "-- Power Ping Phase --");
    EXPECT_EQ(lines[2], "   [2] Digital Ping 65ms @ 128000HZ");
    EXPECT_EQ(lines[3], "   [3] SignalStrength 50%");
    EXPECT_EQ(lines[4], "-- Power Identify&Configure Phase --");
    EXPECT_EQ(lines[5], "   [4] Configuration");
    EXPECT_EQ(lines[6], "-- Power Transfer Phase --");
    EXPECT_EQ(lines[7], "   [5] ControlError 1.0% @0HZ");
    EXPECT_EQ(lines[8], "   [6] ControlError 2.0% @0HZ");
    EXPECT_EQ(lines[9].rfind("   [7] Stop Acquisition: Acquisition stoped at ", 0), 0u) << lines[9];
    EXPECT_EQ(r.out.back(), '\n');
    // Shown where it lies: nothing was written, here or in a session folder.
    EXPECT_EQ(RunShell("ls -A '" + dir + "'"), "s.sid\n");
    EXPECT_EQ(RunShell("ls -R '" + data + "/Coilscope' 2>/dev/null"), sessionsBefore);
    EXPECT_NE(std::system("ls EventWindow_*.sid >/dev/null 2>&1"), 0);
    EXPECT_EQ(RunCli("replay '" + path + "'", true).out, r.out);  // nothing said on stderr
}

// A session of the emulator's recorded streams, replayed into a session file
// and then played again: in place it writes nothing; with --sid OUT it saves
// OUT with its records and its log beside it, and says so.
TEST(CliReplay, SessionFileIsSavedAnewOnlyWhenAsked)
{
    const std::string dir = std::string(std::getenv("XDG_DATA_HOME")) + "/replay-sid-out";
    std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "/copy'").c_str());
    const std::string data = std::string(COILSCOPE_TEST_DATA);
    // A session file of the recorded streams.
    const std::string first = dir + "/first.sid";
    ASSERT_EQ(RunCli("replay '" + data + "/emulator.2k.bin' '" + data + "/emulator.fsk.bin' --sid '" + first + "'")
                  .status,
              0);
    const std::string copy = dir + "/copy/again.sid";
    const Result inPlace = RunCli("replay '" + first + "'", true);
    EXPECT_EQ(inPlace.status, 0);
    EXPECT_EQ(RunShell("ls -A '" + dir + "/copy'"), "");
    const Result saved = RunCli("replay '" + first + "' --sid '" + copy + "'", true);
    EXPECT_EQ(saved.status, 0);
    EXPECT_EQ(RunShell("ls -A '" + dir + "/copy'"), "again.log\nagain.rec\nagain.sid\n");
    EXPECT_NE(saved.out.find("replayed session saved in " + copy + " (capture records in " + dir +
                             "/copy/again.rec, log in " + dir + "/copy/again.log)\n"),
              std::string::npos)
        << saved.out;
    // The same events either way; the copy shows as the original does.
    EXPECT_EQ(e2e::Lines(RunCli("show '" + copy + "'").out).size(),
              e2e::Lines(RunCli("show '" + first + "'").out).size());
    const Result refused = RunCli("replay '" + first + "' --sid /nonexistent/x.sid", true);
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "coilscope-cli replay: cannot write /nonexistent/x.sid\n");
}

// Raw capture files replayed into a session file keep their capture records
// beside it, as a live capture does: each record under its event's place in
// the .sid and with its event's tag, every receiver packet with its wave, and
// the replay says where the session went.
TEST(CliReplay, RawCapturesSavedAsASessionKeepTheirRecordsBesideIt)
{
    const std::string dir = std::string(std::getenv("XDG_DATA_HOME")) + "/replay-raw-records";
    std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
    const std::string data = std::string(COILSCOPE_TEST_DATA);
    const std::string sid = dir + "/s.sid";
    const Result r =
        RunCli("replay '" + data + "/emulator.2k.bin' '" + data + "/emulator.fsk.bin' --sid '" + sid + "'", true);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("session saved in " + sid + " (capture records in " + dir + "/s.rec, timing in " + dir +
                         "/s.timing)\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(RunShell("ls -A '" + dir + "'"), "s.rec\ns.sid\ns.timing\n");

    std::vector<MsgInfoPtr> events;
    std::string error;
    ASSERT_TRUE(OpenSessionFile(sid, events, error)) << error;
    RecordStore records;
    ASSERT_TRUE(records.Open(RecordStore::PathBeside(sid)));
    EXPECT_EQ(records.Version(), RecordStore::kVersionPacked);
    EXPECT_EQ(records.DamagedCount(), 0u);
    size_t controlErrors = 0, withWave = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        uint32_t tag = 0;
        if (records.Tag(i + 1, &tag)) {
            EXPECT_EQ(tag, EventTag(*events[i])) << "record " << i + 1;
            const TriggerDataPtr wave = records.Load(i + 1);
            ASSERT_TRUE(wave) << "record " << i + 1;
            EXPECT_FALSE(wave->samples.empty()) << "record " << i + 1;
        }
        // Control errors: packets of the receiver, read from the envelope.
        if (events[i]->type == 3) {
            ++controlErrors;
            withWave += records.Has(i + 1) ? 1 : 0;
        }
    }
    ASSERT_GT(controlErrors, 10u);
    EXPECT_EQ(withWave, controlErrors);
    EXPECT_GT(records.Count(), controlErrors);
}

// ------------------------------------------- a recorded capture, two ASK readers

namespace {

const std::string kRecorded = std::string(COILSCOPE_TEST_DATA) + "/emulator.2k.bin " +
                              std::string(COILSCOPE_TEST_DATA) + "/emulator.fsk.bin";

std::string ReadText(const std::string& path)
{
    std::string text;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        std::array<char, 4096> buffer;
        size_t n;
        while ((n = std::fread(buffer.data(), 1, buffer.size(), f)) > 0)
            text.append(buffer.data(), n);
        std::fclose(f);
    }
    return text;
}

// A Received Power's text carries the wall-clock time of the replay.
std::string WithoutWallClock(const std::string& text)
{
    static const std::regex clock("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}");
    return std::regex_replace(text, clock, "hh:mm:ss.mmm");
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end == std::string::npos ? std::string::npos : end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

// The text of a string field in a one-line JSON object, or "".
std::string Field(const std::string& line, const std::string& key)
{
    const std::string tag = "\"" + key + "\":\"";
    const size_t at = line.find(tag);
    if (at == std::string::npos)
        return "";
    const size_t from = at + tag.size();
    return line.substr(from, line.find('"', from) - from);
}

}  // namespace

TEST(CliReplayRecorded, TheListDecoderAloneGivesTheEventsItAlwaysGave)
{
    const Result r = RunCli("replay " + kRecorded + " --json --ask-reader list --fsk-reader list");
    ASSERT_EQ(r.status, 0);
    const std::string expected = ReadText(std::string(COILSCOPE_TEST_DATA) + "/emulator.list-decoder.jsonl");
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(WithoutWallClock(r.out), expected);
}

TEST(CliReplayRecorded, WithBothReadersEveryReceiverPacketSentComesBack)
{
    const Result r = RunCli("replay " + kRecorded + " --json");
    ASSERT_EQ(r.status, 0);
    std::vector<std::string> got;
    int recovered = 0, corrected = 0;
    for (const std::string& line : Lines(r.out)) {
        if (line.find("\"direction\":2") == std::string::npos)
            continue;
        got.push_back(Field(line, "PacketData"));
        const std::string reading = Field(line, "reading");
        if (reading == "recovered") {
            ++recovered;
            const std::string head = got.back().substr(0, 2);
            EXPECT_TRUE(head == "71" || head == "81") << got.back();
        }
        if (reading == "corrected") {
            ++corrected;
            // The list decoder read 03 40 43 where 03 20 23 was sent.
            EXPECT_EQ(got.back(), "03 20 23 ");
            EXPECT_EQ(Field(line, "otherReading"), "03 40 43 ");
        }
    }
    EXPECT_EQ(recovered, 2);  // the identification and the extended identification
    EXPECT_EQ(corrected, 1);
    // The receiver's packets sent while the capture ran, in order: all back,
    // and nothing else (the stream ends about 9.9 s in).
    std::vector<std::string> sent;
    for (const std::string& line : Lines(ReadText(std::string(COILSCOPE_TEST_DATA) + "/emulator.sent.jsonl")))
        if (Field(line, "direction") == "ASK")
            sent.push_back(Field(line, "bytes"));
    ASSERT_GT(sent.size(), 20u);
    EXPECT_EQ(got, sent);
}

// The end of a replay tells on stderr what each second reader changed; with
// the list decoders alone there is nothing to tell.
TEST(CliReplayRecorded, TheSecondReadersTallyEndsTheReplayOnStderr)
{
    const std::string cli = std::string(COILSCOPE_CLI) + " replay " + kRecorded;
    const Result both = e2e::Shell(cli + " 2>&1 >/dev/null");
    ASSERT_EQ(both.status, 0);
    EXPECT_NE(both.out.find("readers: ASK agreed "), std::string::npos) << both.out;
    EXPECT_NE(both.out.find(", recovered 2, corrected 1, disputed 0, refused 0, unconfirmed 0\n"), std::string::npos)
        << both.out;
    EXPECT_NE(both.out.find("readers: FSK agreed "), std::string::npos) << both.out;
    const Result list = e2e::Shell(cli + " --ask-reader list --fsk-reader list 2>&1 >/dev/null");
    ASSERT_EQ(list.status, 0);
    EXPECT_EQ(list.out.find("readers:"), std::string::npos) << list.out;
}

TEST(CliReplayRecorded, WithBothFskReadersEveryTransmitterPacketAndPatternSentComesBack)
{
    // The frame decoder reads every one of this recording's transmitter
    // packets and ACKs; the second reader agrees with each, so the events are
    // the frame decoder's, unmarked, as with the second FSK reader off.
    const Result both = RunCli("replay " + kRecorded + " --json --ask-reader list");
    ASSERT_EQ(both.status, 0);
    const std::string expected = ReadText(std::string(COILSCOPE_TEST_DATA) + "/emulator.list-decoder.jsonl");
    EXPECT_EQ(WithoutWallClock(both.out), expected);
    std::vector<std::string> got;
    for (const std::string& line : Lines(both.out)) {
        if (line.find("\"direction\":1") == std::string::npos || Field(line, "PacketData").empty())
            continue;
        got.push_back(Field(line, "PacketData"));
        EXPECT_EQ(Field(line, "reading"), "") << line;
    }
    std::vector<std::string> sent;
    for (const std::string& line : Lines(ReadText(std::string(COILSCOPE_TEST_DATA) + "/emulator.sent.jsonl")))
        if (Field(line, "direction") == "FSK")
            sent.push_back(Field(line, "bytes"));
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(got, sent);
}

TEST(CliReplayRecorded, FskReaderTakesListOrBoth)
{
    const Result bad = RunCli("replay " + kRecorded + " --fsk-reader maybe", true);
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.out.find("--fsk-reader takes list or both"), std::string::npos) << bad.out;
    const Result help = RunCli("replay --help");
    EXPECT_NE(help.out.find("--fsk-reader list|both"), std::string::npos);
}

TEST(CliCaptureOptions, FskReaderTakesListOrBothBeforeLookingForTheDevice)
{
    const Result bad = RunCli("capture --fsk-reader none --seconds 1", true);
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.out.find("--fsk-reader takes list or both, not \"none\""), std::string::npos) << bad.out;
    EXPECT_EQ(bad.out.find("Not found Sniffer Device."), std::string::npos) << bad.out;
    const Result help = RunCli("capture --help");
    EXPECT_NE(help.out.find("--fsk-reader list|both"), std::string::npos);
}

TEST(CliReplayRecorded, AskReaderTakesListOrBoth)
{
    const Result bad = RunCli("replay " + kRecorded + " --ask-reader maybe", true);
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.out.find("--ask-reader takes list or both"), std::string::npos) << bad.out;
    const Result help = RunCli("replay --help");
    EXPECT_NE(help.out.find("--ask-reader"), std::string::npos);
}

TEST(CliCaptureOptions, AskReaderTakesListOrBothBeforeLookingForTheDevice)
{
    const Result bad = RunCli("capture --ask-reader none --seconds 1", true);
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.out.find("--ask-reader takes list or both, not \"none\""), std::string::npos) << bad.out;
    EXPECT_EQ(bad.out.find("Not found Sniffer Device."), std::string::npos) << bad.out;
    const Result help = RunCli("capture --help");
    EXPECT_NE(help.out.find("--ask-reader list|both"), std::string::npos);
}
