#include "services/SettingParams.h"

SettingParams& SettingParams::Instance()
{
    static SettingParams* record = new SettingParams();  // lives to the end of the process
    return *record;
}
