// Ten minutes of the emulator's scripted Qi session, streamed at twenty times
// real speed over pseudo-terminals and recorded as sent, then fed through the
// ASK and FSK chains in process: the packets of the script come back in order.
// The built-in session, and a script file whose transmitter answers the
// negotiation with ACK, NAK and ND patterns and with packets.
#include "capture/CommandProtocol.h"
#include "capture/QSerialThread.h"
#include "capture/SerialPort.h"
#include "common/TimeText.h"
#include "FskRandomStream.h"
#include "NegotiationScript.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

namespace {

std::vector<uint8_t> ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct Expected {
    int direction;
    std::string bytes;
    int64_t startUs;
};

struct Got {
    int direction;
    std::string bytes;
    int64_t startUs;
    bool used = false;
    std::string reading;
    std::string otherReading;
};

// What the host read of ten minutes of the emulator's stream.
struct Captured {
    std::vector<uint8_t> ask, fsk;
    uint64_t streamUs = 0;
    int64_t deliveredUs = 0;  // stream time of the frames that went out on both ports
};

// Starts the emulator with o (its links and records in o's folders), reads
// its data ports from pseudo-terminals as fast as they come until ten minutes
// of stream have gone out, stops it, and checks that every frame sent was
// read whole and is what the device recorded as sent.
void CaptureTenMinutes(const coilsim::EmulatorOptions& o, Captured& c)
{
    coilsim::DeviceEmulator device(o);
    std::string error;
    ASSERT_TRUE(device.Start(error)) << error;

    QSerialThread command;
    ASSERT_TRUE(command.OpenPort(device.PortPath(coilsim::PortRole::Command), 1024000, 1, true));
    // Twenty times the device's rate is more than a 5 ms reader takes from a
    // pseudo-terminal, so the data ports are read here as fast as they come.
    SerialPort askPort, fskPort;
    ASSERT_EQ(askPort.Open(device.PortPath(coilsim::PortRole::Ask), 1024000, true), 1);
    ASSERT_EQ(fskPort.Open(device.PortPath(coilsim::PortRole::Fsk), 1024000, true), 1);
    std::vector<uint8_t>& askBytes = c.ask;
    std::vector<uint8_t>& fskBytes = c.fsk;
    // Whole stream frames read so far (an 8-byte header with the payload's
    // length, then the payload), counted by each reader as they complete.
    std::atomic<uint64_t> askFramesRead{0}, fskFramesRead{0};
    std::atomic<bool> reading{true};
    auto reader = [&reading](SerialPort& port, std::vector<uint8_t>& into, std::atomic<uint64_t>& frames) {
        uint8_t buffer[65536];
        size_t next = 0;  // where the next frame begins
        while (reading.load()) {
            const int n = port.BytesAvailable();
            if (n <= 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            const int got = port.Read(buffer, std::min<int>(n, sizeof buffer));
            if (got > 0)
                into.insert(into.end(), buffer, buffer + got);
            while (next + 8 <= into.size()) {
                const size_t length = static_cast<size_t>(into[next] | (into[next + 1] << 8)) |
                                      (static_cast<size_t>(into[next + 2] | (into[next + 3] << 8)) << 16);
                if (next + 8 + length > into.size())
                    break;
                next += 8 + length;
                frames.fetch_add(1);
            }
        }
    };
    std::thread askReader(reader, std::ref(askPort), std::ref(askBytes), std::ref(askFramesRead));
    std::thread fskReader(reader, std::ref(fskPort), std::ref(fskBytes), std::ref(fskFramesRead));
    const auto start = BuildStartCommand();
    command.Send(start.data(), static_cast<int>(start.size()));
    // Ten minutes of stream: 30 s at full pace; a machine too busy to
    // synthesize that fast lets stream time slip, so the stream time is what
    // is waited for (within a bound).
    const auto t0 = std::chrono::steady_clock::now();
    while (device.StreamUs() < 10ULL * 60 * 1000000 &&
           std::chrono::steady_clock::now() - t0 < std::chrono::seconds(180))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    // The stop, then a port query: commands are taken in order, so its answer
    // says that the stop has been taken and the emulator's counts are final.
    const auto stop = BuildStopCommand();
    command.Send(stop.data(), static_cast<int>(stop.size()));
    const auto query = BuildPortQueryCommand();
    command.Send(query.data(), static_cast<int>(query.size()));
    std::list<DataPtr> replies;
    bool stopTaken = false;
    const auto askedAt = std::chrono::steady_clock::now();
    while (!stopTaken && std::chrono::steady_clock::now() - askedAt < std::chrono::seconds(30)) {
        command.WaitReplies(replies, 0, 50);
        for (const DataPtr& reply : replies)
            stopTaken = stopTaken || (reply->length > 0 && reply->buffer[0] == 0x09);
        replies.clear();
    }
    EXPECT_TRUE(stopTaken);
    // Every frame that went out (a frame under way at the stop is finished)
    // reaches the readers, however late a loaded machine lets them read.
    const coilsim::EmulatorCounters sent = device.Counters();
    const auto drainedAt = std::chrono::steady_clock::now();
    while ((askFramesRead.load() < sent.askFramesSent || fskFramesRead.load() < sent.fskFramesSent) &&
           std::chrono::steady_clock::now() - drainedAt < std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(askFramesRead.load(), sent.askFramesSent);
    EXPECT_EQ(fskFramesRead.load(), sent.fskFramesSent);
    reading = false;
    askReader.join();
    fskReader.join();
    command.ClosePort();
    askPort.Close();
    fskPort.Close();
    const coilsim::EmulatorCounters counters = device.Counters();
    const uint64_t streamUs = device.StreamUs();
    c.streamUs = streamUs;
    device.Stop();
    EXPECT_GE(streamUs, 9ULL * 60 * 1000000);  // nine minutes or more of stream
    // No frame was refused; the frames still queued when the stop came are
    // the end of the stream, not sent, and so are the packets they held.
    EXPECT_EQ(counters.askFramesDropped, counters.askFramesDroppedAtStop);
    EXPECT_EQ(counters.fskFramesDropped, counters.fskFramesDroppedAtStop);
    c.deliveredUs = static_cast<int64_t>(std::min(counters.askFramesSent, counters.fskFramesSent)) * 5000;
    EXPECT_GE(c.deliveredUs, 8LL * 60 * 1000000);
    // What the host received is what the device recorded as sent.
    EXPECT_EQ(askBytes, ReadAll(o.recordAsk));
    EXPECT_EQ(fskBytes, ReadAll(o.recordFsk));
}

}  // namespace

TEST(EmulatorSession, TenMinutesAtSpeed20ComeBackThroughTheChains)
{
    QTemporaryDir dir;
    const std::string base = dir.path().toStdString();
    coilsim::EmulatorOptions o;
    o.dir = base + "/ports";
    o.haveSeed = true;
    o.seed = 5;
    o.speed = 20;
    o.recordAsk = base + "/ask.bin";
    o.recordFsk = base + "/fsk.bin";
    // Twenty times real speed is 1.6 MB/s of ASK frames: a reader that a busy
    // machine holds off for a moment catches up from a queue of a few seconds
    // instead of losing frames (a lost frame shifts the rest of the stream).
    o.frameQueueBytes = 64u * 1024 * 1024;
    Captured captured;
    CaptureTenMinutes(o, captured);
    ASSERT_FALSE(HasFatalFailure());
    std::vector<uint8_t>& askBytes = captured.ask;
    std::vector<uint8_t>& fskBytes = captured.fsk;
    const int64_t deliveredUs = captured.deliveredUs;

    std::vector<Expected> expected;
    {
        std::ifstream lines(o.recordAsk + ".expected.jsonl");
        std::string line;
        while (std::getline(lines, line)) {
            const QJsonObject j = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
            const auto endUs = static_cast<int64_t>(j["end_us"].toDouble());
            if (endUs > deliveredUs)
                continue;
            expected.push_back({j["direction"].toString() == "ASK" ? 2 : 1, j["bytes"].toString().toStdString(),
                                static_cast<int64_t>(j["start_us"].toDouble())});
        }
    }
    ASSERT_GT(expected.size(), 1000u);

    SettingParams band;
    band.m_min_freq = 110000;
    band.m_max_freq = 210000;
    // The list decoder and the FSK frame decoder alone, as the chains were
    // designed, then with the second ASK and FSK readers beside them.
    auto replayWith = [&](bool secondReader) {
        SettingParams settings;
        settings.m_min_freq = band.m_min_freq;
        settings.m_max_freq = band.m_max_freq;
        settings.m_ask_second_reader = secondReader ? 1 : 0;
        settings.m_fsk_second_reader = secondReader ? 1 : 0;
        StreamReplay replay(askBytes, fskBytes, &settings);
        std::vector<Got> got;
        replay.Run([&](std::vector<MsgInfoPtr>& events) {
            for (const auto& e : events)
                if (!e->packet.PacketData.empty())
                    got.push_back({e->direction, e->packet.PacketData, static_cast<int64_t>(e->timing.startTime),
                                   false, e->packet.reading, e->packet.otherReading});
        });
        return got;
    };

    // Each packet of the script is looked for among the decoded frames of its
    // direction with the same bytes, starting within 10 ms of it (the
    // decoders time a frame from the first pulse they keep); the frames found
    // must come in the script's order.
    struct Outcome {
        int found = 0, longAskLost = 0, otherLost = 0, otherAskLost = 0;
        bool inOrder = true;
        std::vector<const Expected*> lost;
    };
    auto match = [&](std::vector<Got>& got, const char* name) {
        Outcome out;
        int64_t lastFound[3] = {-1, -1, -1};
        size_t from = 0;
        for (const Expected& x : expected) {
            while (from < got.size() && got[from].startUs < x.startUs - 1000000)
                ++from;
            bool hit = false;
            for (size_t k = from; k < got.size() && got[k].startUs < x.startUs + 1000000; ++k) {
                Got& g = got[k];
                if (g.used || g.direction != x.direction || g.bytes != x.bytes)
                    continue;
                if (g.startUs < x.startUs - 10000 || g.startUs > x.startUs + 10000)
                    continue;
                g.used = true;
                hit = true;
                if (static_cast<int64_t>(k) < lastFound[x.direction])
                    out.inOrder = false;
                lastFound[x.direction] = static_cast<int64_t>(k);
                break;
            }
            if (hit) {
                ++out.found;
                continue;
            }
            out.lost.push_back(&x);
            // Receiver frames of 9 and 10 bytes outlast the 2000-sample window
            // that an open burst keeps between passes at 2 kHz.
            if (x.direction == 2 && x.bytes.size() >= 9 * 3) {
                ++out.longAskLost;
            } else {
                ++out.otherLost;
                out.otherAskLost += x.direction == 2 ? 1 : 0;
                if (out.otherLost <= 12)
                    std::printf("%s: lost %s %s at %lld us\n", name, x.direction == 2 ? "ASK" : "FSK",
                                x.bytes.c_str(), static_cast<long long>(x.startUs));
            }
        }
        return out;
    };

    const int total = static_cast<int>(expected.size());
    std::vector<Got> listGot = replayWith(false);
    const Outcome list = match(listGot, "list decoder");
    EXPECT_TRUE(list.inOrder);
    // The list decoder alone: every identification and extended identification
    // is lost, by design; of the rest a few are misread (a pass boundary in a
    // packet, a wrong fork that passes the checksum).
    EXPECT_GT(list.longAskLost, 0);
    EXPECT_EQ(list.found + list.longAskLost + list.otherLost, total);
    // Measured: 27 of 8718 (0.3 %) with seed 5; a misread costs one packet.
    EXPECT_LE(list.otherLost, total / 100) << "packets lost besides the long ones: " << list.otherLost;
    for (const Got& g : listGot)
        EXPECT_TRUE(g.reading.empty() && g.otherReading.empty()) << g.bytes;

    std::vector<Got> bothGot = replayWith(true);
    const Outcome both = match(bothGot, "both readers");
    EXPECT_TRUE(both.inOrder);
    // With the second readers every packet comes back, the receiver's
    // identifications included, and every transmitter packet and pattern.
    EXPECT_EQ(both.longAskLost, 0);
    EXPECT_EQ(both.otherAskLost, 0);
    EXPECT_EQ(both.otherLost - both.otherAskLost, 0);
    // Nothing was read that the script did not send.
    int recovered = 0, corrected = 0, unsent = 0;
    for (const Got& g : bothGot) {
        if (g.reading == "recovered")
            ++recovered;
        if (g.reading == "corrected") {
            ++corrected;
            EXPECT_FALSE(g.otherReading.empty()) << g.bytes;
            EXPECT_NE(g.otherReading, g.bytes);
        }
        // (A frame of the stream's last moments may belong to a packet cut
        // off by the stop, which the script does not count as sent.)
        if (!g.used && g.startUs < deliveredUs - 100000) {
            ++unsent;
            std::printf("not sent: %s (%s) at %lld us\n", g.bytes.c_str(), g.reading.c_str(),
                        static_cast<long long>(g.startUs));
        }
    }
    EXPECT_EQ(unsent, 0);
    EXPECT_GE(recovered, list.longAskLost);
    // Every receiver packet the list decoder lost came back recovered or, where
    // it had read other bytes, corrected with its reading beside it.
    for (const Expected* x : list.lost) {
        if (x->direction != 2)
            continue;
        bool back = false;
        for (const Got& g : bothGot)
            back = back || (g.used && g.direction == 2 && g.bytes == x->bytes && g.startUs >= x->startUs - 10000 &&
                            g.startUs <= x->startUs + 10000 && (g.reading == "recovered" || g.reading == "corrected"));
        EXPECT_TRUE(back) << x->bytes << " at " << x->startUs;
    }
    RecordProperty("packets", total);
    RecordProperty("found", list.found);
    RecordProperty("longAskLost", list.longAskLost);
    RecordProperty("otherLost", list.otherLost);
    RecordProperty("bothFound", both.found);
    RecordProperty("recovered", recovered);
    RecordProperty("corrected", corrected);
    std::printf("ten minutes at speed 20: %d packets; list decoder: %d back, %d long receiver frames lost, %d others "
                "lost (%d receiver); both readers: %d back, %d lost (%d receiver), %d recovered, %d corrected\n",
                total, list.found, list.longAskLost, list.otherLost, list.otherAskLost, both.found,
                both.longAskLost + both.otherLost, both.longAskLost + both.otherAskLost, recovered, corrected);
}

namespace {

// One transmitter packet or pattern as the script sent it, with the bytes
// the decoders name it by.
struct SentFsk {
    std::string bytes;
    int64_t startUs;
    bool pattern;
};

struct FskBack {
    int found = 0, ack = 0, nak = 0, nd = 0, packets = 0;
};

}  // namespace

TEST(EmulatorSession, TenMinutesOfNakAndNdAnswersAtSpeed20ComeBackWithTheSecondReaders)
{
    QTemporaryDir dir;
    const std::string base = dir.path().toStdString();
    // The script as a file, as a user gives it to coilscope-sim with --script.
    const std::string scriptPath = base + "/negotiation.txt";
    {
        std::ofstream script(scriptPath, std::ios::binary);
        script << kNegotiationScript;
    }
    coilsim::EmulatorOptions o;
    o.dir = base + "/ports";
    o.haveSeed = true;
    o.seed = 8;
    o.noise = true;
    o.speed = 20;
    o.scriptFile = scriptPath;
    o.recordAsk = base + "/ask.bin";
    o.recordFsk = base + "/fsk.bin";
    o.frameQueueBytes = 64u * 1024 * 1024;
    Captured captured;
    CaptureTenMinutes(o, captured);
    ASSERT_FALSE(HasFatalFailure());

    // The transmitter's packets and patterns that went out whole. A pattern
    // is named by the pattern table's byte: ND, sent as 01010101 (0x55), is 0xBB.
    std::vector<SentFsk> sent;
    int acks = 0, naks = 0, nds = 0, packets = 0;
    {
        std::ifstream lines(o.recordAsk + ".expected.jsonl");
        std::string line;
        while (std::getline(lines, line)) {
            const QJsonObject j = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
            if (j["direction"].toString() != "FSK" ||
                static_cast<int64_t>(j["end_us"].toDouble()) + 20000 > captured.deliveredUs)
                continue;
            std::string bytes = j["bytes"].toString().toStdString();
            const bool pattern = j["pattern"].toBool();
            if (pattern) {
                ASSERT_EQ(bytes.size(), 3u) << bytes;
                const auto raw = static_cast<uint8_t>(std::stoi(bytes.substr(0, 2), nullptr, 16));
                acks += raw == 0xFF;
                naks += raw == 0x00;
                nds += raw == 0x55;
                const uint8_t named = FskPatternTableByte(raw);
                bytes = SpacedHex(&named, 1);
            } else {
                ++packets;
            }
            sent.push_back({bytes, static_cast<int64_t>(j["start_us"].toDouble()), pattern});
        }
    }
    // Each cycle of the script answers with four ACKs, two NAKs, one ND and
    // two packets; ten minutes hold over 200 cycles.
    ASSERT_GE(naks, 400);
    ASSERT_GE(nds, 200);
    ASSERT_EQ(acks + naks + nds + packets, static_cast<int>(sent.size()));

    // The capture's streams through the data manager with the second ASK
    // reader, and the second FSK reader on (both) or off (list); the
    // transmitter's events that carry bytes.
    auto replay = [&](bool fskSecond) {
        SettingParams settings;
        settings.m_min_freq = 110000;
        settings.m_max_freq = 210000;
        settings.m_ask_second_reader = 1;
        settings.m_fsk_second_reader = fskSecond ? 1 : 0;
        StreamReplay r(captured.ask, captured.fsk, &settings);
        std::vector<Got> got;
        r.Run([&](std::vector<MsgInfoPtr>& events) {
            for (const auto& e : events)
                if (e->direction == 1 && !e->packet.PacketData.empty())
                    got.push_back({e->direction, e->packet.PacketData, static_cast<int64_t>(e->timing.startTime),
                                   false, e->packet.reading, e->packet.otherReading});
        });
        return got;
    };
    // Each sent item is looked for after the last one found, with its bytes
    // and starting within 20 ms of where it was sent: what is found comes in
    // the script's order.
    auto score = [&](std::vector<Got>& got) {
        FskBack back;
        size_t k = 0;
        for (const SentFsk& s : sent) {
            for (size_t j = k; j < got.size() && got[j].startUs < s.startUs + 20000; ++j) {
                if (got[j].bytes != s.bytes || got[j].startUs + 20000 < s.startUs)
                    continue;
                got[j].used = true;
                ++back.found;
                back.ack += s.pattern && s.bytes == "FF ";
                back.nak += s.pattern && s.bytes == "00 ";
                back.nd += s.pattern && s.bytes == "BB ";
                back.packets += !s.pattern;
                k = j + 1;
                break;
            }
        }
        return back;
    };

    std::vector<Got> bothGot = replay(true);
    const FskBack both = score(bothGot);
    std::vector<Got> listGot = replay(false);
    const FskBack list = score(listGot);
    std::printf("ten minutes of negotiation at speed 20: %zu transmitter items sent (ACK %d, NAK %d, ND %d, "
                "packets %d); both readers: %d back (ACK %d, NAK %d, ND %d, packets %d) of %zu events; list: %d back "
                "(ACK %d, NAK %d, ND %d, packets %d) of %zu events\n",
                sent.size(), acks, naks, nds, packets, both.found, both.ack, both.nak, both.nd, both.packets,
                bothGot.size(), list.found, list.ack, list.nak, list.nd, list.packets, listGot.size());

    // With the second readers every ACK, NAK, ND and packet comes back, in
    // order, and nothing that was not sent.
    EXPECT_EQ(both.found, static_cast<int>(sent.size()));
    EXPECT_EQ(both.ack, acks);
    EXPECT_EQ(both.nak, naks);
    EXPECT_EQ(both.nd, nds);
    EXPECT_EQ(both.packets, packets);
    // The stop cuts the stream where it is: an item that starts within the
    // last 300 ms (the length of a long transmitter packet) may be cut off
    // and read as something else, so only what starts before is counted.
    int unsent = 0;
    for (const Got& g : bothGot)
        if (!g.used && g.startUs < captured.deliveredUs - 300000) {
            ++unsent;
            if (unsent <= 12)
                std::printf("not sent: %s (%s) at %lld us\n", g.bytes.c_str(), g.reading.c_str(),
                            static_cast<long long>(g.startUs));
        }
    EXPECT_EQ(unsent, 0);

    // With the FSK chain alone the ACKs and the packets come back, but no NAK
    // and no ND: their last bit ends on the unmodulated carrier and merges
    // into it, so the pattern is read one bit short. Nor is any other event
    // named as they are.
    EXPECT_EQ(list.ack, acks);
    EXPECT_EQ(list.packets, packets);
    EXPECT_EQ(list.nak, 0);
    EXPECT_EQ(list.nd, 0);
    for (const Got& g : listGot) {
        EXPECT_NE(g.bytes, "00 ");
        EXPECT_NE(g.bytes, "BB ");
        EXPECT_NE(g.bytes, "55 ");
        EXPECT_TRUE(g.reading.empty()) << g.bytes;
    }
    RecordProperty("sent", static_cast<int>(sent.size()));
    RecordProperty("naks", naks);
    RecordProperty("nds", nds);
    RecordProperty("bothFound", both.found);
    RecordProperty("listFound", list.found);
}
