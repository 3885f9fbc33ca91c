# What both toolchain files have in common: Debian's cross compiler, build/sysroot/<architecture>, and qemu, which
# runs what was built.
set(CMAKE_SYSTEM_NAME Linux)
set(triplet ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu)
cmake_path(ABSOLUTE_PATH CMAKE_CURRENT_LIST_DIR NORMALIZE OUTPUT_VARIABLE sysroot)
cmake_path(SET sysroot NORMALIZE ${sysroot}/../build/sysroot/${CMAKE_SYSTEM_PROCESSOR})
# What is built for the sysroot itself goes without the whole of it.
if(NOT EXISTS ${sysroot}/complete AND NOT DEFINED ENV{APBASE_SYSROOT_UNFINISHED})
	message(FATAL_ERROR "apbase: there is no complete ${sysroot}; run scripts/sysroot ${CMAKE_SYSTEM_PROCESSOR}")
endif()

set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_SYSROOT ${sysroot})
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# The device's processor. Debian's libraries, both that were taken and those that were built, pass floating-point
# numbers in the registers of an FPU (-mhard-float, and FPXX: of either kind of FPU), so everything linked to them
# does. The 24Kc has none; its kernel does the work of those instructions, and here there are hardly any.
set(flags "-march=24kc -mhard-float -mfpxx")
set(CMAKE_C_FLAGS_INIT ${flags})
set(CMAKE_CXX_FLAGS_INIT ${flags})

# Programs are this machine's, the rest is the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/${triplet}/pkgconfig:${sysroot}/usr/lib/pkgconfig)

foreach(compiler ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
	find_program(found_${compiler} ${compiler})
	mark_as_advanced(found_${compiler})
	if(NOT found_${compiler})
		message(FATAL_ERROR "apbase: there is no ${compiler}; install g++-${triplet}")
	endif()
endforeach()
find_program(APBASE_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR})
mark_as_advanced(APBASE_EMULATOR)
if(APBASE_EMULATOR)
	set(CMAKE_CROSSCOMPILING_EMULATOR ${APBASE_EMULATOR} -L ${sysroot})
endif()
