#pragma once

#include "package/Contents.h"

namespace installer {

/// The folder below the target where an install is prepared, and what it holds; see Staging.
using package::kStagingName;
inline constexpr char kNewFolder[] = "new";
inline constexpr char kOldFolder[] = "old";
inline constexpr char kPlan[] = "plan";
inline constexpr char kDone[] = "done";
inline constexpr char kAside[] = "aside";

} // namespace installer
