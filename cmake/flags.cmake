# Compiler and linker flags of the library and of what is built beside it.

include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)

# Not CMake's -O3: flash memory is scarce.
string(REPLACE -O3 -O2 CMAKE_C_FLAGS_RELEASE "${CMAKE_C_FLAGS_RELEASE}")
string(REPLACE -O3 -O2 CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")

set(APBASE_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wundef -Wcast-align -Wformat=2 -Wmissing-declarations
	$<$<BOOL:${APBASE_WERROR}>:-Werror>)

# What everything in the tree is built with. It reaches nobody who links the library.
add_library(apbase_common INTERFACE)
target_compile_options(apbase_common INTERFACE ${APBASE_WARNINGS}
	# Paths in assertions and debug information start at the top of the tree.
	-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(APBASE_SANITIZE)
	target_compile_options(apbase_common INTERFACE
		-fsanitize=${APBASE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
	target_link_options(apbase_common INTERFACE -fsanitize=${APBASE_SANITIZE})
endif()

# MIPS has two sizes of instructions; of the short ones (MIPS16e), the library's code takes a third less. Of its two
# hash tables of symbols the newer one needs a table of translation beside it, and is the larger. And its linker
# puts in a stub for each function that could be bound when it is first called, although all are bound before.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
	check_cxx_compiler_flag(-mips16 APBASE_COMPILER_HAS_MIPS16)
	set(APBASE_MIPS_COMPILE_OPTIONS $<$<AND:$<CONFIG:MinSizeRel>,$<BOOL:${APBASE_COMPILER_HAS_MIPS16}>>:-mips16>)
	set(APBASE_HASH_STYLE -Wl,--hash-style=sysv)
	set(APBASE_LINKER_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/mips.ld)
else()
	check_linker_flag(C -Wl,--hash-style=gnu APBASE_LINKER_HAS_GNU_HASH)
	set(APBASE_HASH_STYLE $<$<BOOL:${APBASE_LINKER_HAS_GNU_HASH}>:-Wl,--hash-style=gnu>)
endif()

# The library: no exceptions, no RTTI, no C++ run-time library, names exported by the map only.
function(apbase_library_flags target)
	set(map ${PROJECT_SOURCE_DIR}/lib/apbase.map)
	set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
	target_compile_features(${target} PRIVATE cxx_std_20)
	# Files and offsets beyond 31 bits on 32-bit targets, too. No public header has a type that depends on it.
	target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64)
	target_compile_options(${target} PRIVATE
		-fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables -fno-unwind-tables
		-fvisibility=hidden -ffunction-sections -fdata-sections
		# Every symbol is bound at load time anyway, so calls go through the table of addresses
		# directly; those from module to module are bound when the library is linked.
		-fno-plt -fno-semantic-interposition
		-fstack-protector-strong
		${APBASE_MIPS_COMPILE_OPTIONS})
	target_link_options(${target} PRIVATE
		-Wl,--version-script=${map} -Wl,-Bsymbolic-functions
		-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack
		-Wl,--gc-sections -Wl,--as-needed ${APBASE_HASH_STYLE}
		"$<$<BOOL:${APBASE_LINKER_SCRIPT}>:-Wl,-T,${APBASE_LINKER_SCRIPT}>"
		# A faster hash table, and a larger one.
		$<$<NOT:$<CONFIG:MinSizeRel>>:-Wl,-O1>)
	if(APBASE_SANITIZE)
		# The sanitizers' own names are found in the program; fortified calls would bypass their checks.
	else()
		target_compile_options(${target} PRIVATE $<${optimised}:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
		# What targets need of libgcc is taken from its static half. The start files, which compilers put around
		# a library, see to objects with destructors, to exceptions and to profiles; here are none of these.
		target_link_options(${target} PRIVATE -Wl,--no-undefined -static-libgcc -nostartfiles)
	endif()
	target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:apbase_common>)
	set_target_properties(${target} PROPERTIES
		CXX_EXTENSIONS OFF
		POSITION_INDEPENDENT_CODE ON
		VERSION ${PROJECT_VERSION}
		SOVERSION ${PROJECT_VERSION_MAJOR}
		LINKER_LANGUAGE C
		LINK_DEPENDS "${map};${APBASE_LINKER_SCRIPT}")
endfunction()
