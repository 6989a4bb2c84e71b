#pragma once

#include "platform/Authorization.h"

/// Rights for a process that is root already: nobody is asked, tools become children of this process.
AuthorizationRef makeRootAuthorization();
