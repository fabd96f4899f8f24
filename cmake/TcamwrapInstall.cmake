# Install helpers shared by the library and the simulator.

# tcamwrap_install_pkgconfig(<template> <name> <component>): configures
# <template> into <name>.pc and installs it under LIBDIR/pkgconfig. The file
# finds its prefix from its own place (${pcfiledir}), so an installed tree can
# be moved or installed with --prefix to any directory.
function(tcamwrap_install_pkgconfig template name component)
  set(pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  else()
    file(RELATIVE_PATH up "/prefix/${pc_dir}" "/prefix")
    set(PC_PREFIX "\${pcfiledir}/${up}")
  endif()
  configure_file(${template} ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${pc_dir}
          COMPONENT ${component})
endfunction()

# tcamwrap_install_rpath(<target>...): installed programs and libraries find
# the libraries installed beside them, wherever the tree is.
function(tcamwrap_install_rpath)
  foreach(target ${ARGN})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      file(RELATIVE_PATH to_lib "/prefix/${CMAKE_INSTALL_BINDIR}"
           "/prefix/${CMAKE_INSTALL_LIBDIR}")
      set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_lib}")
    else()
      set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
  endforeach()
endfunction()
