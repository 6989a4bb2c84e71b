#pragma once

#include <cstdint>
#include <string>

/// The installed application, moved out of the way while another version is installed in its place. It lies
/// in the folder `aside` of the staging folder. It is there as a whole or, while a move entry by entry is
/// under way, in part; then `aside/pieces` exists and the rest is at the application's own place. Every
/// function throws Failure when it fails.
namespace installer {

/// Whether any of the application is in `aside`.
bool isSetAside(int staging);

/// Whether a move was interrupted, so that each of the two places may have a part.
bool isSetAsideInPart(int staging);

/// Whether anything is at the application's place.
bool isApplicationPresent(int target);

/// Moves the application, if there is one, to `aside`, which must not exist. On failure it is moved back.
void setAside(int target, int staging);

/// Moves it back, or completes such a move. Nothing but a part of it may be at its place.
void putBack(int target, int staging);

/// Moves whatever is at the application's place, if anything is, into the staging folder under `name`.
void moveApplication(int target, int staging, const std::string& name);

/// The bytes that removing it would free.
std::uint64_t bytesSetAside(int staging);

} // namespace installer
