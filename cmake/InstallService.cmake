# Run by `cmake --install`: the configuration and the systemd unit, with the prefix given at install time. The
# configuration goes to /etc when the prefix is /usr (a Debian package), else to <prefix>/etc; an existing one
# is left as it is.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(etc /etc)
else()
  set(etc ${CMAKE_INSTALL_PREFIX}/etc)
endif()
if(NOT EXISTS "$ENV{DESTDIR}${etc}/mod-agent/mod-agent.toml")
  file(INSTALL ${MOD_SOURCE_DIR}/examples/mod-agent.toml DESTINATION ${etc}/mod-agent)
endif()
file(READ ${MOD_SOURCE_DIR}/examples/mod-agent.service unit)
string(REPLACE "/usr/bin/mod-agent" "${CMAKE_INSTALL_PREFIX}/bin/mod-agent" unit "${unit}")
string(REPLACE "/etc/mod-agent/" "${etc}/mod-agent/" unit "${unit}")
set(staged ${MOD_BINARY_DIR}/unit/mod-agent.service)
file(WRITE ${staged} "${unit}")
file(INSTALL ${staged} DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
