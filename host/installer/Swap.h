#pragma once

#include "host/installer/StagingLayout.h"

#include <string>
#include <string_view>
#include <vector>

/// Swaps what was prepared in a staging folder with what is in the target, and back. All state is on disk, so
/// that any later run can undo what an interrupted one did. Every function throws Failure when it fails.
namespace installer {

/// Whether a folder of that name is a unit: it belongs to one package, and old files in it would be mistaken
/// for the new version's.
bool isBundle(std::string_view name);

/// Places relative to the target: each is a file, a link, or a whole folder.
using SwapPlan = std::vector<std::string>;

/// Decides, place by place, what of the new moves as a whole. Changes nothing. Refuses when the target has a
/// file or link in place of a folder, a folder in place of a file, or a folder on another file system.
SwapPlan makeSwapPlan(TargetFolder target, StagingFolder staging);

void writeSwapPlan(StagingFolder staging, const SwapPlan& plan);

/// Empty when none was written, in which case nothing was moved either.
SwapPlan readSwapPlan(StagingFolder staging);

void swap(TargetFolder target, StagingFolder staging, const SwapPlan& plan);

/// Puts everything back, however far the swap, or an earlier undoing, came.
void undoSwap(TargetFolder target, StagingFolder staging, const SwapPlan& plan);

} // namespace installer
