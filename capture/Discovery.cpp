#include "capture/Discovery.h"

#include "capture/CommandProtocol.h"
#include "common/Clock.h"
#include "services/Log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

std::string PortPattern()
{
    const char* pattern = std::getenv("COILSCOPE_PORTS");
    return pattern && *pattern ? pattern : "/dev/ttyACM%d";
}

namespace {

void Send(QSerialThread& port, const CommandBytes& bytes)
{
    port.Send(bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace

DiscoveryResult Discover(const std::string& pattern, int replyFirstMs, int replyTotalMs)
{
    DiscoveryResult r;
    for (int n = 0; n <= 99 && !r.found && !r.bootMode; ++n) {
        char name[512];
        std::snprintf(name, sizeof name, pattern.c_str(), n);
        auto port = std::make_unique<QSerialThread>();
        if (!port->OpenPort(name, 1024000, 1, true))
            continue;
        const int64_t begin = TickMs();
        Send(*port, BuildStopCommand());
        port->DrainFor(replyTotalMs);
        Log::Printf("find dev t = %d", static_cast<int>(TickMs() - begin));

        Send(*port, BuildPortQueryCommand());
        std::list<DataPtr> replies;
        port->WaitReplies(replies, replyFirstMs, replyTotalMs);
        bool isCommand = false;
        for (const DataPtr& reply : replies) {
            const PortReply p = ParsePortReply(*reply);
            switch (p.kind) {
            case PortKind::Ask:
                r.askPort = name;
                break;
            case PortKind::Command:
                r.commandPort = name;
                isCommand = true;
                if (p.firmwareHeaders)
                    r.firmwareHeaders = true;
                {
                    Send(*port, BuildStopCommand());
                    std::list<DataPtr> ignored;
                    port->WaitReplies(ignored, replyFirstMs, replyTotalMs);
                }
                break;
            case PortKind::Fsk:
                r.fskPort = name;
                break;
            case PortKind::Boot:
                r.bootMode = true;
                break;
            default:
                break;
            }
        }
        if (!r.askPort.empty() && !r.commandPort.empty() && !r.fskPort.empty())
            r.found = true;
        if (isCommand) {
            if (r.command)
                r.command->ClosePort();
            r.command = std::move(port);
        } else {
            port->ClosePort();
        }
    }
    if (!r.found && r.command) {
        r.command->ClosePort();
        r.command.reset();
    }
    return r;
}

bool ReadDeviceRecord(QSerialThread& command, uint8_t* record, int replyFirstMs, int replyTotalMs)
{
    std::memset(record, 0, SnifferCommand::kDeviceRecordSize);
    const CommandBytes query = BuildDeviceRecordCommand();
    command.Send(query.data(), static_cast<int>(query.size()));
    std::list<DataPtr> replies;
    command.WaitReplies(replies, replyFirstMs, replyTotalMs);
    bool got = false;
    for (const DataPtr& reply : replies)
        got = DecodeDeviceRecordReply(*reply, record, SnifferCommand::kDeviceRecordSize) >= 0 || got;
    return got;
}
