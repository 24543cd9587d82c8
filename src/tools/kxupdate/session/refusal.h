#pragma once

#include "exitstatus.h"

/** True for the codes with which the guard refuses an install. */
bool IsRefusal(int code);

/** What the process ends with after a refusal of the guard. */
ExitStatus RefusalStatus(int code);
