// Start-up of the desktop program: Qt's plug-in folders beside the program,
// set before the application object exists, so that the plug-ins are found
// wherever the program is started from.
#pragma once

// Adds the program's folder (from argv[0], in the locale's encoding) followed
// by "/plugins/iconengines", "/plugins/imageformats", "/plugins/platforms",
// "/plugins/plugins", "/plugins/printsupport", "/plugins/translations" and
// "/plugins" to Qt's library paths.
void AddPluginFoldersBeside(const char* argv0);
