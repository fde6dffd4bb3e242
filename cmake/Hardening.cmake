# What makes mistakes in an optimised build harder to exploit: checked stack frames and library calls, relocations
# that are read-only once the program runs, and on x86 jumps only to where they may lead.
#
# A debug build goes without: the checks of library calls need the optimiser. A build with a sanitizer has checks of
# its own, which these would hide.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fcf-protection RV_HAS_CF_PROTECTION)

if(NOT RVUSBPCTL_SANITIZE)
  set(rv_hardening -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  if(RV_HAS_CF_PROTECTION)
    list(APPEND rv_hardening -fcf-protection)
  endif()
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:${rv_hardening}>")
  add_link_options("$<$<NOT:$<CONFIG:Debug>>:LINKER:-z,relro;LINKER:-z,now>")
endif()
