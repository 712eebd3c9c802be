# Service unit, example configuration and the Debian package built by CPack
# from the install rules ("cpack -G DEB" in a build tree).

# The unit is written for the package, which installs under /usr: it starts
# /usr/sbin/kinwatch with /etc/kinwatch/kinwatch.conf.
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.sysusers DESTINATION lib/sysusers.d RENAME kinwatch.conf)
# The configuration lives under /etc whatever the prefix, where the unit and
# the package expect it; DESTDIR still applies.
install(FILES ${PROJECT_SOURCE_DIR}/data/kinwatch.conf DESTINATION /etc/kinwatch)

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

# The configuration is the operator's (and the service rewrites it), so an
# upgrade must not overwrite it: it is a conffile. The maintainer scripts
# register the unit with systemd when systemd runs.
set(KW_DEBIAN_CONTROL ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${KW_DEBIAN_CONTROL}/conffiles "/etc/kinwatch/kinwatch.conf\n")
foreach(script postinst prerm postrm)
  configure_file(${PROJECT_SOURCE_DIR}/data/debian/${script} ${KW_DEBIAN_CONTROL}/${script} COPYONLY)
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${KW_DEBIAN_CONTROL}/conffiles ${KW_DEBIAN_CONTROL}/postinst ${KW_DEBIAN_CONTROL}/prerm
    ${KW_DEBIAN_CONTROL}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
