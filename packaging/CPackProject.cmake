# Read by cpack as it runs, before it asks file(1) for the programs whose libraries the package depends on.
# That spells the bundle's name in octal digits without --raw.
find_program(file_program file REQUIRED)
set(FILE_EXECUTABLE "${file_program}" --raw)

if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} "${CPACK_CHANGELOG_TIME}")
endif()
