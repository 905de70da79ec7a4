# cmake --install: headers, libraries, rigwarden-check, the database, and package files
# so that users write find_package(keel) or find_package(rigwarden).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(RIGWARDEN_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/rigwarden)

install(TARGETS keel EXPORT keelTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY core/keel/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/keel
        FILES_MATCHING PATTERN "*.h" PATTERN "win32" EXCLUDE PATTERN "posix" EXCLUDE)
install(EXPORT keelTargets NAMESPACE keel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/keel)

install(TARGETS rigwarden EXPORT rigwardenTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/rigwarden)
install(EXPORT rigwardenTargets NAMESPACE rigwarden:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rigwarden)
install(TARGETS rigwarden-check RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY data/gpudb/ DESTINATION ${RIGWARDEN_INSTALL_DATADIR}/gpudb
        FILES_MATCHING PATTERN "*.cfg" PATTERN "README.md" PATTERN "__pycache__" EXCLUDE)

foreach(package keel rigwarden)
    configure_package_config_file(cmake/${package}Config.cmake.in
        ${CMAKE_CURRENT_BINARY_DIR}/${package}Config.cmake
        INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${package}
        PATH_VARS RIGWARDEN_INSTALL_DATADIR)
    write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${package}ConfigVersion.cmake
        COMPATIBILITY SameMinorVersion)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}Config.cmake
                  ${CMAKE_CURRENT_BINARY_DIR}/${package}ConfigVersion.cmake
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${package})
endforeach()
