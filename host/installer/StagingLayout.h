#pragma once

#include "host/package/Contents.h"

namespace installer {

/// The folder that is installed into, open. A type of its own, as is the next, so that the two can't be
/// swapped by mistake; both can be used wherever a descriptor is wanted.
struct TargetFolder {
    int descriptor = -1;

    operator int() const { return descriptor; }
};

/// The folder below the target where an install is prepared, open; see Staging.
struct StagingFolder {
    int descriptor = -1;

    operator int() const { return descriptor; }
};

/// Its name, and those of what it holds.
using package::kStagingName;
inline constexpr char kNewFolder[] = "new";
inline constexpr char kOldFolder[] = "old";
inline constexpr char kPlan[] = "plan";
inline constexpr char kDone[] = "done";
inline constexpr char kAside[] = "aside";

} // namespace installer
