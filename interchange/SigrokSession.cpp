#include "interchange/SigrokSession.h"

#include <zip.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace interchange {

const SigrokChannel* SigrokCapture::Find(const std::string& name) const
{
    for (const SigrokChannel& c : channels)
        if (c.name == name)
            return &c;
    return nullptr;
}

bool SigrokCapture::Bit(const SigrokChannel& channel, size_t sample) const
{
    if (channel.analog || channel.number < 1 || unitsize == 0)
        return false;
    const unsigned bit = static_cast<unsigned>(channel.number - 1);
    if (bit / 8 >= unitsize)
        return false;
    const size_t at = sample * unitsize + bit / 8;
    if (sample >= LogicSamples() || at >= logic.size())
        return false;
    return (logic[at] >> (bit % 8)) & 1u;
}

size_t SigrokCapture::Samples(const SigrokChannel& channel) const
{
    if (!channel.analog)
        return LogicSamples();
    const auto it = analog.find(channel.number);
    return it == analog.end() ? 0 : it->second.size();
}

std::string SigrokCapture::ChannelList() const
{
    std::string list;
    for (const SigrokChannel& c : channels) {
        if (!list.empty())
            list += ", ";
        list += c.name + (c.analog ? " (analog)" : " (logic)");
    }
    return list.empty() ? std::string("none") : list;
}

std::string SamplerateText(uint64_t hz)
{
    char text[48];
    if (hz >= 1000000000ull && hz % 1000000000ull == 0)
        std::snprintf(text, sizeof text, "%llu GHz", static_cast<unsigned long long>(hz / 1000000000ull));
    else if (hz >= 1000000 && hz % 1000000 == 0)
        std::snprintf(text, sizeof text, "%llu MHz", static_cast<unsigned long long>(hz / 1000000));
    else if (hz >= 1000 && hz % 1000 == 0)
        std::snprintf(text, sizeof text, "%llu kHz", static_cast<unsigned long long>(hz / 1000));
    else
        std::snprintf(text, sizeof text, "%llu Hz", static_cast<unsigned long long>(hz));
    return text;
}

uint64_t ParseSamplerate(const std::string& text)
{
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    double value = 0.0;
    bool digits = false;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        value = value * 10.0 + (text[i] - '0');
        digits = true;
        ++i;
        if (value > 1e18)
            return 0;
    }
    if (i < text.size() && text[i] == '.') {
        double scale = 0.1;
        for (++i; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i, scale /= 10.0) {
            value += (text[i] - '0') * scale;
            digits = true;
        }
    }
    if (!digits)
        return 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    if (i < text.size()) {
        switch (text[i]) {
        case 'k': case 'K': value *= 1e3; break;
        case 'm': case 'M': value *= 1e6; break;
        case 'g': case 'G': value *= 1e9; break;
        case 'h': case 'H': break;
        default: return 0;
        }
    }
    if (!(value >= 1.0) || value > 1e15)
        return 0;
    return static_cast<uint64_t>(std::llround(value));
}

namespace {

std::string Trim(const std::string& s)
{
    size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a])))
        ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1])))
        --b;
    return s.substr(a, b - a);
}

// A whole number of at most nine digits after `prefix`, or -1.
int NumberAfter(const std::string& key, const char* prefix)
{
    const size_t n = std::strlen(prefix);
    if (key.size() <= n || key.size() > n + 9 || key.compare(0, n, prefix) != 0)
        return -1;
    int v = 0;
    for (size_t i = n; i < key.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(key[i])))
            return -1;
        v = v * 10 + (key[i] - '0');
    }
    return v;
}

// The keys of the first device section of the metadata that names a capture
// file or analog channels.
struct Metadata {
    int device = 0;
    std::string capturefile;
    uint64_t samplerate = 0;
    std::string samplerateText;
    int totalProbes = 0;
    int totalAnalog = 0;
    unsigned unitsize = 0;
    std::map<int, std::string> probes, analogs;
};

bool ParseMetadata(const std::string& text, Metadata& meta)
{
    bool inDevice = false, done = false, any = false;
    size_t at = 0;
    while (at < text.size() && !done) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = Trim(text.substr(at, end - at));
        at = end + 1;
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line[0] == '[') {
            if (inDevice && any)
                done = true;  // the first device section is the one read
            else {
                const size_t close = line.find(']');
                const int n = NumberAfter(line.substr(1, close == std::string::npos ? std::string::npos : close - 1),
                                          "device ");
                inDevice = n > 0;
                meta.device = n > 0 ? n : meta.device;
            }
            continue;
        }
        if (!inDevice)
            continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = Trim(line.substr(0, eq));
        const std::string value = Trim(line.substr(eq + 1));
        any = true;
        if (key == "capturefile")
            meta.capturefile = value;
        else if (key == "samplerate") {
            meta.samplerateText = value;
            meta.samplerate = ParseSamplerate(value);
        } else if (key == "total probes")
            meta.totalProbes = std::atoi(value.c_str());
        else if (key == "total analog")
            meta.totalAnalog = std::atoi(value.c_str());
        else if (key == "unitsize")
            meta.unitsize = static_cast<unsigned>(std::max(0, std::atoi(value.c_str())));
        else if (NumberAfter(key, "probe") > 0)
            meta.probes[NumberAfter(key, "probe")] = value;
        else if (NumberAfter(key, "analog") > 0)
            meta.analogs[NumberAfter(key, "analog")] = value;
    }
    return inDevice || any;
}

struct ZipCloser {
    void operator()(zip_t* z) const { zip_discard(z); }
};
using ZipPtr = std::unique_ptr<zip_t, ZipCloser>;

enum class Entry { kMissing, kRead, kDamaged, kTooBig };

// Reads one entry whole, within the budget of uncompressed bytes left.
Entry ReadEntry(zip_t* zip, const std::string& name, std::vector<uint8_t>& out, uint64_t& budget)
{
    zip_file_t* f = zip_fopen(zip, name.c_str(), 0);
    if (!f)
        return zip_name_locate(zip, name.c_str(), 0) < 0 ? Entry::kMissing : Entry::kDamaged;
    uint8_t buffer[65536];
    Entry result = Entry::kRead;
    for (;;) {
        const zip_int64_t n = zip_fread(f, buffer, sizeof buffer);
        if (n < 0) {
            result = Entry::kDamaged;
            break;
        }
        if (n == 0)
            break;
        if (static_cast<uint64_t>(n) > budget) {
            result = Entry::kTooBig;
            break;
        }
        budget -= static_cast<uint64_t>(n);
        out.insert(out.end(), buffer, buffer + n);
    }
    zip_fclose(f);
    return result;
}

bool ReadArchive(zip_t* zip, SigrokCapture& capture, std::string& error, uint64_t maxSampleBytes)
{
    uint64_t budget = 1 << 20;  // version and metadata
    std::vector<uint8_t> version, metadata;
    if (ReadEntry(zip, "metadata", metadata, budget) != Entry::kRead) {
        error = "not a sigrok session (no metadata in the archive)";
        return false;
    }
    // Version 1 sessions have no version entry and name their logic file
    // without a chunk number; 2 is what sigrok writes today.
    const Entry v = ReadEntry(zip, "version", version, budget);
    const std::string versionText = Trim(std::string(version.begin(), version.end()));
    if (v == Entry::kDamaged || (v == Entry::kRead && versionText != "1" && versionText != "2")) {
        error = "not a sigrok session this program reads (version \"" + versionText.substr(0, 16) + "\")";
        return false;
    }
    Metadata meta;
    if (!ParseMetadata(std::string(metadata.begin(), metadata.end()), meta) ||
        (meta.probes.empty() && meta.analogs.empty())) {
        error = "not a sigrok session (its metadata names no channel)";
        return false;
    }
    if (meta.samplerate == 0) {
        error = "the sigrok session gives no sample rate" +
                (meta.samplerateText.empty() ? std::string() : " it can read (\"" + meta.samplerateText.substr(0, 32) + "\")");
        return false;
    }
    capture = SigrokCapture();
    capture.samplerate = meta.samplerate;
    unsigned unitsize = meta.unitsize;
    if (unitsize == 0)
        unitsize = static_cast<unsigned>((std::max(1, std::min(64, meta.totalProbes)) + 7) / 8);
    if (unitsize < 1 || unitsize > 8) {
        error = "the sigrok session's unit size " + std::to_string(unitsize) + " is not one of 1 to 8 bytes";
        return false;
    }
    capture.unitsize = unitsize;
    for (const auto& p : meta.probes) {
        if (p.first <= static_cast<int>(unitsize * 8))
            capture.channels.push_back({p.second, false, p.first});
    }
    for (const auto& a : meta.analogs)
        capture.channels.push_back({a.second, true, a.first});

    budget = maxSampleBytes;
    auto readChunks = [&](const std::string& base, std::vector<uint8_t>& into) -> bool {
        bool any = false;
        for (int chunk = 1;; ++chunk) {
            const Entry e = ReadEntry(zip, base + "-" + std::to_string(chunk), into, budget);
            if (e == Entry::kMissing)
                break;
            if (e != Entry::kRead) {
                error = e == Entry::kTooBig ? "the sigrok session holds more samples than this program takes ("
                                                  + std::to_string(maxSampleBytes >> 20) + " MiB)"
                                            : "the sigrok session's entry " + base + "-" + std::to_string(chunk) +
                                                  " is damaged";
                return false;
            }
            any = true;
        }
        if (!any) {
            const Entry e = ReadEntry(zip, base, into, budget);
            if (e == Entry::kDamaged || e == Entry::kTooBig) {
                error = "the sigrok session's entry " + base + " is damaged or too large";
                return false;
            }
        }
        return true;
    };
    if (!meta.probes.empty()) {
        const std::string file = meta.capturefile.empty() ? "logic-1" : meta.capturefile;
        if (file.size() > 200 || !readChunks(file, capture.logic))
            return error.empty() ? (error = "the sigrok session's capture file name is too long", false) : false;
        capture.logic.resize(capture.logic.size() / unitsize * unitsize);
    }
    const int device = meta.device > 0 ? meta.device : 1;
    for (const auto& a : meta.analogs) {
        std::vector<uint8_t> raw;
        if (!readChunks("analog-" + std::to_string(device) + "-" + std::to_string(a.first), raw))
            return false;
        std::vector<float>& values = capture.analog[a.first];
        values.resize(raw.size() / 4);
        for (size_t i = 0; i < values.size(); ++i) {
            const uint32_t bits = static_cast<uint32_t>(raw[4 * i]) | (static_cast<uint32_t>(raw[4 * i + 1]) << 8) |
                                  (static_cast<uint32_t>(raw[4 * i + 2]) << 16) |
                                  (static_cast<uint32_t>(raw[4 * i + 3]) << 24);
            std::memcpy(&values[i], &bits, 4);
        }
    }
    return true;
}

std::string ZipErrorText(int code)
{
    zip_error_t e;
    zip_error_init_with_code(&e, code);
    std::string text = zip_error_strerror(&e);
    zip_error_fini(&e);
    return text;
}

}  // namespace

bool ReadSigrokSession(const uint8_t* bytes, size_t size, SigrokCapture& capture, std::string& error,
                       uint64_t maxSampleBytes)
{
    error.clear();
    zip_error_t zerr;
    zip_error_init(&zerr);
    zip_source_t* source = zip_source_buffer_create(size ? static_cast<const void*>(bytes) : "", size, 0, &zerr);
    if (!source) {
        zip_error_fini(&zerr);
        error = "not a sigrok session (cannot read the bytes as an archive)";
        return false;
    }
    zip_t* raw = zip_open_from_source(source, ZIP_RDONLY | ZIP_CHECKCONS, &zerr);
    if (!raw) {
        zip_source_free(source);
        zip_error_fini(&zerr);
        error = "not a sigrok session (not a zip archive)";
        return false;
    }
    zip_error_fini(&zerr);
    ZipPtr zip(raw);
    return ReadArchive(zip.get(), capture, error, maxSampleBytes);
}

bool ReadSigrokSession(const std::string& path, SigrokCapture& capture, std::string& error)
{
    error.clear();
    int code = 0;
    zip_t* raw = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &code);
    if (!raw) {
        std::FILE* probe = std::fopen(path.c_str(), "rb");
        if (!probe) {
            error = "cannot open " + path;
            return false;
        }
        std::fclose(probe);
        error = path + " is not a sigrok session (not a zip archive: " + ZipErrorText(code) + ")";
        return false;
    }
    ZipPtr zip(raw);
    if (!ReadArchive(zip.get(), capture, error, kMaxSampleBytes)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

bool WriteSigrokSession(const std::string& path, const SigrokCapture& capture, std::string& error)
{
    error.clear();
    int code = 0;
    zip_t* raw = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
    if (!raw) {
        error = "cannot write " + path + ": " + ZipErrorText(code);
        return false;
    }
    ZipPtr zip(raw);

    // Logic channels first, then analog ones, numbered on from the logic
    // channels as sigrok numbers them.
    std::vector<const SigrokChannel*> logic, analog;
    for (const SigrokChannel& c : capture.channels)
        (c.analog ? analog : logic).push_back(&c);
    const unsigned unitsize = std::max(1u, capture.unitsize);
    const int totalProbes = logic.empty() ? 0 : static_cast<int>(unitsize * 8);

    std::string meta = "[global]\nsigrok version=0.5.2\n\n[device 1]\n";
    if (!logic.empty())
        meta += "capturefile=logic-1\ntotal probes=" + std::to_string(totalProbes) + "\n";
    meta += "samplerate=" + SamplerateText(capture.samplerate) + "\n";
    if (!analog.empty())
        meta += "total analog=" + std::to_string(analog.size()) + "\n";
    for (const SigrokChannel* c : logic)
        meta += "probe" + std::to_string(c->number) + "=" + c->name + "\n";
    std::vector<int> analogNumbers;
    for (size_t i = 0; i < analog.size(); ++i) {
        const int n = totalProbes + 1 + static_cast<int>(i);
        analogNumbers.push_back(n);
        meta += "analog" + std::to_string(n) + "=" + analog[i]->name + "\n";
    }
    if (!logic.empty())
        meta += "unitsize=" + std::to_string(unitsize) + "\n";

    // The entries' bytes must live until the archive is closed.
    std::vector<std::vector<uint8_t>> buffers;
    buffers.reserve(4 + capture.analog.size() * 64 + capture.logic.size() / (1 << 22));
    auto add = [&](const std::string& name, std::vector<uint8_t> bytes) -> bool {
        buffers.push_back(std::move(bytes));
        const std::vector<uint8_t>& b = buffers.back();
        zip_source_t* src = zip_source_buffer(zip.get(), b.empty() ? nullptr : b.data(), b.size(), 0);
        if (!src)
            return false;
        const zip_int64_t index = zip_file_add(zip.get(), name.c_str(), src, ZIP_FL_OVERWRITE | ZIP_FL_ENC_UTF_8);
        if (index < 0) {
            zip_source_free(src);
            return false;
        }
        zip_set_file_compression(zip.get(), static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE, 0);
        return true;
    };
    bool ok = add("version", {'2'}) && add("metadata", std::vector<uint8_t>(meta.begin(), meta.end()));

    // Chunks of up to 4 MiB of samples, as sigrok writes a long capture.
    constexpr size_t kChunk = 4u << 20;
    if (ok && !logic.empty()) {
        int chunk = 1;
        for (size_t at = 0; ok && (at < capture.logic.size() || chunk == 1); at += kChunk, ++chunk) {
            const size_t n = std::min(kChunk, capture.logic.size() - std::min(at, capture.logic.size()));
            ok = add("logic-1-" + std::to_string(chunk),
                     std::vector<uint8_t>(capture.logic.begin() + static_cast<std::ptrdiff_t>(at),
                                          capture.logic.begin() + static_cast<std::ptrdiff_t>(at + n)));
            if (at + n >= capture.logic.size())
                break;
        }
    }
    for (size_t i = 0; ok && i < analog.size(); ++i) {
        const auto it = capture.analog.find(analog[i]->number);
        static const std::vector<float> none;
        const std::vector<float>& values = it == capture.analog.end() ? none : it->second;
        const size_t perChunk = kChunk / 4;
        int chunk = 1;
        for (size_t at = 0; ok; at += perChunk, ++chunk) {
            const size_t n = std::min(perChunk, values.size() - std::min(at, values.size()));
            std::vector<uint8_t> bytes(n * 4);
            for (size_t k = 0; k < n; ++k) {
                uint32_t bits = 0;
                std::memcpy(&bits, &values[at + k], 4);
                bytes[4 * k] = static_cast<uint8_t>(bits);
                bytes[4 * k + 1] = static_cast<uint8_t>(bits >> 8);
                bytes[4 * k + 2] = static_cast<uint8_t>(bits >> 16);
                bytes[4 * k + 3] = static_cast<uint8_t>(bits >> 24);
            }
            ok = add("analog-1-" + std::to_string(analogNumbers[i]) + "-" + std::to_string(chunk), std::move(bytes));
            if (at + n >= values.size())
                break;
        }
    }
    if (!ok) {
        error = "cannot write " + path + ": " + zip_strerror(zip.get());
        return false;
    }
    zip_t* closing = zip.release();
    if (zip_close(closing) != 0) {
        error = "cannot write " + path + ": " + zip_strerror(closing);
        zip_discard(closing);
        return false;
    }
    return true;
}

}  // namespace interchange
