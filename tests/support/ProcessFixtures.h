// Programs as child processes for the end-to-end tests: coilscope-sim on
// pseudo-terminals, a command line run in the background and watched, and
// the small file and text helpers those tests share. COILSCOPE_SIM names the
// emulator's binary.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace e2e {

using namespace std::chrono_literals;

struct Result {
    std::string out;
    int status = -1;
};

// Runs a shell command line, stdout captured.
inline Result Shell(const std::string& command)
{
    Result r;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return r;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        r.out.append(buffer.data(), n);
    const int raw = pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

#ifdef COILSCOPE_CLI
// Runs coilscope-cli with the arguments, its stderr after its stdout or
// dropped.
inline Result RunCli(const std::string& args, bool withStderr = false)
{
    return Shell(std::string(COILSCOPE_CLI) + " " + args + (withStderr ? " 2>&1" : " 2>/dev/null"));
}
#endif

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

inline std::string Quote(const std::string& s)
{
    return "'" + s + "'";
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A fresh folder under the test's own data home.
inline std::string Folder(const std::string& name)
{
    const std::string path = std::string(std::getenv("XDG_DATA_HOME")) + "/" + name;
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
    return path;
}

// coilscope-sim as a child process, stopped with SIGTERM at the end.
class Sim {
public:
    explicit Sim(const std::string& dir, std::vector<std::string> options = {}) : m_dir(dir)
    {
        std::vector<std::string> args = {COILSCOPE_SIM, "--dir", dir + "/ports", "--seed", "9"};
        args.insert(args.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, (dir + "/sim.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ok = posix_spawn(&m_pid, COILSCOPE_SIM, &actions, nullptr, argv.data(), environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
        // Ready once it has told its three ports.
        const auto until = std::chrono::steady_clock::now() + 10s;
        while (ok && ReadFile(dir + "/sim.txt").find("fsk ") == std::string::npos &&
               std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(20ms);
        ok = ok && ReadFile(dir + "/sim.txt").find("fsk ") != std::string::npos;
    }
    ~Sim() { Stop(); }
    void Stop()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }
    std::string Env() const { return "COILSCOPE_PORTS=" + Quote(m_dir + "/ports/ttyACM%d") + " "; }
    bool ok = false;

private:
    std::string m_dir;
    pid_t m_pid = -1;
};

// A shell command line run in the background, as a user starts a capture and
// later ends it with a signal; the test watches what it writes.
class Background {
public:
    explicit Background(const std::string& command)
    {
        std::string line = command;
        char sh[] = "sh", dashC[] = "-c";
        char* argv[] = {sh, dashC, &line[0], nullptr};
        ok = posix_spawn(&m_pid, "/bin/sh", nullptr, nullptr, argv, environ) == 0;
        if (!ok)
            m_pid = -1;
    }
    ~Background()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    void Signal(int signal)
    {
        if (m_pid > 0)
            kill(m_pid, signal);
    }
    // Whether it has ended (by itself, or by a signal sent before).
    bool Ended()
    {
        if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid)
            m_pid = -1;
        return m_pid <= 0;
    }
    // Waits for the end; the exit status, or -1 unless it exited normally.
    int Wait()
    {
        if (m_pid > 0 && waitpid(m_pid, &m_status, 0) == m_pid)
            m_pid = -1;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }
    bool ok = false;

private:
    pid_t m_pid = -1;
    int m_status = 0;
};

// Waits until pred() holds or the command has ended; a loaded machine may run
// a capture slowly, so it gets up to two minutes. Whether pred() came to hold.
template <class Pred>
bool WaitUntil(Background& command, Pred pred)
{
    const auto until = std::chrono::steady_clock::now() + 120s;
    while (!pred() && !command.Ended() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(20ms);
    return pred();
}

}  // namespace e2e
