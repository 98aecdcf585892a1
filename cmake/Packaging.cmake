# Debian packages made with `cpack -G DEB` from a build tree: the two libraries
# (runtime), headers with the CMake and pkg-config files and the API reference
# (dev), and trel-fetch (from the Qt 5 build only). The libraries sit in the
# multiarch directory (CMAKE_INSTALL_LIBDIR, see the top-level CMakeLists.txt).
# The Qt 6 build's packages carry "-qt6" in their names and own no path that
# the Qt 5 build's own, so both sets install together.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME trel-http-client${TREL_QT_DEBIAN_SUFFIX})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put that one line first in
# all three descriptions, and each package has a first line of its own below.
set(CPACK_PACKAGE_CONTACT "trel_http_client developers <maintainers@trel.invalid>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TREL_INSTALL_FETCH)
  list(APPEND CPACK_COMPONENTS_ALL fetch)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

# The shared-library dependencies (libc6, libstdc++6, Qt, libcurl, log4cplus
# with the versions their symbols need) come from dpkg-shlibdeps (dpkg-dev).
# The libraries of this project that the programs link are found in the build
# tree; they belong to no installed package, so the dependencies on them are
# the explicit ones below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR}/src/lib/api
  ${PROJECT_BINARY_DIR}/src/lib/httpClient)
# The runtime package, the only one with shared libraries, tells packages built
# against it through a shlibs file; the package also runs ldconfig.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# Debian's rule: a library name ending in a digit takes a hyphen before its
# major version (libtrel-http-client1, libtrel-http-client-qt6-1).
if(TREL_QT_DEBIAN_SUFFIX)
  set(_trel_runtime_package "libtrel-http-client${TREL_QT_DEBIAN_SUFFIX}-${PROJECT_VERSION_MAJOR}")
else()
  set(_trel_runtime_package "libtrel-http-client${PROJECT_VERSION_MAJOR}")
endif()
set(_trel_component_packages runtime:${_trel_runtime_package} dev:${TREL_DEV_PACKAGE})
if(TREL_INSTALL_FETCH)
  list(APPEND _trel_component_packages fetch:trel-fetch)
endif()
# Each package carries the licence as its copyright file, under its own name.
foreach(component_package ${_trel_component_packages})
  string(REPLACE ":" ";" _trel_pair ${component_package})
  list(GET _trel_pair 0 _trel_component)
  list(GET _trel_pair 1 _trel_package)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_trel_package}
    RENAME copyright
    COMPONENT ${_trel_component})
endforeach()

# The text every description ends with: what the library is.
string(CONCAT _trel_about
  "libtrel_http_client runs libcurl's multi interface on a Qt ${TREL_QT_MAJOR} event loop.\n"
  "Every request returns at once with an id, and exactly one result arrives\n"
  "later through a queued slot or a callback: HTTP/1.1 and HTTP/2 with server\n"
  "push, forms, file uploads, bodies streamed from other threads, and a small\n"
  "response cache.")

set(_trel_exact "(= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${_trel_runtime_package})
string(CONCAT CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "asynchronous HTTP client for Qt ${TREL_QT_MAJOR} event loops (shared libraries)\n"
  "${_trel_about}\n"
  "\n"
  "This package holds the shared libraries: libtrel_http_client${TREL_QT_SUFFIX}.so and\n"
  "libtrel_api${TREL_QT_SUFFIX}.so, the platform library with the URL type.")
# libcurl 7.88 crashes on HTTP/2 server push: 8.0 is the oldest that works,
# newer than what the symbols alone ask for.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libcurl4 (>= 8.0)")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${TREL_DEV_PACKAGE})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
string(CONCAT CPACK_DEBIAN_DEV_DESCRIPTION
  "asynchronous HTTP client for Qt ${TREL_QT_MAJOR} event loops (development files)\n"
  "${_trel_about}\n"
  "\n"
  "This package holds the headers, the CMake package ${TREL_PACKAGE_NAME}, the\n"
  "pkg-config file ${TREL_PC_NAME} and the API reference in HTML.")
# What the CMake package and the pkg-config file need: the public headers use
# Qt Core and libcurl types, and the .pc file names log4cplus among its private
# requirements, which pkg-config resolves even for --cflags.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${_trel_runtime_package} ${_trel_exact}, ${TREL_QT_DEBIAN_DEV} (>= ${TREL_QT_MINIMUM}), libcurl4-openssl-dev (>= 8.0) | libcurl-dev (>= 8.0), liblog4cplus-dev")

set(CPACK_DEBIAN_FETCH_PACKAGE_NAME trel-fetch)
set(CPACK_DEBIAN_FETCH_PACKAGE_SECTION web)
string(CONCAT CPACK_DEBIAN_FETCH_DESCRIPTION
  "command-line URL fetcher built on libtrel_http_client\n"
  "trel-fetch fetches URLs with one HttpClient and behaves like curl where an\n"
  "option has curl's name: output files, URL lists read as they arrive,\n"
  "parallel transfers, redirects, forms, uploads and streamed bodies, with a\n"
  "text or JSON report of every result.\n"
  "\n"
  "${_trel_about}")
set(CPACK_DEBIAN_FETCH_PACKAGE_DEPENDS "${_trel_runtime_package} ${_trel_exact}")

include(CPack)
