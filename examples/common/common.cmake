# What the example daemons have in common, and how each is built. In a project of your own, add_subdirectory
# the library and link apbase::apbase, libubus, libubox and jansson.
include_guard(GLOBAL)

add_library(example_common STATIC
	${CMAKE_CURRENT_LIST_DIR}/board.c
	${CMAKE_CURRENT_LIST_DIR}/bus.c
	${CMAKE_CURRENT_LIST_DIR}/daemon.c
	${CMAKE_CURRENT_LIST_DIR}/guard.c
	${CMAKE_CURRENT_LIST_DIR}/http.c
	${CMAKE_CURRENT_LIST_DIR}/message.c)
target_compile_features(example_common PUBLIC c_std_11)
set_target_properties(example_common PROPERTIES C_EXTENSIONS OFF)
target_link_libraries(example_common PUBLIC apbase::apbase apbase_bus apbase_common PkgConfig::JANSSON)

function(example_daemon name)
	add_executable(${name} ${name}.c)
	set_target_properties(${name} PROPERTIES C_EXTENSIONS OFF)
	target_link_libraries(${name} PRIVATE example_common)
endfunction()
