#include "events/SessionFile.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <sys/types.h>

namespace {

std::string Record(const char* log, int type)
{
    MsgInfo m;
    m.common.logData = log;
    m.type = type;
    m.str = QString::fromUtf8(log);
    return m.ToJson();
}

std::string WriteFile(const QTemporaryDir& dir, const std::string& bytes)
{
    const std::string path = dir.path().toStdString() + "/session.sid";
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
}

}  // namespace

TEST(SessionFile, RecordsAreNumberedFromOne)
{
    QTemporaryDir dir;
    std::string bytes = Record("a", 3) + std::string(1, '\0') + Record("b", 4) + std::string(1, '\0');
    std::vector<MsgInfoPtr> events;
    ASSERT_TRUE(ReadSessionFile(WriteFile(dir, bytes), events));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->common.logData, "a");
    EXPECT_EQ(events[1]->type, 4);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(events[i]->id, i + 1);
        EXPECT_EQ(events[i]->eventG.FirstEventNumber, i + 1);
        EXPECT_EQ(events[i]->eventG.lastEventNumber, i + 1);
    }
}

TEST(SessionFile, LastRecordWithoutItsZeroByteStillCounts)
{
    QTemporaryDir dir;
    std::string bytes = Record("a", 3) + std::string(1, '\0') + Record("b", 4);
    std::vector<MsgInfoPtr> events;
    ASSERT_TRUE(ReadSessionFile(WriteFile(dir, bytes), events));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1]->common.logData, "b");
}

TEST(SessionFile, EmptyDocumentBetweenTwoZerosGivesDefaultFields)
{
    const std::string bytes = Record("a", 3) + std::string(2, '\0') + Record("c", 5) + std::string(1, '\0');
    const auto events =
        ReadSessionRecords(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ASSERT_EQ(events.size(), 3u);
    EXPECT_TRUE(events[1]->common.logData.empty());
    EXPECT_EQ(events[1]->type, 0);
    EXPECT_EQ(events[1]->id, 2);
    EXPECT_EQ(events[2]->id, 3);
    // Every field is the default: the record writes out as a fresh event does,
    // but for the number the reader gives it (its id and its first and last
    // event numbers).
    MsgInfo fresh;
    fresh.id = 2;
    fresh.eventG.FirstEventNumber = fresh.eventG.lastEventNumber = 2;
    EXPECT_EQ(events[1]->ToJson(), fresh.ToJson());
}

TEST(SessionFile, DamagedRecordKeepsDefaultsAndTheRestGoesOn)
{
    const std::string bytes = std::string("{ \"type\" : ") + '\0' + "garbage\xff\xfe" + '\0' + Record("ok", 6) + '\0';
    const auto events = ReadSessionRecords(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]->type, 0);
    EXPECT_EQ(events[1]->type, 0);
    EXPECT_EQ(events[2]->type, 6);
}

TEST(SessionFile, EmptyFileHasNoRecords)
{
    QTemporaryDir dir;
    std::vector<MsgInfoPtr> events;
    ASSERT_TRUE(ReadSessionFile(WriteFile(dir, ""), events));
    EXPECT_TRUE(events.empty());
}

TEST(SessionFile, MissingFileIsReported)
{
    std::vector<MsgInfoPtr> events;
    EXPECT_FALSE(ReadSessionFile("/nonexistent/nothing.sid", events));
}

TEST(SessionFile, RecordLongerThanTheBufferIsCutNotOverrun)
{
    MsgInfo big;
    big.common.logData = std::string(kSessionRecordBuffer + 5000, 'x');
    big.type = 9;
    const std::string bytes = big.ToJson() + '\0' + Record("after", 7) + '\0';
    const auto events = ReadSessionRecords(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_TRUE(events[0]->common.logData.empty());  // cut: the document does not parse
    EXPECT_EQ(events[1]->common.logData, "after");
    EXPECT_EQ(events[1]->id, 2);
}

TEST(SessionFile, WrittenRecordsReadBack)
{
    QTemporaryDir dir;
    const std::string path = dir.path().toStdString() + "/w.sid";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f);
    MsgInfo m;
    m.common.logData = "one";
    m.packet.Status = "NoError";
    WriteSessionRecord(f, m);
    WriteSessionRecord(nullptr, m);
    m.common.logData = "two";
    WriteSessionRecord(f, m);
    std::fclose(f);
    std::vector<MsgInfoPtr> events;
    ASSERT_TRUE(ReadSessionFile(path, events));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->common.logData, "one");
    EXPECT_EQ(events[1]->common.logData, "two");
    EXPECT_TRUE(events[1]->packet.Status.empty());
}

// Opening a file to show it: a file in which not one record is an event is
// refused with a message naming it; a session whose later records are damaged
// reads as it always has.
TEST(OpenSessionFile, EmptyFileIsRefusedWithItsName)
{
    QTemporaryDir dir;
    const std::string path = WriteFile(dir, "");
    std::vector<MsgInfoPtr> events;
    std::string error;
    EXPECT_FALSE(OpenSessionFile(path, events, error));
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(error, "\"" + path + "\" is empty. Expected a session file (.sid) with at least one event record.");
}

TEST(OpenSessionFile, TextFileIsRefusedWithItsName)
{
    QTemporaryDir dir;
    const std::string path = WriteFile(dir, "2026-11-25 05:00 bench notes\nnothing to see\n");
    std::vector<MsgInfoPtr> events;
    std::string error;
    EXPECT_FALSE(OpenSessionFile(path, events, error));
    EXPECT_TRUE(events.empty());
    EXPECT_NE(error.find("\"" + path + "\" is not a session file"), std::string::npos) << error;
    EXPECT_NE(error.find("Expected a session file (.sid)"), std::string::npos) << error;
}

TEST(OpenSessionFile, SessionCutInsideItsFirstRecordIsRefusedAtEveryCut)
{
    QTemporaryDir dir;
    const std::string first = Record("first", 3);
    const std::string whole = first + std::string(1, '\0') + Record("second", 4) + std::string(1, '\0');
    // Cut anywhere before its closing brace (what follows it is white space).
    const size_t end = first.rfind('}');
    ASSERT_NE(end, std::string::npos);
    for (size_t cut = 1; cut <= end; ++cut) {
        const std::string path = WriteFile(dir, whole.substr(0, cut));
        std::vector<MsgInfoPtr> events;
        std::string error;
        EXPECT_FALSE(OpenSessionFile(path, events, error)) << cut;
        EXPECT_TRUE(events.empty()) << cut;
        EXPECT_NE(error.find(path), std::string::npos) << cut;
    }
    // Whole, its first record is an event.
    const std::string path = WriteFile(dir, whole.substr(0, first.size()));
    std::vector<MsgInfoPtr> events;
    std::string error;
    EXPECT_TRUE(OpenSessionFile(path, events, error)) << error;
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->common.logData, "first");
}

TEST(OpenSessionFile, MissingFileAndFolderAreRefusedWithTheirNames)
{
    QTemporaryDir dir;
    std::vector<MsgInfoPtr> events;
    std::string error;
    EXPECT_FALSE(OpenSessionFile("/nonexistent/nothing.sid", events, error));
    EXPECT_EQ(error, "Can't open \"/nonexistent/nothing.sid\": No such file or directory. Expected a session file (.sid).");
    const std::string folder = dir.path().toStdString();
    EXPECT_FALSE(OpenSessionFile(folder, events, error));
    EXPECT_EQ(error, "Can't open \"" + folder + "\": it is a folder. Expected a session file (.sid).");
}

TEST(OpenSessionFile, LaterDamagedRecordsReadAsTheWholeFileReads)
{
    QTemporaryDir dir;
    const std::string bytes = Record("ok", 6) + std::string(1, '\0') + "garbage\xff" + std::string(1, '\0') +
                              std::string("{ \"type\" : ") + std::string(1, '\0') + Record("late", 7).substr(0, 9);
    const std::string path = WriteFile(dir, bytes);
    std::vector<MsgInfoPtr> opened, read;
    std::string error;
    ASSERT_TRUE(OpenSessionFile(path, opened, error)) << error;
    EXPECT_TRUE(error.empty());
    ASSERT_TRUE(ReadSessionFile(path, read));
    ASSERT_EQ(opened.size(), 4u);
    ASSERT_EQ(read.size(), opened.size());
    for (size_t i = 0; i < read.size(); ++i)
        EXPECT_EQ(opened[i]->ToJson(), read[i]->ToJson()) << i;
    EXPECT_EQ(opened[0]->type, 6);
    EXPECT_EQ(opened[3]->type, 0);
}

// Where each record begins: a record read again there is the event the whole
// file gave, whatever the records between (empty, damaged, long).
TEST(OpenSessionFile, OffsetsTellWhereEachRecordBegins)
{
    QTemporaryDir dir;
    const std::string first = Record("first", 6), long_ = Record(std::string(5000, 'x').c_str(), 3);
    const std::string bytes = first + std::string(1, '\0') + std::string(1, '\0') + "garbage" + std::string(1, '\0') +
                              long_ + std::string(1, '\0') + Record("last", 7) + std::string(1, '\0');
    const std::string path = WriteFile(dir, bytes);
    std::vector<MsgInfoPtr> events;
    std::vector<uint64_t> offsets = {99};  // replaced, not added to
    std::string error;
    ASSERT_TRUE(OpenSessionFile(path, events, error, &offsets)) << error;
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(offsets, (std::vector<uint64_t>{0, first.size() + 1, first.size() + 2, first.size() + 10,
                                              first.size() + 11 + long_.size()}));
    for (size_t i = 0; i < events.size(); ++i) {
        const MsgInfoPtr again = ReadSessionRecordAt(path, offsets[i]);
        ASSERT_TRUE(again) << i;
        again->id = events[i]->id;
        again->eventG.FirstEventNumber = events[i]->eventG.FirstEventNumber;
        again->eventG.lastEventNumber = events[i]->eventG.lastEventNumber;
        EXPECT_EQ(again->ToJson(), events[i]->ToJson()) << i;
    }
    // A refused file leaves no offsets.
    const std::string empty = dir.path().toStdString() + "/empty.sid";
    std::ofstream(empty, std::ios::binary).flush();
    EXPECT_FALSE(OpenSessionFile(empty, events, error, &offsets));
    EXPECT_TRUE(offsets.empty());
}

namespace {

// The writes a stream hands to its file, each as it came.
struct WriteLog {
    std::vector<std::string> writes;
};

ssize_t LogWrite(void* cookie, const char* bytes, size_t n)
{
    static_cast<WriteLog*>(cookie)->writes.emplace_back(bytes, n);
    return static_cast<ssize_t>(n);
}

}  // namespace

// A process killed between two writes of one record would leave the .sid
// ending inside it: on an unbuffered stream a record, far longer than a
// stdio buffer, and its 0 byte go out in a single write.
TEST(SessionFile, RecordAndItsZeroGoOutInOneWrite)
{
    WriteLog log;
    cookie_io_functions_t io{};
    io.write = LogWrite;
    std::FILE* f = fopencookie(&log, "wb", io);
    ASSERT_TRUE(f);
    std::setvbuf(f, nullptr, _IONBF, 0);
    MsgInfo m;
    m.common.logData = std::string(20000, 'x');
    const std::string text = m.ToJson();
    EXPECT_EQ(WriteSessionRecord(f, m), text.size() + 1);
    m.common.logData = "short";
    const std::string second = m.ToJson();
    EXPECT_EQ(WriteSessionRecord(f, m), second.size() + 1);
    std::fclose(f);
    ASSERT_EQ(log.writes.size(), 2u);
    EXPECT_EQ(log.writes[0], text + std::string(1, '\0'));
    EXPECT_EQ(log.writes[1], second + std::string(1, '\0'));
}
