#pragma once

#include "exitstatus.h"

#include <QString>

/** True for codes that say that the server, or the way to it, is at fault. */
bool IsServerError(int code);

/** What the user can do about an error of the library; empty where nothing is obvious. `text` is
 *  the error's own. */
QString ErrorHint(int code, const QString& text);
