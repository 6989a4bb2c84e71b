#pragma once

/// Opens the null device wherever one of the three standard descriptors was closed when the process started,
/// so that no file opened later gets such a number and receives output. Call first in a process.
void occupyStandardStreams();
