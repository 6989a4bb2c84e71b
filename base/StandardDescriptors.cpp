#include "base/StandardDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

void occupyStandardDescriptors() {
    int lowest = 0;
    do {
        lowest = open("/dev/null", O_RDWR);
    } while (lowest >= 0 && lowest <= STDERR_FILENO);
    if (lowest > STDERR_FILENO) {
        close(lowest);
    }
}
