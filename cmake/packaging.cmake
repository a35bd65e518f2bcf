# The Debian package's own files: its control fields, the copyright file,
# the changelog and the lintian overrides. They are written into deb/ of the
# build folder; scripts/build-deb.sh installs the project into a staging
# root, adds these, finds the shared-library dependencies with
# dpkg-shlibdeps and builds the .deb with dpkg-deb.
#
# The documentation files are in the "deb" install component, left out of a
# plain `cmake --install`: they describe the package, not the project.

set(DTL_DEB_PACKAGE "ipfix-bin-data-provider")
# Whoever publishes the package sets their own address here.
set(DTL_DEB_MAINTAINER "IPFIX bin data provider maintainers <dtl-maintainers@example.org>"
    CACHE STRING "Maintainer field of the .deb: Name <address>")
set(DTL_DEB_DIR ${CMAKE_BINARY_DIR}/deb)

# The Debian architecture the binaries are for: the toolchain's multiarch
# triplet turned into Debian's name (arm64 for aarch64-linux-gnu), so that a
# cross build is packaged for its target and not for this machine.
set(dtl_deb_arch "")
find_program(DTL_DPKG_ARCHITECTURE dpkg-architecture)
if(DTL_DPKG_ARCHITECTURE AND CMAKE_LIBRARY_ARCHITECTURE)
  execute_process(COMMAND ${DTL_DPKG_ARCHITECTURE} -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
    OUTPUT_VARIABLE dtl_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT dtl_deb_arch)
  execute_process(COMMAND dpkg --print-architecture
    OUTPUT_VARIABLE dtl_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(DTL_DEB_ARCH "${dtl_deb_arch}")

# Python's numpy, pandas and matplotlib are not seen by dpkg-shlibdeps:
# dtl-plot and the dtl_data package need them. dask only serves the
# analysis on a cluster.
set(DTL_DEB_PYTHON_DEPENDS "python3, python3-numpy, python3-pandas, python3-matplotlib")
set(DTL_DEB_SUGGESTS "python3-dask, python3-distributed")

# Installed-Size and the shared-library dependencies are known only once
# the files are staged: build-deb.sh fills in @INSTALLED_SIZE@ and
# @SHLIBS_DEPENDS@.
file(WRITE ${DTL_DEB_DIR}/control.in
"Package: ${DTL_DEB_PACKAGE}
Version: ${PROJECT_VERSION}
Architecture: ${DTL_DEB_ARCH}
Maintainer: ${DTL_DEB_MAINTAINER}
Installed-Size: @INSTALLED_SIZE@
Depends: @SHLIBS_DEPENDS@, ${DTL_DEB_PYTHON_DEPENDS}
Suggests: ${DTL_DEB_SUGGESTS}
Section: net
Priority: optional
Description: collector of high-frequency switch telemetry over IPFIX
 A plug-in for a telemetry collection framework that configures network
 switches over HTTPS to stream high-frequency counters (a sample every
 100 microseconds) as IPFIX over UDP, receives the stream with several
 workers sharing one UDP port, and stores every sample in rotating binary
 data files under a size limit, with a counters schema and metadata beside
 them.
 .
 The package holds the plug-in and its C headers and pkg-config file,
 dtl-host (a host process that runs the plug-in, also as a service),
 dtl-read and dtl-ls to read and list the stored data, dtl-plot and the
 dtl_data Python module to draw and analyse it, and hft-sim, a switch
 simulator that sends test traffic.
")

# No licence has been granted for this software yet; the copyright file
# says so rather than claim one.
string(TIMESTAMP dtl_deb_year "%Y" UTC)
file(WRITE ${DTL_DEB_DIR}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ipfix_bin_data_provider
Upstream-Contact: ${DTL_DEB_MAINTAINER}

Files: *
Copyright: ${dtl_deb_year} The ipfix_bin_data_provider authors
License: other
 All rights reserved. No licence to copy, modify or redistribute this
 software is granted except by written agreement with the copyright holders.
")

# The version has no Debian revision, so the package is native and its
# changelog is changelog.gz. The date follows SOURCE_DATE_EPOCH when set.
string(TIMESTAMP dtl_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${DTL_DEB_DIR}/changelog
"${DTL_DEB_PACKAGE} (${PROJECT_VERSION}) unstable; urgency=medium

  * Release ${PROJECT_VERSION}.

 -- ${DTL_DEB_MAINTAINER}  ${dtl_deb_date}
")
execute_process(COMMAND gzip -9nc ${DTL_DEB_DIR}/changelog
  OUTPUT_FILE ${DTL_DEB_DIR}/changelog.gz RESULT_VARIABLE dtl_gzip_result)
if(NOT dtl_gzip_result EQUAL 0)
  message(FATAL_ERROR "gzip of the package changelog failed")
endif()

# Hosts load the plug-in by its fixed file name from the libdir, so neither
# its SONAME nor the package name follows the versioned-library scheme; the
# interface says its version in its records.
file(WRITE ${DTL_DEB_DIR}/lintian-overrides
"# A plug-in loaded with dlopen by its fixed file name, versioned by the
# record version of its C interface, not by its SONAME.
${DTL_DEB_PACKAGE}: shared-library-lacks-version *
# An application package holding a plug-in, not a library package.
${DTL_DEB_PACKAGE}: package-name-doesnt-match-sonames *
")

set(dtl_deb_docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${DTL_DEB_PACKAGE})
install(FILES ${DTL_DEB_DIR}/copyright ${DTL_DEB_DIR}/changelog.gz
  DESTINATION ${dtl_deb_docdir} COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${DTL_DEB_DIR}/lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
  RENAME ${DTL_DEB_PACKAGE} COMPONENT deb EXCLUDE_FROM_ALL)
