# The installed layout beyond the executables and the table (bin/tarv,
# bin/tarv-service and share/tarv/vantor-v1.json are installed where they are
# built): man pages, shell completions, and the Debian package made by CPack.
#
#   cmake --install BUILD --prefix PREFIX     any prefix; tarv finds its table
#                                             in PREFIX/share/tarv from PREFIX/bin
#   scripts/package                           tarv_<version>_<arch>.deb

include(GNUInstallDirs)

# Man pages go in compressed, as Debian policy asks; man reads both forms.
find_program(TARV_GZIP gzip)
set(tarv_man_pages tarv.1 tarv-service.1)
foreach(page IN LISTS tarv_man_pages)
  set(source ${PROJECT_SOURCE_DIR}/docs/man/${page})
  if(TARV_GZIP)
    set(compressed ${PROJECT_BINARY_DIR}/man/${page}.gz)
    # -n leaves the name and time out, so the package is the same on every build.
    add_custom_command(OUTPUT ${compressed}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${TARV_GZIP} -9 -n -c ${source} > ${compressed}
      DEPENDS ${source} VERBATIM)
    list(APPEND tarv_man_outputs ${compressed})
    install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  else()
    install(FILES ${source} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endforeach()
if(tarv_man_outputs)
  add_custom_target(tarv_man_pages ALL DEPENDS ${tarv_man_outputs})
endif()

install(FILES ${PROJECT_SOURCE_DIR}/completions/tarv.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tarv)
# bash-completion looks a command's completion up by the command's name.
install(FILES ${PROJECT_SOURCE_DIR}/completions/tarv.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tarv-service)
install(FILES ${PROJECT_SOURCE_DIR}/completions/_tarv DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)

# The Debian package: what `cmake --install` puts under /usr, with the shared
# libraries it needs found by dpkg-shlibdeps from the executables themselves.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarv)
set(CPACK_PACKAGE_VENDOR "tarv")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "file-name search engine and command-line tool")
# CPack turns the summary into the synopsis and indents the text below it.
set(CPACK_PACKAGE_DESCRIPTION
    "tarv loads file lists of disks, folders and shares (GNU find output, EFU lists,
snapshot files, plain or gzip-compressed) into column-oriented indexes cached
on disk, and searches millions of names in milliseconds with a rich query
syntax, in fourteen sort orders. It includes an MCP server for AI agents
(tarv mcp) and a loopback HTTP search service (tarv-service).")
set(CPACK_PACKAGE_CONTACT "tarv maintainers <tarv@localhost>")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "tarv maintainers <tarv@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Opened at run time by the AI commands, so dpkg-shlibdeps cannot see it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4")
# find makes the gfind sources the quick start indexes.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "findutils")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
include(CPack)
