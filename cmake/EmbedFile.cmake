# Run at build time by orlo_embed.
file(READ "${FILE}" ORLO_BYTES HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," ORLO_BYTES "${ORLO_BYTES}")
configure_file("${TEMPLATE}" "${OUTPUT}" @ONLY)
