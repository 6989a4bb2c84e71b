#pragma once

#include "rights/Authorization.h"

#include <memory>

/// Rights for a process that is not root: asks the rights service on the system bus, which asks polkit. Each
/// authorization uses its own connection, so the user is asked again each time. Null if there is no system
/// bus, no rights service or no polkit. Any thread; one authorization is used by one thread at a time.
///
/// On the main thread the calls run the event loop while they wait: the window stays responsive and can be
/// closed.
std::unique_ptr<AuthorizationOpaque> makePolkitAuthorization();
