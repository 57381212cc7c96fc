// coilscope-cli export --sr and replay of a .sr as a user runs them: the
// files they write and read, their messages and exit status.
#include "ProcessFixtures.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <fstream>
#include <regex>
#include <string>

using e2e::Result;
using e2e::RunCli;

namespace {

std::string Data(const char* name)
{
    return std::string("'") + COILSCOPE_TEST_DATA + "/" + name + "'";
}

// The log lines of a replay, without the lines that tell the wall clock.
std::string LogOf(const std::string& args)
{
    static const std::regex clock("[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]");
    return std::regex_replace(RunCli("replay " + args).out, clock, "hh:mm:ss.mmm");
}

}  // namespace

TEST(CliSigrok, RawCapturesExportedAndReplayedPrintTheSameLog)
{
    QTemporaryDir dir;
    const std::string out = "'" + dir.filePath("link.sr").toStdString() + "'";
    const Result r = RunCli("export " + Data("emulator.2k.bin") + " " + Data("emulator.fsk.bin") + " --sr " + out, true);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("wrote "), std::string::npos);
    const std::string before = LogOf(Data("emulator.2k.bin") + " " + Data("emulator.fsk.bin"));
    const std::string after = LogOf(out);
    ASSERT_GT(before.size(), 1000u);
    EXPECT_EQ(after, before);
}

TEST(CliSigrok, ReplayTellsWhichChannelsItRead)
{
    QTemporaryDir dir;
    const std::string out = "'" + dir.filePath("link.sr").toStdString() + "'";
    ASSERT_EQ(RunCli("export " + Data("emulator.2k.bin") + " --sr " + out).status, 0);
    const Result r = RunCli("replay " + out + " --ask-channel qi", true);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("receiver from logic channel \"qi\" at 40 kHz"), std::string::npos) << r.out.substr(0, 400);
    EXPECT_NE(r.out.find("ControlError"), std::string::npos);
}

TEST(CliSigrok, AMissingChannelIsRefusedWithStatusTwo)
{
    QTemporaryDir dir;
    const std::string out = "'" + dir.filePath("link.sr").toStdString() + "'";
    ASSERT_EQ(RunCli("export " + Data("emulator.2k.bin") + " --sr " + out).status, 0);
    const Result r = RunCli("replay " + out + " --ask-channel D3", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "coilscope-cli replay: no channel \"D3\" in the sigrok session (it has qi (logic), ask (analog), "
                     "fsk (analog))\n");
}

TEST(CliSigrok, AFileThatIsNotASigrokSessionIsRefusedWithStatusTwo)
{
    QTemporaryDir dir;
    const std::string path = dir.filePath("notes.sr").toStdString();
    std::ofstream(path) << "not a capture\n";
    const Result r = RunCli("replay '" + path + "'", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("is not a sigrok session"), std::string::npos) << r.out;
}

TEST(CliSigrok, ExportWithoutAnOutputOrOfAMissingFileFails)
{
    EXPECT_EQ(RunCli("export " + Data("emulator.2k.bin")).status, 2);
    QTemporaryDir dir;
    const Result r = RunCli("export /nonexistent.2k.bin --sr '" + dir.filePath("x.sr").toStdString() + "'", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("cannot open /nonexistent.2k.bin"), std::string::npos) << r.out;
    EXPECT_EQ(RunCli("replay " + Data("emulator.2k.bin") + " --ask-channel qi").status, 2);
}
