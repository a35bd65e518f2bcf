# What `cmake --install` installs. With the prefix /usr on Debian this is the
# layout of the .deb: the plug-in in the multiarch libdir where the host
# looks for it, the programs in bin, the Python package where Debian's
# python3 finds packaged modules. Tests, benchmarks, the stand-in switch and
# the static libraries are build products only and are not installed.

# Debian's python3 imports packaged modules from /usr/lib/python3/dist-packages
# (site-packages is for pip); relative so that --prefix moves it along.
set(DTL_INSTALL_PYTHONDIR "lib/python3/dist-packages" CACHE STRING
    "Where the dtl_data Python package is installed, relative to the prefix")
# The public headers get a folder of their own: their dtl_*.h names are too
# generic for /usr/include itself, and pkg-config's Cflags point into it.
set(DTL_INSTALL_HEADERDIR "${CMAKE_INSTALL_INCLUDEDIR}/ipfix_bin_data_provider")

if(TARGET ipfix_bin_data_provider)
  # A shared library is not run, so it is not executable (Debian policy 8.1).
  install(TARGETS ipfix_bin_data_provider
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

  file(GLOB dtl_public_headers ${CMAKE_SOURCE_DIR}/framework/include/*.h)
  install(FILES ${dtl_public_headers} DESTINATION ${DTL_INSTALL_HEADERDIR})

  configure_file(${CMAKE_SOURCE_DIR}/cmake/ipfix_bin_data_provider.pc.in
                 ${CMAKE_BINARY_DIR}/ipfix_bin_data_provider.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/ipfix_bin_data_provider.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

foreach(program dtl-host dtl-read dtl-ls hft-sim)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# dtl-plot is the Python launcher itself; installed, it imports dtl_data
# from the dist-packages folder below.
install(PROGRAMS ${CMAKE_SOURCE_DIR}/tools/dtl_plot/dtl-plot DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/python/dtl_data DESTINATION ${DTL_INSTALL_PYTHONDIR}
  FILES_MATCHING PATTERN "*.py"
  PATTERN "__pycache__" EXCLUDE)
