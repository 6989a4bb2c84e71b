#pragma once

namespace installer {

/// The folder below the target where an install is prepared, and what it holds; see Staging.
inline constexpr char kStagingName[] = ".pellomar-installer";
inline constexpr char kNewFolder[] = "new";
inline constexpr char kOldFolder[] = "old";
inline constexpr char kPlan[] = "plan";
inline constexpr char kDone[] = "done";
inline constexpr char kAside[] = "aside";

} // namespace installer
