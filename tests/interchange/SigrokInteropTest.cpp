// sigrok sessions in and out of the decoders: captures that sigrok-cli wrote
// from generated logic and analog data decode to the packets that were sent;
// what Coilscope exports decodes again to the same packets, through its own
// replay and through sigrok's own qi decoder. Tests that run sigrok-cli say
// they are skipped where it is not installed.
#include "interchange/SigrokExport.h"
#include "common/TimeText.h"
#include "interchange/SigrokImport.h"

#include "analysis/WaveTrace.h"
#include "events/EventLogModel.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/AskSynth.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

using namespace interchange;

namespace {

struct Packet {
    int direction = 0;
    std::string bytes;  // "03 05 06 "
    bool operator==(const Packet& o) const { return direction == o.direction && bytes == o.bytes; }
};

std::ostream& operator<<(std::ostream& os, const Packet& p)
{
    return os << (p.direction == 1 ? "Tx " : p.direction == 2 ? "Rx " : "   ") << p.bytes;
}

// The good packets a replay of the streams gives, in order.
std::vector<Packet> Decode(const std::vector<uint8_t>& ask, const std::vector<uint8_t>& fsk,
                           std::vector<MsgInfoPtr>* events = nullptr)
{
    std::vector<Packet> out;
    StreamReplay replay(ask.data(), ask.size(), fsk.data(), fsk.size());
    replay.Run([&](std::vector<MsgInfoPtr>& batch) {
        for (const MsgInfoPtr& e : batch) {
            if (events)
                events->push_back(e);
            if (!e->packet.PacketData.empty() && e->packet.Status == "NoError")
                out.push_back({e->direction, e->packet.PacketData});
        }
    });
    return out;
}

std::vector<Packet> Receiver(const std::vector<Packet>& all)
{
    std::vector<Packet> rx;
    for (const Packet& p : all)
        if (p.direction == 2)
            rx.push_back(p);
    return rx;
}

std::vector<uint8_t> FileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Packets of a short receiver session: no Extended Identification, whose
// annotation sigrok 0.5's qi decoder fails on (it stops decoding there).
const std::vector<std::vector<uint8_t>>& Script()
{
    static const std::vector<std::vector<uint8_t>> s = {
        qisim::WithChecksum({0x01, 0xC0}),
        qisim::WithChecksum({0x71, 0x11, 0x00, 0x42, 0x12, 0x34, 0x56, 0x78}),
        qisim::WithChecksum({0x51, 0x0A, 0x00, 0x00, 0x00, 0x00}),
        qisim::WithChecksum({0x03, 0x05}),
        qisim::WithChecksum({0x03, 0xFE}),
        qisim::WithChecksum({0x04, 0x40}),
        qisim::WithChecksum({0x03, 0x00}),
        qisim::WithChecksum({0x02, 0x01}),
    };
    return s;
}

std::vector<Packet> Sent()
{
    std::vector<Packet> sent;
    for (const auto& p : Script())
        sent.push_back({2, SpacedHex(p)});
    return sent;
}

// The envelope of the script at 40 kHz, as the sniffer sees it, with noise.
std::vector<uint16_t> ScriptEnvelope()
{
    qisim::AskWaveParams params;
    params.swing = 1800;
    params.noiseFraction = 0.02;
    params.jitterSamples = 1.0;
    qisim::AskWaveWriter writer(params, 7);
    writer.Idle(400);
    for (const auto& p : Script()) {
        writer.Packet(p, 11);
        writer.Idle(1200);
    }
    return writer.TakeSamples();
}

// The receiver's data line of the script at a sample rate: high at rest,
// every bit cell begins with an edge and a one has a second one at half the
// cell; after a packet the line goes back to rest.
std::vector<uint8_t> ScriptLine(double rate)
{
    std::vector<uint8_t> line;
    const double bit = rate / 2000.0;
    double t = 0.0;
    auto run = [&](double cells, uint8_t level) {
        const size_t end = static_cast<size_t>(std::llround(t + cells * bit));
        line.resize(std::max(line.size(), end), level);
        t += cells * bit;
    };
    uint8_t level = 1;
    run(10, level);
    for (const auto& p : Script()) {
        for (uint8_t b : qisim::AskPacketBits(p, 11)) {
            level ^= 1;
            if (b) {
                run(0.5, level);
                level ^= 1;
                run(0.5, level);
            } else {
                run(1.0, level);
            }
        }
        level = 1;
        run(30, level);
    }
    return line;
}

std::string SigrokCli()
{
#ifdef COILSCOPE_SIGROK_CLI
    return COILSCOPE_SIGROK_CLI;
#else
    return std::string();
#endif
}

#define REQUIRE_SIGROK_CLI()                                                        \
    if (SigrokCli().empty())                                                        \
    GTEST_SKIP() << "sigrok-cli is not installed: the sigrok-cli test is skipped"

// Runs a command and gives its standard output; -1 status on failure.
int RunCommand(const std::string& command, std::string* output = nullptr)
{
    std::FILE* p = popen(command.c_str(), "r");
    if (!p)
        return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0)
        text.append(buffer, n);
    const int status = pclose(p);
    if (output)
        *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Quote(const std::string& s)
{
    return "'" + s + "'";
}

// The receiver packets sigrok's own qi decoder reads from a .sr: its byte
// annotations, a packet closed by its checksum annotation (good ones only).
std::vector<Packet> SigrokQiPackets(const std::string& path)
{
    std::string out;
    RunCommand(Quote(SigrokCli()) + " -i " + Quote(path) +
            " -P qi:qi=qi -A qi=bytes-data:packets-checksum-ok:packets-checksum-err 2>/dev/null",
        &out);
    std::vector<Packet> packets;
    std::string bytes;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        const size_t colon = line.find(": ");
        if (colon == std::string::npos)
            continue;
        const std::string value = line.substr(colon + 2);
        if (value == "Checksum OK") {
            packets.push_back({2, bytes});
            bytes.clear();
        } else if (value == "Checksum error") {
            bytes.clear();
        } else if (value.size() == 2) {
            const unsigned v = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 16));
            char b[4];
            std::snprintf(b, sizeof b, "%02X ", v);
            bytes += b;
        }
    }
    return packets;
}

class SigrokInterop : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
    }
    std::string Path(const char* name) const { return dir.filePath(name).toStdString(); }

    // The streams a .sr gives, through the file.
    ImportedStreams Import(const std::string& path, const std::string& channel = std::string())
    {
        SigrokCapture capture;
        ImportedStreams streams;
        std::string error;
        EXPECT_TRUE(ReadSigrokSession(path, capture, error)) << error;
        if (!error.empty())
            return ImportedStreams();
        EXPECT_TRUE(StreamsFromSigrok(capture, channel, streams, error)) << error;
        return streams;
    }

    QTemporaryDir dir;
};

std::string TestData(const char* name)
{
    return std::string(COILSCOPE_TEST_DATA) + "/" + name;
}

}  // namespace

TEST_F(SigrokInterop, ALogicDataLineThatSigrokCliWroteAt250kHzDecodesToThePacketsSent)
{
    REQUIRE_SIGROK_CLI();
    const std::vector<uint8_t> line = ScriptLine(250000.0);
    {
        std::ofstream csv(Path("line.csv"));
        csv << "qi\n";
        for (uint8_t v : line)
            csv << int(v) << '\n';
    }
    ASSERT_EQ(RunCommand(Quote(SigrokCli()) + " -I csv:column_formats=l:samplerate=250000 -i " + Quote(Path("line.csv")) +
                  " -o " + Quote(Path("line.sr"))),
              0);
    const ImportedStreams s = Import(Path("line.sr"));
    EXPECT_EQ(s.askChannel, "qi");
    EXPECT_TRUE(s.askFromLogic);
    EXPECT_EQ(s.askSamples, line.size() * 40000 / 250000);
    EXPECT_EQ(Decode(s.ask, s.fsk), Sent());
}

TEST_F(SigrokInterop, ALogicChannelOfABinaryCaptureAt1MHzIsPickedByName)
{
    REQUIRE_SIGROK_CLI();
    // Eight channels of bytes: the data line on bit 2, noise on the others.
    const std::vector<uint8_t> line = ScriptLine(1000000.0);
    std::vector<uint8_t> bytes(line.size());
    uint32_t noise = 12345;
    for (size_t i = 0; i < line.size(); ++i) {
        noise = noise * 1103515245u + 12345u;
        bytes[i] = static_cast<uint8_t>(((noise >> 16) & 0xFB) | (line[i] << 2));
    }
    std::ofstream(Path("logic.bin"), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                              static_cast<std::streamsize>(bytes.size()));
    ASSERT_EQ(RunCommand(Quote(SigrokCli()) + " -I binary:numchannels=8:samplerate=1000000 -i " + Quote(Path("logic.bin")) +
                  " -o " + Quote(Path("logic.sr"))),
              0);
    // sigrok names the channels of a binary capture 0 to 7.
    SigrokCapture capture;
    std::string error;
    ASSERT_TRUE(ReadSigrokSession(Path("logic.sr"), capture, error)) << error;
    ImportedStreams s;
    EXPECT_FALSE(StreamsFromSigrok(capture, "", s, error));
    EXPECT_NE(error.find("--ask-channel"), std::string::npos) << error;
    ASSERT_TRUE(StreamsFromSigrok(capture, "2", s, error)) << error;
    EXPECT_EQ(Decode(s.ask, s.fsk), Sent());
}

TEST_F(SigrokInterop, AnAnalogEnvelopeInVoltsAt100kHzIsResampledAndDecoded)
{
    REQUIRE_SIGROK_CLI();
    // The script's envelope as a scope would see it: volts, at 100 kHz.
    const std::vector<uint16_t> env = ScriptEnvelope();
    std::vector<float> volts;
    const size_t n = env.size() * 100000 / 40000;
    for (size_t k = 0; k < n; ++k) {
        const double s = k * 0.4;
        const size_t i = std::min(env.size() - 1, static_cast<size_t>(s));
        const size_t j = std::min(env.size() - 1, i + 1);
        const double v = env[i] + (env[j] - env[i]) * (s - i);
        volts.push_back(static_cast<float>(0.2 + v / 4096.0 * 1.2));
    }
    std::ofstream(Path("env.bin"), std::ios::binary).write(reinterpret_cast<const char*>(volts.data()),
                                                            static_cast<std::streamsize>(volts.size() * 4));
    ASSERT_EQ(RunCommand(Quote(SigrokCli()) + " -I raw_analog:format=FLOAT_LE:numchannels=1:samplerate=100000 -i " +
                  Quote(Path("env.bin")) + " -o " + Quote(Path("env.sr"))),
              0);
    const ImportedStreams s = Import(Path("env.sr"));
    EXPECT_EQ(s.askChannel, "CH1");
    EXPECT_FALSE(s.askFromLogic);
    EXPECT_EQ(Decode(s.ask, s.fsk), Sent());
}

TEST_F(SigrokInterop, AChannelThatDoesNotExistIsRefusedByName)
{
    SigrokCapture c;
    c.samplerate = 40000;
    c.channels = {{"qi", false, 1}};
    c.logic.assign(100, 1);
    ImportedStreams s;
    std::string error;
    EXPECT_FALSE(StreamsFromSigrok(c, "D7", s, error));
    EXPECT_EQ(error, "no channel \"D7\" in the sigrok session (it has qi (logic))");
}

TEST_F(SigrokInterop, ARateTooLowForBiPhaseIsRefused)
{
    SigrokCapture c;
    c.samplerate = 10000;
    c.channels = {{"qi", false, 1}};
    c.logic.assign(100, 1);
    ImportedStreams s;
    std::string error;
    EXPECT_FALSE(StreamsFromSigrok(c, "", s, error));
    EXPECT_NE(error.find("10 kHz, is too low to carry 2 kHz bi-phase"), std::string::npos) << error;
    c.samplerate = kMinImportRate;
    EXPECT_TRUE(StreamsFromSigrok(c, "", s, error)) << error;
}

TEST_F(SigrokInterop, RawCapturesExportedAndReplayedGiveTheSamePackets)
{
    const std::vector<uint8_t> ask = FileBytes(TestData("emulator.2k.bin"));
    const std::vector<uint8_t> fsk = FileBytes(TestData("emulator.fsk.bin"));
    const std::vector<Packet> before = Decode(ask, fsk);
    ASSERT_GT(Receiver(before).size(), 30u);
    ASSERT_GT(before.size() - Receiver(before).size(), 3u);  // the transmitter's too
    std::string error;
    ASSERT_TRUE(ExportStreams(TestData("emulator.2k.bin"), TestData("emulator.fsk.bin"), Path("raw.sr"), error))
        << error;
    const ImportedStreams s = Import(Path("raw.sr"));
    EXPECT_EQ(s.askChannel, "ask");
    EXPECT_EQ(s.fskChannel, "fsk");
    EXPECT_EQ(Decode(s.ask, s.fsk), before);
    // The data line alone carries the receiver's packets as well.
    const ImportedStreams line = Import(Path("raw.sr"), "qi");
    const std::vector<Packet> fromLine = Receiver(Decode(line.ask, {}));
    size_t found = 0;
    for (const Packet& p : Receiver(before))
        found += std::count(fromLine.begin(), fromLine.end(), p) > 0 ? 1 : 0;
    EXPECT_GE(found + 1, Receiver(before).size());
}

TEST_F(SigrokInterop, TheExportHasTheSessionsTimeBaseAndTheCarrierInKHz)
{
    std::string error;
    ASSERT_TRUE(ExportStreams(TestData("emulator.2k.bin"), TestData("emulator.fsk.bin"), Path("raw.sr"), error));
    SigrokCapture c;
    ASSERT_TRUE(ReadSigrokSession(Path("raw.sr"), c, error)) << error;
    EXPECT_EQ(c.samplerate, 40000u);
    const SigrokChannel* ask = c.Find("ask");
    const SigrokChannel* fsk = c.Find("fsk");
    const SigrokChannel* qi = c.Find("qi");
    ASSERT_TRUE(ask && fsk && qi);
    // Every ASK sample of the stream, one per 25 us from the first.
    const LinkSignals raw = SignalsFromStreams(FileBytes(TestData("emulator.2k.bin")).data(),
                                               FileBytes(TestData("emulator.2k.bin")).size(), nullptr, 0);
    ASSERT_EQ(c.Samples(*ask), raw.Size());
    EXPECT_EQ(c.analog.at(ask->number), raw.ask);
    // The emulator's carrier runs between 110 and 210 kHz (the words it sends
    // while the carrier is off are longer, lower frequencies).
    size_t carrier = 0;
    for (float f : c.analog.at(fsk->number)) {
        ASSERT_LT(f, 210.0f);
        carrier += f > 110.0f ? 1 : 0;
    }
    EXPECT_GT(carrier, c.Samples(*fsk) / 4);
    // The frequency of the first word of the stream, where it lies.
    const std::vector<uint8_t> fskBytes = FileBytes(TestData("emulator.fsk.bin"));
    const LinkSignals words = SignalsFromStreams(nullptr, 0, fskBytes.data(), fskBytes.size());
    std::vector<float> exported = c.analog.at(fsk->number);
    ASSERT_GE(exported.size(), words.Size());
    exported.resize(words.Size());
    EXPECT_EQ(words.fskKHz, exported);
    // A receiver packet's first edge lies where its record starts.
    std::vector<MsgInfoPtr> events;
    Decode(FileBytes(TestData("emulator.2k.bin")), {}, &events);
    const MsgInfoPtr first = *std::find_if(events.begin(), events.end(), [](const MsgInfoPtr& e) {
        return e->direction == 2 && e->capture && !e->capture->samples.empty();
    });
    const size_t at = static_cast<size_t>(first->capture->startTime / 25);
    EXPECT_TRUE(c.Bit(*qi, at));
    bool edge = false;
    for (size_t i = at; i < at + first->capture->samples.size() && !edge; ++i)
        edge = !c.Bit(*qi, i);
    EXPECT_TRUE(edge);
}

TEST_F(SigrokInterop, SigrokCliDecodesTheExportedLineToTheSessionsReceiverPackets)
{
    REQUIRE_SIGROK_CLI();
    const std::vector<uint8_t> ask = qisim::AskStreamFrames(ScriptEnvelope());
    std::ofstream(Path("script.2k.bin"), std::ios::binary)
        .write(reinterpret_cast<const char*>(ask.data()), static_cast<std::streamsize>(ask.size()));
    const std::vector<Packet> session = Receiver(Decode(ask, {}));
    ASSERT_EQ(session, Sent());
    std::string error;
    ASSERT_TRUE(ExportStreams(Path("script.2k.bin"), "", Path("script.sr"), error)) << error;
    EXPECT_EQ(SigrokQiPackets(Path("script.sr")), session);
}

TEST_F(SigrokInterop, ASessionFileWithItsRecordsExportedAndReplayedGivesTheSamePackets)
{
    REQUIRE_SIGROK_CLI();
    // A session as the window saves it: the .sid and the records beside it.
    const std::vector<uint8_t> ask = qisim::AskStreamFrames(ScriptEnvelope());
    std::vector<MsgInfoPtr> events;
    const std::vector<Packet> session = Receiver(Decode(ask, {}, &events));
    ASSERT_EQ(session, Sent());
    std::string sid;
    {
        EventLogModel model;
        model.StartAcquisition();
        model.AddEvents(events);
        model.StopAcquisition();
        sid = model.SidPath();
        model.CloseStreams();
    }
    ASSERT_FALSE(sid.empty());
    std::string error;
    ASSERT_TRUE(ExportSession(sid, Path("session.sr"), error)) << error;
    const ImportedStreams s = Import(Path("session.sr"));
    EXPECT_EQ(Receiver(Decode(s.ask, s.fsk)), session);
    EXPECT_EQ(SigrokQiPackets(Path("session.sr")), session);
}

TEST_F(SigrokInterop, ASessionsFskRecordsBecomeTheCarrierBetweenThem)
{
    // The emulator's session replayed into a session file, then exported.
    std::vector<MsgInfoPtr> events;
    const std::vector<Packet> before =
        Decode(FileBytes(TestData("emulator.2k.bin")), FileBytes(TestData("emulator.fsk.bin")), &events);
    std::string sid;
    {
        EventLogModel model;
        model.StartAcquisition();
        model.AddEvents(events);
        model.StopAcquisition();
        sid = model.SidPath();
        model.CloseStreams();
    }
    std::vector<MsgInfoPtr> loaded;
    std::string error;
    ASSERT_TRUE(LoadSessionWithRecords(sid, loaded, error)) << error;
    size_t fskRecords = 0;
    for (const MsgInfoPtr& e : loaded)
        fskRecords += e->capture && !IsAskRecord(*e) ? 1 : 0;
    ASSERT_GT(fskRecords, 3u);
    const LinkSignals carrier = SignalsFromRecords(loaded);
    // Long before the first FSK record no carrier is known; from 200 ms
    // before it on, one is (the carrier at rest, then the records).
    const MsgInfoPtr firstFsk = *std::find_if(loaded.begin(), loaded.end(), [](const MsgInfoPtr& e) {
        return e->capture && !IsAskRecord(*e);
    });
    const size_t at = static_cast<size_t>(firstFsk->capture->startTime / 25);
    EXPECT_EQ(carrier.fskKHz[at / 2], 0.0f);
    EXPECT_EQ(carrier.fskKHz[at - 8001], 0.0f);
    EXPECT_NEAR(carrier.fskKHz[at - 7990], 128.0f, 0.5f);  // the first record's resting carrier
    for (size_t i = at - 7990; i < carrier.Size(); i += 97)
        ASSERT_GT(carrier.fskKHz[i], 100.0f) << i;
    ASSERT_TRUE(ExportSession(sid, Path("session.sr"), error)) << error;
    const ImportedStreams s = Import(Path("session.sr"));
    const std::vector<Packet> after = Decode(s.ask, s.fsk);
    EXPECT_EQ(Receiver(after), Receiver(before));
    // The transmitter's packets, in order, every one: the first response
    // pattern too, with the carrier at rest held before the first record.
    std::vector<Packet> txBefore, txAfter;
    for (const Packet& p : before)
        if (p.direction == 1)
            txBefore.push_back(p);
    for (const Packet& p : after)
        if (p.direction == 1)
            txAfter.push_back(p);
    ASSERT_GT(txBefore.size(), 3u);
    EXPECT_EQ(txAfter, txBefore);
}
// The decoded rows of a packet's wave, over the emulator's recorded session:
// every good packet of either side with its record shows its own bytes.
TEST_F(SigrokInterop, TheWaveRowsOfTheEmulatorsPacketsHoldTheirBytes)
{
    std::vector<MsgInfoPtr> events;
    Decode(FileBytes(TestData("emulator.2k.bin")), FileBytes(TestData("emulator.fsk.bin")), &events);
    size_t rx = 0, tx = 0;
    for (const MsgInfoPtr& e : events) {
        if (!e->capture || e->capture->samples.empty() || e->packet.Status != "NoError" ||
            e->packet.numbytesInPacket < 2)
            continue;
        const analysis::WaveTrace w = analysis::BuildWaveTrace(*e);
        std::string read;
        for (const analysis::WaveByte& b : w.bytes) {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%02X ", b.value);
            read += hex;
        }
        EXPECT_EQ(read, e->packet.PacketData) << (e->direction == 1 ? "Tx " : "Rx ") << e->common.logData;
        EXPECT_EQ(w.packetText.substr(w.packetText.size() - 13), "checksum good") << e->common.logData;
        (e->direction == 1 ? tx : rx) += 1;
    }
    EXPECT_GT(rx, 30u);
    EXPECT_GE(tx, 2u);  // the capability and the identification; the rest are one-byte patterns
}

TEST_F(SigrokInterop, ASessionWithoutRecordsIsNotExportedAsAnEmptyCapture)
{
    std::vector<MsgInfoPtr> events;
    Decode(qisim::AskStreamFrames(ScriptEnvelope()), {}, &events);
    for (const MsgInfoPtr& e : events)
        e->capture.reset();
    std::string sid;
    {
        EventLogModel model;
        model.StartAcquisition();
        model.AddEvents(events);
        model.StopAcquisition();
        sid = model.SidPath();
        model.CloseStreams();
    }
    std::string error;
    EXPECT_FALSE(ExportSession(sid, Path("none.sr"), error));
    EXPECT_NE(error.find("no capture records"), std::string::npos) << error;
    EXPECT_FALSE(ExportSession(Path("missing.sid"), Path("none.sr"), error));
}
