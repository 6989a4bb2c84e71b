# Rejects a PELLOMAR_PUBLISHER_CERTIFICATE or PELLOMAR_PUBLISHER_KEYS that could not be right. Both are lists.
foreach(certificate IN LISTS PELLOMAR_PUBLISHER_CERTIFICATE)
  if(NOT EXISTS "${certificate}" OR IS_DIRECTORY "${certificate}")
    message(FATAL_ERROR "PELLOMAR_PUBLISHER_CERTIFICATE is not a file: ${certificate}")
  endif()
  # The private key, which must not be handed out, is often in the same folder.
  file(STRINGS "${certificate}" headings REGEX "^-----BEGIN ")
  list(REMOVE_DUPLICATES headings)
  if(NOT headings STREQUAL "-----BEGIN CERTIFICATE-----")
    message(FATAL_ERROR "PELLOMAR_PUBLISHER_CERTIFICATE must hold certificates in PEM form and nothing else: "
                        "${certificate}")
  endif()
endforeach()
if(PELLOMAR_PUBLISHER_KEYS AND NOT PELLOMAR_PUBLISHER_CERTIFICATE)
  message(FATAL_ERROR "PELLOMAR_PUBLISHER_KEYS needs the certificate of the authority that certified the keys: "
                      "PELLOMAR_PUBLISHER_CERTIFICATE")
endif()
foreach(key IN LISTS PELLOMAR_PUBLISHER_KEYS)
  string(LENGTH "${key}" length)
  if(NOT key MATCHES "^[0-9A-Fa-f]+$" OR NOT length EQUAL 64)
    message(FATAL_ERROR "PELLOMAR_PUBLISHER_KEYS holds what is not a SHA-256 digest: ${key}")
  endif()
endforeach()
