# Headers, library, CMake package, pkg-config files, licence, documentation and example sources.
# What a device needs beside the library is installed by packaging/CMakeLists.txt.
include(CMakePackageConfigHelpers)

set(PZ_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/PZFramework)

install(TARGETS pzframework EXPORT PZFrameworkTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} USE_SOURCE_PERMISSIONS)

install(EXPORT PZFrameworkTargets NAMESPACE PZFramework:: DESTINATION ${PZ_CMAKE_DIR})
configure_package_config_file(cmake/PZFrameworkConfig.cmake.in
    ${PROJECT_BINARY_DIR}/PZFrameworkConfig.cmake
    INSTALL_DESTINATION ${PZ_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PZFrameworkConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/PZFrameworkConfig.cmake
    ${PROJECT_BINARY_DIR}/PZFrameworkConfigVersion.cmake
    cmake/PZFrameworkICU.cmake
    DESTINATION ${PZ_CMAKE_DIR})

# The pkg-config files find their prefix from their own place, wherever `cmake --install` puts them.
file(RELATIVE_PATH PZ_PC_PREFIX
    /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
# What a program links beside a static library; a shared one brings it itself.
list(TRANSFORM CMAKE_DL_LIBS PREPEND -l OUTPUT_VARIABLE PZ_PC_LIBS_PRIVATE)
list(JOIN PZ_PC_LIBS_PRIVATE " " PZ_PC_LIBS_PRIVATE)
configure_file(packaging/pzframework.pc.in ${PROJECT_BINARY_DIR}/pzframework.pc @ONLY)
configure_file(packaging/pzframework-icu.pc.in ${PROJECT_BINARY_DIR}/pzframework-icu.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pzframework.pc ${PROJECT_BINARY_DIR}/pzframework-icu.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
