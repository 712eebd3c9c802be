# Service unit, default configuration, licence, change log and the Debian
# package built by CPack from the install rules ("cpack -G DEB" in a build
# tree).

# The unit is written for the package, which installs under /usr: it starts
# /usr/sbin/kinwatch with /etc/kinwatch/kinwatch.conf.
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.sysusers DESTINATION lib/sysusers.d RENAME kinwatch.conf)
# The service rewrites its configuration, so the package must not own the
# file under /etc: it ships the default here, and postinst copies it to
# /etc/kinwatch/kinwatch.conf when that file is missing.
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/kinwatch)
# The unit's options, which only the administrator edits: a conffile (listed
# in data/debian/conffiles), in the one place the unit reads it, whatever
# the prefix.
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.default DESTINATION /etc/default RENAME kinwatch)

# The copyright file in Debian's machine-readable format, with the licence
# text of LICENSE (without its title and copyright line) as its continuation
# lines: each indented by a space, an empty line written as " .".
file(READ ${PROJECT_SOURCE_DIR}/LICENSE kw_licence)
string(REGEX REPLACE "^[^\n]*\n\n[^\n]*\n\n" "" kw_licence "${kw_licence}")
string(STRIP "${kw_licence}" kw_licence)
string(REPLACE "\n" "\n " kw_licence " ${kw_licence}")
string(REPLACE "\n \n" "\n .\n" kw_licence "${kw_licence}")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/doc/copyright CONTENT
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: kinwatch

Files: *
Copyright: 2026 The Kinwatch authors
License: Expat
${kw_licence}
")
# The package is native, so its change log is the Debian one. The date
# follows SOURCE_DATE_EPOCH when that is set, for a reproducible package.
string(TIMESTAMP kw_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/doc/changelog CONTENT
"kinwatch (${PROJECT_VERSION}) unstable; urgency=medium

  * Release ${PROJECT_VERSION}.

 -- Kinwatch maintainers <kinwatch@tavix.invalid>  ${kw_date}
")
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/doc/changelog.gz COMMAND sh -c "gzip -9n <changelog >changelog.gz" VERBATIM
  DEPENDS ${PROJECT_BINARY_DIR}/doc/changelog WORKING_DIRECTORY ${PROJECT_BINARY_DIR}/doc)
add_custom_target(changelog_gz ALL DEPENDS ${PROJECT_BINARY_DIR}/doc/changelog.gz)
install(FILES ${PROJECT_BINARY_DIR}/doc/copyright ${PROJECT_BINARY_DIR}/doc/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Lintian reads the package's own overrides from here; each says why.
install(FILES ${PROJECT_SOURCE_DIR}/data/debian/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  RENAME kinwatch)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kinwatch)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Kinwatch maintainers <kinwatch@tavix.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "finds and follows the sibling cameras of a group")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "Kinwatch runs on each network camera of a group. It finds the other\n"
  "cameras of its group on the local network by UDP multicast over IPv4 and\n"
  "IPv6, keeps tables of known and lost siblings, raises a platform event\n"
  "when a sibling is first heard or declared lost, and offers its settings\n"
  "and node lists on the D-Bus system bus. kinwatchctl reads and changes\n"
  "them from the command line.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps names the packages of the libraries the programs link
# (GLib, GIO, libnl-3, libnl-route-3).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Without a system bus the service still runs, only without its bus object.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "default-dbus-system-bus | dbus-system-bus")

# The maintainer scripts make the service's user and its configuration, and
# register the unit with systemd. The one conffile is /etc/default/kinwatch.
set(KW_DEBIAN_CONTROL ${PROJECT_BINARY_DIR}/debian)
foreach(script postinst prerm postrm conffiles)
  configure_file(${PROJECT_SOURCE_DIR}/data/debian/${script} ${KW_DEBIAN_CONTROL}/${script} COPYONLY)
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${KW_DEBIAN_CONTROL}/postinst ${KW_DEBIAN_CONTROL}/prerm ${KW_DEBIAN_CONTROL}/postrm ${KW_DEBIAN_CONTROL}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
