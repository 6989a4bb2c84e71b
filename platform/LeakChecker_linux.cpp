#include "platform/LeakChecker.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

void leftUnreleasedOnPurpose([[maybe_unused]] const void* object) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(object);
#endif
}
