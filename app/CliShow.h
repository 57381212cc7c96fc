#pragma once

#include "events/MsgInfo.h"

#include <json/json.h>

// coilscope-cli show FILE.sid [--json]
int RunShow(int argc, char** argv);

// An event as one JSON object with its groups as nested objects.
Json::Value EventJson(const MsgInfo& event);
