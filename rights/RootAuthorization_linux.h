#pragma once

#include "rights/Authorization.h"

#include <memory>

/// Rights for a process that is root already: no question is asked, and tools are children of this process.
/// The same commands are run under the same conditions as by the rights service.
std::unique_ptr<AuthorizationOpaque> makeRootAuthorization();
