# The Debian package of the agent, orlo-agent: the component "agent" with what makes it a service. Made
# by script/package, which configures the preset "package". The libraries are private ones, in
# /usr/lib/orlo-agent.

set(places "${PROJECT_SOURCE_DIR}/packaging")
set(made "${CMAKE_BINARY_DIR}/debian")
file(MAKE_DIRECTORY "${made}")

# compressed(SOURCE NAME DIRECTORY): installs the file as NAME.gz.
set(ORLO_COMPRESSED "")
function(compressed source name directory)
  add_custom_command(OUTPUT "${made}/${name}.gz"
    COMMAND gzip -9nc "${source}" > "${made}/${name}.gz" DEPENDS "${source}" VERBATIM)
  set(ORLO_COMPRESSED "${ORLO_COMPRESSED};${made}/${name}.gz" PARENT_SCOPE)
  install(FILES "${made}/${name}.gz" DESTINATION "${directory}" COMPONENT agent)
endfunction()

set(documents "${CMAKE_INSTALL_DATADIR}/doc/orlo-agent")
compressed("${places}/man/orlo-cache.1" orlo-cache.1 "${CMAKE_INSTALL_MANDIR}/man1")
compressed("${places}/man/orlo-agent.8" orlo-agent.8 "${CMAKE_INSTALL_MANDIR}/man8")
compressed("${PROJECT_SOURCE_DIR}/CHANGELOG.md" CHANGELOG.md "${documents}")
configure_file("${places}/debian/changelog.in" "${made}/changelog" @ONLY)
compressed("${made}/changelog" changelog "${documents}")
add_custom_target(DebianFiles ALL DEPENDS ${ORLO_COMPRESSED})

install(FILES "${places}/debian/copyright" DESTINATION "${documents}" COMPONENT agent)
install(DIRECTORY config/ DESTINATION "${documents}/examples" COMPONENT agent
  FILES_MATCHING PATTERN "*.yaml")
install(FILES "${places}/debian/agent.yaml" DESTINATION /etc/orlo-agent COMPONENT agent)
install(FILES "${places}/debian/orlo-agent.service" DESTINATION /lib/systemd/system
  COMPONENT agent)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL agent)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME orlo-agent)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Orlo maintainers <maintainers@orlo.example>")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"store-and-forward agent for log events
Collects log events from syslog, from files and from standard input, keeps
them on disk while their destination can't take them, and forwards them in
the order in which they came: to syslog, Kafka or a file.

The package has the agent as a service and orlo-cache, which looks into
what waits on disk and mends it.")
# The zones of send schedules are those of the system.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, tzdata")
# Roots for tls:// addresses that name none.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_BINARY_DIR}/lib")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  "${places}/debian/conffiles;${places}/debian/postinst;${places}/debian/prerm;${places}/debian/postrm")
include(CPack)
