# `make package`: a Debian package of what `cmake --install` lays out, by CPack's DEB generator. Its
# dependencies are the Debian packages of the libraries the programs link, as dpkg-shlibdeps finds them (the
# two private libraries are the package's own). Installing it makes the system user mod-agent; the service
# is left for the administrator to enable.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mirror-on-drop)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Mirror-on-Drop maintainers <mirror-on-drop@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Drop telemetry from a switch chip's mirrored drop frames")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "mod-agent turns the frames a switch chip mirrors for the packets it drops into flows, keeps them in "
       "shared-memory tables and reports each flow's start and stop to collectors. modctl shows the tables "
       "and talks to the agent, mod-gen crafts mirrored drop frames, mod-collector receives and stores "
       "reports.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/mirror_on_drop)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/contrib/debian/conffiles
                                       ${PROJECT_SOURCE_DIR}/contrib/debian/postinst)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
