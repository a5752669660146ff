# The programs that ship are stripped as they are linked; their debug information goes to
# <program>.debug beside them, which the program names (with its CRC) in its .gnu_debuglink
# section. A crash address in the stripped program resolves against that file
# (x86_64-w64-mingw32-addr2line -e Tarrow.exe follows the link by itself). Everything that runs the
# program, tests and benchmarks included, runs the stripped one: what is measured is what ships.
function(tarrow_separate_symbols target)
  if(NOT CMAKE_OBJCOPY)
    message(FATAL_ERROR "objcopy not found: the shipped programs cannot be stripped")
  endif()
  # The link stays relative (the file's name only): the symbol file is looked for beside the
  # program, or in a symbol store, wherever the two are copied to.
  add_custom_command(
    TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE_NAME:${target}> $<TARGET_FILE_NAME:${target}>.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-all --add-gnu-debuglink=$<TARGET_FILE_NAME:${target}>.debug
            $<TARGET_FILE_NAME:${target}>
    WORKING_DIRECTORY $<TARGET_FILE_DIR:${target}>
    COMMENT "Stripping ${target}, its symbols into a file beside it"
    VERBATIM)
endfunction()
