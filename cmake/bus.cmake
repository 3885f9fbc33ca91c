# The message bus: libubox and libubus as the device has them, or the stand-in in standin/ for a machine that has
# neither. The library needs one of the two, and is built the same with either.
#
# Either gives the libraries bus::ubox and bus::ubus, and apbase_bus, which links to both (for others: apbase::bus);
# APBASE_BUS_INCLUDE_DIRS and APBASE_BUS_LIBRARY_DIR; and the programs APBASE_UBUSD and APBASE_UBUS, empty where the
# system has none.

find_path(APBASE_UBUS_INCLUDE_DIR libubus.h)
find_path(APBASE_UBOX_INCLUDE_DIR libubox/blobmsg.h)
find_library(APBASE_UBUS_LIBRARY ubus)
find_library(APBASE_UBOX_LIBRARY ubox)
mark_as_advanced(APBASE_UBUS_INCLUDE_DIR APBASE_UBOX_INCLUDE_DIR APBASE_UBUS_LIBRARY APBASE_UBOX_LIBRARY)
set(bus_found FALSE)
if(APBASE_UBUS_INCLUDE_DIR AND APBASE_UBOX_INCLUDE_DIR AND APBASE_UBUS_LIBRARY AND APBASE_UBOX_LIBRARY)
	set(bus_found TRUE)
endif()

if(bus_found)
	set(bus_default system)
else()
	set(bus_default standin)
endif()
set(APBASE_BUS ${bus_default} CACHE STRING "Message bus libraries: the system's, or the stand-in in standin/")
set_property(CACHE APBASE_BUS PROPERTY STRINGS system standin)

if(NOT bus_found AND NOT EXISTS ${PROJECT_SOURCE_DIR}/standin)
	message(FATAL_ERROR
		"apbase: libubox and libubus are not installed here, and there is no standin/ to build in their place")
endif()
if(APBASE_BUS STREQUAL system)
	if(NOT bus_found)
		message(FATAL_ERROR
			"apbase: libubox and libubus are not installed here (-DAPBASE_BUS=standin builds a stand-in)")
	endif()
	set(APBASE_BUS_INCLUDE_DIRS ${APBASE_UBUS_INCLUDE_DIR} ${APBASE_UBOX_INCLUDE_DIR})
	cmake_path(GET APBASE_UBUS_LIBRARY PARENT_PATH APBASE_BUS_LIBRARY_DIR)
	list(REMOVE_DUPLICATES APBASE_BUS_INCLUDE_DIRS)
	# Named as a folder of its own, the compiler's own would no longer be found in its place.
	list(REMOVE_ITEM APBASE_BUS_INCLUDE_DIRS ${CMAKE_C_IMPLICIT_INCLUDE_DIRECTORIES})
	foreach(library UBOX UBUS)
		string(TOLOWER bus::${library} name)
		add_library(${name} UNKNOWN IMPORTED GLOBAL)
		set_target_properties(${name} PROPERTIES
			IMPORTED_LOCATION ${APBASE_${library}_LIBRARY}
			INTERFACE_INCLUDE_DIRECTORIES "${APBASE_BUS_INCLUDE_DIRS}")
	endforeach()
	find_program(APBASE_UBUSD ubusd)
	find_program(APBASE_UBUS ubus)
	mark_as_advanced(APBASE_UBUSD APBASE_UBUS)
elseif(APBASE_BUS STREQUAL standin)
	if(NOT EXISTS ${PROJECT_SOURCE_DIR}/standin)
		message(FATAL_ERROR "apbase: there is no standin/ (-DAPBASE_BUS=system takes the system's libubox and libubus)")
	endif()
	message(STATUS "apbase: the message bus is the stand-in in standin/, for development; an installed copy brings it along")
	# In an installed copy it has a folder of its own, where no other program finds it.
	set(APBASE_BUS_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/apbase)
	set(STANDIN_INSTALL ${APBASE_INSTALL})
	set(STANDIN_INSTALL_LIBDIR ${APBASE_BUS_INSTALL_DIR})
	set(STANDIN_INSTALL_BINDIR ${APBASE_BUS_INSTALL_DIR})
	set(STANDIN_INSTALL_INCLUDEDIR ${APBASE_BUS_INSTALL_DIR}/include)
	set(STANDIN_PROGRAMS ${PROJECT_IS_TOP_LEVEL}) # inside another project nobody asks for them
	set(STANDIN_SANITIZE ${APBASE_SANITIZE})
	set(STANDIN_WERROR ${APBASE_WERROR})
	add_subdirectory(standin)
	set(APBASE_BUS_INCLUDE_DIRS ${PROJECT_SOURCE_DIR}/standin/include)
	set(APBASE_BUS_LIBRARY_DIR $<TARGET_FILE_DIR:bus::ubus>)
	set(APBASE_UBUSD $<TARGET_FILE:bus::ubusd>)
	set(APBASE_UBUS $<TARGET_FILE:bus::ubus-cli>)
else()
	message(FATAL_ERROR "apbase: APBASE_BUS is '${APBASE_BUS}', neither system nor standin")
endif()

add_library(apbase_bus INTERFACE)
add_library(apbase::bus ALIAS apbase_bus)
target_link_libraries(apbase_bus INTERFACE bus::ubus bus::ubox)
