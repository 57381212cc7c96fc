// The settings object: the file "setting.txt", its load, its defaults and its
// save, for the one process-wide settings record.
//
// The file lives in the per-user configuration folder of the application
// (<XDG config home>/Coilscope/setting.txt) and the default savePath is the
// application-data folder (<XDG data home>/Coilscope). Neither accessor locks.
#pragma once

#include "services/SettingParams.h"

#include <cstdint>
#include <ctime>
#include <string>

class AppSettings {
public:
    // Format stamp of the current file layout; older files are reset to the
    // defaults at load.
    static constexpr int32_t kParamsVersion = 20190713;
    // A settings file longer than this is taken as unreadable.
    static constexpr size_t kMaxFileBytes = 1 << 20;

    // The one object of the process: created at first use, which loads the
    // file into SettingParams::Instance().
    static AppSettings& Instance();
    // Frees the object; the next Instance() creates it again and reloads.
    static void Release();
    // Returns the one record to its construction values. Its storage belongs
    // to SettingParams and stays valid, so a late reader never sees freed memory.
    static void ReleaseParams();
    // Tests: forget the object and the record and load the file again.
    static void ReloadForTest();

    // An object on the file at filePath and the record at *params (not owned);
    // loads at once.
    AppSettings(std::string filePath, SettingParams* params);
    AppSettings(const AppSettings&) = delete;
    AppSettings& operator=(const AppSettings&) = delete;

    // Reads the file into the record; with no readable file, or one older than
    // kParamsVersion, applies the defaults and saves.
    void load();
    // Serialises the record and writes the file; a failure is logged.
    void save();
    // Sets the defaults into the record, then saves.
    void applyDefaults();

    const std::string& FilePath() const { return m_filePath; }
    SettingParams* Params() const { return m_params; }

    // savePath with "/" appended.
    std::string SavePathSlash() const;
    // Names the session folder savePath + "/" + "%Y_%m_%d %H_%M_%S" of
    // localTime, sets logPath, eventPath and capturePath to it with a trailing
    // "/", creates it and returns that path.
    std::string MakeSessionFolders(const std::tm& localTime);
    // The same for the current local time.
    std::string MakeSessionFolders();

    // "%02d:%02d:%02d.%06d" of a microsecond count, hours within the day.
    static std::string TimeText(int64_t microseconds);

    // <config home>/Coilscope/setting.txt
    static std::string DefaultFilePath();
    // <data home>/Coilscope, the default savePath.
    static std::string DefaultSavePath();

    // Parses a settings text, read as a C string (up to the first NUL), into
    // params. Returns false, leaving params untouched, when the text is not a
    // JSON object.
    static bool Parse(const char* text, SettingParams& params);
    // The defaults, without saving.
    static void SetDefaults(SettingParams& params, const std::string& savePath);
    // The fifteen keys in JsonCpp's styled form.
    static std::string Serialize(const SettingParams& params);

private:
    std::string m_filePath;
    SettingParams* m_params;
};
