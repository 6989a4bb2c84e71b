#pragma once

namespace package {

/// Limits what this process can allocate from now on to 48 MB, threads included: a second line of defence,
/// since all that a package can make it allocate is limited where it is read. Call it before threads are
/// started.
void limitMemory();

} // namespace package
