# What `cmake --install` puts in place: the library with its public headers, a CMake package and a
# pkg-config file; on a desktop also the platform that the library is linked with, and the command
# with its manual page, its completion for bash and its sample files. The component "desktop" is the
# platform's header, with which a program can see the calls that the service gets; "service" is the
# boost service. The packages that scripts/package makes are "library", with that header, "service"
# and "command".

include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME library)

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/TarvoCameraFrameBoost)
# In a folder of this project's own, as "host" is a common name. It is included as in this project.
set(desktop_include_directory ${CMAKE_INSTALL_INCLUDEDIR}/tarvocameraframeboost)

set_target_properties(tarvocameraframeboost PROPERTIES INSTALL_RPATH $ORIGIN)
install(TARGETS tarvocameraframeboost EXPORT TarvoCameraFrameBoostTargets)
install(FILES
    cameraframeboost/tarvocameraframeboost.h
    cameraframeboost/tarvocameraframeboostutils.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cameraframeboost)
if(NOT ANDROID)
    set_target_properties(tarvodesktop PROPERTIES EXPORT_NAME desktop)
    install(TARGETS tarvodesktop EXPORT TarvoCameraFrameBoostTargets
        INCLUDES DESTINATION ${desktop_include_directory})
    install(FILES host/desktop.h COMPONENT desktop DESTINATION ${desktop_include_directory}/host)
endif()
if(TARGET tarvo_cfbt)
    set_target_properties(tarvo_cfbt PROPERTIES EXPORT_NAME service INSTALL_RPATH $ORIGIN)
    if(ANDROID)
        # The library is linked with it, so neither is installed without the other.
        install(TARGETS tarvo_cfbt EXPORT TarvoCameraFrameBoostTargets)
    else()
        # In a file of its own: the other targets are there where the service is not installed.
        install(TARGETS tarvo_cfbt EXPORT TarvoCameraFrameBoostServiceTargets COMPONENT service)
        install(EXPORT TarvoCameraFrameBoostServiceTargets COMPONENT service
            NAMESPACE TarvoCameraFrameBoost::
            DESTINATION ${package_directory})
    endif()
endif()

install(EXPORT TarvoCameraFrameBoostTargets
    NAMESPACE TarvoCameraFrameBoost::
    DESTINATION ${package_directory})
# HALs hold the object by value: another minor version may have changed its size.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
configure_package_config_file(cmake/TarvoCameraFrameBoostConfig.cmake.in
    ${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfig.cmake
    INSTALL_DESTINATION ${package_directory}
    PATH_VARS desktop_include_directory)
install(FILES
    ${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfig.cmake
    ${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfigVersion.cmake
    DESTINATION ${package_directory})

file(RELATIVE_PATH PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/tarvocameraframeboost.pc.in tarvocameraframeboost.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarvocameraframeboost.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET cameraframeboost)
    file(RELATIVE_PATH from_bin_to_lib /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(cameraframeboost PROPERTIES INSTALL_RPATH $ORIGIN/${from_bin_to_lib})
    install(TARGETS cameraframeboost COMPONENT command)
    # Not there in builds for other processors without an emulator.
    install(FILES ${PROJECT_BINARY_DIR}/tools/cameraframeboost.1 OPTIONAL
        COMPONENT command DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES tools/command/completion.bash RENAME cameraframeboost
        COMPONENT command DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES host/sample_configuration.toml docs/account.schema.json
        COMPONENT command DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvocameraframeboost)
    install(PROGRAMS examples/fleet/fleet.py
        COMPONENT command DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvocameraframeboost/fleet)
    install(DIRECTORY examples/cameras examples/configurations examples/sessions
        COMPONENT command DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvocameraframeboost)

    # Debian packages. Command and service are linked with the library of the same build.
    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGE_CONTACT "The developers of libtarvocameraframeboost")
    set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "camera frame boost for Android's camera HALs")
    set(CPACK_STRIP_FILES ON)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL library desktop service command)
    set(CPACK_COMPONENT_LIBRARY_GROUP library)
    set(CPACK_COMPONENT_DESKTOP_GROUP library)
    set(CPACK_COMPONENT_SERVICE_GROUP service)
    set(CPACK_COMPONENT_COMMAND_GROUP command)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${PROJECT_BINARY_DIR}/cameraframeboost ${PROJECT_BINARY_DIR}/host)
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtarvocameraframeboost)
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
        "The library, its headers, and a desktop platform to test a HAL against.")
    set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME libtarvo-cfbt)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "libtarvocameraframeboost (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_SERVICE_DESCRIPTION
        "The boost service, which makes a camera's threads real-time while it records.")
    set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME cameraframeboost)
    set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
    set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "libtarvocameraframeboost (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_COMMAND_DESCRIPTION
        "The command, which explains from a phone's log why its camera dropped frames.")
    include(CPack)
endif()
