# RVUSBPCTL_SANITIZE names what -fsanitize= gets: "address,undefined" or "thread". Empty means none.
set(RVUSBPCTL_SANITIZE "" CACHE STRING "sanitizers to build with")
if(RVUSBPCTL_SANITIZE)
  add_compile_options(-fsanitize=${RVUSBPCTL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${RVUSBPCTL_SANITIZE})
endif()
