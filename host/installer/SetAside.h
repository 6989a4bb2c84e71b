#pragma once

#include "host/installer/StagingLayout.h"

#include <cstdint>
#include <string>

/// The installed application, moved out of the way while another version is installed in its place. It lies
/// in the folder `aside` of the staging folder. It is there as a whole or, while a move entry by entry is
/// under way, in part; then `aside/pieces` exists and the rest is at the application's own place. Every
/// function throws Failure when it fails.
namespace installer {

/// Whether any of the application is in `aside`.
bool isSetAside(StagingFolder staging);

/// Whether a move was interrupted, so that each of the two places may have a part.
bool isSetAsideInPart(StagingFolder staging);

/// Whether anything is at the application's place.
bool isApplicationPresent(TargetFolder target);

/// Moves the application, if there is one, to `aside`, which must not exist. On failure it is moved back.
void setAside(TargetFolder target, StagingFolder staging);

/// Moves it back, or finishes an interrupted move back. Its place must be empty or hold only part of it.
void putBack(TargetFolder target, StagingFolder staging);

/// Moves whatever is at the application's place into the staging folder, as `name`.
void moveApplication(TargetFolder target, StagingFolder staging, const std::string& name);

/// The bytes that removing it would free.
std::uint64_t bytesSetAside(StagingFolder staging);

} // namespace installer
