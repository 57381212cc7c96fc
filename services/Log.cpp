#include "services/Log.h"

#include <QDir>
#include <QStandardPaths>

#include <cstdarg>
#include <ctime>

namespace {

std::string LocalTime(const char* format)
{
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[64];
    std::strftime(text, sizeof text, format, &parts);
    return text;
}

}  // namespace

Log& Log::Instance()
{
    static Log* instance = new Log();  // lives to the end of the process
    return *instance;
}

Log::~Log()
{
    if (m_file)
        std::fclose(m_file);
}

std::string Log::Folder()
{
    // The roaming application-data folder of the desktop is the XDG data home.
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return (base + QStringLiteral("/Coilscope")).toStdString();
}

std::string Log::FilePath() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_file ? m_path : std::string();
}

// Called with the mutex held: two threads that write the first line at once
// would otherwise both create (and truncate) the file.
void Log::OpenFile()
{
    std::string path = "E:";
    std::string folder = Folder();
    QDir().mkpath(QString::fromStdString(folder));
    path = folder;
    if (path.size() < 5)
        return;
    const std::string name = path + "/log_" + LocalTime("%Y-%m-%d %H-%M-%S") + ".txt";
    m_file = std::fopen(name.c_str(), "wb");
    if (m_file)
        m_path = name;
}

void Log::WriteLine(const std::string& message)
{
    const std::string line = LocalTime("%Y-%m-%d %H-%M-%S") + message + "\r\n";
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_file)
        OpenFile();
    if (!m_file)
        return;  // no file: the line is dropped and the next one tries again
    std::fwrite(line.data(), 1, line.size(), m_file);
    std::fflush(m_file);
}

std::string Log::Printf(const char* format, ...)
{
    char buffer[200];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    std::string message(buffer);
    Instance().WriteLine(message);
    return message;
}
