# The common parts of the examples, and how each daemon is built. In a project of your own, add_subdirectory
# the library and link apbase::apbase, libubus, libubox and jansson.
include_guard(GLOBAL)

# Of every example, daemon or not.
add_library(example_program STATIC
	${CMAKE_CURRENT_LIST_DIR}/process.c
	${CMAKE_CURRENT_LIST_DIR}/program.c)
target_compile_features(example_program PUBLIC c_std_11)
set_target_properties(example_program PROPERTIES C_EXTENSIONS OFF)
target_compile_definitions(example_program PRIVATE APBASE_VERSION="${PROJECT_VERSION}")
target_include_directories(example_program PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(example_program PUBLIC apbase::apbase PRIVATE apbase_common)

add_library(example_common STATIC
	${CMAKE_CURRENT_LIST_DIR}/board.c
	${CMAKE_CURRENT_LIST_DIR}/bus.c
	${CMAKE_CURRENT_LIST_DIR}/daemon.c
	${CMAKE_CURRENT_LIST_DIR}/guard.c
	${CMAKE_CURRENT_LIST_DIR}/http.c
	${CMAKE_CURRENT_LIST_DIR}/message.c)
target_compile_features(example_common PUBLIC c_std_11)
set_target_properties(example_common PROPERTIES C_EXTENSIONS OFF)
target_link_libraries(example_common PUBLIC example_program apbase::apbase apbase_bus apbase_common PkgConfig::JANSSON)

function(example_daemon name)
	add_executable(${name} ${name}.c)
	set_target_properties(${name} PROPERTIES C_EXTENSIONS OFF)
	target_link_libraries(${name} PRIVATE example_common)
endfunction()
