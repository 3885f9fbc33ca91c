# cmake --install: the library, the headers as <apbase/...>, apbase.pc for pkg-config, and a CMake package.
# The installed tree may be moved as a whole: nothing in it names its prefix.

include(CMakePackageConfigHelpers)

# With the stand-in of the message bus, which is not installed, the copy finds it, and its headers, where it was
# built: good for trying things out on that machine.
set(APBASE_PC_CFLAGS "")
set(APBASE_PACKAGE_INCLUDE_DIRS "")
if(APBASE_BUS STREQUAL host)
	set_target_properties(apbase PROPERTIES INSTALL_RPATH $<TARGET_FILE_DIR:ubus>)
	set(APBASE_PC_CFLAGS " -isystem ${APBASE_BUS_INCLUDE_DIRS}")
	set(APBASE_PACKAGE_INCLUDE_DIRS ${APBASE_BUS_INCLUDE_DIRS})
endif()

install(TARGETS apbase EXPORT apbase-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${APBASE_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/apbase)

# From the folder of apbase.pc back to the prefix.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
	message(FATAL_ERROR "apbase: CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be relative to the prefix")
endif()
file(RELATIVE_PATH APBASE_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" APBASE_PC_TO_PREFIX ${APBASE_PC_TO_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/apbase.pc.in ${PROJECT_BINARY_DIR}/package/apbase.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/apbase.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/apbase)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/apbase-config.cmake.in
	${PROJECT_BINARY_DIR}/package/apbase-config.cmake INSTALL_DESTINATION ${package_dir}
	NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/apbase-config-version.cmake
	COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/apbase-config.cmake
	${PROJECT_BINARY_DIR}/package/apbase-config-version.cmake DESTINATION ${package_dir})
install(EXPORT apbase-targets NAMESPACE apbase:: DESTINATION ${package_dir})
