// The icons of the windows, compiled into the program as a Qt resource.
#pragma once

#include <QIcon>
#include <QString>

// Registers the resource (a static library's resource must be initialised by
// hand); safe to call more than once.
void InitIcons();

// The icon under a resource key such as ":/icons/icons/go.ico".
QIcon IconAt(const QString& key);
