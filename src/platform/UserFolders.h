// Where the user's own files live: the freedesktop base folders and the
// program's folder inside the data folder.
#pragma once

#include <QString>

namespace UserFolders {

// $XDG_CONFIG_HOME, or ~/.config when that is unset, empty or relative.
QString configHome();
// $XDG_DATA_HOME, or ~/.local/share when that is unset, empty or relative.
QString dataHome();
// dataHome()/ODRAVEX Zelkor. Not created here.
QString appDataDir();
// $XDG_CACHE_HOME, or ~/.cache when that is unset, empty or relative.
QString cacheHome();

} // namespace UserFolders
