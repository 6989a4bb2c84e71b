#pragma once

#include "platform/SystemVersion.h"

/// Whether a missing driver is a matter of the security settings (older systems) or of the driver's
/// signature. Each number is tested on its own against 10.14.5: 10.15.0 and 11.0 count as older, 10.15.7 does
/// not.
bool isOlderThan10_14_5(const SystemVersion& version);
