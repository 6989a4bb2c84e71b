#include "support/Proxies.h"
#include "transfer/CurlLibrary.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    forgetProxies();
    initialiseCurlLibrary();
    const int result = RUN_ALL_TESTS();
    cleanUpCurlLibrary();
    return result;
}
