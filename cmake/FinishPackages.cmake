# Runs when the files of the packages lie in their places and before they are packed: adds what Debian wants of
# every package, and takes out what differs from one build to the next.
#
# SOURCE_DATE_EPOCH gives the date of everything; without it, now.
set(source ${CMAKE_CURRENT_LIST_DIR}/..)
string(TIMESTAMP epoch "%s" UTC)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)

function(rv_run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# As gzip(1) is asked to by Debian: as small as can be, without name and time.
function(rv_compress)
  if(ARGN)
    rv_run(gzip -9nf ${ARGN})
  endif()
endfunction()

function(rv_finish root package)
  set(docs ${root}/usr/share/doc/${package})
  file(MAKE_DIRECTORY ${docs})
  file(COPY ${source}/packaging/copyright DESTINATION ${docs})
  configure_file(${source}/CHANGES.md ${docs}/changelog COPYONLY)
  file(WRITE ${docs}/changelog.Debian
    "${package} (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
    "  * Version ${CPACK_PACKAGE_VERSION}.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  if(EXISTS ${source}/packaging/${package}.lintian-overrides)
    configure_file(${source}/packaging/${package}.lintian-overrides
      ${root}/usr/share/lintian/overrides/${package} COPYONLY)
  endif()
  file(GLOB_RECURSE pages ${root}/usr/share/man/*)
  rv_compress(${docs}/changelog ${docs}/changelog.Debian ${pages})
  rv_run(chmod -R u=rwX,go=rX ${root})
  rv_run(find ${root} -exec touch --no-dereference --date=@${epoch} {} +)
endfunction()

rv_finish(${CPACK_TEMPORARY_DIRECTORY}/Tool rvusbpctl)
rv_finish(${CPACK_TEMPORARY_DIRECTORY}/Development librvio-dev)
