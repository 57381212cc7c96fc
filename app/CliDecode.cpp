#include "app/CliDecode.h"

#include "app/CliShow.h"
#include "common/Clock.h"
#include "common/TimeText.h"
#include "events/DataManager.h"
#include "packets/Interface.h"
#include "packets/RecordingCallback.h"

#include <json/json.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

namespace {

const char* kDecodeHelp =
    "usage: coilscope-cli decode [--fsk] [--json] HEX...\n"
    "\n"
    "Decodes one Qi frame and prints its text on one line, then, one line\n"
    "each, the events that the data manager makes of it (a Configuration\n"
    "gives three: the packet, the receiver's status and the power contract).\n"
    "\n"
    "HEX is the whole frame as hexadecimal bytes: the header first, the\n"
    "checksum last, as a sniffer or an oscilloscope shows it. Blanks between\n"
    "the bytes are optional and either letter case is fine, so \"03 FF FC\",\n"
    "\"03fffc\" and 03 FF FC are the same frame.\n"
    "\n"
    "The frame is taken as received with a good checksum. Frames are from the\n"
    "power receiver (ASK) unless --fsk says they are from the transmitter.\n"
    "\n"
    "options:\n"
    "  --fsk    the frame is a transmitter response (FSK)\n"
    "  --json   print one JSON object with the header, the direction, the\n"
    "           packet class, typeString, Summary, logData, powerValue and\n"
    "           powerRatio, then each event as a JSON object (as show --json)\n"
    "\n"
    "A header that no table knows prints \"Proprietary \" and the bytes; a\n"
    "receiver frame starting with 00 prints \"ChecksumError \" and the bytes.\n"
    "\n"
    "examples:\n"
    "  coilscope-cli decode 03 FF FC          ControlError -1.0%\n"
    "                                         ControlError -1.0% @0HZ\n"
    "  coilscope-cli decode 06 05 03          PowerControlHoldOff PowerControlHoldOff 5 ms\n"
    "  coilscope-cli decode --fsk 1F 64 7B    Charge Status Battery charge level:100\n"
    "\n"
    "Bad input prints one line saying what is wrong and exits with status 2.\n";

int Fail(const std::string& message)
{
    std::fprintf(stderr, "coilscope-cli decode: %s\n", message.c_str());
    return 2;
}

std::string LineOf(const DispatchedPacket& d)
{
    if (d.slot == "OnChecksumError")
        return "ChecksumError " + d.rawHex;
    if (d.slot == "OnProprietary")
        return "Proprietary " + d.rawHex;
    return d.logData;
}

Json::Value JsonOf(const DispatchedPacket& d, uint8_t header, uint32_t direction)
{
    Json::Value v(Json::objectValue);
    v["header"] = header;
    v["direction"] = direction == 1 ? "FSK" : "ASK";
    if (d.className.empty()) {
        const bool checksum = d.slot == "OnChecksumError";
        v["class"] = Json::Value();
        v["typeString"] = checksum ? "ChecksumError" : "Proprietary";
        v["Summary"] = d.rawHex;
        v["logData"] = LineOf(d);
        v["powerValue"] = Json::UInt64(0);
        v["powerRatio"] = 0.0;
    } else {
        v["class"] = d.className;
        v["typeString"] = d.typeString;
        v["Summary"] = d.summary;
        v["logData"] = d.logData;
        v["powerValue"] = Json::UInt64(d.powerValue);
        v["powerRatio"] = d.powerRatio;
    }
    v["slot"] = d.slot;
    return v;
}

}  // namespace

bool ParseHexBytes(const std::vector<std::string>& args, std::vector<uint8_t>& bytes, std::string& error)
{
    std::string digits;
    for (const std::string& a : args) {
        for (char c : a) {
            if (std::isspace(static_cast<unsigned char>(c)))
                continue;
            if (!std::isxdigit(static_cast<unsigned char>(c))) {
                error = std::string("'") + c + "' is not a hexadecimal digit (in \"" + a + "\")";
                return false;
            }
            digits += c;
        }
    }
    if (digits.empty()) {
        error = "no bytes given: name the frame as hexadecimal bytes, e.g. 03 FF FC";
        return false;
    }
    if (digits.size() % 2 != 0) {
        error = "odd number of hexadecimal digits (" + std::to_string(digits.size()) +
                "): every byte takes two, e.g. 03 not 3";
        return false;
    }
    bytes.clear();
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    if (bytes.size() > CMsgData::kFrameArea) {
        error = std::to_string(bytes.size()) + " bytes is more than a frame holds (" +
                std::to_string(CMsgData::kFrameArea) + ")";
        return false;
    }
    return true;
}

int RunDecode(int argc, char** argv)
{
    bool fsk = false, json = false;
    std::vector<std::string> hex;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kDecodeHelp, stdout);
            return 0;
        }
        if (a == "--fsk")
            fsk = true;
        else if (a == "--json")
            json = true;
        else if (a.size() > 1 && a[0] == '-' && a[1] == '-')
            return Fail("unknown option " + a + " (try --help)");
        else
            hex.push_back(a);
    }
    std::vector<uint8_t> bytes;
    std::string error;
    if (!ParseHexBytes(hex, bytes, error))
        return Fail(error);

    auto frame = std::make_shared<CMsgData>();
    frame->SetFrame(bytes.data(), bytes.size());
    frame->direction = fsk ? 1 : 2;
    frame->packet.Status = "NoError";
    frame->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
    frame->packet.numbytesInPacket = bytes.size();

    // The packet itself, through a dispatcher of its own.
    RecordingCallback callback;
    CInterface dispatcher;
    dispatcher.SetCallback(&callback);
    dispatcher.Receive(frame);
    if (callback.calls.empty())
        return Fail("the frame reached no slot");
    const DispatchedPacket& d = callback.calls.front();

    // What the data manager makes of the same frame. Its queue holds events for
    // a second; the clock is moved on so that they leave at once.
    ManualClock clock(1);
    SetClock(&clock);
    CDataManager manager;
    auto again = std::make_shared<CMsgData>(*frame);
    manager.Dispatcher().Receive(again);
    clock.Advance(1001);
    std::vector<MsgInfoPtr> events;
    manager.GetEvents(events);
    SetClock(nullptr);

    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    if (json)
        std::cout << Json::writeString(builder, JsonOf(d, bytes[0], frame->direction)) << "\n";
    else
        std::cout << LineOf(d) << "\n";
    for (const auto& e : events) {
        if (json)
            std::cout << Json::writeString(builder, EventJson(*e)) << "\n";
        else
            std::cout << e->str.toStdString() << "\n";
    }
    return 0;
}
