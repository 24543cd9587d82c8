#pragma once

#include <QtGlobal>

QT_BEGIN_NAMESPACE
class QProcess;
QT_END_NAMESPACE

namespace publish {

/**
 * Makes a program that `process` will start end with this one, even when this one is killed and can
 * do nothing more, and keeps the Ctrl-C of a terminal from it. Called before the start, and again
 * before each further one. The first half holds on Linux only: elsewhere a program outlives a
 * killed parent.
 */
void EndWithParent(QProcess& process);

} // namespace publish
