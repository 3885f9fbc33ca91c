# The message bus: libubox and libubus as the device has them, or, on a machine that has neither, the stand-in in
# host/, which is built here and never installed. The code of the library is the same either way.
#
# Defines apbase_bus, what links to the two; APBASE_BUS_INCLUDE_DIRS and APBASE_BUS_LIBRARY_DIR; and the programs
# APBASE_UBUSD and APBASE_UBUS, empty where the system has none.

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
	set(bus_default host)
endif()
set(APBASE_BUS ${bus_default} CACHE STRING "Message bus libraries: the system's, or the stand-in in host/")
set_property(CACHE APBASE_BUS PROPERTY STRINGS system host)

add_library(apbase_bus INTERFACE)
if(APBASE_BUS STREQUAL system)
	if(NOT bus_found)
		message(FATAL_ERROR "apbase: libubox and libubus are not installed here (-DAPBASE_BUS=host builds a stand-in)")
	endif()
	set(APBASE_BUS_INCLUDE_DIRS ${APBASE_UBUS_INCLUDE_DIR} ${APBASE_UBOX_INCLUDE_DIR})
	list(REMOVE_DUPLICATES APBASE_BUS_INCLUDE_DIRS)
	# Named as a folder of its own, the compiler's own would no longer be found in its place.
	list(REMOVE_ITEM APBASE_BUS_INCLUDE_DIRS ${CMAKE_C_IMPLICIT_INCLUDE_DIRECTORIES})
	cmake_path(GET APBASE_UBUS_LIBRARY PARENT_PATH APBASE_BUS_LIBRARY_DIR)
	target_link_libraries(apbase_bus INTERFACE ${APBASE_UBUS_LIBRARY} ${APBASE_UBOX_LIBRARY})
	find_program(APBASE_UBUSD ubusd)
	find_program(APBASE_UBUS ubus)
	mark_as_advanced(APBASE_UBUSD APBASE_UBUS)
elseif(APBASE_BUS STREQUAL host)
	set(APBASE_BUS_INCLUDE_DIRS ${PROJECT_SOURCE_DIR}/host/include)
	add_subdirectory(host)
	set(APBASE_BUS_LIBRARY_DIR $<TARGET_FILE_DIR:ubus>)
	target_link_libraries(apbase_bus INTERFACE ubus ubox)
	set(APBASE_UBUSD $<TARGET_FILE:ubusd>)
	set(APBASE_UBUS $<TARGET_FILE:ubus-cli>)
else()
	message(FATAL_ERROR "apbase: APBASE_BUS is '${APBASE_BUS}', neither system nor host")
endif()
target_include_directories(apbase_bus SYSTEM INTERFACE ${APBASE_BUS_INCLUDE_DIRS})
