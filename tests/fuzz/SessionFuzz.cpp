// Fuzz target: session file bytes through the record reader and the document
// parser, and every record read written again.
#include "events/SessionFile.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto events = ReadSessionRecords(data, size);
    for (const auto& e : events) {
        const std::string again = e->ToJson();
        if (again.empty())
            __builtin_trap();
    }
    return 0;
}
