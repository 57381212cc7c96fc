// Raw capture files: the bytes of a data port written as they arrive, before
// any parsing, so that a link can be replayed through the parsers later.
#pragma once

#include <cstdio>
#include <string>

// Creates `capturePath` + local time "%Y_%m_%d %H_%M_%S" + suffix (".2k.bin"
// or ".fsk.bin") with mode "wb". With withHeader, first writes the 40-byte
// header: "kestro", two zero bytes, then the local date and time as
// "%d-%02d-%02d %02d:%02d:%02d" zero-padded to 32 bytes. Null on failure.
std::FILE* OpenCaptureFile(const std::string& capturePath, const char* suffix, bool withHeader);

// Size of the optional header.
constexpr size_t kCaptureHeaderBytes = 40;

// True when the bytes begin with the capture header's magic.
bool HasCaptureHeader(const unsigned char* bytes, size_t size);
