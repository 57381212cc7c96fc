#include "decode/CaptureFile.h"

#include <cstring>
#include <ctime>

std::FILE* OpenCaptureFile(const std::string& capturePath, const char* suffix, bool withHeader)
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y_%m_%d %H_%M_%S", &local);
    const std::string name = capturePath + stamp + suffix;
    std::FILE* file = std::fopen(name.c_str(), "wb");
    if (!file)
        return nullptr;
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

bool HasCaptureHeader(const unsigned char* bytes, size_t size)
{
    return size >= kCaptureHeaderBytes && std::memcmp(bytes, "kestro\0\0", 8) == 0;
}
