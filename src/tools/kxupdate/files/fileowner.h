#pragma once

#include <QString>

QT_BEGIN_NAMESPACE
class QFileDevice;
QT_END_NAMESPACE

/**
 * Gives the open `file` the mode, and as far as the system allows the owner and the group, of the
 * file at `model`. Where the group cannot be kept, another one gets no more than everybody has.
 */
void KeepOwner(const QString& model, QFileDevice& file);
