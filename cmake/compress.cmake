find_program(GZIP gzip REQUIRED)

# Compresses a file of the current source directory as Debian wants its documents, the same bytes every time,
# and leaves the result's path in `output`.
function(compress file output)
  set(compressed "${CMAKE_CURRENT_BINARY_DIR}/${file}.gz")
  add_custom_command(OUTPUT "${compressed}"
    COMMAND "${GZIP}" -9 --no-name --stdout "${CMAKE_CURRENT_SOURCE_DIR}/${file}" > "${compressed}"
    DEPENDS "${file}" VERBATIM)
  add_custom_target("compressed-${file}" ALL DEPENDS "${compressed}")
  set(${output} "${compressed}" PARENT_SCOPE)
endfunction()
