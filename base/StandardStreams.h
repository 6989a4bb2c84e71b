#pragma once

/// Opens the null device wherever one of the three standard descriptors was closed when the process started,
/// so that no file of ours gets a number that output is written to. First call in a process.
void occupyStandardStreams();
