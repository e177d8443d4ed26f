# What `cmake --install` lays out under its prefix, and what `make package` packs into a .deb:
#   bin/                          mod-agent, modctl, mod-gen, mod-collector
#   lib/mirror-on-drop/           libcalyx.so and the plug-in libmirror_on_drop.so: private libraries, found by a
#                                 RUNPATH relative to the program ($ORIGIN/../lib/mirror-on-drop), where
#                                 mod-agent also looks for its plug-in
#   share/man/man1, man8          the programs' manual pages, made from their --help by help2man
#   share/doc/mirror-on-drop/     the example configurations
#   etc/mod-agent/mod-agent.toml  the configuration (/etc when the prefix is /usr)
#   lib/systemd/system/           the unit, its paths made to match the prefix
#   lib/sysusers.d/               the system user the unit runs as
include(GNUInstallDirs)
# The package is mirror-on-drop: its documents go under that name.
set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/mirror-on-drop)
set(MOD_PRIVATE_LIBDIR lib/mirror-on-drop)
set(MOD_PROGRAMS mod-agent modctl mod-gen mod-collector)

set_target_properties(calyx mirror_on_drop PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(${MOD_PROGRAMS} PROPERTIES INSTALL_RPATH "$ORIGIN/../${MOD_PRIVATE_LIBDIR}")
install(TARGETS ${MOD_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS calyx mirror_on_drop LIBRARY DESTINATION ${MOD_PRIVATE_LIBDIR})

# Manual pages from each program's --help and --version. The agent's help names the plug-in it would load
# from the build tree; the page leaves that out.
find_program(HELP2MAN help2man)
if(HELP2MAN AND NOT CALYX_BUILD_FUZZ)
  set(pages)
  foreach(entry "mod-agent|8|runs the Mirror-on-Drop feature on this host"
                "modctl|1|shows what a Mirror-on-Drop agent holds and asks it to clear counters or trace"
                "mod-gen|1|crafts mirrored drop frames or the reports mod-agent sends"
                "mod-collector|1|receives, prints and stores Mirror-on-Drop reports")
    string(REPLACE "|" ";" parts "${entry}")
    list(GET parts 0 program)
    list(GET parts 1 section)
    list(GET parts 2 name)
    set(page ${CMAKE_BINARY_DIR}/man/${program}.${section})
    add_custom_command(
      OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -DHELP2MAN=${HELP2MAN} -DPROGRAM=$<TARGET_FILE:${program}> -DSECTION=${section}
              "-DNAME=${name}" -DOUT=${page} -P ${PROJECT_SOURCE_DIR}/cmake/ManPage.cmake
      DEPENDS ${program} ${PROJECT_SOURCE_DIR}/cmake/ManPage.cmake
      COMMENT "Manual page ${program}(${section})")
    list(APPEND pages ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(man ALL DEPENDS ${pages})
endif()

install(FILES examples/mod-agent.toml examples/session.toml examples/demo.toml
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES contrib/systemd/mirror-on-drop.sysusers DESTINATION lib/sysusers.d RENAME mirror-on-drop.conf)
# The configuration and the unit depend on the prefix given at install time (cmake --install --prefix).
install(CODE "set(MOD_SOURCE_DIR \"${PROJECT_SOURCE_DIR}\")\nset(MOD_BINARY_DIR \"${PROJECT_BINARY_DIR}\")")
install(SCRIPT cmake/InstallService.cmake)
