# Rejects values that could not work.
foreach(host IN ITEMS PELLOMAR_DOWNLOAD_HOST PELLOMAR_UPDATE_HOST)
  if(NOT "${${host}}" MATCHES "^([A-Za-z0-9._-]+|\\[[0-9A-Fa-f:.]+\\])(:[0-9]+)?$")
    message(FATAL_ERROR "${host} must be a host or host:port, not \"${${host}}\"")
  endif()
endforeach()
if(NOT PELLOMAR_HELP_URL MATCHES "^https://[^ \"\\]+$")
  message(FATAL_ERROR "PELLOMAR_HELP_URL must be an absolute https URL, not \"${PELLOMAR_HELP_URL}\"")
endif()
