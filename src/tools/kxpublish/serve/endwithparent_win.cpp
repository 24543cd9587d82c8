#include "endwithparent.h"

namespace publish {

void EndWithParent(QProcess&) {}

} // namespace publish
