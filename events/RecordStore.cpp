#include "events/RecordStore.h"

#include "services/Log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

// Payload of one record:
//   u64 startTime, u64 endTime, i64 amplitude, i64 highPeriod, i64 lowPeriod,
//   i64 polarity
//   samples:     u32 count, count x i32
//   rawSamples:  u8 kind: 0 = own (u32 count, count x i32), 1 = equal to samples
//   u32 pulse count, then per pulse:
//     i64 duration, u8 level, u32 mark, i64 spare,
//     u8 kind: 0 = own samples (u32 count, count x i32),
//              1 = a run of the record's samples (u32 offset, u32 count)

namespace {

constexpr char kMagic[8] = {'C', 'S', 'R', 'E', 'C', 'O', 'R', 'D'};
constexpr uint32_t kVersion = 1;
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

using ReadAt = std::function<bool(uint64_t offset, uint8_t* into, size_t n)>;

// Walks the frames after the header; each whole frame whose checksum holds is
// handed to `found`. Returns the end of the last valid frame.
uint64_t WalkFrames(uint64_t size, const ReadAt& read,
                    const std::function<void(uint64_t number, const RecordStore::Entry&)>& found)
{
    uint64_t at = RecordStore::kHeaderSize;
    std::vector<uint8_t> chunk(65536);
    while (size - at >= RecordStore::kFrameHeaderSize) {
        uint8_t head[RecordStore::kFrameHeaderSize];
        if (!read(at, head, sizeof head) || Get32(head) != kFrameMark)
            break;
        const uint64_t number = Get64(head + 4);
        const uint32_t tag = Get32(head + 12);
        const uint32_t length = Get32(head + 16);
        const uint32_t crc = Get32(head + 20);
        const uint64_t payload = at + RecordStore::kFrameHeaderSize;
        if (size - payload < length)
            break;
        uint32_t check = Crc32(0, head + 4, 16);
        bool readable = true;
        for (uint64_t done = 0; done < length;) {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), length - done));
            if (!read(payload + done, chunk.data(), n)) {
                readable = false;
                break;
            }
            check = Crc32(check, chunk.data(), n);
            done += n;
        }
        if (!readable || check != crc)
            break;
        RecordStore::Entry e;
        e.offset = payload;
        e.length = length;
        e.crc = crc;
        e.tag = tag;
        found(number, e);
        at = payload + length;
    }
    return at;
}

bool HeaderValid(const uint8_t* h)
{
    return std::memcmp(h, kMagic, sizeof kMagic) == 0 && Get32(h + 8) == kVersion;
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
    m_index.clear();
}

void RecordStore::Fail(const char* what, int error)
{
    if (!m_failed)
        Log::Printf("Capture records are no longer stored (%s %s: %s).", what, m_path.c_str(), std::strerror(error));
    m_failed = true;
}

bool RecordStore::Create(const std::string& path)
{
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
    uint8_t header[kHeaderSize] = {};
    std::memcpy(header, kMagic, sizeof kMagic);
    for (int i = 0; i < 4; ++i)
        header[8 + i] = static_cast<uint8_t>(kVersion >> (8 * i));
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
        !ReadAll(m_fd, header, sizeof header, 0) || !HeaderValid(header)) {
        ::close(m_fd);
        m_fd = -1;
        return false;
    }
    const int fd = m_fd;
    m_end = WalkFrames(
        static_cast<uint64_t>(st.st_size), [fd](uint64_t at, uint8_t* into, size_t n) { return ReadAll(fd, into, n, at); },
        [this](uint64_t number, const Entry& e) { Put(number, e); });
    return true;
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
    frames.clear();
    if (size < kHeaderSize || !HeaderValid(bytes))
        return false;
    const uint64_t end = WalkFrames(
        size,
        [bytes, size](uint64_t at, uint8_t* into, size_t n) {
            if (at > size || size - at < n)
                return false;
            std::memcpy(into, bytes + at, n);
            return true;
        },
        [&frames](uint64_t number, const Entry& e) { frames.emplace_back(number, e); });
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
    std::vector<uint8_t> payload = Encode(record);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0 || !m_writable || m_failed)
        return false;
    if (payload.size() > std::numeric_limits<uint32_t>::max()) {
        Log::Printf("Capture record %llu is too large to store (%zu bytes).",
                    static_cast<unsigned long long>(number), payload.size());
        return false;
    }
    const uint32_t length = static_cast<uint32_t>(payload.size());
    std::vector<uint8_t> frame;
    frame.reserve(kFrameHeaderSize + payload.size());
    Put32(frame, kFrameMark);
    Put64(frame, number);
    Put32(frame, tag);
    Put32(frame, length);
    const uint32_t crc = Crc32(Crc32(0, frame.data() + 4, 16), payload.data(), payload.size());
    Put32(frame, crc);
    frame.insert(frame.end(), payload.begin(), payload.end());
    int error = 0;
    if (!WriteAll(m_fd, frame.data(), frame.size(), m_end, error)) {
        // Cut a partial frame away so the file stays a run of whole frames; if
        // even that fails, a reader stops at the partial frame anyway.
        if (ftruncate(m_fd, static_cast<off_t>(m_end)) != 0) {
        }
        Fail("cannot write", error);
        return false;
    }
    Entry e;
    e.offset = m_end + kFrameHeaderSize;
    e.length = length;
    e.crc = crc;
    e.tag = tag;
    Put(number, e);
    m_end += frame.size();
    return true;
}

TriggerDataPtr RecordStore::Load(uint64_t number, uint32_t* tag) const
{
    Entry e;
    int fd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* found = Find(number);
        if (!found || m_fd < 0)
            return nullptr;
        e = *found;
        fd = m_fd;
        // The frame is read under the lock as well: Close may run from
        // another thread and the descriptor must not change under the read.
        std::vector<uint8_t> payload(e.length);
        if (!ReadAll(fd, payload.data(), payload.size(), e.offset))
            return nullptr;
        uint8_t head[16];
        for (int i = 0; i < 8; ++i)
            head[i] = static_cast<uint8_t>(number >> (8 * i));
        for (int i = 0; i < 4; ++i) {
            head[8 + i] = static_cast<uint8_t>(e.tag >> (8 * i));
            head[12 + i] = static_cast<uint8_t>(e.length >> (8 * i));
        }
        if (Crc32(Crc32(0, head, 16), payload.data(), payload.size()) != e.crc)
            return nullptr;
        auto record = std::make_shared<TriggerData>();
        if (!Decode(payload.data(), payload.size(), *record))
            return nullptr;
        if (tag)
            *tag = e.tag;
        return record;
    }
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
