# ra_redirect(TARGET FUNCTION...): TARGET's own __wrap_FUNCTION takes the place of the C library's
# function, which stays reachable as __real_FUNCTION. With 64-bit times and offsets on a 32-bit
# machine some have a symbol of another name.
function(ra_redirect target)
  foreach(function IN LISTS ARGN)
    set(symbol ${function})
    if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND function MATCHES "^(time|select|clock_gettime)$")
      set(symbol __${function}64)
    elseif(CMAKE_SIZEOF_VOID_P EQUAL 4 AND function MATCHES "^f?open$")
      set(symbol ${function}64)
    endif()
    target_link_options(${target} PRIVATE -Wl,--wrap=${symbol})
    if(NOT symbol STREQUAL function)
      target_compile_definitions(${target} PRIVATE
        __wrap_${function}=__wrap_${symbol} __real_${function}=__real_${symbol})
    endif()
  endforeach()
endfunction()
