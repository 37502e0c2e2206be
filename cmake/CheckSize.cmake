# Prints the size of each program named after the script and fails when one is larger than
# LIMIT bytes. Run by the build after the shipped programs are linked:
#   cmake -DLIMIT=<bytes> -P CheckSize.cmake PROGRAM...
set(first -1)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE ${last})
    if(CMAKE_ARGV${i} STREQUAL "-P")
        math(EXPR first "${i} + 2")
    endif()
endforeach()

set(too_large "")
foreach(i RANGE ${first} ${last})
    set(program "${CMAKE_ARGV${i}}")
    file(SIZE "${program}" size)
    get_filename_component(name "${program}" NAME)
    message(STATUS "size: ${name} ${size} bytes (limit ${LIMIT})")
    if(size GREATER LIMIT)
        list(APPEND too_large ${name})
    endif()
endforeach()
if(too_large)
    message(FATAL_ERROR "larger than ${LIMIT} bytes: ${too_large}")
endif()
