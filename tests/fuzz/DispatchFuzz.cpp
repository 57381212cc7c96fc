// Fuzz target: random frames of random length, direction and status through the
// dispatcher and every packet class.
#include "packets/Interface.h"
#include "packets/RecordingCallback.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const uint8_t control = data[0];
    ++data;
    --size;
    RecordingCallback callback;
    CInterface dispatcher;
    dispatcher.SetCallback(&callback);
    dispatcher.SetPowerReference(control & 0x3F);
    // One input may hold several frames: a length byte, then the frame.
    size_t off = 0;
    while (off < size) {
        const size_t n = std::min<size_t>(data[off] % 64, size - off - 1);
        ++off;
        auto frame = std::make_shared<CMsgData>();
        frame->SetFrame(data + off, n);
        frame->direction = (control & 0x40) ? 1 : 2;
        if (control & 0x80)
            frame->direction = data[off - 1] & 3;
        frame->packet.Status = (n % 5 == 4) ? "Error" : "NoError";
        dispatcher.Receive(frame);
        off += n;
        if ((control & 0x0F) == 0x0F)
            dispatcher.Reset();
    }
    for (const auto& c : callback.calls) {
        if (c.slot.empty())
            __builtin_trap();
    }
    return 0;
}
