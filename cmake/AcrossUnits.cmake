# rv_optimise_across_units(<target>...): optimised builds treat the units of these libraries, and of each other, as one.
# For small functions that are called for every word of a text, where the call takes longer than the rest.
include(CheckIPOSupported)
check_ipo_supported(RESULT rvIpoSupported OUTPUT rvIpoOutput LANGUAGES CXX)

function(rv_optimise_across_units)
  if(rvIpoSupported)
    set_property(TARGET ${ARGN} PROPERTY INTERPROCEDURAL_OPTIMIZATION_RELEASE ON)
  endif()
endfunction()
