// coilscope-cli: the decoding engine without a window.
#include "app/CliCapture.h"
#include "app/CliCheck.h"
#include "app/CliDecode.h"
#include "app/CliExport.h"
#include "app/CliReplay.h"
#include "app/CliShow.h"
#include "services/AppSettings.h"
#include "services/CrashHandler.h"
#include "decode/AskDecoding.h"
#include "decode/Thread2K.h"
#include "common/TimeText.h"
#include "sim/AskSynth.h"

#include <cstdio>
#include <cstring>
#include <list>
#include <string>

namespace {

// A port that hands out recorded chunks, one pass's worth at a time.
class RecordedPort : public StreamPort {
public:
    bool OpenPort(const std::string&, int, int, bool) override { return true; }
    void ClosePort() override {}
    void SetGranularity(int) override {}
    void WaitReplies(std::list<DataPtr>& out, int, int) override
    {
        out.splice(out.end(), m_queue);
    }
    void Push(const std::vector<uint8_t>& bytes)
    {
        m_queue.push_back(Data::FromBytes(bytes.data(), static_cast<int32_t>(bytes.size())));
    }

private:
    std::list<DataPtr> m_queue;
};

void PrintUsage(std::FILE* to)
{
    std::fputs(
        "usage: coilscope-cli <command> [options]\n"
        "\n"
        "commands:\n"
        "  decode  decode one Qi frame given as hexadecimal bytes\n"
        "          (coilscope-cli decode --help for the details)\n"
        "  show    print the records of a session file (.sid)\n"
        "  capture capture live from the sniffer and print the session's log\n"
        "  replay  play raw capture files, a session file or a sigrok session (.sr)\n"
        "          through the decoders\n"
        "  export  write a session or raw capture files as a sigrok session (.sr)\n"
        "  check   judge a session's packets against the Qi timing rules\n"
        "  demo    synthesize a short receiver session (ping, identification,\n"
        "          configuration, power transfer), stream it through the ASK\n"
        "          decoding chain as the device would send it, and print every\n"
        "          frame decoded\n"
        "\n"
        "examples:\n"
        "  coilscope-cli decode 03 FF FC\n"
        "  coilscope-cli show EventWindow_2026_11_22\\ 10_00_00.sid\n"
        "  coilscope-cli demo\n",
        to);
}

int Demo()
{
    struct Step {
        std::vector<uint8_t> message;  // header and message, no checksum
        const char* what;
    };
    const std::vector<Step> script = {
        {{0x01, 0xC0}, "signal strength"},
        {{0x71, 0x11, 0x00, 0x42, 0x12, 0x34, 0x56, 0x78}, "identification"},
        {{0x51, 0x0A, 0x00, 0x00, 0x00, 0x00}, "configuration"},
        {{0x03, 0x05}, "control error +5"},
        {{0x03, 0xFE}, "control error -2"},
        {{0x04, 0x40}, "received power"},
        {{0x03, 0x00}, "control error 0"},
        {{0x02, 0x01}, "end power transfer, charge complete"},
    };

    qisim::AskWaveParams params;
    params.swing = 1800;
    params.noiseFraction = 0.02;
    params.jitterSamples = 1.0;
    qisim::AskWaveWriter writer(params, 7);
    writer.Idle(400);
    for (const Step& s : script) {
        writer.Packet(qisim::WithChecksum(s.message), 11);
        writer.Idle(1200);
    }
    const std::vector<uint8_t> stream = qisim::AskStreamFrames(writer.Samples());

    auto portHolder = std::make_unique<RecordedPort>();
    RecordedPort* port = portHolder.get();
    bool handed = false;
    CThread2K ask([&]() -> std::unique_ptr<StreamPort> {
        if (handed)
            return nullptr;
        handed = true;
        return std::move(portHolder);
    });
    // Drive the passes by hand rather than on the run loop's thread: one pass
    // per 5 ms frame of samples, as the device sends them.
    ask.OpenWithoutLoop("recorded", false, 1024000);

    AskFrameDecoder decoder;
    const size_t frameBytes = 8 + 2 * 200;
    std::printf("streaming %zu samples (%.1f s) through the ASK chain\n", writer.Samples().size(),
                static_cast<double>(writer.Samples().size()) / 40000.0);
    for (size_t off = 0; off < stream.size(); off += frameBytes) {
        const size_t n = std::min(frameBytes, stream.size() - off);
        port->Push(std::vector<uint8_t>(stream.begin() + static_cast<long>(off),
                                        stream.begin() + static_cast<long>(off + n)));
        ask.RunPass();
        while (AskDecodingPass(ask.Stream(), decoder) == 0) {
        }
    }
    std::vector<std::shared_ptr<CMsgData>> frames;
    while (auto frame = decoder.Filter().TakeFrame()) {
        frames.push_back(frame);
        std::printf("%s  %-7s  %s\n", frame->timing.startTimeStamp.c_str(), frame->packet.Status.c_str(),
                    frame->packet.PacketData.c_str());
    }

    std::printf("\nsent                                   decoded\n");
    size_t found = 0;
    for (const Step& s : script) {
        const std::vector<uint8_t> bytes = qisim::WithChecksum(s.message);
        const std::string hex = SpacedHex(bytes.data(), bytes.size());
        bool decoded = false;
        for (const auto& f : frames)
            decoded = decoded || (f->packet.Status == "NoError" && f->packet.PacketData == hex);
        found += decoded ? 1 : 0;
        std::printf("%-38s %s%s\n", s.what, decoded ? "yes" : "no",
                    decoded || bytes.size() < 9 ? ""
                                                : " (at 2 kHz a frame of 9 bytes or more outlasts the 2000-sample"
                                                  " window that an open burst keeps between passes)");
    }
    std::printf("%zu of %zu frames decoded\n", found, script.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    InstallCrashHandler();
    // Every program loads the settings first: a first run writes a fresh file.
    AppSettings::Instance();
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        PrintUsage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const std::string command = argv[1];
    if (command == "demo")
        return Demo();
    if (command == "decode")
        return RunDecode(argc - 2, argv + 2);
    if (command == "show")
        return RunShow(argc - 2, argv + 2);
    if (command == "capture")
        return RunCapture(argc - 2, argv + 2);
    if (command == "replay")
        return RunReplay(argc - 2, argv + 2);
    if (command == "export")
        return RunExport(argc - 2, argv + 2);
    if (command == "check")
        return RunCheck(argc - 2, argv + 2);
    std::fprintf(stderr, "coilscope-cli: unknown command '%s' (try --help)\n", argv[1]);
    return 2;
}
