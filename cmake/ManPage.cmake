# cmake -DHELP2MAN=... -DPROGRAM=... -DSECTION=... -DNAME=... -DOUT=... -P ManPage.cmake
# A manual page from the program's --help and --version, without the build tree's paths in it.
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=0 ${HELP2MAN} --no-info --section=${SECTION}
          --name=${NAME} --output=${OUT}.new ${PROGRAM}
  RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "help2man ${PROGRAM} failed")
endif()
file(READ ${OUT}.new page)
string(REGEX REPLACE " *\\(here: [^)]*\\)" "" page "${page}")
file(WRITE ${OUT} "${page}")
file(REMOVE ${OUT}.new)
