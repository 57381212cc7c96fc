// The sigrok session file itself: what goes in comes back out, and what is
// not a sigrok session is refused with a message.
#include "interchange/SigrokSession.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <zip.h>

#include <cmath>
#include <fstream>
#include <iterator>

using namespace interchange;

namespace {

std::vector<uint8_t> FileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A zip with the given entries, through libzip.
void WriteZip(const std::string& path, const std::vector<std::pair<std::string, std::string>>& entries)
{
    int code = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
    ASSERT_NE(z, nullptr);
    for (const auto& e : entries) {
        zip_source_t* s = zip_source_buffer(z, e.second.data(), e.second.size(), 0);
        ASSERT_GE(zip_file_add(z, e.first.c_str(), s, 0), 0);
    }
    ASSERT_EQ(zip_close(z), 0);
}

SigrokCapture SmallCapture()
{
    SigrokCapture c;
    c.samplerate = 250000;
    c.unitsize = 1;
    c.channels = {{"qi", false, 1}, {"clk", false, 2}, {"ask", true, 3}};
    for (int i = 0; i < 1000; ++i)
        c.logic.push_back(static_cast<uint8_t>(((i / 7) & 1) | (((i / 3) & 1) << 1)));
    for (int i = 0; i < 1000; ++i)
        c.analog[3].push_back(static_cast<float>(std::sin(i * 0.01) * 1000.0 + 2000.0));
    return c;
}

}  // namespace

TEST(SigrokSession, WrittenAndReadBackKeepsChannelsRateAndSamples)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("small.sr").toStdString();
    const SigrokCapture out = SmallCapture();
    std::string error;
    ASSERT_TRUE(WriteSigrokSession(path, out, error)) << error;

    SigrokCapture in;
    ASSERT_TRUE(ReadSigrokSession(path, in, error)) << error;
    EXPECT_EQ(in.samplerate, 250000u);
    ASSERT_EQ(in.channels.size(), 3u);
    const SigrokChannel* qi = in.Find("qi");
    const SigrokChannel* clk = in.Find("clk");
    const SigrokChannel* ask = in.Find("ask");
    ASSERT_TRUE(qi && clk && ask);
    EXPECT_FALSE(qi->analog);
    EXPECT_TRUE(ask->analog);
    ASSERT_EQ(in.LogicSamples(), 1000u);
    for (size_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(in.Bit(*qi, i), ((i / 7) & 1) != 0) << i;
        ASSERT_EQ(in.Bit(*clk, i), ((i / 3) & 1) != 0) << i;
    }
    ASSERT_EQ(in.Samples(*ask), 1000u);
    EXPECT_EQ(in.analog.at(ask->number), out.analog.at(3));
}

TEST(SigrokSession, TheSameBytesReadFromMemory)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("small.sr").toStdString();
    std::string error;
    ASSERT_TRUE(WriteSigrokSession(path, SmallCapture(), error));
    const std::vector<uint8_t> bytes = FileBytes(path);
    SigrokCapture in;
    ASSERT_TRUE(ReadSigrokSession(bytes.data(), bytes.size(), in, error)) << error;
    EXPECT_EQ(in.LogicSamples(), 1000u);
    EXPECT_EQ(in.ChannelList(), "qi (logic), clk (logic), ask (analog)");
}

TEST(SigrokSession, ALongCaptureIsWrittenInChunksAndReadWhole)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("long.sr").toStdString();
    SigrokCapture c;
    c.samplerate = 1000000;
    c.channels = {{"qi", false, 1}};
    c.logic.assign(9u << 20, 0);
    c.logic[(9u << 20) - 1] = 1;
    std::string error;
    ASSERT_TRUE(WriteSigrokSession(path, c, error));
    int code = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_RDONLY, &code);
    ASSERT_NE(z, nullptr);
    EXPECT_GE(zip_name_locate(z, "logic-1-3", 0), 0);
    zip_discard(z);
    SigrokCapture in;
    ASSERT_TRUE(ReadSigrokSession(path, in, error)) << error;
    ASSERT_EQ(in.LogicSamples(), 9u << 20);
    EXPECT_TRUE(in.Bit(*in.Find("qi"), (9u << 20) - 1));
}

TEST(SigrokSession, SampleRatesAsSigrokWritesThem)
{
    EXPECT_EQ(SamplerateText(40000), "40 kHz");
    EXPECT_EQ(SamplerateText(1000000), "1 MHz");
    EXPECT_EQ(SamplerateText(250000), "250 kHz");
    EXPECT_EQ(SamplerateText(12345), "12345 Hz");
    EXPECT_EQ(ParseSamplerate("40 kHz"), 40000u);
    EXPECT_EQ(ParseSamplerate("1 MHz"), 1000000u);
    EXPECT_EQ(ParseSamplerate("1.5 MHz"), 1500000u);
    EXPECT_EQ(ParseSamplerate("40000"), 40000u);
    EXPECT_EQ(ParseSamplerate("fast"), 0u);
    EXPECT_EQ(ParseSamplerate(""), 0u);
    EXPECT_EQ(ParseSamplerate("3 parsecs"), 0u);
}

TEST(SigrokSession, AFileThatIsNotAZipIsRefused)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("text.sr").toStdString();
    std::ofstream(path) << "this is not a sigrok session\n";
    SigrokCapture c;
    std::string error;
    EXPECT_FALSE(ReadSigrokSession(path, c, error));
    EXPECT_NE(error.find("is not a sigrok session"), std::string::npos) << error;
    EXPECT_FALSE(ReadSigrokSession(dir.filePath("missing.sr").toStdString(), c, error));
    EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
}

TEST(SigrokSession, AZipWithoutSigrokMetadataIsRefused)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("other.zip").toStdString();
    WriteZip(path, {{"readme.txt", "hello"}});
    SigrokCapture c;
    std::string error;
    EXPECT_FALSE(ReadSigrokSession(path, c, error));
    EXPECT_NE(error.find("no metadata"), std::string::npos) << error;
}

TEST(SigrokSession, MetadataWithoutChannelsOrRateIsRefused)
{
    QTemporaryDir dir;
    const std::string a = dir.filePath("a.sr").toStdString();
    WriteZip(a, {{"version", "2"}, {"metadata", "[global]\n\n[device 1]\nsamplerate=40 kHz\n"}});
    SigrokCapture c;
    std::string error;
    EXPECT_FALSE(ReadSigrokSession(a, c, error));
    EXPECT_NE(error.find("names no channel"), std::string::npos) << error;

    const std::string b = dir.filePath("b.sr").toStdString();
    WriteZip(b, {{"version", "2"}, {"metadata", "[device 1]\nprobe1=qi\nsamplerate=quick\n"}, {"logic-1-1", "ab"}});
    EXPECT_FALSE(ReadSigrokSession(b, c, error));
    EXPECT_NE(error.find("sample rate"), std::string::npos) << error;

    const std::string v = dir.filePath("v.sr").toStdString();
    WriteZip(v, {{"version", "9"}, {"metadata", "[device 1]\nprobe1=qi\nsamplerate=40 kHz\n"}});
    EXPECT_FALSE(ReadSigrokSession(v, c, error));
    EXPECT_NE(error.find("version"), std::string::npos) << error;
}

TEST(SigrokSession, AVersionOneSessionWithItsBareLogicFileIsRead)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("v1.sr").toStdString();
    WriteZip(path, {{"metadata", "[device 1]\ncapturefile=logic-1\ntotal probes=2\nsamplerate=1 MHz\n"
                                 "probe1=a\nprobe2=b\nunitsize=1\n"},
                    {"logic-1", std::string("\x01\x02\x03", 3)}});
    SigrokCapture c;
    std::string error;
    ASSERT_TRUE(ReadSigrokSession(path, c, error)) << error;
    EXPECT_EQ(c.samplerate, 1000000u);
    ASSERT_EQ(c.LogicSamples(), 3u);
    EXPECT_TRUE(c.Bit(*c.Find("a"), 0));
    EXPECT_TRUE(c.Bit(*c.Find("b"), 1));
    EXPECT_FALSE(c.Bit(*c.Find("a"), 1));
    EXPECT_FALSE(c.Bit(*c.Find("a"), 3));  // past the end
}

TEST(SigrokSession, SampleBytesBeyondTheLimitAreRefused)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("big.sr").toStdString();
    SigrokCapture c;
    c.samplerate = 1000000;
    c.channels = {{"qi", false, 1}};
    c.logic.assign(100000, 1);
    std::string error;
    ASSERT_TRUE(WriteSigrokSession(path, c, error));
    const std::vector<uint8_t> bytes = FileBytes(path);
    SigrokCapture in;
    EXPECT_FALSE(ReadSigrokSession(bytes.data(), bytes.size(), in, error, 50000));
    EXPECT_NE(error.find("more samples"), std::string::npos) << error;
}

TEST(SigrokSession, AFileThatCannotBeWrittenIsToldNotThrown)
{
    std::string error;
    EXPECT_FALSE(WriteSigrokSession("/nonexistent-folder/x.sr", SmallCapture(), error));
    EXPECT_NE(error.find("cannot write"), std::string::npos) << error;
}
