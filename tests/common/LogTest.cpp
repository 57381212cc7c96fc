#include "services/Log.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string ReadAll(const std::string& path)
{
    QFile f(QString::fromStdString(path));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll().toStdString();
}

}  // namespace

// Runs first in this binary's log tests: nothing has written yet.
TEST(Log, NoLineNoFile)
{
    QDir folder(QString::fromStdString(Log::Folder()));
    const QStringList logs = folder.entryList({"log_*.txt"}, QDir::Files);
    if (!Log::Instance().FilePath().empty())
        GTEST_SKIP() << "another test of this process wrote to the log first";
    EXPECT_TRUE(logs.isEmpty());
}

TEST(Log, LineIsTimeThenMessageThenCrLf)
{
    const std::string text = Log::Printf("DevStop %d", 3);
    EXPECT_EQ(text, "DevStop 3");
    const std::string path = Log::Instance().FilePath();
    ASSERT_FALSE(path.empty());
    EXPECT_NE(path.find("/Coilscope/log_"), std::string::npos);
    const std::string all = ReadAll(path);
    std::regex line(R"((^|\n)\d{4}-\d{2}-\d{2} \d{2}-\d{2}-\d{2}DevStop 3\r\n)");
    EXPECT_TRUE(std::regex_search(all, line)) << all;
}

TEST(Log, LongLineIsCutTo200Characters)
{
    const std::string longText(500, 'x');
    const std::string text = Log::Printf("%s", longText.c_str());
    EXPECT_EQ(text.size(), 199u);  // 200 characters with the terminating NUL
}

TEST(Log, LinesFromTwoThreadsNeverInterleave)
{
    auto writer = [](char c) {
        const std::string body(150, c);
        for (int i = 0; i < 200; ++i)
            Log::Printf("T%s", body.c_str());
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join();
    b.join();
    const std::string all = ReadAll(Log::Instance().FilePath());
    size_t start = 0, checked = 0;
    while (true) {
        const size_t end = all.find("\r\n", start);
        if (end == std::string::npos)
            break;
        const std::string lineText = all.substr(start, end - start);
        start = end + 2;
        const size_t t = lineText.find('T', 19);
        if (lineText.size() < 19 + 151 || t != 19)
            continue;
        const std::string body = lineText.substr(20);
        EXPECT_TRUE(body == std::string(150, 'a') || body == std::string(150, 'b')) << lineText;
        ++checked;
    }
    EXPECT_EQ(checked, 400u);
}

TEST(LogDeathTest, UnavailableFileCostsOneAttemptPerLineAndTheSystemRunsOn)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // In a child process with a fresh log: the data folder is a plain file, so
    // no log folder can be made and every line fails to open the file. Once the
    // folder can be made, the next line opens it.
    EXPECT_EXIT(
        {
            const QByteArray base = qgetenv("XDG_DATA_HOME") + "/blocked";
            QDir().mkpath(QString::fromLocal8Bit(base));
            const QByteArray blocker = base + "/data-is-a-file";
            QFile f(QString::fromLocal8Bit(blocker));
            f.open(QIODevice::WriteOnly);
            f.close();
            setenv("XDG_DATA_HOME", blocker.constData(), 1);
            bool ok = true;
            for (int i = 0; i < 3; ++i) {
                ok = ok && Log::Printf("line %d", i) == "line " + std::to_string(i);
                ok = ok && Log::Instance().FilePath().empty();
            }
            QFile::remove(QString::fromLocal8Bit(blocker));
            QDir().mkpath(QString::fromLocal8Bit(blocker));
            Log::Printf("now it opens");
            ok = ok && !Log::Instance().FilePath().empty();
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
