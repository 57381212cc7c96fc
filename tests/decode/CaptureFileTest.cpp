// Raw capture files: written before parsing, with or without the header, and
// read back through the parsers with the header skipped.
#include "FskChain.h"
#include "decode/CaptureFile.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <fstream>
#include <algorithm>
#include <iterator>
#include <set>

namespace {

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> FilesIn(const QString& folder)
{
    std::vector<std::string> out;
    for (const QString& name : QDir(folder).entryList(QDir::Files))
        out.push_back((folder + "/" + name).toStdString());
    return out;
}

std::vector<uint8_t> AskStreamBytes()
{
    qisim::AskWaveWriter w(qisim::AskWaveParams{}, 3);
    w.Idle(300);
    for (int k = 0; k < 4; ++k) {
        w.Packet(qisim::WithChecksum({0x03, static_cast<uint8_t>(k)}), 11);
        w.Idle(1200);
    }
    return qisim::AskStreamFrames(w.Samples());
}

}  // namespace

TEST(CaptureFile, HeaderHasTheMagicAndTheTimeIn40Bytes)
{
    QTemporaryDir dir;
    const std::string folder = dir.path().toStdString() + "/";
    std::FILE* f = OpenCaptureFile(folder, ".2k.bin", true);
    ASSERT_TRUE(f);
    std::fclose(f);
    const auto files = FilesIn(dir.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files[0].find(".2k.bin"), std::string::npos);
    const auto bytes = ReadFile(files[0]);
    ASSERT_EQ(bytes.size(), 40u);
    EXPECT_TRUE(HasCaptureHeader(bytes.data(), bytes.size()));
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 6), "kestro");
    EXPECT_EQ(bytes[6], 0);
    EXPECT_EQ(bytes[7], 0);
    const std::string when(reinterpret_cast<const char*>(bytes.data()) + 8);
    EXPECT_EQ(when.size(), 19u);  // e.g. 2026-11-22 10:00:00
    EXPECT_EQ(bytes[39], 0);
}

// A chunk is in the file whole as soon as it is written, however long, not
// cut where a stdio buffer would fill: the stream has no buffer.
TEST(CaptureFile, ChunkReachesTheFileWholeWhenWritten)
{
    QTemporaryDir dir;
    std::FILE* f = OpenCaptureFile(dir.path().toStdString() + "/", ".fsk.bin", false);
    ASSERT_TRUE(f);
    std::vector<uint8_t> chunk(10000);
    for (size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(std::fwrite(chunk.data(), 1, chunk.size(), f), chunk.size());
    const auto files = FilesIn(dir.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(ReadFile(files[0]), chunk);
    std::fclose(f);
}

TEST(CaptureFile, Firmware900WritesNoHeaderAnd901WritesOne)
{
    // The caller passes the header flag that discovery sets for a firmware
    // number above 900.
    for (bool header : {false, true}) {
        QTemporaryDir dir;
        SettingParams s;
        s.m_ask_capture_data = 1;
        s.capturePath = dir.path().toStdString() + "/";
        CThread2K ask([] {
            auto p = std::make_unique<MemoryPort>();
            return std::unique_ptr<StreamPort>(std::move(p));
        });
        ask.SetSettings(&s);
        ask.OpenWithoutLoop("memory", header, 1024000);
        ask.Close();
        const auto files = FilesIn(dir.path());
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(ReadFile(files[0]).size(), header ? 40u : 0u);
    }
}

TEST(CaptureFile, WithBothSettingsOffNoFileIsCreated)
{
    QTemporaryDir dir;
    SettingParams s;
    s.m_min_freq = 110000;
    s.m_max_freq = 210000;
    s.capturePath = dir.path().toStdString() + "/";
    {
        CThread2K ask([] { return std::unique_ptr<StreamPort>(std::make_unique<MemoryPort>()); });
        ask.SetSettings(&s);
        ask.OpenWithoutLoop("a", true, 1024000);
        CThreadFSK fsk([] { return std::unique_ptr<StreamPort>(std::make_unique<MemoryPort>()); }, &s);
        fsk.OpenWithoutLoop("f", true, 1024000);
    }
    EXPECT_TRUE(FilesIn(dir.path()).empty());
}

TEST(CaptureFile, AskCaptureFedBackGivesTheSameFrames)
{
    QTemporaryDir dir;
    SettingParams s;
    s.m_ask_capture_data = 1;
    s.capturePath = dir.path().toStdString() + "/";
    const auto stream = AskStreamBytes();

    // The live run: chunks of 400 bytes, a pass per frame's worth.
    MemoryPort* port = nullptr;
    CThread2K ask([&port] {
        auto p = std::make_unique<MemoryPort>();
        port = p.get();
        return std::unique_ptr<StreamPort>(std::move(p));
    });
    ask.SetSettings(&s);
    ask.OpenWithoutLoop("memory", true, 1024000);
    AskFrameDecoder live;
    for (size_t at = 0; at < stream.size(); at += 400) {
        port->Push(stream.data() + at, std::min<size_t>(400, stream.size() - at));
        ask.RunPass();
        while (AskDecodingPass(ask.Stream(), live) == 0) {
        }
    }
    std::vector<std::string> liveFrames;
    while (auto f = live.Filter().TakeFrame())
        liveFrames.push_back(f->packet.PacketData + f->timing.startTimeStamp);
    ask.Close();

    const auto files = FilesIn(dir.path());
    ASSERT_EQ(files.size(), 1u);
    const auto file = ReadFile(files[0]);
    ASSERT_TRUE(HasCaptureHeader(file.data(), file.size()));
    const std::vector<uint8_t> body(file.begin() + kCaptureHeaderBytes, file.end());
    EXPECT_EQ(body, stream);

    AskChain replay;
    replay.Stream(body, 400, 400);
    std::vector<std::string> replayed;
    for (const auto& f : replay.Frames())
        replayed.push_back(f->packet.PacketData + f->timing.startTimeStamp);
    EXPECT_EQ(replayed, liveFrames);
    EXPECT_EQ(replayed.size(), 4u);
}

TEST(CaptureFile, FskCaptureFedBackGivesTheSameFrames)
{
    QTemporaryDir dir;
    SettingParams& s = FskChain::Band();
    s.m_fsk_capture_data = 1;
    s.capturePath = dir.path().toStdString() + "/";
    SettingParams::Instance().detectedPolarity.store(-1);
    const auto stream = TwoFskPacketsStream();
    std::vector<std::string> liveFrames;
    {
        FskChain live;
        live.Stream(stream);
        for (const auto& f : live.Frames())
            liveFrames.push_back(f->packet.PacketData + f->timing.startTimeStamp);
    }
    s.m_fsk_capture_data = 0;
    const auto files = FilesIn(dir.path());
    ASSERT_EQ(files.size(), 1u);
    const auto body = ReadFile(files[0]);
    EXPECT_EQ(body, stream);  // no header asked for
    FskChain replay;
    replay.Stream(body);
    std::vector<std::string> replayed;
    for (const auto& f : replay.Frames())
        replayed.push_back(f->packet.PacketData + f->timing.startTimeStamp);
    SettingParams::Instance().detectedPolarity.store(0);
    EXPECT_EQ(replayed, liveFrames);
    ASSERT_EQ(replayed.size(), 2u);
    EXPECT_EQ(replayed[0].substr(0, 9), "1F 64 7B ");
}

// Two captures opened within one second (a reconnect, the next acquisition):
// the second gets a name of its own and the first keeps its bytes.
TEST(CaptureFile, ASecondFileWithinTheSameSecondNeverEmptiesTheFirst)
{
    QTemporaryDir dir;
    const std::string folder = dir.path().toStdString() + "/";
    std::vector<std::FILE*> files;
    for (int k = 0; k < 3; ++k) {
        std::FILE* f = OpenCaptureFile(folder, ".2k.bin", false);
        ASSERT_TRUE(f);
        const uint8_t byte = static_cast<uint8_t>(k + 1);
        std::fwrite(&byte, 1, 1, f);
        files.push_back(f);
    }
    for (std::FILE* f : files)
        std::fclose(f);
    const auto names = FilesIn(dir.path());
    // Three files, or, when the clock's second turned between them, still
    // three: each holds its own byte.
    ASSERT_EQ(names.size(), 3u);
    std::set<uint8_t> held;
    for (const auto& n : names) {
        const auto bytes = ReadFile(n);
        ASSERT_EQ(bytes.size(), 1u) << n;
        held.insert(bytes[0]);
    }
    EXPECT_EQ(held, (std::set<uint8_t>{1, 2, 3}));
}

TEST(CaptureFile, RenewKeepsAFileWithoutStreamBytesAndReplacesOneWithThem)
{
    QTemporaryDir dir;
    const std::string folder = dir.path().toStdString() + "/";
    std::FILE* f = OpenCaptureFile(folder, ".fsk.bin", true);
    ASSERT_TRUE(f);
    std::FILE* before = f;
    RenewCaptureFile(f, folder, ".fsk.bin", true);
    EXPECT_EQ(f, before);  // the header alone: the same file goes on
    EXPECT_EQ(FilesIn(dir.path()).size(), 1u);
    const uint8_t bytes[4] = {1, 2, 3, 4};
    std::fwrite(bytes, 1, 4, f);
    RenewCaptureFile(f, folder, ".fsk.bin", true);
    ASSERT_TRUE(f);
    std::fclose(f);
    const auto names = FilesIn(dir.path());
    ASSERT_EQ(names.size(), 2u);
    std::vector<size_t> sizes;
    for (const auto& n : names)
        sizes.push_back(ReadFile(n).size());
    std::sort(sizes.begin(), sizes.end());
    EXPECT_EQ(sizes, (std::vector<size_t>{40u, 44u}));
    std::FILE* none = nullptr;
    RenewCaptureFile(none, folder, ".fsk.bin", true);
    EXPECT_EQ(none, nullptr);
}
