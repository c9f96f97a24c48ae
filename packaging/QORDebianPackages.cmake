# What `cpack` makes of the components: Debian packages.
#
#   qor-agent        agent        the agent with its plug-in, units, settings
#   qorctl           client       the client, what shells complete its lines with
#   libqor1          library      what both and plug-ins are linked to, and the vocabulary that every host begins with
#   libqor-dev       development  headers, find_package(QOR)
#   qorpager-dbgsym  debug        the debug symbols of all of them
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qorpager)
set(CPACK_PACKAGE_CONTACT "The QORPager authors <authors@qorpager.example>")
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
set(CPACK_THREADS 0)

# The unit names the agent by its full path: what is installed is told the place that it is for.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/finish.cmake)
set(CPACK_QOR_DEBIAN_DIR ${CMAKE_CURRENT_LIST_DIR}/debian)
set(CPACK_QOR_STRIP ${CMAKE_STRIP})
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(same_library "libqor${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")

set(CPACK_COMPONENTS_ALL agent client library development debug)

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME qor-agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS
  "${same_library}, libsqliteodbc, init-system-helpers (>= 1.54), passwd | systemd")
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS qorctl)
set(CPACK_DEBIAN_AGENT_PACKAGE_SUGGESTS "libvirt0, odbc-postgresql")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  ${CPACK_QOR_DEBIAN_DIR}/agent/postinst ${CPACK_QOR_DEBIAN_DIR}/agent/prerm ${CPACK_QOR_DEBIAN_DIR}/agent/postrm
  ${CPACK_QOR_DEBIAN_DIR}/agent/conffiles)
set(CPACK_COMPONENT_AGENT_DESCRIPTION "agent that knows the environments of a machine
It keeps what is known of hosts, containers and virtual machines, what was
done to them, what happened to them and what was saved of them, and answers
questions about it page by page: on a unix socket, over HTTP, with the rights
of each client.")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME qorctl)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS "${same_library}, libsqliteodbc")
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "client of the agent that knows the environments of a machine
It asks pages of rows, follows the logs, brings records in and takes them out,
and looks after the agent and its database, over a socket, over HTTP or
without an agent.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libqor${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/library/shlibs.in ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs @ONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs ${CPACK_QOR_DEBIAN_DIR}/library/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "library of the agent that knows the environments of a machine
It is what the agent, its client and plug-ins have in common: messages,
operators, access, the database.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqor-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_library}, libboost-dev (>= 1.74)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS qorctl)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "headers for plug-ins of the agent that knows the environments of a machine
A plug-in brings operators and collectors of its own: this is what it is
compiled against, with what CMake's find_package(QOR) needs, and examples.
qorctl checks plug-ins.")

set(CPACK_DEBIAN_DEBUG_PACKAGE_NAME qorpager-dbgsym)
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DEBUG_PACKAGE_DEPENDS "${same_library}")
set(CPACK_COMPONENT_DEBUG_DESCRIPTION "debug symbols of the agent that knows the environments of a machine
With them a debugger shows functions and lines of the agent, its client, the
library and the plug-in.")

# They are told apart by the identifiers that the linker gave, as debuggers look for them.
install(CODE "
  foreach(program $<TARGET_FILE:qor-agent> $<$<TARGET_EXISTS:qorctl>:$<TARGET_FILE:qorctl>> $<TARGET_FILE:qor> $<TARGET_FILE:QORPager>)
    execute_process(COMMAND ${CMAKE_READELF} -n \${program} OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCH \"Build ID: (..)([0-9a-f]+)\" id \"\${notes}\")
    set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/debug/.build-id/\${CMAKE_MATCH_1}\")
    file(MAKE_DIRECTORY \"\${folder}\")
    execute_process(COMMAND ${CMAKE_OBJCOPY} --only-keep-debug --compress-debug-sections \${program}
      \"\${folder}/\${CMAKE_MATCH_2}.debug\" COMMAND_ERROR_IS_FATAL ANY)
    file(CHMOD \"\${folder}/\${CMAKE_MATCH_2}.debug\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endforeach()" COMPONENT debug EXCLUDE_FROM_ALL)

include(CPack)
