#pragma once

#include "platform/SystemVersion.h"

/// Decides which guidance a missing driver gets: true for the security settings, false for the driver's
/// signature. Each number is compared with that of 10.14.5 separately: 10.15.0 and 11.0 count as older,
/// 10.15.7 does not.
bool isOlderThan10_14_5(const SystemVersion& version);
