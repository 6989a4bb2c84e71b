# Read by cpack as it runs, before it asks file(1) for the programs whose libraries the package depends on.
# That spells the bundle's name in octal digits unless it is told not to.
find_program(file_program file REQUIRED)
set(FILE_EXECUTABLE "${file_program}" --raw)
