// The program's shipped resources: <folder of the executable>/../share/zelkor,
// the same layout in the build tree and under an install prefix.
#pragma once

#include <QString>

namespace Resources {

// ZELKOR_RESOURCES in the environment points it elsewhere (tests do).
QString dir();
QString path(const QString& name);

} // namespace Resources
