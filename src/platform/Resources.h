// The program's shipped resources: <folder of the executable>/../share/zelkor
// (the configured data directory), the same layout in the build tree and under
// an install prefix.
#pragma once

#include <QString>

namespace Resources {

// ZELKOR_RESOURCES in the environment points it elsewhere (tests do).
QString dir();
QString path(const QString& name);
// The scalable application icon, in the icon theme installed beside the resources.
QString icon();

} // namespace Resources
