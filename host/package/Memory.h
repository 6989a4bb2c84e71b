#pragma once

namespace package {

/// Limits what this process can allocate from now on to 48 MB, threads included. This is a second protection:
/// whatever reads a package limits what the package can make it allocate. Call it before threads are
/// started.
void limitMemory();

} // namespace package
