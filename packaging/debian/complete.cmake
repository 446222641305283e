# Adds to the files of each package what Debian asks of all packages: the licence, both changelogs,
# compressed manual pages, a library without what only a debugger needs.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr)
  set(documents ${root}/share/doc/${package})
  file(MAKE_DIRECTORY ${documents})
  configure_file(${CPACK_VERDEL_SOURCE}/packaging/debian/copyright ${documents}/copyright COPYONLY)
  configure_file(${CPACK_VERDEL_SOURCE}/CHANGELOG.md ${documents}/changelog COPYONLY)
  file(WRITE ${documents}/changelog.Debian
"verdel (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * What has changed is in changelog.gz.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  file(GLOB_RECURSE texts ${root}/share/man/*.1 ${documents}/changelog*)
  execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE archives ${root}/*.a)
  if(archives)
    execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archives}
                    COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
