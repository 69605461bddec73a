// The program's display name: window title, menu titles, and the name of its
// folders under the user's configuration and data folders.
#pragma once

#include <QLatin1String>

inline constexpr QLatin1String appName("ODRAVEX Zelkor");
