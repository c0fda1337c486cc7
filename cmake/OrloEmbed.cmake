# orlo_embed(TARGET FILE TEMPLATE): builds the bytes of a file into a target. @ORLO_BYTES@ in the
# template, NAME.cpp.in, becomes the elements of an array. Compilers limit the length of a string
# literal, and not that of an array.

set(ORLO_EMBED_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/EmbedFile.cmake")

function(orlo_embed target file template)
  string(REGEX REPLACE "\\.in$" "" output "${CMAKE_CURRENT_BINARY_DIR}/${template}")
  add_custom_command(OUTPUT "${output}"
    COMMAND "${CMAKE_COMMAND}" "-DFILE=${CMAKE_CURRENT_SOURCE_DIR}/${file}"
      "-DTEMPLATE=${CMAKE_CURRENT_SOURCE_DIR}/${template}" "-DOUTPUT=${output}"
      -P "${ORLO_EMBED_SCRIPT}"
    DEPENDS "${file}" "${template}" "${ORLO_EMBED_SCRIPT}"
    VERBATIM)
  target_sources(${target} PRIVATE "${output}")
endfunction()
