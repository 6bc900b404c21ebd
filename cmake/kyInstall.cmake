# `cmake --install`: the library, its headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kyNetBase EXPORT kyNetBaseTargets)

# Of platform/ only the type of a socket leaves, and none of the classes that the library hides.
foreach(folder NetBase Utils QtProcess VersionInfo)
    install(DIRECTORY "${PROJECT_SOURCE_DIR}/${folder}"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/kyNetBase"
        FILES_MATCHING PATTERN "*.h"
        PATTERN "platform" EXCLUDE
        PATTERN "kyNetClientVersion.h" EXCLUDE
        PATTERN "kyNetFirstFailure.h" EXCLUDE
        PATTERN "kyNetMemParts.h" EXCLUDE
        PATTERN "kyNetRecvQueue.h" EXCLUDE
        PATTERN "kyNetSendQueue.h" EXCLUDE
        PATTERN "kyNetServerFolder.h" EXCLUDE
        PATTERN "kySharedSocket.h" EXCLUDE)
endforeach()
install(FILES "${PROJECT_SOURCE_DIR}/NetBase/platform/kySocketHandle.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/kyNetBase/NetBase/platform")

set(packageFolder "${CMAKE_INSTALL_LIBDIR}/cmake/kyNetBase")
install(EXPORT kyNetBaseTargets NAMESPACE kyNetBase:: DESTINATION "${packageFolder}")

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/kyNetBaseConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/kyNetBaseConfig.cmake"
    INSTALL_DESTINATION "${packageFolder}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/kyNetBaseConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/kyNetBaseConfig.cmake"
    "${PROJECT_BINARY_DIR}/kyNetBaseConfigVersion.cmake"
    DESTINATION "${packageFolder}")

# Relative to the file itself, so that the installed folder may be moved.
file(RELATIVE_PATH KY_PREFIX_FROM_PKGCONFIG
    "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file("${PROJECT_SOURCE_DIR}/cmake/kyNetBase.pc.in"
    "${PROJECT_BINARY_DIR}/kyNetBase.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kyNetBase.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
