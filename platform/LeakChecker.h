#pragma once

/// Keeps LeakSanitizer, in builds that have it, from reporting `object`, which is leaked on purpose.
void leftUnreleasedOnPurpose(const void* object);
