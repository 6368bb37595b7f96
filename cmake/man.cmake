# Man pages are installed compressed (gzip -9n: the same bytes every build), as Debian wants.
function(zovdx_man_page source section component)
  get_filename_component(name ${source} NAME)
  set(compressed ${PROJECT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND sh -c "gzip -9nc '${source}' > '${compressed}'"
    DEPENDS ${source} VERBATIM)
  add_custom_target(man-${name} ALL DEPENDS ${compressed})
  install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT ${component})
endfunction()
