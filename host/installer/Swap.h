#pragma once

#include <string>
#include <vector>

// How what was prepared in a staging folder changes places with what is in the target, and back. All state is
// on disk, so that any later run can undo what one that was cut short did. Each call throws Failure.
namespace installer {

// Places relative to the target: each is a file, a link, or a whole folder.
using SwapPlan = std::vector<std::string>;

// Goes through what is new and decides, place by place, what moves as a whole. Changes nothing. Refuses when
// the target has a file or link in place of a folder, a folder in place of a file, or a folder on another
// file system.
SwapPlan makeSwapPlan(int target, int staging);

void writeSwapPlan(int staging, const SwapPlan& plan);

// Empty when none was written, in which case nothing was moved either.
SwapPlan readSwapPlan(int staging);

void swap(int target, int staging, const SwapPlan& plan);

// Puts everything back, however far the swap, or an earlier undoing, came.
void undoSwap(int target, int staging, const SwapPlan& plan);

} // namespace installer
