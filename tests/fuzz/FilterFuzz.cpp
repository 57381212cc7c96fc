// Fuzz target: the input as display filter text, compiled and run over a few
// events; and the same bytes as a frame through the dissection of both
// directions. A refused text must name a column within it and say what was
// expected; a field must lie within its frame.
#include "analysis/Dissect.h"
#include "analysis/Filter.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

std::vector<analysis::EventFields> Events()
{
    std::vector<analysis::EventFields> out;
    auto add = [&out](int32_t type, int direction, const char* hex, const char* text, const char* reading) {
        MsgInfo e;
        e.type = type;
        e.direction = direction;
        e.packet.PacketData = hex;
        e.packet.Status = "NoError";
        e.packet.reading = reading;
        e.str = QString::fromUtf8(text);
        out.push_back(analysis::MakeEventFields(e, static_cast<int64_t>(out.size() + 1),
                                                static_cast<int>(out.size() % 6), 1000.0 * out.size()));
    };
    add(0x03, 2, "03 FD FE ", "ControlError -3.0% @120000HZ", "");
    add(0x51, 2, "51 0A 00 83 0A C0 00 ", "Configuration", "recovered");
    add(0x71, 2, "71 13 00 5A EB 4A 1F 82 00 ", "Identification", "corrected");
    add(0x31, 2, "31 02 39 B9 00 ", "ReceivedPower Mode 2", "");
    add(kTypeTxPattern, 1, "FF ", "Pattern: ACK", "");
    add(kTypeDigitalPing, 1, "", "Digital Ping", "");
    add(kTypeViolation, 0, "", "Violation: CEP Timeout", "");
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::vector<analysis::EventFields> events = Events();
    const std::string text(reinterpret_cast<const char*>(data), size);
    analysis::Filter filter;
    analysis::FilterError error;
    if (filter.Compile(text, error)) {
        for (const analysis::EventFields& e : events)
            filter.Matches(e);
    } else {
        if (error.position > text.size() || error.expected.empty() || error.message.rfind("column ", 0) != 0)
            __builtin_trap();
        // The last good filter (here the empty one) stays.
        if (!filter.IsEmpty())
            __builtin_trap();
    }

    for (int direction : {1, 2}) {
        analysis::FrameView frame;
        frame.direction = direction;
        frame.type = size ? data[0] : 0;
        frame.bytes.assign(data, data + std::min<size_t>(size, 40));
        const auto fields = analysis::DissectFrame(frame);
        for (const analysis::DissectedField& f : fields) {
            if (f.byteOffset >= 0 && static_cast<size_t>(f.byteOffset) >= frame.bytes.size())
                __builtin_trap();
        }
        std::vector<analysis::DecodedValue> values;
        analysis::DecodedValues(frame, values);
        if (!frame.bytes.empty())
            analysis::FieldPathAtByte(fields, static_cast<int>(frame.bytes.size()) - 1);
    }
    return 0;
}
