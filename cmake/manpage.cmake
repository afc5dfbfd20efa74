# Makes one man page from its roff template (packaging/man/*.in); run at build
# time as
#   cmake -DIN=TEMPLATE -DOUT=PAGE -DVERSION=V [-DTAVRIN=PROGRAM] -P manpage.cmake
# @VERSION@ and @DATE@ (SOURCE_DATE_EPOCH when set, else today) are replaced.
# A line @TAVRIN_COMMANDS@ becomes one subsection per command of the built
# client, holding what `tavrin help COMMAND` prints, so that the page and the
# program's own help say the same. PAGE.gz is written beside PAGE (gzip -9n,
# as Debian ships man pages).
cmake_minimum_required(VERSION 3.25)

# Text as roff that is printed as it stands: backslashes escaped, and a line
# that starts with a control character made ordinary text.
function(roff_literal text out)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Runs the client with arguments under a UTF-8 locale; its output in `out`.
function(run_tavrin out)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8 ${TAVRIN} ${ARGN}
                  OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "'${TAVRIN} ${ARGN}' failed (${rc})")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

file(READ "${IN}" page)
string(TIMESTAMP date "%Y-%m-%d" UTC)
string(REPLACE "@VERSION@" "${VERSION}" page "${page}")
string(REPLACE "@DATE@" "${date}" page "${page}")

if(page MATCHES "@TAVRIN_COMMANDS@")
  run_tavrin(list help)
  # The command list: lines "  NAME  summary" between "Commands:" and the
  # first empty line after it.
  string(REGEX MATCH "Commands:\n(([^\n]+\n)+)" block "${list}")
  string(REGEX MATCHALL "\n  [a-z]+ " names "\n${CMAKE_MATCH_1}")
  if(NOT names)
    message(FATAL_ERROR "'${TAVRIN} help' lists no commands")
  endif()
  set(sections "")
  foreach(name IN LISTS names)
    string(STRIP "${name}" name)
    run_tavrin(usage help ${name})
    # "usage: tavrin NAME ARGS" becomes the heading, the rest the body.
    string(REGEX MATCH "^usage: ([^\n]*)\n\n?(.*)$" _ "${usage}")
    set(heading "${CMAKE_MATCH_1}")
    string(STRIP "${CMAKE_MATCH_2}" body)
    roff_literal("${heading}" heading)
    roff_literal("${body}" body)
    string(APPEND sections ".SS \"${heading}\"\n.nf\n${body}\n.fi\n")
  endforeach()
  string(REPLACE "@TAVRIN_COMMANDS@\n" "${sections}" page "${page}")
endif()

file(WRITE "${OUT}" "${page}")
# gzip -n leaves out the name and time, so the same page gives the same bytes.
execute_process(COMMAND gzip -9nc "${OUT}" OUTPUT_FILE "${OUT}.gz" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip of ${OUT} failed")
endif()
