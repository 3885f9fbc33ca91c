# Compiler and linker flags of the library and of what is built beside it.

set(APBASE_WARNINGS -Wall -Wextra -Wpedantic -Werror -Wshadow -Wundef -Wcast-align -Wformat=2 -Wmissing-declarations)

# What everything in the tree is built with.
add_library(apbase_common INTERFACE)
target_compile_options(apbase_common INTERFACE ${APBASE_WARNINGS}
	# Paths in assertions and debug information start at the top of the tree.
	-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(APBASE_SANITIZE)
	target_compile_options(apbase_common INTERFACE
		-fsanitize=${APBASE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
	target_link_options(apbase_common INTERFACE -fsanitize=${APBASE_SANITIZE})
endif()

# The library: no exceptions, no RTTI, no C++ run-time library, names exported by the map only.
function(apbase_library_flags target)
	set(map ${PROJECT_SOURCE_DIR}/lib/apbase.map)
	target_compile_features(${target} PRIVATE cxx_std_20)
	target_compile_options(${target} PRIVATE
		-fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables -fno-unwind-tables
		-fvisibility=hidden -ffunction-sections -fdata-sections
		-fstack-protector-strong $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
	target_link_options(${target} PRIVATE
		-Wl,--version-script=${map} -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--gc-sections
		$<$<NOT:$<BOOL:${APBASE_SANITIZE}>>:-Wl,--no-undefined>)
	target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:apbase_common>)
	set_target_properties(${target} PROPERTIES
		CXX_EXTENSIONS OFF
		POSITION_INDEPENDENT_CODE ON
		VERSION ${PROJECT_VERSION}
		SOVERSION ${PROJECT_VERSION_MAJOR}
		LINKER_LANGUAGE C
		LINK_DEPENDS ${map})
endfunction()
