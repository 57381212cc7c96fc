// Not a Google benchmark: the capture records of a synthesized session of the
// emulator's script (noise on), replayed through the decoders with both
// second readers on, stored in the plain record format (version 1), the
// zstd one (version 2) and the one written now (version 3). Prints, per
// stream (ASK, FSK): records, bytes a record in each format and the ratio of
// plain to version 3; the record file per hour of stream in each format; the
// cost of coding a record in version 3 (and the share of a core at the
// session's record rate); and the time to load one old record from a version
// 3 file opened afresh (median, 99th percentile, largest).
//
//   record_rates [MINUTES]     (default 10)
#include "SessionRecords.h"
#include "events/RecordStore.h"

#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sys/stat.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double Us(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

uint64_t FileSize(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

double Percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0.0;
    std::sort(v.begin(), v.end());
    const size_t at = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5));
    return v[at];
}

struct Stream {
    const char* name;
    std::vector<TriggerDataPtr> records;
    uint64_t plainBytes = 0, zstdBytes = 0, packedBytes = 0;
    double encodeUs = 0.0;
};

}  // namespace

int main(int argc, char** argv)
{
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    const sessionrecords::SessionRecords session = sessionrecords::Collect(minutes * 60.0);
    Stream streams[2] = {{"ASK", session.ask}, {"FSK", session.fsk}};
    std::vector<TriggerDataPtr> all(session.ask);
    all.insert(all.end(), session.fsk.begin(), session.fsk.end());
    const double streamSeconds = session.streamSeconds;

    QTemporaryDir dir;
    std::vector<TriggerDataPtr> order;  // by record number
    const std::string plainPath = dir.path().toStdString() + "/plain.rec";
    const std::string zstdPath = dir.path().toStdString() + "/zstd.rec";
    const std::string packedPath = dir.path().toStdString() + "/packed.rec";
    {
        RecordStore plain, zstd, packed;
        plain.Create(plainPath, RecordStore::kVersionPlain);
        zstd.Create(zstdPath, RecordStore::kVersionCompressed);
        packed.Create(packedPath, RecordStore::kVersionPacked);
        uint64_t number = 0;
        for (Stream& s : streams) {
            for (const TriggerDataPtr& r : s.records) {
                ++number;
                order.push_back(r);
                const uint64_t plainBefore = plain.Size(), zstdBefore = zstd.Size(), packedBefore = packed.Size();
                plain.Append(number, *r);
                zstd.Append(number, *r);
                const auto t0 = Clock::now();
                packed.Append(number, *r);
                s.encodeUs += Us(Clock::now() - t0);
                s.plainBytes += plain.Size() - plainBefore;
                s.zstdBytes += zstd.Size() - zstdBefore;
                s.packedBytes += packed.Size() - packedBefore;
            }
        }
    }
    std::printf("%d minutes of stream (%.0f s), %zu capture records (%.1f a second)\n", minutes, streamSeconds,
                all.size(), static_cast<double>(all.size()) / streamSeconds);
    std::printf("%-4s %8s %12s %12s %12s %7s %12s\n", "", "records", "v1 B/rec", "v2 B/rec", "v3 B/rec", "ratio",
                "code us/rec");
    for (const Stream& s : streams) {
        const double n = static_cast<double>(std::max<size_t>(1, s.records.size()));
        std::printf("%-4s %8zu %12.0f %12.0f %12.0f %6.1fx %12.1f\n", s.name, s.records.size(),
                    static_cast<double>(s.plainBytes) / n, static_cast<double>(s.zstdBytes) / n,
                    static_cast<double>(s.packedBytes) / n,
                    s.packedBytes ? static_cast<double>(s.plainBytes) / static_cast<double>(s.packedBytes) : 0.0,
                    s.encodeUs / n);
    }
    const double plainFile = static_cast<double>(FileSize(plainPath));
    const double zstdFile = static_cast<double>(FileSize(zstdPath));
    const double packedFile = static_cast<double>(FileSize(packedPath));
    const double perHour = 3600.0 / streamSeconds / (1024.0 * 1024.0);
    std::printf("record file: v1 (plain) %.1f MiB/hour, v2 (zstd) %.1f MiB/hour, v3 (written now) %.1f MiB/hour of "
                "stream (%.1fx smaller than plain)\n",
                plainFile * perHour, zstdFile * perHour, packedFile * perHour,
                packedFile > 0 ? plainFile / packedFile : 0.0);
    const double codeUs = streams[0].encodeUs + streams[1].encodeUs;
    std::printf("coding the records: %.3f %% of a core at real speed\n", codeUs / 1e6 / streamSeconds * 100.0);

    // One old record at a time from a file opened afresh, as a click on an
    // event that left memory loads it.
    RecordStore store;
    if (!store.Open(packedPath) || store.Count() == 0) {
        std::printf("the version 3 file did not open\n");
        return 1;
    }
    std::mt19937 rng(7);
    // The first load also makes this thread's decompression context.
    const auto first = Clock::now();
    store.Load(1);
    const double firstMs = Us(Clock::now() - first) / 1000.0;
    std::vector<double> loads;
    size_t wrong = 0;
    for (int i = 0; i < 2000; ++i) {
        const uint64_t number = 1 + rng() % all.size();
        const auto t0 = Clock::now();
        const TriggerDataPtr back = store.Load(number);
        loads.push_back(Us(Clock::now() - t0) / 1000.0);
        const TriggerData& want = *order[number - 1];
        if (!back || back->samples != want.samples || back->rawSamples != want.rawSamples ||
            back->pulses.size() != want.pulses.size())
            ++wrong;
    }
    std::printf("loading one old record: median %.3f ms, p99 %.3f ms, max %.3f ms over 2000 records (%zu not "
                "identical); the first load of the thread %.3f ms\n",
                Percentile(loads, 0.5), Percentile(loads, 0.99), Percentile(loads, 1.0), wrong, firstMs);
    return wrong ? 1 : 0;
}
