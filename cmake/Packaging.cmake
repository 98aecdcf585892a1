# Debian packages made with `cpack -G DEB` from a build tree: the two libraries
# (runtime), headers with the CMake and pkg-config files (dev), and trel-fetch.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME trel-http-client)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Asynchronous HTTP client for Qt 5 event loops, built on libcurl")
set(CPACK_PACKAGE_CONTACT "trel_http_client developers <maintainers@trel.invalid>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev fetch)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(_trel_runtime_package "libtrel-http-client${PROJECT_VERSION_MAJOR}")
# Each package carries the licence as its copyright file, under its own name.
foreach(component_package runtime:${_trel_runtime_package} dev:libtrel-http-client-dev fetch:trel-fetch)
  string(REPLACE ":" ";" _trel_pair ${component_package})
  list(GET _trel_pair 0 _trel_component)
  list(GET _trel_pair 1 _trel_package)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_trel_package}
    RENAME copyright
    COMPONENT ${_trel_component})
endforeach()
set(_trel_exact "(= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${_trel_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libqt5core5a (>= 5.11), libcurl4 (>= 8.0), liblog4cplus-2.0.5")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtrel-http-client-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${_trel_runtime_package} ${_trel_exact}, qtbase5-dev (>= 5.11), libcurl4-openssl-dev (>= 8.0) | libcurl-dev (>= 8.0)")
set(CPACK_DEBIAN_FETCH_PACKAGE_NAME trel-fetch)
set(CPACK_DEBIAN_FETCH_PACKAGE_SECTION web)
set(CPACK_DEBIAN_FETCH_PACKAGE_DEPENDS "${_trel_runtime_package} ${_trel_exact}, libqt5core5a (>= 5.11)")

include(CPack)
