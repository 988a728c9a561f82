# cmake -DPLEXA=<program> -DHELP2MAN=<help2man> -DOUTPUT=<plexa.1> -P PlexaManPage.cmake
#
# Writes the man page from the program's own texts: help2man turns `plexa --help` into the page,
# the first line of `plexa --version` gives its version, and every command of the overview gets a
# subsection with its `plexa COMMAND --help`, so the page cannot drift from what the program says.
execute_process(COMMAND ${PLEXA} --help OUTPUT_VARIABLE overview RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${PLEXA} --help failed: ${status}")
endif()
# The overview lists one command per line: two spaces, the name, its summary.
string(REGEX MATCHALL "\n  [a-z]+ " lines "${overview}")
set(body "")
foreach(line ${lines})
  string(STRIP "${line}" command)
  execute_process(COMMAND ${PLEXA} ${command} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${PLEXA} ${command} --help failed: ${status}")
  endif()
  # Verbatim in roff: backslashes escaped, and no line may start with a control character.
  string(REPLACE "\\" "\\e" help "${help}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
  string(APPEND body ".SS \"plexa ${command}\"\n.nf\n${help}.fi\n")
endforeach()
# The lines after the first (library and protocol) would end up in the description.
execute_process(COMMAND ${PLEXA} --version OUTPUT_VARIABLE version RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT version MATCHES "^plexa ([^\n]+)")
  message(FATAL_ERROR "${PLEXA} --version failed: ${status}")
endif()
set(version "${CMAKE_MATCH_1}")
get_filename_component(dir ${OUTPUT} DIRECTORY)
file(WRITE ${dir}/plexa.h2m "[>COMMANDS]\n${body}")
execute_process(COMMAND ${HELP2MAN} --no-info --name "keep a tree of typed attributes identical between two processes"
                        --version-string "${version}" --include ${dir}/plexa.h2m --output ${OUTPUT} ${PLEXA}
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "help2man failed: ${status}")
endif()
