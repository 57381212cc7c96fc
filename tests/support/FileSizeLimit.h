// A full disk, as a test can make one without privileges: the body runs in a
// child process whose files cannot grow past a size (RLIMIT_FSIZE, with
// SIGXFSZ ignored so that a write past it fails with EFBIG instead of
// killing the process). The body returns the child's exit status: 0 when
// everything it checked held, a distinct number for each check that failed.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

template <class Body>
void ExpectWithFileSizeLimit(size_t bytes, Body body)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = bytes;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            _exit(100);
        _exit(body());
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// How many times a text occurs in a file (0 for a file that cannot be read).
inline int CountInFile(const std::string& path, const std::string& text)
{
    std::ifstream in(path, std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    int n = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
        ++n;
    return n;
}
