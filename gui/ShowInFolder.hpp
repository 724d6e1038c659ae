// "Show in Folder": asks the file manager to reveal a file, over D-Bus.
#pragma once

#include <QString>

namespace tessarin::gui {

// Calls org.freedesktop.FileManager1.ShowItems for `path` without blocking; when no file
// manager answers (none running, or the call fails), opens the containing folder instead.
void showInFolder(const QString& path);

}  // namespace tessarin::gui
