// The capture records of a session on disk: a file beside the session's .sid
// that the event window appends to as events are written, so that the tree
// need not keep every event's pulses and samples in memory.
//
// Layout, all numbers little-endian:
//   header   8 bytes "CSRECORD", 4 bytes format version (1), 4 bytes 0
//   frames   one per record:
//              4 bytes frame mark 0x46525343 ("CSRF")
//              8 bytes record number
//              4 bytes tag of the event the record belongs to
//              4 bytes payload length
//              4 bytes CRC-32 of the number, the tag, the length and the payload
//              payload (see RecordStore.cpp)
//
// The record number is the record's place in the .sid (1 for its first
// record), which is also the number a .sid read back gives its events. A
// pulse whose samples are a run of its burst's samples is stored as an offset
// and a count into them, so shared samples take their room once.
//
// The index (number to offset and length) is in memory; opening an existing
// file rebuilds it by reading the frames up to the first one that is cut short
// or damaged. A write fault (disk full, folder or file not writable) makes the
// store refuse every later append, told once in the application log; records
// it could not store load as null.
#pragma once

#include "common/TriggerData.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <deque>
#include <vector>

class RecordStore {
public:
    RecordStore() = default;
    ~RecordStore();
    RecordStore(const RecordStore&) = delete;
    RecordStore& operator=(const RecordStore&) = delete;

    // A new, empty file for appending (an existing one is replaced). False,
    // with the fault logged, if it cannot be made; the store then refuses.
    bool Create(const std::string& path);
    // An existing file, read only: the index is rebuilt from its frames.
    // False if it cannot be opened or has no valid header.
    bool Open(const std::string& path);
    void Close();

    // Stores one record under its number (a later record of the same number
    // replaces the earlier one in the index), with a tag that tells which
    // event it belongs to. False if the store is closed, read only, has
    // failed before, or the write fails now.
    bool Append(uint64_t number, const TriggerData& record, uint32_t tag = 0);
    // The record stored under the number (and its tag), or null if there is
    // none or its bytes no longer check.
    TriggerDataPtr Load(uint64_t number, uint32_t* tag = nullptr) const;
    bool Has(uint64_t number) const;

    size_t Count() const;
    // Bytes of the file that hold valid frames (header included).
    uint64_t Size() const;
    bool Failed() const;
    const std::string& Path() const { return m_path; }

    // The name of the record file that belongs beside a .sid: its path with
    // ".sid" (or whatever follows the last dot of the name) replaced by ".rec".
    static std::string PathBeside(const std::string& sidPath);

    // Encoding of one record's payload, and its decoding: false on bytes that
    // do not make a whole, consistent record (nothing is read out of bounds).
    static std::vector<uint8_t> Encode(const TriggerData& record);
    static bool Decode(const uint8_t* bytes, size_t size, TriggerData& record);
    // Reads every whole frame of a file's bytes: the record numbers and their
    // (offset, length) of payload; stops at the first damage. False if the
    // header is not valid.
    struct Entry {
        uint64_t offset = 0;  // of the payload
        uint32_t length = 0;
        uint32_t crc = 0;
        uint32_t tag = 0;
    };
    static bool Scan(const uint8_t* bytes, size_t size, std::vector<std::pair<uint64_t, Entry>>& frames,
                     uint64_t* validEnd = nullptr);

    static constexpr size_t kHeaderSize = 16;
    static constexpr size_t kFrameHeaderSize = 24;

    // CRC-32 (the polynomial of zip and PNG), continued from crc.
    static uint32_t Checksum(const void* bytes, size_t n, uint32_t crc = 0);

private:
    void Fail(const char* what, int error);
    // The index: entries by record number, in number order. Records are
    // numbered in the order they are appended, so an entry almost always goes
    // at the end; a deque keeps 32 bytes a record with no hash nodes and no
    // doubling of a vector that has grown over hours.
    void Put(uint64_t number, const Entry& e);
    const Entry* Find(uint64_t number) const;

    int m_fd = -1;
    bool m_writable = false;
    bool m_failed = false;
    uint64_t m_end = 0;
    std::string m_path;
    std::deque<std::pair<uint64_t, Entry>> m_index;
    mutable std::mutex m_mutex;
};
