#include "decode/CaptureFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

std::FILE* OpenCaptureFile(const std::string& capturePath, const char* suffix, bool withHeader)
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y_%m_%d %H_%M_%S", &local);
    // A file is never opened over another: a second capture within the same
    // second (a reconnect, or the next acquisition of a connection) gets the
    // name with "_2", "_3" ... after the time instead of emptying the first.
    std::FILE* file = nullptr;
    for (int n = 1; n < 100 && !file; ++n) {
        const std::string name =
            capturePath + stamp + (n == 1 ? std::string() : "_" + std::to_string(n)) + suffix;
        file = std::fopen(name.c_str(), "wbx");
        if (!file && errno != EEXIST)
            return nullptr;
    }
    if (!file)
        return nullptr;
    // Each chunk is flushed as it is written; without a stdio buffer it goes
    // out in one write, not cut where a buffer would fill.
    std::setvbuf(file, nullptr, _IONBF, 0);
    if (withHeader) {
        unsigned char header[kCaptureHeaderBytes] = {};
        std::memcpy(header, "kestro", 6);
        char text[64] = {};
        std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        // 32 bytes, zero-terminated, the rest zero.
        std::memcpy(header + 8, text, 31);
        std::fwrite(header, 1, sizeof header, file);
        std::fflush(file);
    }
    return file;
}

void RenewCaptureFile(std::FILE*& file, const std::string& capturePath, const char* suffix, bool withHeader)
{
    if (!file)
        return;
    const long at = std::ftell(file);
    if (at >= 0 && at <= static_cast<long>(withHeader ? kCaptureHeaderBytes : 0))
        return;
    std::fclose(file);
    file = OpenCaptureFile(capturePath, suffix, withHeader);
}

bool HasCaptureHeader(const unsigned char* bytes, size_t size)
{
    return size >= kCaptureHeaderBytes && std::memcmp(bytes, "kestro\0\0", 8) == 0;
}

namespace {

// A stream frame carries 5 ms of samples or periods; anything above this is
// not a length the device sends.
constexpr uint32_t kMaxFramePayloadBytes = 1u << 16;
// Frames in a row that must chain, and the largest step of the device's
// millisecond stamp between two frames.
constexpr int kFramesToChain = 4;
constexpr uint32_t kMaxStampStepMs = 10000;

uint32_t DwordAt(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

bool ChainsFrom(const unsigned char* bytes, size_t size, size_t at)
{
    int whole = 0;
    uint32_t lastStamp = 0;
    while (whole < kFramesToChain) {
        if (at == size)
            return whole > 0;
        if (size - at < 8)
            return false;  // a header cut short is no proof
        const uint32_t length = DwordAt(bytes + at);
        const uint32_t stamp = DwordAt(bytes + at + 4);
        if (length < 2 || length > kMaxFramePayloadBytes || length % 2 != 0)
            return false;
        if (whole > 0 && (stamp < lastStamp || stamp - lastStamp > kMaxStampStepMs))
            return false;
        lastStamp = stamp;
        if (size - at - 8 < length)
            return whole > 0;  // the file ends inside this frame
        at += 8 + length;
        ++whole;
    }
    return true;
}

}  // namespace

size_t FirstChainedFrame(const unsigned char* bytes, size_t size)
{
    const size_t last = std::min<size_t>(size, kMaxFramePayloadBytes + 8);
    for (size_t at = 0; at < last; ++at)
        if (ChainsFrom(bytes, size, at))
            return at;
    return 0;
}
