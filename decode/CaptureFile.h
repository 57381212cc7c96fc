// Raw capture files: the bytes of a data port written as they arrive, before
// any parsing, so that a link can be replayed through the parsers later.
#pragma once

#include <cstdio>
#include <string>

// Creates `capturePath` + local time "%Y_%m_%d %H_%M_%S" + suffix (".2k.bin"
// or ".fsk.bin"), new: a name already taken gets "_2", "_3" ... after the
// time, so that no capture empties another. With withHeader, first writes the 40-byte
// header: "kestro", two zero bytes, then the local date and time as
// "%d-%02d-%02d %02d:%02d:%02d" zero-padded to 32 bytes. Null on failure.
std::FILE* OpenCaptureFile(const std::string& capturePath, const char* suffix, bool withHeader);

// A capture file that already holds stream bytes past its header is closed
// and a new one opened in its place: each acquisition gets files of its own,
// whose frames are stamped from its start. An empty one stays.
void RenewCaptureFile(std::FILE*& file, const std::string& capturePath, const char* suffix, bool withHeader);

// Size of the optional header.
constexpr size_t kCaptureHeaderBytes = 40;

// True when the bytes begin with the capture header's magic.
bool HasCaptureHeader(const unsigned char* bytes, size_t size);

// Where the stream frames begin in a capture file's stream bytes (the header
// already skipped). A file may begin inside a frame, and the frame parser takes
// whatever comes first as a length: fed from a wrong offset it stays off the
// frame grid. The reader therefore looks for the first byte offset from which
// frames chain: payload lengths that are even and fit a stream frame, time
// stamps that never go backwards, each header exactly where the one before
// ends, for several frames in a row (or up to the end of a short file, with at
// least one whole frame). Returns 0 when no offset chains, so the bytes are fed
// as they are.
size_t FirstChainedFrame(const unsigned char* bytes, size_t size);
