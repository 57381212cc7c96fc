#include "events/RecordStore.h"

#include "decode/AskStream.h"
#include "events/SampleCoding.h"
#include "services/Log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

// Payload of one record:
//   u64 startTime, u64 endTime, i64 amplitude, i64 highPeriod, i64 lowPeriod,
//   i64 polarity
//   samples:     u32 count, count x i32
//   rawSamples:  u8 kind: 0 = own (u32 count, count x i32), 1 = equal to samples
//   u32 pulse count, then per pulse:
//     i64 duration, u8 level, u32 mark, i64 spare,
//     u8 kind: 0 = own samples (u32 count, count x i32),
//              1 = a run of the record's samples (u32 offset, u32 count)
//
// Version 2 payload: one zstd frame of the following, where u is an unsigned
// LEB128 number and z a signed one (zigzag, then LEB128), every difference
// taken with wrap-around on 64 bits so that it comes back exact:
//   u startTime, z endTime - startTime, z amplitude, z highPeriod,
//   z lowPeriod, z polarity
//   u raw count, u8 raw kind: 0 = own, 1 = equal to the samples
//     own: a series (below)
//   u sample count, u8 sample kind:
//     0 = a series
//     1 = z each sample minus its prediction: the five-point smoothing of the
//         raw samples where there is one, else the sample before it (the ASK
//         chain smooths its raw samples into its samples, so these are
//         mostly 0)
//   u pulse count, then per pulse, differences taken from the pulse before:
//     z duration, u8 level, z mark, z spare,
//     u8 kind: 0 = own samples (u count, then a series),
//              1 = a run of the record's samples (z offset minus the end of
//                  the previous such run, u count)
//              2 = a run of the raw samples, likewise
// A series: u8 order k (1 to 4), then z for each of the samples' differences
// taken k times over (the sample before the first counting as 0); the order
// is the one whose differences take the fewest bits.
//
// Version 3 payload: one zstd frame of the record's fields and of the columns
// below, then the bits of its sample series (SampleCoding.h), which a
// general compressor cannot shrink: the noise of the envelope is in them.
//   u startTime, z endTime - startTime, z amplitude, z highPeriod,
//   z lowPeriod, z polarity
//   u raw count, u8 raw kind:
//     0 = own: u count of the values that go on past the raw samples in the
//         pulses after them (ExtendRaw); the raw samples and those values
//         one series in the bits, the extended raw samples
//     1 = equal to the samples
//   u sample count, u8 sample kind:
//     0 = a series in the bits
//     2 = a series as in version 2, here in the frame (chosen when smaller)
//     1 = for each sample that has an extended raw sample, z its difference
//         from their five-point smoothing (mostly 0); the samples past them
//         a series in the bits, going on from those before
//   u pulse count, then a column per field over the pulses:
//     z duration each
//     u8 level each, XOR the opposite of the level before (0 before the
//       first): 0 where levels alternate
//     z mark minus (the mark before, 0 for the first, plus the duration)
//     z spare minus the spare before
//     then per pulse u8 kind: 0 = own samples (u count, then a series as in
//       version 2), 1 = a run of the record's samples, 2 = a run of the
//       extended raw samples, each run as z its offset minus the end of the
//       previous run of the same samples and z its count minus the duration
//   The bits hold the raw samples' series, then the samples' (or the part
//   past the raw ones).

namespace {

constexpr char kMagic[8] = {'C', 'S', 'R', 'E', 'C', 'O', 'R', 'D'};
constexpr uint32_t kVersionPlain = RecordStore::kVersionPlain;
constexpr uint32_t kVersionCompressed = RecordStore::kVersionCompressed;
constexpr uint32_t kVersionPacked = RecordStore::kVersionPacked;
// Compression level of the payloads: an ASK record (about 13 kB plain) costs
// under a tenth of a millisecond to code at this level, on the thread that
// adds events (record_rates measures it).
constexpr int kZstdLevel = 6;
constexpr uint32_t kFrameMark = 0x46525343u;  // "CSRF" read little-endian
constexpr size_t kPulseMinBytes = 8 + 1 + 4 + 8 + 1 + 4;

uint32_t CrcTableEntry(uint32_t n)
{
    uint32_t c = n;
    for (int k = 0; k < 8; ++k)
        c = (c & 1u) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    return c;
}

struct CrcTable {
    uint32_t t[256];
    CrcTable()
    {
        for (uint32_t n = 0; n < 256; ++n)
            t[n] = CrcTableEntry(n);
    }
};

// CRC-32 (the polynomial of zip and PNG), continued from a previous value.
uint32_t Crc32(uint32_t crc, const uint8_t* p, size_t n)
{
    static const CrcTable table;
    crc = ~crc;
    for (size_t i = 0; i < n; ++i)
        crc = table.t[(crc ^ p[i]) & 0xFFu] ^ (crc >> 8);
    return ~crc;
}

void Put32(std::vector<uint8_t>& out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void Put64(std::vector<uint8_t>& out, uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t Get32(const uint8_t* p)
{
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

uint64_t Get64(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

void PutU(std::vector<uint8_t>& out, uint64_t v)
{
    while (v >= 0x80) {
        out.push_back(static_cast<uint8_t>(v | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<uint8_t>(v));
}

// A difference on 64 bits, wrapped, as a zigzag number.
void PutZ(std::vector<uint8_t>& out, uint64_t difference)
{
    const uint64_t sign = (difference >> 63) ? ~uint64_t{0} : 0;
    PutU(out, (difference << 1) ^ sign);
}

// The highest order of differences a series of samples may be coded with.
constexpr uint8_t kMaxOrder = 4;

// Samples as their differences of some order: order k takes the differences
// of the samples k times over (the sample before the first counting as 0),
// which leaves of a smooth envelope (a polynomial over a few samples) only
// its noise, and of a flat one its steps. The order whose differences take
// the fewest bits is chosen per series and written first.
void PutSeries(std::vector<uint8_t>& out, const std::vector<int32_t>& s)
{
    thread_local std::vector<uint64_t> d;
    d.resize(s.size());
    for (size_t i = 0; i < s.size(); ++i)
        d[i] = static_cast<uint64_t>(static_cast<int64_t>(s[i]));
    auto bits = [](uint64_t difference) {
        const uint64_t sign = (difference >> 63) ? ~uint64_t{0} : 0;
        return 64 - __builtin_clzll(((difference << 1) ^ sign) | 1);
    };
    uint8_t best = 1;
    uint64_t bestBits = UINT64_MAX;
    for (uint8_t order = 1; order <= kMaxOrder; ++order) {
        uint64_t before = 0, total = 0;
        for (size_t i = 0; i < d.size(); ++i) {
            const uint64_t x = d[i];
            d[i] = x - before;
            before = x;
            total += static_cast<uint64_t>(bits(d[i]));
        }
        if (total < bestBits) {
            bestBits = total;
            best = order;
        }
    }
    out.push_back(best);
    for (size_t i = 0; i < s.size(); ++i)
        d[i] = static_cast<uint64_t>(static_cast<int64_t>(s[i]));
    for (uint8_t order = 0; order < best; ++order) {
        uint64_t before = 0;
        for (size_t i = 0; i < d.size(); ++i) {
            const uint64_t x = d[i];
            d[i] = x - before;
            before = x;
        }
    }
    for (uint64_t v : d)
        PutZ(out, v);
}

void PutSamples(std::vector<uint8_t>& out, const int32_t* s, size_t n)
{
    const size_t at = out.size();
    out.resize(at + 4 * n);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (n)
        std::memcpy(out.data() + at, s, 4 * n);
#else
    for (size_t i = 0; i < n; ++i)
        for (int b = 0; b < 4; ++b)
            out[at + 4 * i + b] = static_cast<uint8_t>(static_cast<uint32_t>(s[i]) >> (8 * b));
#endif
}

void GetSamples(const uint8_t* p, size_t n, std::vector<int32_t>& s)
{
    s.resize(n);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (n)
        std::memcpy(s.data(), p, 4 * n);
#else
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<int32_t>(Get32(p + 4 * i));
#endif
}

// Where a pulse's samples lie within the burst's, if they are a run of them:
// first right after the previous pulse's run (how the ASK stream cuts them),
// else anywhere.
bool FindRun(const std::vector<int32_t>& burst, const std::vector<int32_t>& run, size_t hint, size_t& offset)
{
    if (run.size() > burst.size() || burst.size() > std::numeric_limits<uint32_t>::max())
        return false;
    if (hint <= burst.size() - run.size() && std::equal(run.begin(), run.end(), burst.begin() + static_cast<long>(hint))) {
        offset = hint;
        return true;
    }
    const auto at = std::search(burst.begin(), burst.end(), run.begin(), run.end());
    if (at == burst.end())
        return false;
    offset = static_cast<size_t>(at - burst.begin());
    return true;
}

class Reader {
public:
    Reader(const uint8_t* p, size_t n) : m_p(p), m_n(n) {}
    size_t Left() const { return m_n - m_at; }
    bool U8(uint8_t& v)
    {
        if (Left() < 1)
            return false;
        v = m_p[m_at++];
        return true;
    }
    bool U32(uint32_t& v)
    {
        if (Left() < 4)
            return false;
        v = Get32(m_p + m_at);
        m_at += 4;
        return true;
    }
    bool U64(uint64_t& v)
    {
        if (Left() < 8)
            return false;
        v = Get64(m_p + m_at);
        m_at += 8;
        return true;
    }
    bool I64(int64_t& v)
    {
        uint64_t u;
        if (!U64(u))
            return false;
        v = static_cast<int64_t>(u);
        return true;
    }
    bool U(uint64_t& v)
    {
        v = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            uint8_t b;
            if (!U8(b))
                return false;
            v |= static_cast<uint64_t>(b & 0x7F) << shift;
            if (!(b & 0x80))
                return true;
        }
        return false;  // more than ten bytes: not a number this writer makes
    }
    bool Count(size_t& n)
    {
        // Every coded element takes one byte at least.
        uint64_t v;
        if (!U(v) || v > Left())
            return false;
        n = static_cast<size_t>(v);
        return true;
    }
    // A zigzag difference, unfolded back to its wrapped 64-bit value.
    bool Z(uint64_t& d)
    {
        uint64_t v;
        if (!U(v))
            return false;
        d = (v >> 1) ^ ((v & 1) ? ~uint64_t{0} : 0);
        return true;
    }
    // A series as PutSeries writes it: the order, then the differences,
    // summed back as many times.
    bool Series(size_t n, std::vector<int32_t>& s)
    {
        uint8_t order;
        if (!U8(order) || order < 1 || order > kMaxOrder || n > Left())
            return false;
        thread_local std::vector<uint64_t> d;
        d.resize(n);
        for (size_t i = 0; i < n; ++i)
            if (!Z(d[i]))
                return false;
        for (uint8_t k = 0; k < order; ++k) {
            uint64_t sum = 0;
            for (uint64_t& v : d) {
                sum += v;
                v = sum;
            }
        }
        s.resize(n);
        for (size_t i = 0; i < n; ++i)
            s[i] = static_cast<int32_t>(static_cast<uint32_t>(d[i]));
        return true;
    }
    bool Samples(std::vector<int32_t>& s)
    {
        uint32_t n;
        if (!U32(n) || Left() / 4 < n)
            return false;
        GetSamples(m_p + m_at, n, s);
        m_at += 4 * static_cast<size_t>(n);
        return true;
    }

private:
    const uint8_t* m_p;
    size_t m_n;
    size_t m_at = 0;
};

// The record's times and fields as versions 2 and 3 code them: u startTime,
// z endTime - startTime, z amplitude, z highPeriod, z lowPeriod, z polarity.
void PutFields(std::vector<uint8_t>& out, const TriggerData& r)
{
    PutU(out, r.startTime);
    PutZ(out, r.endTime - r.startTime);
    PutZ(out, static_cast<uint64_t>(r.amplitude));
    PutZ(out, static_cast<uint64_t>(r.highPeriod));
    PutZ(out, static_cast<uint64_t>(r.lowPeriod));
    PutZ(out, static_cast<uint64_t>(r.polarity));
}

bool GetFields(Reader& in, TriggerData& r)
{
    uint64_t span, v;
    if (!in.U(r.startTime) || !in.Z(span))
        return false;
    r.endTime = r.startTime + span;
    int64_t* fields[] = {&r.amplitude, &r.highPeriod, &r.lowPeriod, &r.polarity};
    for (int64_t* f : fields) {
        if (!in.Z(v))
            return false;
        *f = static_cast<int64_t>(v);
    }
    return true;
}

using ReadAt = std::function<bool(uint64_t offset, uint8_t* into, size_t n)>;

using Found = std::function<void(uint64_t number, const RecordStore::Entry&)>;

// CRC-32 of `length` bytes of the file from `offset`, read in chunks; false
// if they cannot be read.
bool CrcOfRange(const ReadAt& read, uint64_t offset, uint64_t length, uint32_t& crc, std::vector<uint8_t>& chunk)
{
    for (uint64_t done = 0; done < length;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), length - done));
        if (!read(offset + done, chunk.data(), n))
            return false;
        crc = Crc32(crc, chunk.data(), n);
        done += n;
    }
    return true;
}

// The offset of the next frame mark at or after `from`, or `size` if none.
uint64_t NextMark(uint64_t from, uint64_t size, const ReadAt& read, std::vector<uint8_t>& chunk)
{
    while (from < size && size - from >= 4) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), size - from));
        if (!read(from, chunk.data(), n))
            return size;
        for (size_t i = 0; i + 4 <= n; ++i)
            if (Get32(chunk.data() + i) == kFrameMark)
                return from + i;
        // The last three bytes may begin a mark that the next chunk ends.
        from += n - 3;
    }
    return size;
}

// What one frame at `at` turned out to be.
enum class FrameRead { Whole, Damaged, Bad };

// A version 1 frame: whole when its mark and its one checksum hold.
FrameRead ReadPlainFrame(uint64_t at, uint64_t size, const ReadAt& read, std::vector<uint8_t>& chunk, uint64_t& number,
                         RecordStore::Entry& e)
{
    uint8_t head[RecordStore::kFrameHeaderSize];
    if (size - at < sizeof head || !read(at, head, sizeof head) || Get32(head) != kFrameMark)
        return FrameRead::Bad;
    number = Get64(head + 4);
    e.tag = Get32(head + 12);
    e.length = Get32(head + 16);
    e.crc = Get32(head + 20);
    e.offset = at + sizeof head;
    if (size - e.offset < e.length)
        return FrameRead::Bad;
    uint32_t check = Crc32(0, head + 4, 16);
    if (!CrcOfRange(read, e.offset, e.length, check, chunk) || check != e.crc)
        return FrameRead::Bad;
    return FrameRead::Whole;
}

// A version 2 or 3 frame: its header has a checksum of its own, so a payload that
// does not check (or is cut short) still tells which record it was.
FrameRead ReadCompressedFrame(uint64_t at, uint64_t size, const ReadAt& read, std::vector<uint8_t>& chunk,
                              uint64_t& number, RecordStore::Entry& e)
{
    uint8_t head[RecordStore::kCompressedFrameHeaderSize];
    if (size - at < sizeof head || !read(at, head, sizeof head) || Get32(head) != kFrameMark ||
        Crc32(0, head + 4, 20) != Get32(head + 24))
        return FrameRead::Bad;
    number = Get64(head + 4);
    e.tag = Get32(head + 12);
    e.length = Get32(head + 16);
    e.crc = Get32(head + 20);
    e.offset = at + sizeof head;
    if (size - e.offset < e.length)
        return FrameRead::Damaged;
    uint32_t check = 0;
    if (!CrcOfRange(read, e.offset, e.length, check, chunk) || check != e.crc)
        return FrameRead::Damaged;
    return FrameRead::Whole;
}

// Walks the frames after the header; each whole frame whose checksums hold is
// handed to `found`, and the number of each frame found damaged to
// `damaged`. A frame that does not read is passed over: the walk goes on at
// the next frame mark after it (a damaged frame of version 2 or 3, whose header
// checks, is passed over by its length). Returns the end of the last whole
// frame.
uint64_t WalkFrames(uint32_t version, uint64_t size, const ReadAt& read, const Found& found,
                    const std::function<void(uint64_t number)>& damaged)
{
    uint64_t at = RecordStore::kHeaderSize;
    uint64_t end = at;
    std::vector<uint8_t> chunk(65536);
    while (at < size) {
        uint64_t number = 0;
        RecordStore::Entry e;
        const FrameRead r = version == kVersionPlain ? ReadPlainFrame(at, size, read, chunk, number, e)
                                                     : ReadCompressedFrame(at, size, read, chunk, number, e);
        if (r == FrameRead::Whole) {
            found(number, e);
            at = end = e.offset + e.length;
            continue;
        }
        if (r == FrameRead::Damaged) {
            damaged(number);
            if (size - e.offset >= e.length) {
                at = e.offset + e.length;
                continue;
            }
        }
        at = NextMark(at + 1, size, read, chunk);
    }
    return end;
}

// The version of a valid header, or 0.
uint32_t HeaderVersion(const uint8_t* h)
{
    if (std::memcmp(h, kMagic, sizeof kMagic) != 0)
        return 0;
    const uint32_t v = Get32(h + 8);
    return v == kVersionPlain || v == kVersionCompressed || v == kVersionPacked ? v : 0;
}

bool WriteAll(int fd, const uint8_t* p, size_t n, uint64_t offset, int& error)
{
    while (n > 0) {
        const ssize_t w = pwrite(fd, p, n, static_cast<off_t>(offset));
        if (w < 0) {
            if (errno == EINTR)
                continue;
            error = errno;
            return false;
        }
        if (w == 0) {
            error = ENOSPC;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
        offset += static_cast<uint64_t>(w);
    }
    return true;
}

bool ReadAll(int fd, uint8_t* p, size_t n, uint64_t offset)
{
    while (n > 0) {
        const ssize_t r = pread(fd, p, n, static_cast<off_t>(offset));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        n -= static_cast<size_t>(r);
        offset += static_cast<uint64_t>(r);
    }
    return true;
}

// One zstd frame of `plain`; false if zstd fails.
bool Zstd(const std::vector<uint8_t>& plain, std::vector<uint8_t>& packed)
{
    packed.resize(ZSTD_compressBound(plain.size()));
    thread_local std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> context(ZSTD_createCCtx(), ZSTD_freeCCtx);
    const size_t n = context ? ZSTD_compressCCtx(context.get(), packed.data(), packed.size(), plain.data(),
                                                 plain.size(), kZstdLevel)
                             : ZSTD_compress(packed.data(), packed.size(), plain.data(), plain.size(), kZstdLevel);
    if (ZSTD_isError(n))
        return false;
    packed.resize(n);
    return true;
}

// The zstd frame at the start of `bytes`, unpacked; it must take exactly
// `frameSize` bytes (0: whatever it takes, which is then told in
// `frameSize`). The frame says how much it unpacks to; a frame that does
// not, or claims more than a record ever takes, is not one of ours.
bool Unzstd(const uint8_t* bytes, size_t size, size_t& frameSize, std::vector<uint8_t>& plain)
{
    const unsigned long long content = ZSTD_getFrameContentSize(bytes, size);
    if (content == ZSTD_CONTENTSIZE_UNKNOWN || content == ZSTD_CONTENTSIZE_ERROR ||
        content > RecordStore::kMaxRecordBytes)
        return false;
    const size_t frame = ZSTD_findFrameCompressedSize(bytes, size);
    if (ZSTD_isError(frame) || frame > size || (frameSize && frame != frameSize))
        return false;
    frameSize = frame;
    plain.resize(static_cast<size_t>(content));
    thread_local std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> context(ZSTD_createDCtx(), ZSTD_freeDCtx);
    const size_t n = context ? ZSTD_decompressDCtx(context.get(), plain.data(), plain.size(), bytes, frame)
                             : ZSTD_decompress(plain.data(), plain.size(), bytes, frame);
    return !ZSTD_isError(n) && n == plain.size();
}

}  // namespace

RecordStore::~RecordStore()
{
    Close();
}

std::string RecordStore::PathBeside(const std::string& sidPath)
{
    const size_t slash = sidPath.find_last_of('/');
    const size_t dot = sidPath.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return sidPath + ".rec";
    return sidPath.substr(0, dot) + ".rec";
}

void RecordStore::Close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_writable = false;
    m_failed = false;
    m_end = 0;
    m_version = 0;
    m_index.clear();
    m_damaged.clear();
}

void RecordStore::Fail(const char* what, int error)
{
    if (!m_failed)
        Log::Printf("Capture records are no longer stored (%s %s: %s).", what, m_path.c_str(), std::strerror(error));
    m_failed = true;
}

bool RecordStore::Create(const std::string& path)
{
    return Create(path, kVersionPacked);
}

bool RecordStore::Create(const std::string& path, uint32_t version)
{
    if (version != kVersionPlain && version != kVersionCompressed)
        version = kVersionPacked;
    Close();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_path = path;
    // A file of the same name is unlinked rather than cut: a reader that has
    // it open (a session being played again into a file of the same second)
    // keeps its records.
    ::unlink(path.c_str());
    m_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (m_fd < 0) {
        Fail("cannot create", errno);
        return false;
    }
    m_writable = true;
    m_version = version;
    uint8_t header[kHeaderSize] = {};
    std::memcpy(header, kMagic, sizeof kMagic);
    for (int i = 0; i < 4; ++i)
        header[8 + i] = static_cast<uint8_t>(version >> (8 * i));
    int error = 0;
    if (!WriteAll(m_fd, header, sizeof header, 0, error)) {
        Fail("cannot write", error);
        return false;
    }
    m_end = kHeaderSize;
    return true;
}

bool RecordStore::Open(const std::string& path)
{
    Close();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_path = path;
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0)
        return false;
    struct stat st {};
    uint8_t header[kHeaderSize];
    if (fstat(m_fd, &st) != 0 || st.st_size < static_cast<off_t>(kHeaderSize) ||
        !ReadAll(m_fd, header, sizeof header, 0) || !HeaderVersion(header)) {
        ::close(m_fd);
        m_fd = -1;
        return false;
    }
    m_version = HeaderVersion(header);
    const int fd = m_fd;
    m_end = WalkFrames(
        m_version, static_cast<uint64_t>(st.st_size),
        [fd](uint64_t at, uint8_t* into, size_t n) { return ReadAll(fd, into, n, at); },
        [this](uint64_t number, const Entry& e) {
            Put(number, e);
            // A record stored again after a damaged copy of it is whole.
            m_damaged.erase(number);
        },
        [this](uint64_t number) {
            if (!Find(number))
                m_damaged.insert(number);
        });
    if (!m_damaged.empty())
        Log::Printf("%zu capture records of %s are damaged; their events show no wave.", m_damaged.size(),
                    m_path.c_str());
    return true;
}

std::vector<uint8_t> RecordStore::EncodeCompressed(const TriggerData& r)
{
    std::vector<uint8_t> out;
    out.reserve(64 + 2 * (r.samples.size() + r.rawSamples.size()) + 8 * r.pulses.size());
    PutFields(out, r);
    const bool rawIsSamples = r.rawSamples == r.samples && !r.samples.empty();
    PutU(out, r.rawSamples.size());
    out.push_back(rawIsSamples ? 1 : 0);
    if (!rawIsSamples)
        PutSeries(out, r.rawSamples);
    PutU(out, r.samples.size());
    // The samples from the smoothing of the raw samples where they are
    // smoothed from them; else from the sample before.
    const bool predicted = !rawIsSamples && !r.rawSamples.empty();
    out.push_back(predicted ? 1 : 0);
    if (predicted) {
        thread_local std::vector<int32_t> smooth;
        FivePointFilter(r.rawSamples, smooth);
        int64_t before = 0;
        for (size_t i = 0; i < r.samples.size(); ++i) {
            const int64_t guess = i < smooth.size() ? smooth[i] : before;
            PutZ(out, static_cast<uint64_t>(static_cast<int64_t>(r.samples[i])) - static_cast<uint64_t>(guess));
            before = r.samples[i];
        }
    } else {
        PutSeries(out, r.samples);
    }
    PutU(out, r.pulses.size());
    uint64_t duration = 0, mark = 0, spare = 0;
    size_t hint = 0, rawHint = 0;
    for (const PulseRecord& p : r.pulses) {
        PutZ(out, static_cast<uint64_t>(p.duration) - duration);
        out.push_back(p.level);
        PutZ(out, uint64_t{p.mark} - mark);
        PutZ(out, static_cast<uint64_t>(p.spare) - spare);
        duration = static_cast<uint64_t>(p.duration);
        mark = p.mark;
        spare = static_cast<uint64_t>(p.spare);
        size_t offset = 0;
        if (!p.samples.empty() && FindRun(r.samples, p.samples, hint, offset)) {
            out.push_back(1);
            PutZ(out, uint64_t{offset} - uint64_t{hint});
            PutU(out, p.samples.size());
            hint = offset + p.samples.size();
        } else if (!p.samples.empty() && !rawIsSamples && FindRun(r.rawSamples, p.samples, rawHint, offset)) {
            // The ASK stream's pulses are runs of the envelope before the
            // decoder smoothed it again: of the raw samples.
            out.push_back(2);
            PutZ(out, uint64_t{offset} - uint64_t{rawHint});
            PutU(out, p.samples.size());
            rawHint = offset + p.samples.size();
        } else {
            out.push_back(0);
            PutU(out, p.samples.size());
            PutSeries(out, p.samples);
        }
    }
    std::vector<uint8_t> packed;
    if (!Zstd(out, packed))
        return std::vector<uint8_t>();
    return packed;
}

bool RecordStore::DecodeCompressed(const uint8_t* bytes, size_t size, TriggerData& r)
{
    r = TriggerData();
    thread_local std::vector<uint8_t> plain;
    size_t whole = size;
    if (!Unzstd(bytes, size, whole, plain))
        return false;
    Reader in(plain.data(), plain.size());
    uint64_t v;
    if (!GetFields(in, r))
        return false;
    size_t rawCount, count;
    uint8_t rawKind, kind;
    if (!in.U(v) || !in.U8(rawKind) || rawKind > 1)
        return false;
    // Raw samples equal to the samples take no byte: their count is checked
    // against the samples' once those are read.
    if (rawKind == 0 && (v > in.Left()))
        return false;
    rawCount = static_cast<size_t>(std::min<uint64_t>(v, kMaxRecordBytes));
    if (rawKind == 0 && !in.Series(rawCount, r.rawSamples))
        return false;
    if (!in.Count(count) || !in.U8(kind) || kind > 1 || (kind == 1 && (rawKind != 0 || rawCount == 0)))
        return false;
    if (rawKind == 1) {
        if (v != count || count == 0 || !in.Series(count, r.samples))
            return false;
        r.rawSamples = r.samples;
    } else if (kind == 1) {
        std::vector<int32_t> smooth;
        FivePointFilter(r.rawSamples, smooth);
        r.samples.resize(count);
        uint64_t before = 0;
        for (size_t i = 0; i < count; ++i) {
            uint64_t d;
            if (!in.Z(d))
                return false;
            const uint64_t guess = i < smooth.size() ? static_cast<uint64_t>(static_cast<int64_t>(smooth[i])) : before;
            r.samples[i] = static_cast<int32_t>(guess + d);
            before = static_cast<uint64_t>(static_cast<int64_t>(r.samples[i]));
        }
    } else if (!in.Series(count, r.samples)) {
        return false;
    }
    size_t pulses;
    if (!in.Count(pulses))
        return false;
    r.pulses.resize(pulses);
    uint64_t duration = 0, mark = 0, spare = 0;
    size_t hint = 0, rawHint = 0;
    for (PulseRecord& p : r.pulses) {
        uint64_t d;
        if (!in.Z(d))
            return false;
        duration += d;
        if (!in.U8(p.level) || !in.Z(d))
            return false;
        mark += d;
        if (!in.Z(d))
            return false;
        spare += d;
        p.duration = static_cast<int64_t>(duration);
        p.mark = static_cast<uint32_t>(mark);
        mark = p.mark;
        p.spare = static_cast<int64_t>(spare);
        if (!in.U8(kind))
            return false;
        if (kind == 1 || kind == 2) {
            const std::vector<int32_t>& from = kind == 1 ? r.samples : r.rawSamples;
            size_t& at = kind == 1 ? hint : rawHint;
            if (!in.Z(d) || !in.U(v))
                return false;
            const uint64_t offset = at + d;
            if (offset > from.size() || v > from.size() - offset)
                return false;
            const size_t n = static_cast<size_t>(v);
            p.samples.assign(from.begin() + static_cast<long>(offset), from.begin() + static_cast<long>(offset + n));
            at = static_cast<size_t>(offset) + n;
        } else if (kind != 0 || !in.Count(count) || !in.Series(count, p.samples)) {
            return false;
        }
    }
    return in.Left() == 0;
}

namespace {

// How a pulse's samples are stored in version 3: own, or a run of the
// record's samples or of the raw samples at an offset.
struct PulseRun {
    uint8_t kind = 0;
    size_t offset = 0;
};

// The raw samples of a record as version 3 codes them: the raw samples, and
// after them the samples of the pulses that go on past their end. The ASK
// stream's pulses are the runs of its smoothed envelope one after another,
// and the raw samples are that envelope cut after the packet's last byte, so
// the pulses after the cut carry the rest of it. Stored as a run, a pulse
// takes no sample of its own, and the record's samples (that envelope
// smoothed again) are predicted to their end.
void ExtendRaw(const TriggerData& r, bool rawIsSamples, std::vector<int32_t>& ext, std::vector<PulseRun>& runs)
{
    ext = r.rawSamples;
    runs.assign(r.pulses.size(), PulseRun());
    size_t hint = 0, rawHint = 0;
    for (size_t i = 0; i < r.pulses.size(); ++i) {
        const std::vector<int32_t>& p = r.pulses[i].samples;
        PulseRun& run = runs[i];
        if (p.empty())
            continue;
        if (FindRun(r.samples, p, hint, run.offset)) {
            run.kind = 1;
            hint = run.offset + p.size();
            continue;
        }
        if (rawIsSamples)
            continue;
        if (!FindRun(ext, p, rawHint, run.offset)) {
            // A pulse that begins with what is left of the raw samples after
            // the previous run and goes on past them extends them.
            const size_t left = ext.size() - std::min(rawHint, ext.size());
            if (rawHint > ext.size() || p.size() <= left ||
                !std::equal(p.begin(), p.begin() + static_cast<long>(left), ext.begin() + static_cast<long>(rawHint)))
                continue;
            ext.insert(ext.end(), p.begin() + static_cast<long>(left), p.end());
            run.offset = rawHint;
        }
        run.kind = 2;
        rawHint = run.offset + p.size();
    }
}

}  // namespace

namespace {

// A version 3 payload; the samples of a record without raw samples go into
// the zstd frame as a series when `samplesInFrame` (the carrier's period
// words, which repeat, can take fewer bytes there), else into the bits.
std::vector<uint8_t> EncodePackedWith(const TriggerData& r, bool samplesInFrame)
{
    std::vector<uint8_t> out;
    std::vector<uint8_t> bits;
    out.reserve(64 + 3 * r.pulses.size());
    bits.reserve(r.samples.size() + r.rawSamples.size());
    {
        BitWriter series(bits);
        PutFields(out, r);
        const bool rawIsSamples = r.rawSamples == r.samples && !r.samples.empty();
        thread_local std::vector<int32_t> ext;
        thread_local std::vector<PulseRun> runs;
        ExtendRaw(r, rawIsSamples, ext, runs);
        PutU(out, r.rawSamples.size());
        out.push_back(rawIsSamples ? 1 : 0);
        if (!rawIsSamples) {
            PutU(out, ext.size() - r.rawSamples.size());
            samplecoding::PutSeries(series, ext.data(), 0, ext.size());
        }
        PutU(out, r.samples.size());
        const bool predicted = !rawIsSamples && !ext.empty();
        out.push_back(predicted ? 1 : 0);
        // Samples equal to the raw samples are told by the raw kind and
        // always go into the bits.
        samplesInFrame = samplesInFrame && !predicted && !rawIsSamples;
        if (predicted) {
            // Where there are raw samples, the samples are their smoothing
            // but at the ends: the differences are mostly 0. Past them, the
            // samples go on as a series.
            thread_local std::vector<int32_t> smooth;
            FivePointFilter(ext, smooth);
            const size_t both = std::min(r.samples.size(), smooth.size());
            for (size_t i = 0; i < both; ++i)
                PutZ(out, static_cast<uint64_t>(static_cast<int64_t>(r.samples[i])) -
                              static_cast<uint64_t>(static_cast<int64_t>(smooth[i])));
            samplecoding::PutSeries(series, r.samples.data(), both, r.samples.size());
        } else if (samplesInFrame) {
            out.back() = 2;
            PutSeries(out, r.samples);
        } else {
            samplecoding::PutSeries(series, r.samples.data(), 0, r.samples.size());
        }
        // Pulses, a column per field, each field against what the pulse
        // before makes likely: the ASK stream's pulses alternate in level,
        // end a duration after the one before, and are the runs of samples
        // that follow each other, so most columns come out all 0.
        PutU(out, r.pulses.size());
        for (const PulseRecord& p : r.pulses)
            PutZ(out, static_cast<uint64_t>(p.duration));
        uint8_t level = 0;
        for (const PulseRecord& p : r.pulses) {
            out.push_back(static_cast<uint8_t>(p.level ^ (level ^ 1u)));
            level = p.level;
        }
        uint64_t mark = 0;
        for (const PulseRecord& p : r.pulses) {
            PutZ(out, uint64_t{p.mark} - (mark + static_cast<uint64_t>(p.duration)));
            mark = p.mark;
        }
        uint64_t spare = 0;
        for (const PulseRecord& p : r.pulses) {
            PutZ(out, static_cast<uint64_t>(p.spare) - spare);
            spare = static_cast<uint64_t>(p.spare);
        }
        size_t hint = 0, rawHint = 0;
        for (size_t i = 0; i < r.pulses.size(); ++i) {
            const PulseRecord& p = r.pulses[i];
            const PulseRun& run = runs[i];
            out.push_back(run.kind);
            if (run.kind == 0) {
                PutU(out, p.samples.size());
                PutSeries(out, p.samples);
                continue;
            }
            size_t& at = run.kind == 1 ? hint : rawHint;
            PutZ(out, uint64_t{run.offset} - uint64_t{at});
            PutZ(out, uint64_t{p.samples.size()} - static_cast<uint64_t>(p.duration));
            at = run.offset + p.samples.size();
        }
    }
    std::vector<uint8_t> packed;
    if (!Zstd(out, packed))
        return std::vector<uint8_t>();
    packed.insert(packed.end(), bits.begin(), bits.end());
    return packed;
}

}  // namespace

std::vector<uint8_t> RecordStore::EncodePacked(const TriggerData& r)
{
    std::vector<uint8_t> best = EncodePackedWith(r, false);
    // Only a record with samples and no raw samples of its own has the choice.
    if (!r.samples.empty() && r.rawSamples.empty() && !best.empty()) {
        std::vector<uint8_t> other = EncodePackedWith(r, true);
        if (!other.empty() && other.size() < best.size())
            best.swap(other);
    }
    return best;
}

bool RecordStore::DecodePacked(const uint8_t* bytes, size_t size, TriggerData& r)
{
    r = TriggerData();
    thread_local std::vector<uint8_t> plain;
    size_t frame = 0;
    if (!Unzstd(bytes, size, frame, plain))
        return false;
    BitReader series(bytes + frame, size - frame);
    Reader in(plain.data(), plain.size());
    uint64_t v;
    if (!GetFields(in, r))
        return false;
    // A series takes at least a bit a value: counts beyond the bits left are
    // not ours.
    const uint64_t bitsLeft = 8 * static_cast<uint64_t>(size - frame);
    uint64_t rawCount, extra = 0, count;
    uint8_t rawKind, kind;
    if (!in.U(rawCount) || !in.U8(rawKind) || rawKind > 1 || (rawKind == 0 && !in.U(extra)) ||
        (rawKind == 0 && (rawCount > bitsLeft || extra > bitsLeft - rawCount)))
        return false;
    std::vector<int32_t> ext;
    if (rawKind == 0) {
        ext.resize(static_cast<size_t>(rawCount + extra));
        if (!samplecoding::GetSeries(series, ext.data(), 0, ext.size()))
            return false;
        r.rawSamples.assign(ext.begin(), ext.begin() + static_cast<long>(rawCount));
    }
    if (!in.U(count) || !in.U8(kind) || kind > 2 || (kind == 1 && (rawKind != 0 || ext.empty())) ||
        (kind == 2 && rawKind != 0))
        return false;
    if (kind == 2) {
        if (count > in.Left() || !in.Series(static_cast<size_t>(count), r.samples))
            return false;
    } else if (rawKind == 1) {
        if (rawCount != count || count == 0 || count > bitsLeft)
            return false;
        r.samples.resize(static_cast<size_t>(count));
        if (!samplecoding::GetSeries(series, r.samples.data(), 0, r.samples.size()))
            return false;
        r.rawSamples = r.samples;
    } else if (kind == 1) {
        std::vector<int32_t> smooth;
        FivePointFilter(ext, smooth);
        const size_t both = static_cast<size_t>(std::min<uint64_t>(count, smooth.size()));
        if (count - both > bitsLeft)
            return false;
        r.samples.resize(static_cast<size_t>(count));
        for (size_t i = 0; i < both; ++i) {
            uint64_t d;
            if (!in.Z(d))
                return false;
            r.samples[i] = static_cast<int32_t>(static_cast<uint64_t>(static_cast<int64_t>(smooth[i])) + d);
        }
        if (!samplecoding::GetSeries(series, r.samples.data(), both, r.samples.size()))
            return false;
    } else {
        if (count > bitsLeft)
            return false;
        r.samples.resize(static_cast<size_t>(count));
        if (!samplecoding::GetSeries(series, r.samples.data(), 0, r.samples.size()))
            return false;
    }
    // Every pulse takes five bytes of its columns at least.
    size_t pulses;
    if (!in.Count(pulses) || pulses > in.Left() / 5)
        return false;
    r.pulses.resize(pulses);
    for (PulseRecord& p : r.pulses) {
        if (!in.Z(v))
            return false;
        p.duration = static_cast<int64_t>(v);
    }
    uint8_t level = 0;
    for (PulseRecord& p : r.pulses) {
        uint8_t b;
        if (!in.U8(b))
            return false;
        p.level = static_cast<uint8_t>(b ^ (level ^ 1u));
        level = p.level;
    }
    uint64_t mark = 0;
    for (PulseRecord& p : r.pulses) {
        if (!in.Z(v))
            return false;
        p.mark = static_cast<uint32_t>(mark + static_cast<uint64_t>(p.duration) + v);
        mark = p.mark;
    }
    uint64_t spare = 0;
    for (PulseRecord& p : r.pulses) {
        if (!in.Z(v))
            return false;
        spare += v;
        p.spare = static_cast<int64_t>(spare);
    }
    size_t hint = 0, rawHint = 0;
    for (PulseRecord& p : r.pulses) {
        if (!in.U8(kind))
            return false;
        if (kind == 1 || kind == 2) {
            const std::vector<int32_t>& from = kind == 1 ? r.samples : ext;
            size_t& at = kind == 1 ? hint : rawHint;
            uint64_t d;
            if (!in.Z(d) || !in.Z(v))
                return false;
            const uint64_t offset = at + d;
            const uint64_t n = static_cast<uint64_t>(p.duration) + v;
            if (offset > from.size() || n > from.size() - offset)
                return false;
            p.samples.assign(from.begin() + static_cast<long>(offset), from.begin() + static_cast<long>(offset + n));
            at = static_cast<size_t>(offset + n);
        } else if (kind != 0 || !in.Count(count) || !in.Series(count, p.samples)) {
            return false;
        }
    }
    return in.Left() == 0 && series.AtPaddedEnd();
}

bool RecordStore::DecodePayload(uint32_t version, const uint8_t* bytes, size_t size, TriggerData& record)
{
    if (version == kVersionPlain)
        return Decode(bytes, size, record);
    if (version == kVersionCompressed)
        return DecodeCompressed(bytes, size, record);
    if (version == kVersionPacked)
        return DecodePacked(bytes, size, record);
    record = TriggerData();
    return false;
}

uint32_t RecordStore::VersionOf(const uint8_t* bytes, size_t size)
{
    return size >= kHeaderSize ? HeaderVersion(bytes) : 0;
}

std::vector<uint8_t> RecordStore::Encode(const TriggerData& r)
{
    std::vector<uint8_t> out;
    size_t estimate = 64 + 4 * (r.samples.size() + r.rawSamples.size()) + (kPulseMinBytes + 8) * r.pulses.size();
    out.reserve(estimate);
    Put64(out, r.startTime);
    Put64(out, r.endTime);
    Put64(out, static_cast<uint64_t>(r.amplitude));
    Put64(out, static_cast<uint64_t>(r.highPeriod));
    Put64(out, static_cast<uint64_t>(r.lowPeriod));
    Put64(out, static_cast<uint64_t>(r.polarity));
    Put32(out, static_cast<uint32_t>(r.samples.size()));
    PutSamples(out, r.samples.data(), r.samples.size());
    if (r.rawSamples == r.samples && !r.samples.empty()) {
        out.push_back(1);
    } else {
        out.push_back(0);
        Put32(out, static_cast<uint32_t>(r.rawSamples.size()));
        PutSamples(out, r.rawSamples.data(), r.rawSamples.size());
    }
    Put32(out, static_cast<uint32_t>(r.pulses.size()));
    size_t hint = 0;
    for (const PulseRecord& p : r.pulses) {
        Put64(out, static_cast<uint64_t>(p.duration));
        out.push_back(p.level);
        Put32(out, p.mark);
        Put64(out, static_cast<uint64_t>(p.spare));
        size_t offset = 0;
        if (!p.samples.empty() && FindRun(r.samples, p.samples, hint, offset)) {
            out.push_back(1);
            Put32(out, static_cast<uint32_t>(offset));
            Put32(out, static_cast<uint32_t>(p.samples.size()));
            hint = offset + p.samples.size();
        } else {
            out.push_back(0);
            Put32(out, static_cast<uint32_t>(p.samples.size()));
            PutSamples(out, p.samples.data(), p.samples.size());
        }
    }
    return out;
}

bool RecordStore::Decode(const uint8_t* bytes, size_t size, TriggerData& r)
{
    Reader in(bytes, size);
    r = TriggerData();
    if (!in.U64(r.startTime) || !in.U64(r.endTime) || !in.I64(r.amplitude) || !in.I64(r.highPeriod) ||
        !in.I64(r.lowPeriod) || !in.I64(r.polarity) || !in.Samples(r.samples))
        return false;
    uint8_t kind;
    if (!in.U8(kind))
        return false;
    if (kind == 1)
        r.rawSamples = r.samples;
    else if (kind != 0 || !in.Samples(r.rawSamples))
        return false;
    uint32_t count;
    if (!in.U32(count) || in.Left() / kPulseMinBytes < count)
        return false;
    r.pulses.resize(count);
    for (PulseRecord& p : r.pulses) {
        if (!in.I64(p.duration) || !in.U8(p.level) || !in.U32(p.mark) || !in.I64(p.spare) || !in.U8(kind))
            return false;
        if (kind == 1) {
            uint32_t offset, n;
            if (!in.U32(offset) || !in.U32(n) || offset > r.samples.size() || n > r.samples.size() - offset)
                return false;
            p.samples.assign(r.samples.begin() + offset, r.samples.begin() + offset + n);
        } else if (kind != 0 || !in.Samples(p.samples)) {
            return false;
        }
    }
    return in.Left() == 0;
}

bool RecordStore::Scan(const uint8_t* bytes, size_t size, std::vector<std::pair<uint64_t, Entry>>& frames,
                       uint64_t* validEnd)
{
    return Scan(bytes, size, frames, validEnd, nullptr);
}

bool RecordStore::Scan(const uint8_t* bytes, size_t size, std::vector<std::pair<uint64_t, Entry>>& frames,
                       uint64_t* validEnd, std::vector<uint64_t>* damaged)
{
    frames.clear();
    if (damaged)
        damaged->clear();
    const uint32_t version = VersionOf(bytes, size);
    if (!version)
        return false;
    const uint64_t end = WalkFrames(
        version, size,
        [bytes, size](uint64_t at, uint8_t* into, size_t n) {
            if (at > size || size - at < n)
                return false;
            std::memcpy(into, bytes + at, n);
            return true;
        },
        [&frames](uint64_t number, const Entry& e) { frames.emplace_back(number, e); },
        [damaged](uint64_t number) {
            if (damaged)
                damaged->push_back(number);
        });
    if (validEnd)
        *validEnd = end;
    return true;
}

uint32_t RecordStore::Checksum(const void* bytes, size_t n, uint32_t crc)
{
    return Crc32(crc, static_cast<const uint8_t*>(bytes), n);
}

bool RecordStore::Append(uint64_t number, const TriggerData& record, uint32_t tag)
{
    uint32_t version;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fd < 0 || !m_writable || m_failed)
            return false;
        version = m_version;
    }
    // Coded outside the lock: a reader of another record need not wait.
    const std::vector<uint8_t> payload = version == kVersionPlain        ? Encode(record)
                                         : version == kVersionCompressed ? EncodeCompressed(record)
                                                                         : EncodePacked(record);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0 || !m_writable || m_failed)
        return false;
    if (payload.size() > std::numeric_limits<uint32_t>::max() || (version != kVersionPlain && payload.empty())) {
        Log::Printf("Capture record %llu is too large to store (%zu bytes).",
                    static_cast<unsigned long long>(number), payload.size());
        return false;
    }
    const uint32_t length = static_cast<uint32_t>(payload.size());
    const size_t headerSize = version == kVersionPlain ? kFrameHeaderSize : kCompressedFrameHeaderSize;
    std::vector<uint8_t> frame;
    frame.reserve(headerSize + payload.size());
    Put32(frame, kFrameMark);
    Put64(frame, number);
    Put32(frame, tag);
    Put32(frame, length);
    uint32_t crc;
    if (version == kVersionPlain) {
        crc = Crc32(Crc32(0, frame.data() + 4, 16), payload.data(), payload.size());
        Put32(frame, crc);
    } else {
        crc = Crc32(0, payload.data(), payload.size());
        Put32(frame, crc);
        Put32(frame, Crc32(0, frame.data() + 4, 20));
    }
    frame.insert(frame.end(), payload.begin(), payload.end());
    int error = 0;
    if (!WriteAll(m_fd, frame.data(), frame.size(), m_end, error)) {
        // Cut a partial frame away so the file stays a run of whole frames; if
        // even that fails, a reader passes over the partial frame anyway.
        if (ftruncate(m_fd, static_cast<off_t>(m_end)) != 0) {
        }
        Fail("cannot write", error);
        return false;
    }
    Entry e;
    e.offset = m_end + headerSize;
    e.length = length;
    e.crc = crc;
    e.tag = tag;
    Put(number, e);
    m_damaged.erase(number);
    m_end += frame.size();
    return true;
}

TriggerDataPtr RecordStore::Load(uint64_t number, uint32_t* tag) const
{
    Entry e;
    uint32_t version;
    std::vector<uint8_t> payload;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* found = Find(number);
        if (!found || m_fd < 0)
            return nullptr;
        e = *found;
        version = m_version;
        // The frame is read under the lock: Close may run from another
        // thread and the descriptor must not change under the read.
        payload.resize(e.length);
        if (!ReadAll(m_fd, payload.data(), payload.size(), e.offset))
            return nullptr;
    }
    uint32_t crc;
    if (version == kVersionPlain) {
        uint8_t head[16];
        for (int i = 0; i < 8; ++i)
            head[i] = static_cast<uint8_t>(number >> (8 * i));
        for (int i = 0; i < 4; ++i) {
            head[8 + i] = static_cast<uint8_t>(e.tag >> (8 * i));
            head[12 + i] = static_cast<uint8_t>(e.length >> (8 * i));
        }
        crc = Crc32(Crc32(0, head, 16), payload.data(), payload.size());
    } else {
        crc = Crc32(0, payload.data(), payload.size());
    }
    auto record = std::make_shared<TriggerData>();
    if (crc != e.crc || !DecodePayload(version, payload.data(), payload.size(), *record)) {
        MarkDamaged(number);
        return nullptr;
    }
    if (tag)
        *tag = e.tag;
    return record;
}

void RecordStore::MarkDamaged(uint64_t number) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_damaged.insert(number).second)
        Log::Printf("Capture record %llu of %s is damaged; its event shows no wave.",
                    static_cast<unsigned long long>(number), m_path.c_str());
}

bool RecordStore::Tag(uint64_t number, uint32_t* tag) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Entry* found = Find(number);
    if (found && tag)
        *tag = found->tag;
    return found != nullptr;
}

bool RecordStore::Damaged(uint64_t number) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_damaged.count(number) != 0;
}

size_t RecordStore::DamagedCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_damaged.size();
}

uint32_t RecordStore::Version() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_version;
}

void RecordStore::Put(uint64_t number, const Entry& e)
{
    if (m_index.empty() || m_index.back().first < number) {
        m_index.emplace_back(number, e);
        return;
    }
    // A number seen again (a file walked with a repeated frame) takes the
    // later entry, as a map would.
    auto at = std::lower_bound(m_index.begin(), m_index.end(), number,
                               [](const std::pair<uint64_t, Entry>& x, uint64_t n) { return x.first < n; });
    if (at != m_index.end() && at->first == number)
        at->second = e;
    else
        m_index.emplace(at, number, e);
}

const RecordStore::Entry* RecordStore::Find(uint64_t number) const
{
    auto at = std::lower_bound(m_index.begin(), m_index.end(), number,
                               [](const std::pair<uint64_t, Entry>& x, uint64_t n) { return x.first < n; });
    return at != m_index.end() && at->first == number ? &at->second : nullptr;
}

bool RecordStore::Has(uint64_t number) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return Find(number) != nullptr;
}

size_t RecordStore::Count() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_index.size();
}

uint64_t RecordStore::Size() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_end;
}

bool RecordStore::Failed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_failed;
}
