# Debian packages, one per install component:
#   cmake -S . -B build-deb -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr
#   cmake --build build-deb && (cd build-deb && cpack -G DEB)
# libdatastore1: the two versioned shared libraries; libdatastore-dev: headers, the .so links,
# the CMake package and the pkg-config file; datastore: the tool, its man page and completions.

# Debian wants the licence as /usr/share/doc/<package>/copyright in every package.
set(DATASTORE_DEB_RUNTIME libdatastore${PROJECT_VERSION_MAJOR})
set(DATASTORE_DEB_DEV libdatastore-dev)
set(DATASTORE_DEB_TOOLS datastore)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${DATASTORE_DEB_RUNTIME}
    RENAME copyright COMPONENT runtime)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${DATASTORE_DEB_DEV}
    RENAME copyright COMPONENT dev)
if(DATASTORE_BUILD_TOOLS)
    install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${DATASTORE_DEB_TOOLS}
        RENAME copyright COMPONENT tools)
endif()

set(CPACK_PACKAGE_NAME datastore)
set(CPACK_PACKAGE_VENDOR "The DataStore authors")
set(CPACK_PACKAGE_CONTACT "The DataStore authors <datastore@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Persistence library of a PC diagnostics suite")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
# The tool is about 28 MB with its symbols, a few MB without.
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)

set(CPACK_COMPONENTS_ALL runtime dev)
if(DATASTORE_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# dpkg-shlibdeps finds libc, libstdc++ and libsqlite3; the dependency on this project's own
# libraries comes from the component dependencies above, with the exact version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps must still see the tool's libraries: they are found where they were built.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/libCommon ${PROJECT_BINARY_DIR}/libDataStore)
# The runtime package declares its libraries (a shlibs file) for packages built against it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${DATASTORE_DEB_RUNTIME})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${DATASTORE_DEB_DEV})
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${DATASTORE_DEB_TOOLS})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The headers use boost::optional; pkg-config resolves sqlite3 (Requires.private) for --cflags.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost-dev (>= 1.71), libsqlite3-dev")
# dpkg-shlibdeps finds the tool's libarchive and libcrypto; `datastore report` reads Chart.js
# from this package when it writes a report.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libjs-chart.js")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Persistence library of a PC diagnostics suite (runtime)\n libDataStore and libCommon, the shared libraries the suite's programs load to keep their history in SQLite stores.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Persistence library of a PC diagnostics suite (development files)\n Headers, the CMake package DataStore and the pkg-config file datastore.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Records and inspects the diagnostics suite's stores\n The datastore command-line tool, its manual page and bash and zsh completions.")

include(CPack)
