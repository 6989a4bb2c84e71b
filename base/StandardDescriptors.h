#pragma once

/// Opens the null device as each of the three standard descriptors that was closed when the process started,
/// so that no file opened later gets such a number and receives output. Call it first in a process.
void occupyStandardDescriptors();
