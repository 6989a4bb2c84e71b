#include "install/SystemVersionRule.h"

bool isOlderThan10_14_5(const SystemVersion& version) {
    return version.major < 10 || version.minor < 14 || version.bugFix < 5;
}
