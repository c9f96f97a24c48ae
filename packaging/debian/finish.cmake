# Run by cpack between installing a component's files and packing them: what Debian expects of a package beyond what is
# installed anywhere else.
unset(ENV{DESTDIR})  # which leads to one component, whichever it is
file(GLOB roots LIST_DIRECTORIES true ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(root ${roots})
  cmake_path(GET root FILENAME component)
  string(TOUPPER ${component} upper)
  set(name ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  if(NOT name)
    message(FATAL_ERROR "${root} is no component")
  endif()

  # The loader looks in /usr/lib by itself; symbols have a package of their own.
  file(GLOB_RECURSE programs ${root}/usr/bin/* ${root}/usr/lib/*.so ${root}/usr/lib/*.so.*)
  foreach(program ${programs})
    if(NOT IS_SYMLINK ${program})
      file(RPATH_REMOVE FILE ${program})
      execute_process(COMMAND ${CPACK_QOR_STRIP} --strip-unneeded --remove-section=.comment --remove-section=.note ${program}
        COMMAND_ERROR_IS_FATAL ANY)
    endif()
  endforeach()

  set(documents ${root}/usr/share/doc/${name})
  file(INSTALL ${CPACK_QOR_DEBIAN_DIR}/copyright ${CPACK_QOR_DEBIAN_DIR}/changelog DESTINATION ${documents})
  if(component STREQUAL agent)
    file(INSTALL ${CPACK_QOR_SETTINGS} DESTINATION ${root}/etc/qor)
    file(INSTALL ${CPACK_QOR_DEBIAN_DIR}/agent/logrotate DESTINATION ${root}/etc/logrotate.d RENAME qor-agent)
    file(MAKE_DIRECTORY ${root}/etc/qor/conf.d)
    file(INSTALL ${CPACK_QOR_DEBIAN_DIR}/../../CHANGELOG.md DESTINATION ${documents})
  endif()
  file(GLOB_RECURSE texts ${root}/usr/share/man/* ${documents}/changelog)
  foreach(text ${texts})
    execute_process(COMMAND gzip -9n ${text} COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  if(EXISTS ${CPACK_QOR_DEBIAN_DIR}/${component}/lintian-overrides)
    file(INSTALL ${CPACK_QOR_DEBIAN_DIR}/${component}/lintian-overrides DESTINATION ${root}/usr/share/lintian/overrides
         RENAME ${name})
  endif()
  # Whatever the mask of whoever makes the packages.
  execute_process(COMMAND chmod -R u=rwX,go=rX ${root} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
