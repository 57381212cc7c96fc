// The capture records of a session on disk: a file beside the session's .sid
// that the event window appends to as events are written, so that the tree
// need not keep every event's pulses and samples in memory.
//
// Layout, all numbers little-endian:
//   header   8 bytes "CSRECORD", 4 bytes format version, 4 bytes 0
//   frames   one per record.
//
// Version 3 (written now): each record coded on its own, so that one record
// loads without its neighbours; frames as in version 2, the payload a zstd
// frame of the record's fields and pulses followed by the Rice-coded bits of
// its sample series (RecordStore.cpp, SampleCoding.h).
// Version 2 (still read, and written on request): each record compressed on
// its own.
//              4 bytes frame mark 0x46525343 ("CSRF")
//              8 bytes record number
//              4 bytes tag of the event the record belongs to
//              4 bytes payload length
//              4 bytes CRC-32 of the payload
//              4 bytes CRC-32 of the number, the tag, the length and the
//                      payload's CRC
//              payload: one zstd frame of the record's fields and samples,
//                      each sample coded as its difference from a prediction
//                      (the sample before it, or the five-point smoothing of
//                      the raw samples), so that every value comes back exact
//                      (see RecordStore.cpp)
// Version 1 (still read): records stored plain.
//              4 bytes frame mark, 8 bytes record number, 4 bytes tag,
//              4 bytes payload length, 4 bytes CRC-32 of the number, the tag,
//              the length and the payload; then the payload (RecordStore.cpp)
//
// The record number is the record's place in the .sid (1 for its first
// record), which is also the number a .sid read back gives its events. A
// pulse whose samples are a run of its burst's samples is stored as an offset
// and a count into them, so shared samples take their room once.
//
// The index (number to offset and length) is in memory; opening an existing
// file rebuilds it by reading its frames. A frame that does not check is
// passed over and the frames after it are found again by their mark, so a
// damaged or cut record loses that record only; from version 2 on a frame whose
// header checks but whose payload does not (or is cut short) is remembered
// as damaged. A write fault (disk full, folder or file not writable) makes
// the store refuse every later append, told once in the application log;
// records it could not store load as null.
#pragma once

#include "common/TriggerData.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <deque>
#include <set>
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
    // The same in a given format version (kVersionPlain, kVersionCompressed or
    // kVersionPacked).
    bool Create(const std::string& path, uint32_t version);
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
    // The tag stored with a record, without reading the record; false if
    // there is no record of that number.
    bool Tag(uint64_t number, uint32_t* tag) const;
    // True when a record of this number was in the file but its bytes do not
    // check (found when the file was opened, or by a load since): its event
    // shows no wave.
    bool Damaged(uint64_t number) const;
    // Records found damaged so far.
    size_t DamagedCount() const;
    // The format version of the file (0 while closed).
    uint32_t Version() const;

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
    // The payload of a version 2 frame (a zstd frame of the record's
    // prediction-coded fields), and its decoding; the same guarantees.
    static std::vector<uint8_t> EncodeCompressed(const TriggerData& record);
    static bool DecodeCompressed(const uint8_t* bytes, size_t size, TriggerData& record);
    // The payload of a version 3 frame, and its decoding; the same
    // guarantees.
    static std::vector<uint8_t> EncodePacked(const TriggerData& record);
    static bool DecodePacked(const uint8_t* bytes, size_t size, TriggerData& record);
    // A frame's payload of any version.
    static bool DecodePayload(uint32_t version, const uint8_t* bytes, size_t size, TriggerData& record);
    // The format version a file's bytes begin with; 0 if they are not a
    // record file of a version this reader knows.
    static uint32_t VersionOf(const uint8_t* bytes, size_t size);
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
    // The same, with the numbers of the frames found damaged (versions 2 and 3).
    static bool Scan(const uint8_t* bytes, size_t size, std::vector<std::pair<uint64_t, Entry>>& frames,
                     uint64_t* validEnd, std::vector<uint64_t>* damaged);

    static constexpr uint32_t kVersionPlain = 1;
    static constexpr uint32_t kVersionCompressed = 2;
    static constexpr uint32_t kVersionPacked = 3;
    static constexpr size_t kHeaderSize = 16;
    static constexpr size_t kFrameHeaderSize = 24;            // version 1
    static constexpr size_t kCompressedFrameHeaderSize = 28;  // versions 2 and 3
    // The largest record a version 2 or 3 payload may unpack to; a frame that
    // claims more is damaged.
    static constexpr size_t kMaxRecordBytes = 256u << 20;

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

    void MarkDamaged(uint64_t number) const;

    int m_fd = -1;
    uint32_t m_version = 0;
    bool m_writable = false;
    bool m_failed = false;
    uint64_t m_end = 0;
    std::string m_path;
    std::deque<std::pair<uint64_t, Entry>> m_index;
    mutable std::set<uint64_t> m_damaged;
    mutable std::mutex m_mutex;
};
