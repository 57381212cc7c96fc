#include "events/SessionFile.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/stat.h>
#include <memory>

namespace {

// Cuts the next record out of a byte source: up to and including a 0 byte or
// the end, at most kSessionRecordBuffer bytes kept. `next` reads one byte or
// returns -1 at the end. Returns false when not one byte was read.
template <class Next>
bool NextRecord(Next next, std::string& text, uint64_t* consumed = nullptr)
{
    text.clear();
    int c;
    size_t read = 0;
    while ((c = next()) >= 0) {
        ++read;
        if (c == 0)
            break;
        if (text.size() < kSessionRecordBuffer - 1)
            text.push_back(static_cast<char>(c));
    }
    if (consumed)
        *consumed += read;
    return read > 0;
}

MsgInfoPtr EventOf(const std::string& text, int64_t number, bool* parsed = nullptr)
{
    auto event = std::make_shared<MsgInfo>();
    const bool ok = event->FromJson(text);
    if (parsed)
        *parsed = ok;
    event->id = static_cast<int32_t>(number);
    event->eventG.FirstEventNumber = number;
    event->eventG.lastEventNumber = number;
    return event;
}

}  // namespace

namespace {

// Appends every record of an open session file to `events`, numbered from 1,
// and where each begins to `offsets` if given; returns how many of them are
// event records (parse as a JSON object).
size_t ReadRecords(std::FILE* file, std::vector<MsgInfoPtr>& events, std::vector<uint64_t>* offsets = nullptr)
{
    std::string text;
    int64_t counter = 1;
    size_t readable = 0;
    uint64_t at = 0;
    uint64_t begins = 0;
    while (NextRecord([file] {
        const int c = getc_unlocked(file);
        return c == EOF ? -1 : c;
    }, text, &at)) {
        if (offsets)
            offsets->push_back(begins);
        begins = at;
        bool parsed = false;
        events.push_back(EventOf(text, counter++, &parsed));
        readable += parsed ? 1 : 0;
    }
    return readable;
}

}  // namespace

bool ReadSessionFile(const std::string& path, std::vector<MsgInfoPtr>& events)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return false;
    ReadRecords(file, events);
    std::fclose(file);
    return true;
}

bool OpenSessionFile(const std::string& path, std::vector<MsgInfoPtr>& events, std::string& error)
{
    return OpenSessionFile(path, events, error, nullptr);
}

bool OpenSessionFile(const std::string& path, std::vector<MsgInfoPtr>& events, std::string& error,
                     std::vector<uint64_t>* offsets)
{
    events.clear();
    if (offsets)
        offsets->clear();
    error.clear();
    struct stat st {};
    std::FILE* file = nullptr;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !(file = std::fopen(path.c_str(), "rb"))) {
        const int code = errno;
        const bool found = st.st_mode != 0;
        const std::string why = !found || S_ISREG(st.st_mode) ? std::string(std::strerror(code))
                                : S_ISDIR(st.st_mode)         ? std::string("it is a folder")
                                                              : std::string("it is not a regular file");
        error = "Can't open \"" + path + "\": " + why + ". Expected a session file (.sid).";
        return false;
    }
    const size_t readable = ReadRecords(file, events, offsets);
    std::fclose(file);
    if (readable > 0)
        return true;
    if (offsets)
        offsets->clear();
    error = events.empty() ? "\"" + path + "\" is empty. Expected a session file (.sid) with at least one event record."
                           : "\"" + path + "\" is not a session file: none of its records is an event. Expected a "
                             "session file (.sid) of event records in JSON, each ended by a 0 byte.";
    events.clear();
    return false;
}

std::vector<MsgInfoPtr> ReadSessionRecords(const uint8_t* bytes, size_t size)
{
    std::vector<MsgInfoPtr> events;
    size_t at = 0;
    std::string text;
    int64_t counter = 1;
    while (NextRecord([&] { return at < size ? static_cast<int>(bytes[at++]) : -1; }, text))
        events.push_back(EventOf(text, counter++));
    return events;
}

size_t WriteSessionRecord(std::FILE* stream, const MsgInfo& event)
{
    if (!stream)
        return 0;
    // The record and its 0 in one piece: on an unbuffered stream that is one
    // write, so the file never ends inside a record that was written whole.
    std::string record = event.ToJson();
    record.push_back('\0');
    const size_t written = std::fwrite(record.data(), 1, record.size(), stream);
    const bool flushed = std::fflush(stream) == 0;
    return written == record.size() && flushed ? record.size() : 0;
}

MsgInfoPtr ReadSessionRecordAt(const std::string& path, uint64_t offset)
{
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return nullptr;
    MsgInfoPtr event;
    if (offset <= static_cast<uint64_t>(INT64_MAX) && fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0) {
        std::string text;
        int c = EOF;
        while ((c = getc_unlocked(file)) != EOF && c != 0) {
            if (text.size() < kSessionRecordBuffer - 1)
                text.push_back(static_cast<char>(c));
        }
        // Only a record ended by its 0 byte is whole.
        if (c == 0) {
            event = std::make_shared<MsgInfo>();
            event->FromJson(text);
        }
    }
    std::fclose(file);
    return event;
}
