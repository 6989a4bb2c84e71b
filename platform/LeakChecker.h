#pragma once

/// Tells a leak checker, where one is built in, that `object` stays unreleased on purpose.
void leftUnreleasedOnPurpose(const void* object);
