// Fuzz target: bytes of a record file (plain, zstd or Rice-coded format)
// through the frame scanner and the record decoders, from memory and through
// a real file; every record read is encoded again in every format and must
// decode to the same record.
#include "events/RecordStore.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

void Check(const TriggerData& r)
{
    const std::vector<uint8_t> again = RecordStore::Encode(r);
    TriggerData twice;
    if (!RecordStore::Decode(again.data(), again.size(), twice))
        __builtin_trap();
    if (twice.samples != r.samples || twice.rawSamples != r.rawSamples || twice.pulses.size() != r.pulses.size() ||
        twice.startTime != r.startTime || twice.endTime != r.endTime)
        __builtin_trap();
    for (size_t i = 0; i < r.pulses.size(); ++i)
        if (twice.pulses[i].samples != r.pulses[i].samples || twice.pulses[i].mark != r.pulses[i].mark)
            __builtin_trap();
    const std::vector<uint8_t> packed = RecordStore::EncodeCompressed(r);
    TriggerData unpacked;
    if (!RecordStore::DecodeCompressed(packed.data(), packed.size(), unpacked))
        __builtin_trap();
    if (unpacked.samples != r.samples || unpacked.rawSamples != r.rawSamples ||
        unpacked.pulses.size() != r.pulses.size() || unpacked.startTime != r.startTime ||
        unpacked.endTime != r.endTime || unpacked.amplitude != r.amplitude)
        __builtin_trap();
    for (size_t i = 0; i < r.pulses.size(); ++i)
        if (unpacked.pulses[i].samples != r.pulses[i].samples || unpacked.pulses[i].mark != r.pulses[i].mark ||
            unpacked.pulses[i].duration != r.pulses[i].duration || unpacked.pulses[i].spare != r.pulses[i].spare)
            __builtin_trap();
    const std::vector<uint8_t> coded = RecordStore::EncodePacked(r);
    TriggerData decoded;
    if (!RecordStore::DecodePacked(coded.data(), coded.size(), decoded))
        __builtin_trap();
    if (decoded.samples != r.samples || decoded.rawSamples != r.rawSamples || decoded.pulses.size() != r.pulses.size() ||
        decoded.startTime != r.startTime || decoded.endTime != r.endTime || decoded.amplitude != r.amplitude ||
        decoded.highPeriod != r.highPeriod || decoded.lowPeriod != r.lowPeriod || decoded.polarity != r.polarity)
        __builtin_trap();
    for (size_t i = 0; i < r.pulses.size(); ++i)
        if (decoded.pulses[i].samples != r.pulses[i].samples || decoded.pulses[i].mark != r.pulses[i].mark ||
            decoded.pulses[i].duration != r.pulses[i].duration || decoded.pulses[i].spare != r.pulses[i].spare ||
            decoded.pulses[i].level != r.pulses[i].level)
            __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The bytes as one payload.
    TriggerData r;
    if (RecordStore::Decode(data, size, r))
        Check(r);
    if (RecordStore::DecodeCompressed(data, size, r))
        Check(r);
    if (RecordStore::DecodePacked(data, size, r))
        Check(r);

    // The bytes as a file, scanned in memory.
    std::vector<std::pair<uint64_t, RecordStore::Entry>> frames;
    std::vector<uint64_t> damaged;
    uint64_t end = 0;
    const uint32_t version = RecordStore::VersionOf(data, size);
    if (RecordStore::Scan(data, size, frames, &end, &damaged)) {
        if (end > size || version == 0)
            __builtin_trap();
        for (const auto& f : frames) {
            if (f.second.offset + f.second.length > size)
                __builtin_trap();
            TriggerData one;
            if (RecordStore::DecodePayload(version, data + f.second.offset, f.second.length, one))
                Check(one);
        }
    }

    // And through a real file, as a .sid's neighbour is opened.
    struct TempFile {
        std::string path;
        TempFile()
        {
            char name[] = "/tmp/record_store_fuzz_XXXXXX";
            const int fd = mkstemp(name);
            if (fd >= 0)
                close(fd);
            path = name;
        }
        ~TempFile() { unlink(path.c_str()); }
    };
    static const TempFile temp;
    const std::string& path = temp.path;
    if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
        if (size)
            std::fwrite(data, 1, size, f);
        std::fclose(f);
        RecordStore store;
        if (store.Open(path)) {
            if (store.Count() > frames.size())
                __builtin_trap();
            for (const auto& fr : frames)
                if (TriggerDataPtr loaded = store.Load(fr.first))
                    Check(*loaded);
        }
    }
    return 0;
}
