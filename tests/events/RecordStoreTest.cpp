#include "events/RecordStore.h"

#include "decode/AskStream.h"
#include "services/Log.h"

#include "FileSizeLimit.h"
#include "RecordCompare.h"
#include "SessionRecords.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {


// A burst as the ASK stream cuts it: pulses are consecutive runs of the
// smoothed samples, raw samples differ.
TriggerData Burst(uint32_t seed, size_t samples, size_t pulses)
{
    std::mt19937 rng(seed);
    TriggerData r;
    r.startTime = 1000000000ull + seed;
    r.endTime = r.startTime + samples * 25;
    r.amplitude = -5 - static_cast<int64_t>(seed);
    r.highPeriod = INT64_MAX;
    r.lowPeriod = INT64_MIN;
    r.polarity = -1;
    for (size_t i = 0; i < samples; ++i) {
        r.samples.push_back(static_cast<int32_t>(rng()));
        r.rawSamples.push_back(static_cast<int32_t>(rng()));
    }
    size_t at = 0;
    for (size_t p = 0; p < pulses; ++p) {
        PulseRecord pr;
        const size_t n = samples ? std::min(samples - at, static_cast<size_t>(1 + rng() % 40)) : 0;
        pr.samples.assign(r.samples.begin() + static_cast<long>(at), r.samples.begin() + static_cast<long>(at + n));
        at += n;
        pr.duration = static_cast<int64_t>(n) - 3;
        pr.level = static_cast<uint8_t>(p % 2 ? 255 : 0);
        pr.mark = 0xFFFFFFF0u + static_cast<uint32_t>(p);
        pr.spare = -static_cast<int64_t>(p) * 1000003;
        r.pulses.push_back(pr);
    }
    return r;
}

std::vector<TriggerData> Shapes()
{
    std::vector<TriggerData> all;
    all.push_back(TriggerData());  // empty
    TriggerData noSamples;
    noSamples.startTime = 7;
    for (int i = 0; i < 5; ++i) {
        PulseRecord p;
        p.duration = i;
        p.level = static_cast<uint8_t>(i & 1);
        p.mark = static_cast<uint32_t>(i * 3);
        noSamples.pulses.push_back(p);
    }
    all.push_back(noSamples);
    all.push_back(Burst(1, 400, 20));  // shared runs
    TriggerData own = Burst(2, 100, 6);  // pulses with samples of their own
    for (auto& p : own.pulses)
        p.samples = {1, 2, 3, -4, INT32_MIN, INT32_MAX};
    all.push_back(own);
    TriggerData mixed = Burst(3, 300, 12);  // out of order and repeated runs
    std::swap(mixed.pulses[2], mixed.pulses[7]);
    mixed.pulses[4].samples = mixed.pulses[0].samples;
    mixed.pulses[5].samples.push_back(12345);
    all.push_back(mixed);
    TriggerData rawSame = Burst(4, 50, 3);  // raw samples equal to samples
    rawSame.rawSamples = rawSame.samples;
    all.push_back(rawSame);
    TriggerData rawOnly;  // FSK-like: raw samples only
    rawOnly.rawSamples = {5, 6, 7};
    rawOnly.highPeriod = 100;
    all.push_back(rawOnly);
    all.push_back(Burst(5, 2000000, 50000));  // huge
    return all;
}

// A burst as the ASK chain leaves it: the stream's smoothed envelope (noisy
// levels stepping at bit edges) as the raw samples, cut after `cut` samples
// (or padded with zeros up to it), the envelope smoothed once more as the
// samples, and pulses that are the envelope's runs one after another, also
// past the cut.
TriggerData AskLike(uint32_t seed, size_t samples, size_t cut)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> noise(0.0, 12.0);
    std::vector<int32_t> envelope(samples);
    double level = 3000, smooth = level;
    std::vector<size_t> edges;
    for (size_t i = 0; i < samples; ++i) {
        if (i % 10 == 0 && i > 0 && rng() % 3) {
            level = level > 2500 ? 1800 : 3000;
            edges.push_back(i);
        }
        smooth += (level - smooth) * 0.4;
        envelope[i] = static_cast<int32_t>(std::lround(smooth + noise(rng)));
    }
    TriggerData r;
    r.startTime = 5000000 + seed;
    r.endTime = r.startTime + 25 * samples;
    FivePointFilter(envelope, r.samples);
    r.rawSamples = envelope;
    r.rawSamples.resize(cut, 0);
    size_t at = 0;
    uint32_t mark = 1000 + seed;
    edges.push_back(samples);
    for (size_t e : edges) {
        PulseRecord p;
        p.duration = static_cast<int64_t>(e - at);
        p.level = static_cast<uint8_t>(r.pulses.size() % 2);
        mark += static_cast<uint32_t>(e - at);
        p.mark = mark;
        p.samples.assign(envelope.begin() + static_cast<long>(at), envelope.begin() + static_cast<long>(e));
        r.pulses.push_back(p);
        at = e;
    }
    r.amplitude = 1200;
    return r;
}

std::string Dir(const QTemporaryDir& d)
{
    return d.path().toStdString();
}

std::vector<uint8_t> FileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteBytes(const std::string& path, const uint8_t* p, size_t n)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(p), static_cast<std::streamsize>(n));
}

int LogCount(const std::string& what)
{
    return CountInFile(Log::Instance().FilePath(), what);
}

const char kFault[] = "Capture records are no longer stored";

}  // namespace

TEST(RecordStore, PathBesideTheSid)
{
    EXPECT_EQ(RecordStore::PathBeside("/a/b/EventWindow_2026_01_02 03_04_05.sid"),
              "/a/b/EventWindow_2026_01_02 03_04_05.rec");
    EXPECT_EQ(RecordStore::PathBeside("/a.b/session"), "/a.b/session.rec");
}

TEST(RecordStore, EveryShapeLoadsBackIdentical)
{
    const auto shapes = Shapes();
    for (uint32_t version : {RecordStore::kVersionPlain, RecordStore::kVersionCompressed, RecordStore::kVersionPacked}) {
        SCOPED_TRACE(version);
        QTemporaryDir dir;
        RecordStore store;
        ASSERT_TRUE(store.Create(Dir(dir) + "/s.rec", version));
        EXPECT_EQ(store.Version(), version);
        for (size_t i = 0; i < shapes.size(); ++i)
            ASSERT_TRUE(store.Append(i + 1, shapes[i]));
        EXPECT_EQ(store.Count(), shapes.size());
        for (size_t i = 0; i < shapes.size(); ++i) {
            SCOPED_TRACE(i);
            const TriggerDataPtr back = store.Load(i + 1);
            ASSERT_TRUE(back);
            ExpectSameRecord(shapes[i], *back);
        }
        EXPECT_FALSE(store.Load(0));
        EXPECT_FALSE(store.Load(shapes.size() + 1));
    }
}

TEST(RecordStore, SharedRunsAreStoredOnce)
{
    const TriggerData burst = Burst(9, 10000, 400);
    TriggerData apart = burst;
    for (auto& p : apart.pulses)
        if (!p.samples.empty())
            p.samples.back() ^= 1;  // no longer a run of the burst
    const size_t shared = RecordStore::Encode(burst).size();
    const size_t own = RecordStore::Encode(apart).size();
    size_t covered = 0;
    size_t nonEmpty = 0;
    for (const auto& p : burst.pulses) {
        covered += p.samples.size();
        nonEmpty += p.samples.empty() ? 0 : 1;
    }
    ASSERT_GT(covered, 5000u);
    // Burst and raw samples, 26 bytes a pulse (its fields, the kind and a
    // count) and 4 more for a run's offset; apart, the pulses' samples once more.
    EXPECT_EQ(shared, 48 + 4 + 4 * 10000 + 1 + 4 + 4 * 10000 + 4 + 26 * 400 + 4 * nonEmpty);
    EXPECT_EQ(own, shared + 4 * covered - 4 * nonEmpty);
}

TEST(RecordStore, ReopenRebuildsTheIndex)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    std::vector<TriggerData> records;
    {
        RecordStore store;
        ASSERT_TRUE(store.Create(path));
        for (uint32_t i = 0; i < 30; ++i) {
            records.push_back(Burst(i, 50 + i * 7, i % 9));
            ASSERT_TRUE(store.Append(100 + i, records.back()));
        }
        // The same number again: the later record wins.
        records[3] = Burst(777, 20, 2);
        ASSERT_TRUE(store.Append(103, records[3]));
    }
    RecordStore again;
    ASSERT_TRUE(again.Open(path));
    EXPECT_EQ(again.Count(), 30u);
    for (uint32_t i = 0; i < 30; ++i) {
        SCOPED_TRACE(i);
        const TriggerDataPtr back = again.Load(100 + i);
        ASSERT_TRUE(back);
        ExpectSameRecord(records[i], *back);
    }
    // Opened for reading: appends are refused.
    EXPECT_FALSE(again.Append(1, records[0]));
    EXPECT_FALSE(again.Failed());
}

TEST(RecordStore, FilesThatAreNotRecordFilesDoNotOpen)
{
    QTemporaryDir dir;
    RecordStore store;
    EXPECT_FALSE(store.Open(Dir(dir) + "/missing.rec"));
    const std::string path = Dir(dir) + "/x.rec";
    const uint8_t text[] = "{ \"common\" : \"\" }";
    WriteBytes(path, text, sizeof text);
    EXPECT_FALSE(store.Open(path));
    EXPECT_FALSE(store.Load(1));
}

TEST(RecordStore, TruncatedAtEveryByteLoadsTheWholeRecordsBefore)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    std::vector<TriggerData> records = {Burst(1, 12, 3), TriggerData(), Burst(2, 5, 1), Burst(3, 9, 4)};
    std::vector<uint64_t> ends;
    {
        RecordStore store;
        ASSERT_TRUE(store.Create(path));
        for (size_t i = 0; i < records.size(); ++i) {
            ASSERT_TRUE(store.Append(i + 1, records[i]));
            ends.push_back(store.Size());
        }
    }
    const std::vector<uint8_t> whole = FileBytes(path);
    ASSERT_EQ(whole.size(), ends.back());
    const std::string cut = Dir(dir) + "/cut.rec";
    for (size_t n = 0; n <= whole.size(); ++n) {
        SCOPED_TRACE(n);
        WriteBytes(cut, whole.data(), n);
        RecordStore store;
        const bool opened = store.Open(cut);
        EXPECT_EQ(opened, n >= RecordStore::kHeaderSize);
        size_t expected = 0;
        while (expected < ends.size() && ends[expected] <= n)
            ++expected;
        EXPECT_EQ(store.Count(), expected);
        for (size_t i = 0; i < records.size(); ++i) {
            const TriggerDataPtr back = store.Load(i + 1);
            if (i < expected) {
                ASSERT_TRUE(back);
                ExpectSameRecord(records[i], *back);
            } else {
                EXPECT_FALSE(back);
            }
        }
    }
}

// A byte changed anywhere in a frame loses that frame's record only: the
// frames after it are found again by their mark. Both formats.
void CorruptByteLosesOnlyItsRecord(uint32_t version)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    std::vector<TriggerData> records = {Burst(1, 40, 3), Burst(2, 40, 3), Burst(3, 40, 3)};
    std::vector<uint64_t> ends;
    {
        RecordStore store;
        ASSERT_TRUE(store.Create(path, version));
        for (size_t i = 0; i < records.size(); ++i) {
            ASSERT_TRUE(store.Append(i + 1, records[i]));
            ends.push_back(store.Size());
        }
    }
    const std::vector<uint8_t> whole = FileBytes(path);
    const std::string bad = Dir(dir) + "/bad.rec";
    // Every byte of the second frame, changed in turn.
    for (uint64_t at = ends[0]; at < ends[1]; ++at) {
        SCOPED_TRACE(at);
        std::vector<uint8_t> bytes = whole;
        bytes[at] ^= 0x5A;
        WriteBytes(bad, bytes.data(), bytes.size());
        RecordStore store;
        ASSERT_TRUE(store.Open(bad));
        EXPECT_EQ(store.Version(), version);
        // A number changed into another is still a checked frame only if its
        // checksum agrees, which a single changed byte never makes.
        EXPECT_EQ(store.Count(), 2u);
        const TriggerDataPtr first = store.Load(1);
        ASSERT_TRUE(first);
        ExpectSameRecord(records[0], *first);
        EXPECT_FALSE(store.Load(2));
        const TriggerDataPtr third = store.Load(3);
        ASSERT_TRUE(third);
        ExpectSameRecord(records[2], *third);
        EXPECT_FALSE(store.Damaged(1));
        EXPECT_FALSE(store.Damaged(3));
        // The compressed format's frame header checks by itself: a payload
        // that does not check still names its record.
        const bool inPayload = at >= ends[0] + RecordStore::kCompressedFrameHeaderSize;
        if (version != RecordStore::kVersionPlain && inPayload) {
            EXPECT_TRUE(store.Damaged(2));
        }
    }
}

TEST(RecordStore, CorruptByteLosesOnlyItsRecord)
{
    CorruptByteLosesOnlyItsRecord(RecordStore::kVersionPacked);
}

TEST(RecordStore, CorruptByteLosesOnlyItsRecordInTheZstdFormat)
{
    CorruptByteLosesOnlyItsRecord(RecordStore::kVersionCompressed);
}

TEST(RecordStore, CorruptByteLosesOnlyItsRecordInThePlainFormat)
{
    CorruptByteLosesOnlyItsRecord(RecordStore::kVersionPlain);
}

TEST(RecordStore, RecordDamagedAfterOpeningLoadsAsNull)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    RecordStore store;
    ASSERT_TRUE(store.Create(path));
    const TriggerData a = Burst(1, 100, 5);
    ASSERT_TRUE(store.Append(1, a));
    ASSERT_TRUE(store.Append(2, a));
    {
        std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
        f.seekp(static_cast<std::streamoff>(store.Size() - 10));
        f.put('\x7f');
    }
    ASSERT_TRUE(store.Load(1));
    EXPECT_FALSE(store.Damaged(2));
    EXPECT_FALSE(store.Load(2));
    EXPECT_TRUE(store.Damaged(2));
    EXPECT_FALSE(store.Damaged(1));
}

TEST(RecordStore, FolderThatCannotBeWrittenRefusesOnceLogged)
{
    QTemporaryDir dir;
    const std::string folder = Dir(dir) + "/gone";  // does not exist
    const int before = LogCount(kFault);
    RecordStore store;
    EXPECT_FALSE(store.Create(folder + "/s.rec"));
    EXPECT_TRUE(store.Failed());
    const TriggerData a = Burst(1, 10, 2);
    for (int i = 0; i < 5; ++i)
        EXPECT_FALSE(store.Append(static_cast<uint64_t>(i + 1), a));
    EXPECT_FALSE(store.Load(1));
    EXPECT_EQ(LogCount(kFault), before + 1);
}

TEST(RecordStore, ReadOnlyFolderRefuses)
{
    QTemporaryDir dir;
    const std::string folder = Dir(dir) + "/ro";
    ASSERT_EQ(mkdir(folder.c_str(), 0555), 0);
    if (access(folder.c_str(), W_OK) != 0) {
        const int before = LogCount(kFault);
        RecordStore store;
        EXPECT_FALSE(store.Create(folder + "/s.rec"));
        EXPECT_FALSE(store.Append(1, Burst(1, 10, 2)));
        EXPECT_FALSE(store.Append(2, Burst(1, 10, 2)));
        EXPECT_EQ(LogCount(kFault), before + 1);
        return;
    }
    // Root writes into read-only folders: the refusal is seen by a child
    // process that has given up root.
    ASSERT_EQ(chmod(Dir(dir).c_str(), 0755), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(77);
        if (access(folder.c_str(), W_OK) == 0)
            _exit(77);
        RecordStore store;
        if (store.Create(folder + "/s.rec") || !store.Failed())
            _exit(11);
        if (store.Append(1, Burst(1, 10, 2)) || store.Load(1))
            _exit(12);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no user to drop to here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// The file reaches the largest size the process may write (the same refusal a
// full disk gives a write): in a child process, so the limit stays there.
TEST(RecordStore, WriteFaultMidSessionKeepsWhatWasStored)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    ExpectWithFileSizeLimit(64 * 1024, [&] {
        RecordStore store;
        if (!store.Create(path))
            return 11;
        int stored = 0;
        for (int i = 0; i < 200; ++i) {
            const bool ok = store.Append(static_cast<uint64_t>(i + 1), Burst(static_cast<uint32_t>(i), 300, 10));
            if (ok && stored != i)
                return 12;  // an append after a fault succeeded
            if (ok)
                ++stored;
        }
        if (!store.Failed() || stored == 0 || stored == 200)
            return 13;
        for (int i = 0; i < 200; ++i) {
            const TriggerDataPtr back = store.Load(static_cast<uint64_t>(i + 1));
            if ((back != nullptr) != (i < stored))
                return 14;
            if (back && back->samples != Burst(static_cast<uint32_t>(i), 300, 10).samples)
                return 15;
        }
        return 0;
    });
    // The file holds whole frames only: what was stored reopens.
    RecordStore again;
    ASSERT_TRUE(again.Open(path));
    EXPECT_GT(again.Count(), 0u);
    EXPECT_LT(again.Count(), 200u);
    EXPECT_LE(again.Size(), 64u * 1024u);
}

// A real full file system: a small tmpfs, mounted in a mount namespace of a
// child process. Skipped where mounting is not permitted.
TEST(RecordStore, FullFileSystem)
{
    QTemporaryDir dir;
    const std::string mountPoint = Dir(dir) + "/small";
    ASSERT_EQ(mkdir(mountPoint.c_str(), 0755), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=256k") != 0)
            _exit(77);
        RecordStore store;
        if (!store.Create(mountPoint + "/s.rec"))
            _exit(11);
        int stored = 0;
        for (int i = 0; i < 400; ++i)
            if (store.Append(static_cast<uint64_t>(i + 1), Burst(static_cast<uint32_t>(i), 500, 10)))
                ++stored;
        if (!store.Failed() || stored == 0 || stored == 400)
            _exit(13);
        for (int i = 0; i < 400; ++i) {
            const TriggerDataPtr back = store.Load(static_cast<uint64_t>(i + 1));
            if ((back != nullptr) != (i < stored))
                _exit(14);
        }
        store.Close();
        RecordStore again;
        if (!again.Open(mountPoint + "/s.rec") || again.Count() != static_cast<size_t>(stored))
            _exit(16);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(RecordStore, DecodeRefusesInconsistentPayloads)
{
    const TriggerData r = Burst(5, 64, 6);
    const std::vector<uint8_t> good = RecordStore::Encode(r);
    TriggerData back;
    ASSERT_TRUE(RecordStore::Decode(good.data(), good.size(), back));
    ExpectSameRecord(r, back);
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_FALSE(RecordStore::Decode(good.data(), n, back)) << n;
    std::vector<uint8_t> longer = good;
    longer.push_back(0);
    EXPECT_FALSE(RecordStore::Decode(longer.data(), longer.size(), back));
}

TEST(RecordStore, TagsComeBackWithTheirRecords)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    {
        RecordStore store;
        ASSERT_TRUE(store.Create(path));
        ASSERT_TRUE(store.Append(1, Burst(1, 10, 2), 0xDEADBEEFu));
        ASSERT_TRUE(store.Append(2, Burst(2, 10, 2)));
        uint32_t tag = 0;
        ASSERT_TRUE(store.Load(1, &tag));
        EXPECT_EQ(tag, 0xDEADBEEFu);
    }
    RecordStore again;
    ASSERT_TRUE(again.Open(path));
    uint32_t tag = 1;
    ASSERT_TRUE(again.Load(2, &tag));
    EXPECT_EQ(tag, 0u);
    ASSERT_TRUE(again.Load(1, &tag));
    EXPECT_EQ(tag, 0xDEADBEEFu);
    EXPECT_EQ(RecordStore::Checksum("123456789", 9), 0xCBF43926u);  // the CRC-32 check value
}

TEST(RecordStore, NewFilesAreCompressedAndSayTheirVersion)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    RecordStore store;
    ASSERT_TRUE(store.Create(path));
    EXPECT_EQ(store.Version(), RecordStore::kVersionPacked);
    ASSERT_TRUE(store.Append(1, Burst(1, 100, 5)));
    const std::vector<uint8_t> bytes = FileBytes(path);
    ASSERT_GE(bytes.size(), RecordStore::kHeaderSize);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "CSRECORD");
    EXPECT_EQ(bytes[8], 3);
    EXPECT_EQ(bytes[9] | bytes[10] | bytes[11], 0);
    EXPECT_EQ(RecordStore::VersionOf(bytes.data(), bytes.size()), RecordStore::kVersionPacked);
    // A version this reader does not know is not opened.
    std::vector<uint8_t> later = bytes;
    later[8] = 4;
    EXPECT_EQ(RecordStore::VersionOf(later.data(), later.size()), 0u);
    WriteBytes(Dir(dir) + "/later.rec", later.data(), later.size());
    RecordStore other;
    EXPECT_FALSE(other.Open(Dir(dir) + "/later.rec"));
}

// A file of the zstd format (version 2), as sessions wrote them before the
// sample series were Rice-coded: it opens as version 2 and every record
// loads as it was.
TEST(RecordStore, ZstdFilesOfEarlierSessionsStillOpen)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/old.rec";
    const auto shapes = Shapes();
    {
        RecordStore old;
        ASSERT_TRUE(old.Create(path, RecordStore::kVersionCompressed));
        for (size_t i = 0; i < shapes.size(); ++i)
            ASSERT_TRUE(old.Append(i + 1, shapes[i], static_cast<uint32_t>(0x2000 + i)));
    }
    const std::vector<uint8_t> bytes = FileBytes(path);
    ASSERT_GE(bytes.size(), RecordStore::kHeaderSize);
    EXPECT_EQ(bytes[8], 2);
    // Its payloads are those of the zstd coder, frame after frame.
    std::vector<std::pair<uint64_t, RecordStore::Entry>> frames;
    ASSERT_TRUE(RecordStore::Scan(bytes.data(), bytes.size(), frames));
    ASSERT_EQ(frames.size(), shapes.size());
    for (size_t i = 0; i < shapes.size(); ++i) {
        const std::vector<uint8_t> payload = RecordStore::EncodeCompressed(shapes[i]);
        ASSERT_EQ(frames[i].second.length, payload.size());
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), bytes.begin() + static_cast<long>(frames[i].second.offset)));
    }
    RecordStore store;
    ASSERT_TRUE(store.Open(path));
    EXPECT_EQ(store.Version(), RecordStore::kVersionCompressed);
    EXPECT_EQ(store.Count(), shapes.size());
    for (size_t i = 0; i < shapes.size(); ++i) {
        SCOPED_TRACE(i);
        uint32_t tag = 0;
        const TriggerDataPtr back = store.Load(i + 1, &tag);
        ASSERT_TRUE(back);
        EXPECT_EQ(tag, 0x2000 + i);
        ExpectSameRecord(shapes[i], *back);
    }
}

// A file as sessions wrote them before records were compressed, put
// together byte by byte: it opens and every record loads as it was.
TEST(RecordStore, PlainFilesOfEarlierSessionsStillOpen)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/old.rec";
    const auto shapes = Shapes();
    std::vector<uint8_t> file = {'C', 'S', 'R', 'E', 'C', 'O', 'R', 'D', 1, 0, 0, 0, 0, 0, 0, 0};
    auto put = [](std::vector<uint8_t>& out, uint64_t v, int bytes) {
        for (int i = 0; i < bytes; ++i)
            out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    };
    for (size_t i = 0; i < shapes.size(); ++i) {
        const std::vector<uint8_t> payload = RecordStore::Encode(shapes[i]);
        std::vector<uint8_t> head;
        put(head, i + 1, 8);
        put(head, 0x1000 + i, 4);
        put(head, payload.size(), 4);
        put(file, 0x46525343u, 4);
        file.insert(file.end(), head.begin(), head.end());
        put(file, RecordStore::Checksum(payload.data(), payload.size(), RecordStore::Checksum(head.data(), head.size())),
            4);
        file.insert(file.end(), payload.begin(), payload.end());
    }
    WriteBytes(path, file.data(), file.size());
    RecordStore store;
    ASSERT_TRUE(store.Open(path));
    EXPECT_EQ(store.Version(), RecordStore::kVersionPlain);
    EXPECT_EQ(store.Count(), shapes.size());
    EXPECT_EQ(store.Size(), file.size());
    for (size_t i = 0; i < shapes.size(); ++i) {
        SCOPED_TRACE(i);
        uint32_t tag = 0;
        const TriggerDataPtr back = store.Load(i + 1, &tag);
        ASSERT_TRUE(back);
        EXPECT_EQ(tag, 0x1000 + i);
        ExpectSameRecord(shapes[i], *back);
    }
    // The writer still makes such files when asked, and they read the same.
    const std::string again = Dir(dir) + "/again.rec";
    {
        RecordStore plain;
        ASSERT_TRUE(plain.Create(again, RecordStore::kVersionPlain));
        for (size_t i = 0; i < shapes.size(); ++i)
            ASSERT_TRUE(plain.Append(i + 1, shapes[i], static_cast<uint32_t>(0x1000 + i)));
    }
    EXPECT_EQ(FileBytes(again), file);
}

// The records of a synthesized session of the emulator (envelope noise on),
// as the decoders make them with both second readers: every one loads back
// from the compressed file exactly, and the file is far smaller than the
// plain one.
TEST(RecordStore, EmulatorSessionRecordsComeBackExactAndSmaller)
{
    const sessionrecords::SessionRecords session = sessionrecords::Collect(40.0, 5);
    std::vector<TriggerDataPtr> records(session.ask);
    records.insert(records.end(), session.fsk.begin(), session.fsk.end());
    const size_t fskRecords = session.fsk.size();
    ASSERT_GT(records.size(), 200u);
    ASSERT_GT(fskRecords, 0u);
    QTemporaryDir dir;
    RecordStore plain, zstd, packed;
    ASSERT_TRUE(plain.Create(Dir(dir) + "/plain.rec", RecordStore::kVersionPlain));
    ASSERT_TRUE(zstd.Create(Dir(dir) + "/zstd.rec", RecordStore::kVersionCompressed));
    ASSERT_TRUE(packed.Create(Dir(dir) + "/packed.rec"));
    for (size_t i = 0; i < records.size(); ++i) {
        ASSERT_TRUE(plain.Append(i + 1, *records[i]));
        ASSERT_TRUE(zstd.Append(i + 1, *records[i]));
        ASSERT_TRUE(packed.Append(i + 1, *records[i]));
    }
    // The Rice-coded series take a fifth less than zstd alone made of them
    // (record_rates measures the figures).
    EXPECT_LT(packed.Size() * 5, zstd.Size() * 4) << packed.Size() << " now, " << zstd.Size() << " zstd alone";
    packed.Close();
    RecordStore again;
    ASSERT_TRUE(again.Open(Dir(dir) + "/packed.rec"));
    ASSERT_EQ(again.Count(), records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        SCOPED_TRACE(i);
        const TriggerDataPtr back = again.Load(i + 1);
        ASSERT_TRUE(back);
        ExpectSameRecord(*records[i], *back);
    }
    EXPECT_LT(again.Size() * 5, plain.Size()) << again.Size() << " compressed, " << plain.Size() << " plain";

    // Where an ASK record's bits go. The stream smooths its envelope again
    // on every 5 ms pass while a packet's group is open, so the samples of
    // the pass that closed the group (at most its newest 200) were smoothed
    // once and those before them several times. One smoothing leaves a fifth
    // of the emulator's noise of 60 counts: 12 counts of Gaussian noise, 5.63
    // bits a sample (log2 of 12 times the square root of 2 pi e) that no
    // lossless coding removes. The series coding spends more than that on
    // the newest 200 samples and clearly less on those before, and a whole
    // record, fields, pulses and frame included, about 6.6 bits a sample. At
    // 20 records a second that is the record file's 36 MiB an hour at real
    // speed, beside the .sid's 72 MiB that stay as they are: the two alone
    // are above 100 MiB an hour (record_predictors measures the split and
    // what other predictions would leave).
    uint64_t recordBits = 0, samples = 0, before = 0, beforeBits = 0, last = 0, lastBits = 0;
    std::vector<int32_t> y;
    for (const TriggerDataPtr& r : records) {
        if (!sessionrecords::Envelope(*r, y))
            continue;
        recordBits += 8 * (RecordStore::EncodePacked(*r).size() + RecordStore::kCompressedFrameHeaderSize);
        samples += y.size();
        const size_t cut = y.size() - sessionrecords::kPass;
        before += cut;
        beforeBits += sessionrecords::SeriesBits(y, 0, cut);
        last += sessionrecords::kPass;
        lastBits += sessionrecords::SeriesBits(y, cut, y.size());
    }
    ASSERT_GT(samples, 100000u);
    const double floorOnce = sessionrecords::OnceSmoothedNoiseBits();
    const double lastPerSample = static_cast<double>(lastBits) / static_cast<double>(last);
    const double beforePerSample = static_cast<double>(beforeBits) / static_cast<double>(before);
    const double recordPerSample = static_cast<double>(recordBits) / static_cast<double>(samples);
    EXPECT_GT(lastPerSample, floorOnce);
    EXPECT_LT(lastPerSample, floorOnce + 2.0);
    EXPECT_LT(beforePerSample + 1.0, lastPerSample);
    EXPECT_GT(recordPerSample, 6.0);
    EXPECT_LT(recordPerSample, 7.2);
}

// A file cut inside a compressed frame: the frames before it load, and the
// cut one, whose header is whole, is known as damaged.
void CutInsideACompressedFrameIsDamaged(uint32_t version)
{
    QTemporaryDir dir;
    const std::string path = Dir(dir) + "/s.rec";
    std::vector<TriggerData> records = {Burst(1, 300, 10), AskLike(2, 900, 660), Burst(3, 300, 10)};
    std::vector<uint64_t> ends;
    {
        RecordStore store;
        ASSERT_TRUE(store.Create(path, version));
        for (size_t i = 0; i < records.size(); ++i) {
            ASSERT_TRUE(store.Append(i + 1, records[i]));
            ends.push_back(store.Size());
        }
    }
    const std::vector<uint8_t> whole = FileBytes(path);
    const std::string cut = Dir(dir) + "/cut.rec";
    for (uint64_t n = ends[1] + RecordStore::kCompressedFrameHeaderSize; n < ends[2]; n += 7) {
        SCOPED_TRACE(n);
        WriteBytes(cut, whole.data(), n);
        RecordStore store;
        ASSERT_TRUE(store.Open(cut));
        EXPECT_EQ(store.Count(), 2u);
        EXPECT_TRUE(store.Damaged(3));
        EXPECT_EQ(store.DamagedCount(), 1u);
        EXPECT_FALSE(store.Load(3));
        const TriggerDataPtr second = store.Load(2);
        ASSERT_TRUE(second);
        ExpectSameRecord(records[1], *second);
        std::vector<std::pair<uint64_t, RecordStore::Entry>> frames;
        std::vector<uint64_t> damaged;
        uint64_t end = 0;
        ASSERT_TRUE(RecordStore::Scan(whole.data(), n, frames, &end, &damaged));
        EXPECT_EQ(frames.size(), 2u);
        EXPECT_EQ(end, ends[1]);
        EXPECT_EQ(damaged, std::vector<uint64_t>{3});
    }
}

TEST(RecordStore, CutInsideACompressedFrameIsDamaged)
{
    CutInsideACompressedFrameIsDamaged(RecordStore::kVersionPacked);
}

TEST(RecordStore, CutInsideAZstdFrameIsDamaged)
{
    CutInsideACompressedFrameIsDamaged(RecordStore::kVersionCompressed);
}

// One payload coder's payload of `r`: it decodes back to `r`; cut at any
// byte or longer by one it is refused; with any byte changed it is refused or
// decodes to a record that codes again to itself; never a read out of bounds
// (the sanitizer builds run this too). Returns the good payload.
static std::vector<uint8_t> ExpectPayloadChecks(const TriggerData& r, std::vector<uint8_t> (*encode)(const TriggerData&),
                                                bool (*decode)(const uint8_t*, size_t, TriggerData&))
{
    const std::vector<uint8_t> good = encode(r);
    TriggerData back;
    EXPECT_TRUE(decode(good.data(), good.size(), back));
    ExpectSameRecord(r, back);
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_FALSE(decode(good.data(), n, back)) << n;
    std::vector<uint8_t> longer = good;
    longer.push_back(0);
    EXPECT_FALSE(decode(longer.data(), longer.size(), back));
    for (size_t at = 0; at < good.size(); ++at) {
        std::vector<uint8_t> bytes = good;
        bytes[at] ^= 0xA5;
        TriggerData changed;
        if (decode(bytes.data(), bytes.size(), changed)) {
            const std::vector<uint8_t> recoded = encode(changed);
            TriggerData twice;
            EXPECT_TRUE(decode(recoded.data(), recoded.size(), twice)) << at;
            ExpectSameRecord(changed, twice);
        }
    }
    return good;
}

TEST(RecordStore, DecodeCompressedRefusesInconsistentPayloads)
{
    const TriggerData r = Burst(5, 64, 6);
    const std::vector<uint8_t> good = ExpectPayloadChecks(r, RecordStore::EncodeCompressed, RecordStore::DecodeCompressed);
    TriggerData back;
    // The plain decoder and the dispatch by version agree.
    EXPECT_TRUE(RecordStore::DecodePayload(RecordStore::kVersionCompressed, good.data(), good.size(), back));
    EXPECT_FALSE(RecordStore::DecodePayload(RecordStore::kVersionPlain, good.data(), good.size(), back));
    EXPECT_FALSE(RecordStore::DecodePayload(4, good.data(), good.size(), back));
    EXPECT_FALSE(RecordStore::DecodePayload(0, good.data(), good.size(), back));
}

// The payload of the written format, for records of the ASK and FSK chains
// and a random one, under the same checks.
TEST(RecordStore, DecodePackedRefusesInconsistentPayloads)
{
    TriggerData fskLike;
    fskLike.startTime = 123456789;
    fskLike.endTime = fskLike.startTime + 60000;
    fskLike.highPeriod = 7400;
    fskLike.lowPeriod = 7300;
    fskLike.polarity = 1;
    for (int i = 0; i < 400; ++i)
        fskLike.samples.push_back((i / 16) % 2 ? 7400 + i % 3 : 7300 - i % 2);
    for (const TriggerData& r : {Burst(5, 64, 6), AskLike(6, 700, 440), fskLike}) {
        const std::vector<uint8_t> good = ExpectPayloadChecks(r, RecordStore::EncodePacked, RecordStore::DecodePacked);
        TriggerData back;
        EXPECT_TRUE(RecordStore::DecodePayload(RecordStore::kVersionPacked, good.data(), good.size(), back));
        ExpectSameRecord(r, back);
    }
}

// An ASK burst's raw samples end after the packet's last byte, but its pulses
// go on to the burst's end. The pulses past the cut carry the rest of the
// envelope; stored once as the raw samples' continuation, they cost what the
// uncut envelope costs, and the record comes back exactly, with raw samples
// cut where they were (or padded with zeros past the burst).
TEST(RecordStore, PulsesPastTheCutOfTheRawSamplesAreStoredAsTheirContinuation)
{
    const TriggerData uncut = AskLike(9, 1200, 1200);
    for (size_t cut : {size_t{0}, size_t{1}, size_t{440}, size_t{883}, size_t{1199}, size_t{1320}}) {
        SCOPED_TRACE(cut);
        const TriggerData r = AskLike(9, 1200, cut);
        const std::vector<uint8_t> packed = RecordStore::EncodePacked(r);
        TriggerData back;
        ASSERT_TRUE(RecordStore::DecodePacked(packed.data(), packed.size(), back));
        ExpectSameRecord(r, back);
        if (cut > 0 && cut <= 1200) {
            EXPECT_LT(packed.size(), RecordStore::EncodePacked(uncut).size() + 24);
        }
        // Where many pulses lie past the cut, their samples no longer take
        // room of their own as they do in the zstd format.
        if (cut > 0 && cut <= 883) {
            EXPECT_LT(packed.size() * 4, RecordStore::EncodeCompressed(r).size() * 3)
                << packed.size() << " now, " << RecordStore::EncodeCompressed(r).size() << " zstd alone";
        }
    }
}
