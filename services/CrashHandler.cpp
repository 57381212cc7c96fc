#include "services/CrashHandler.h"

#include "services/Log.h"

#include <QDir>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Everything the handler needs is prepared at installation, so that the
// handler itself only formats into fixed buffers and makes system calls.
char g_tempFolder[1024];
char g_reporter[2048];
bool g_installed = false;

bool DebuggerAttached()
{
    int fd = ::open("/proc/self/status", O_RDONLY);
    if (fd < 0)
        return false;
    char buffer[4096];
    const ssize_t n = ::read(fd, buffer, sizeof buffer - 1);
    ::close(fd);
    if (n <= 0)
        return false;
    buffer[n] = 0;
    const char* tracer = std::strstr(buffer, "TracerPid:");
    if (!tracer)
        return false;
    tracer += 10;
    while (*tracer == ' ' || *tracer == '\t')
        ++tracer;
    return *tracer != '0';
}

const char* SignalName(int sig)
{
    switch (sig) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGILL: return "SIGILL";
    case SIGABRT: return "SIGABRT";
    default: return "signal";
    }
}

void OnFault(int sig, siginfo_t* info, void*)
{
    if (DebuggerAttached()) {
        std::signal(sig, SIG_DFL);
        ::raise(sig);
        return;
    }
    std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    char folder[1100];
    std::snprintf(folder, sizeof folder, "%s%s", g_tempFolder, "Sniffer");
    ::mkdir(folder, 0755);
    char path[1400];
    CrashReportPath(path, sizeof path, g_tempFolder, t, static_cast<long>(::getpid()),
                    static_cast<long>(::syscall(SYS_gettid)));
    Log::Printf("crash %s", path);
    const int fd = ::open(path, O_CREAT | O_TRUNC | O_RDWR, 0644);
    if (fd >= 0) {
        char head[512];
        const int n = std::snprintf(head, sizeof head, "Coilscope crash report\n%s at address %p\nbacktrace:\n",
                                    SignalName(sig), info ? info->si_addr : nullptr);
        if (n > 0)
            (void)!::write(fd, head, static_cast<size_t>(n));
        void* frames[64];
        const int depth = ::backtrace(frames, 64);
        ::backtrace_symbols_fd(frames, depth, fd);
        ::close(fd);
    }
    // The reporter, if it is there, gets the report's path.
    if (g_reporter[0] && ::access(g_reporter, X_OK) == 0) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::execl(g_reporter, g_reporter, path, static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    std::signal(sig, SIG_DFL);
    ::raise(sig);
}

}  // namespace

void CrashReportPath(char* out, size_t size, const char* tempFolder, const std::tm& t, long pid, long tid)
{
    // The doubled slash is part of the name, and harmless.
    std::snprintf(out, size, "%s%s//%s-%04d%02d%02d-%02d%02d%02d-%ld-%ld.dmp", tempFolder, "Sniffer", "v0.1-2017.9.23",
                  t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, pid, tid);
}

std::string CrashFolder()
{
    return std::string(g_installed ? g_tempFolder : (QDir::tempPath() + "/").toLocal8Bit().constData()) + "Sniffer";
}

void InstallCrashHandler()
{
    const QByteArray temp = (QDir::tempPath() + "/").toLocal8Bit();
    std::snprintf(g_tempFolder, sizeof g_tempFolder, "%s", temp.constData());
    char self[1024] = {};
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::string folder = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
    folder = folder.substr(0, folder.rfind('/') + 1);
    std::snprintf(g_reporter, sizeof g_reporter, "%s%s", folder.c_str(), "SendErrorReport");
    // The log file is opened now, so the handler does not have to.
    Log::Instance();

    static char altStack[64 * 1024];
    stack_t ss{};
    ss.ss_sp = altStack;
    ss.ss_size = sizeof altStack;
    ::sigaltstack(&ss, nullptr);
    struct sigaction sa {};
    sa.sa_sigaction = OnFault;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        ::sigaction(sig, &sa, nullptr);
    g_installed = true;
}
