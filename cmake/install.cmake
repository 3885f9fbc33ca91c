# cmake --install: the library, the headers as <apbase/...>, packages for pkg-config and CMake, and, if the message bus
# is the stand-in, that.
# The installed tree may be moved as a whole: nothing in it names its prefix.

include(CMakePackageConfigHelpers)

# What programs on the bus compile and link with: of the system's bus, what they would not find by themselves.
set(APBASE_PC_BUS_CFLAGS "")
set(APBASE_PC_BUS_LIBS "")
set(APBASE_PACKAGE_BUS_INCLUDE_DIRS "")
set(APBASE_PACKAGE_BUS_LIBRARIES "")
if(APBASE_BUS STREQUAL standin)
	# The stand-in comes along, so that the copy needs nothing of the tree it was built in. The folder's name in the
	# CMake package is resolved there.
	set(bus_dir ${APBASE_BUS_INSTALL_DIR})
	set_target_properties(apbase PROPERTIES INSTALL_RPATH $ORIGIN/apbase)
	set(APBASE_PC_BUS_CFLAGS " -isystem \${libdir}/apbase/include")
	set(APBASE_PC_BUS_LIBS "-L\${libdir}/apbase -Wl,-rpath,\${libdir}/apbase ")
	set(APBASE_PACKAGE_BUS_INCLUDE_DIRS "\${PACKAGE_PREFIX_DIR}/${bus_dir}/include")
	set(APBASE_PACKAGE_BUS_LIBRARIES "\${PACKAGE_PREFIX_DIR}/${bus_dir}/libubus.so"
		"\${PACKAGE_PREFIX_DIR}/${bus_dir}/libubox.so")
else()
	foreach(folder IN LISTS APBASE_BUS_INCLUDE_DIRS)
		string(APPEND APBASE_PC_BUS_CFLAGS " -isystem ${folder}")
	endforeach()
	set(APBASE_PACKAGE_BUS_INCLUDE_DIRS ${APBASE_BUS_INCLUDE_DIRS})
	set(APBASE_PACKAGE_BUS_LIBRARIES ubus ubox)
	if(NOT APBASE_BUS_LIBRARY_DIR IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES)
		set(APBASE_PACKAGE_BUS_LIBRARIES ${APBASE_UBUS_LIBRARY} ${APBASE_UBOX_LIBRARY})
		set(APBASE_PC_BUS_LIBS "-L${APBASE_BUS_LIBRARY_DIR} ")
		# A device has them where its dynamic linker looks.
		if(NOT CMAKE_CROSSCOMPILING)
			set_target_properties(apbase PROPERTIES INSTALL_RPATH ${APBASE_BUS_LIBRARY_DIR})
			string(APPEND APBASE_PC_BUS_LIBS "-Wl,-rpath,${APBASE_BUS_LIBRARY_DIR} ")
		endif()
	endif()
endif()

install(TARGETS apbase EXPORT apbase-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${APBASE_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/apbase)

# From the folder of apbase.pc back to the prefix.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
	message(FATAL_ERROR "apbase: CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be relative to the prefix")
endif()
file(RELATIVE_PATH APBASE_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" APBASE_PC_TO_PREFIX ${APBASE_PC_TO_PREFIX})
foreach(package IN ITEMS apbase apbase-bus)
	configure_file(${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in ${PROJECT_BINARY_DIR}/package/${package}.pc @ONLY)
	install(FILES ${PROJECT_BINARY_DIR}/package/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/apbase)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/apbase-config.cmake.in
	${PROJECT_BINARY_DIR}/package/apbase-config.cmake INSTALL_DESTINATION ${package_dir}
	NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/apbase-config-version.cmake
	COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/apbase-config.cmake
	${PROJECT_BINARY_DIR}/package/apbase-config-version.cmake DESTINATION ${package_dir})
install(EXPORT apbase-targets NAMESPACE apbase:: DESTINATION ${package_dir})
