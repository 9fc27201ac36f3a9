# Checks that velcat's manual page has an entry for exactly the options that `velcat --help`
# lists, with the same short and long names, and that groff formats the page without a warning.
#   cmake -DVELCAT=path/to/velcat -DMANPAGE=tools/velcat/velcat.1 -P ManPage.cmake

# The lines of `text` as a list; semicolons and brackets masked, as CMake lists split on the one
# and group on the others.
function(lines_of text out)
  string(REPLACE ";" "<semicolon>" text "${text}")
  string(REPLACE "[" "<open>" text "${text}")
  string(REPLACE "]" "<close>" text "${text}")
  string(REPLACE "\n" ";" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# An option as "-p --proto", "-p" or "--pipe", from the start of `text`; nothing when the text
# does not start with an option.
function(option_at text out)
  set(name "")
  if(text MATCHES "^(-[A-Za-z]) *, *\"? *(--[a-z][-a-z0-9]*)")
    set(name "${CMAKE_MATCH_1} ${CMAKE_MATCH_2}")
  elseif(text MATCHES "^(--[a-z][-a-z0-9]*)")
    set(name "${CMAKE_MATCH_1}")
  elseif(text MATCHES "^(-[A-Za-z])([^-A-Za-z]|$)")
    set(name "${CMAKE_MATCH_1}")
  endif()
  set(${out} "${name}" PARENT_SCOPE)
endfunction()

# The help's option column: "  -p, --proto NAME  ..." or "      --pipe H:P  ...".
execute_process(COMMAND ${VELCAT} --help RESULT_VARIABLE status OUTPUT_VARIABLE help)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "velcat --help exited with ${status}")
endif()
lines_of("${help}" lines)
set(help_options "")
foreach(line IN LISTS lines)
  if(line MATCHES "^  -" OR line MATCHES "^      --")
    string(STRIP "${line}" line)
    option_at("${line}" name)
    list(APPEND help_options "${name}")
  endif()
endforeach()

# The page's entries: under .SH OPTIONS, the line after each .TP, such as
# `.BR \-p , " \-\-proto " \fINAME\fR`.
file(READ ${MANPAGE} page)
string(REPLACE "\\-" "-" page "${page}")
lines_of("${page}" lines)
set(man_options "")
set(section "")
set(after_tp FALSE)
foreach(line IN LISTS lines)
  if(line MATCHES "^\\.SH +\"?([A-Z ]+)")
    set(section "${CMAKE_MATCH_1}")
  elseif(section STREQUAL "OPTIONS" AND after_tp)
    set(name "")
    if(line MATCHES "^\\.B[RI]? +\"?(.*)")
      option_at("${CMAKE_MATCH_1}" name)
    endif()
    if(NOT name)
      message(FATAL_ERROR "${MANPAGE}: an entry under OPTIONS that names no option: ${line}")
    endif()
    list(APPEND man_options "${name}")
  endif()
  set(after_tp FALSE)
  if(line MATCHES "^\\.TP")
    set(after_tp TRUE)
  endif()
endforeach()

if(NOT help_options)
  message(FATAL_ERROR "found no option in velcat --help:\n${help}")
endif()
set(only_help ${help_options})
list(REMOVE_ITEM only_help ${man_options})
set(only_man ${man_options})
list(REMOVE_ITEM only_man ${help_options})
if(only_help OR only_man)
  list(JOIN only_help ", " only_help)
  list(JOIN only_man ", " only_man)
  message(FATAL_ERROR "velcat --help and ${MANPAGE} list different options.\n"
      "  In velcat --help, missing from the manual page's OPTIONS: ${only_help}\n"
      "  In the manual page, not in velcat --help: ${only_man}\n"
      "Each option needs a .TP entry under OPTIONS, named as the help names it.")
endif()
list(LENGTH help_options count)
message(STATUS "${count} options, the same in velcat --help and the manual page")

find_program(GROFF groff)
if(NOT GROFF)
  message(FATAL_ERROR "groff not found (Debian package groff-base)")
endif()
execute_process(COMMAND ${GROFF} -ww -z -man ${MANPAGE}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status EQUAL 0 OR NOT "${out}${err}" STREQUAL "")
  message(FATAL_ERROR "groff -ww -z -man ${MANPAGE} (status ${status}):\n${out}${err}")
endif()
