// The application's diagnostic log: one text file per run under the
// application-data folder, created on the first line, written from any thread.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

class Log {
public:
    static Log& Instance();

    // Formats into 200 characters, writes "<%Y-%m-%d %H-%M-%S><message>\r\n" and
    // returns the formatted message without the time.
    static std::string Printf(const char* format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 1, 2)))
#endif
        ;

    // The folder the log lives in: <application data>/Coilscope.
    static std::string Folder();
    // Path of the open file, empty while none is open.
    std::string FilePath() const;

    void WriteLine(const std::string& message);

private:
    Log() = default;
    ~Log();
    void OpenFile();

    std::FILE* m_file = nullptr;
    std::string m_path;
    mutable std::mutex m_mutex;
};
