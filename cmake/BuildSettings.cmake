# Compiler settings of all targets: link `build_settings`.
add_library(build_settings INTERFACE)
target_compile_options(build_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 warns of overlapping copies inside its own std::string (GCC bug 105651).
  target_compile_options(build_settings INTERFACE -Wno-restrict)
endif()
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # It takes a source that another one includes for a header.
  target_compile_options(build_settings INTERFACE -Wno-subobject-linkage)
endif()

# For CI: a newer compiler's warning must not break builds elsewhere.
option(PELLOMAR_WARNINGS_AS_ERRORS "Treat warnings as errors" OFF)
if(PELLOMAR_WARNINGS_AS_ERRORS)
  target_compile_options(build_settings INTERFACE -Werror)
endif()

# What is built does not depend on the folder that it is built in.
target_compile_options(build_settings INTERFACE "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

set(PELLOMAR_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
if(PELLOMAR_SANITIZE)
  target_compile_options(build_settings INTERFACE -fsanitize=${PELLOMAR_SANITIZE} -fno-omit-frame-pointer
                                                  -fno-sanitize-recover=all)
  target_link_options(build_settings INTERFACE -fsanitize=${PELLOMAR_SANITIZE})
endif()

# All presets are hardened, so that what is tested is what is shipped. FORTIFY needs optimisation, and sanitizers replace
# it.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
target_compile_options(build_settings INTERFACE -fstack-protector-strong -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  target_compile_options(build_settings INTERFACE -mbranch-protection=standard)
endif()
target_link_options(build_settings INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
if(NOT PELLOMAR_SANITIZE)
  target_compile_options(build_settings INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()
