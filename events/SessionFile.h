// Session records on disk: one styled Json document per event, each ended by a
// 0 byte, with no header and no trailer.
#pragma once

#include "events/MsgInfo.h"

#include <cstdio>
#include <string>
#include <vector>

// The reader's record buffer. A record longer than this is cut at the buffer's
// size (its document then does not parse and the event keeps default fields)
// and the rest of it, up to its 0 byte, is skipped.
constexpr size_t kSessionRecordBuffer = 131072;

// Reads every record of a session file into fresh events, numbering id,
// FirstEventNumber and lastEventNumber from 1. A damaged record gives an event
// with default fields and the reading goes on; a last record without its 0
// byte still counts. Returns false if the file cannot be opened.
bool ReadSessionFile(const std::string& path, std::vector<MsgInfoPtr>& events);

// Reads a session file to show it: as ReadSessionFile, but a file that cannot
// be opened, or in which not one record is an event record (an empty file, a
// text file, a session cut inside its first record), is refused with a message
// in `error` that names the file and says what was expected; `events` is then
// left empty. A session whose later records are damaged reads as above.
bool OpenSessionFile(const std::string& path, std::vector<MsgInfoPtr>& events, std::string& error);
// The same, with the byte offset at which each event's record begins in the
// file (offsets[i] for events[i]): where ReadSessionRecordAt reads it again.
bool OpenSessionFile(const std::string& path, std::vector<MsgInfoPtr>& events, std::string& error,
                     std::vector<uint64_t>* offsets);

// The same from bytes already in memory.
std::vector<MsgInfoPtr> ReadSessionRecords(const uint8_t* bytes, size_t size);

// Writes one record, its 0 byte, and flushes. Nothing happens on a null stream.
// Returns the bytes written when the whole record reached the file, 0 when it
// did not (a null stream, a full disk).
size_t WriteSessionRecord(std::FILE* stream, const MsgInfo& event);

// Reads the one record that begins at a byte offset of a session file into an
// event, as the reading of the whole file gives it but unnumbered. Null when
// the file cannot be read there or holds no whole record there (no 0 byte
// before the end).
MsgInfoPtr ReadSessionRecordAt(const std::string& path, uint64_t offset);
