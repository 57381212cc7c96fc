#pragma once

#include "analysis/Export.h"
#include "analysis/Filter.h"
#include "events/MsgInfo.h"

#include <json/json.h>

#include <string>

// coilscope-cli show FILE.sid [--json] [--filter EXPR] [--format csv|json|text]
int RunShow(int argc, char** argv);

// An event as one JSON object with its groups as nested objects.
using analysis::EventJson;

// Compiles the --filter of a command; a bad expression is told on stderr as
// "coilscope-cli COMMAND: bad filter: column N: expected ..." with the filter
// and a caret under the column, and false is returned.
bool CompileCliFilter(const char* command, const std::string& text, analysis::Filter& filter);

// Takes the expression that follows --filter at argv[i] into `text` and moves
// i past it; when there is none, says so on stderr and returns false.
bool TakeCliFilter(const char* command, int argc, char** argv, int& i, std::string& text);
