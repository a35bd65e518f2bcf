# Fills the completion script's template (cmake -P): each program's long
# options from the option lines of its --help, dtl-host's -o keys from the
# DTL_ variables of the environment file.
# -DRUN_<program>=PATH for each program, -DTEMPLATE= -DENV_FILE= -DOUTPUT=
foreach(program dtl-host dtl-read dtl-ls hft-sim dtl-plot)
  execute_process(COMMAND ${RUN_${program}} --help OUTPUT_VARIABLE help RESULT_VARIABLE status TIMEOUT 60)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${RUN_${program}} --help failed: ${status}")
  endif()
  # Only lines that start with an option: the prose mentions some that are
  # not options ("--option=VALUE").
  string(REGEX MATCHALL "\n[ \t]*-[^\n]*" option_lines "\n${help}")
  string(REGEX MATCHALL "--[a-z0-9][a-z0-9-]*" options "${option_lines}")
  list(REMOVE_DUPLICATES options)
  list(SORT options)
  list(JOIN options " " options)
  string(TOUPPER "${program}" name)
  string(REPLACE "-" "_" name "${name}")
  set(${name}_OPTIONS "${options}")
endforeach()

# #DTL_SWITCH_1_IP= is switch-1-ip; DTL_API_LOG_LEVEL is no option key.
file(STRINGS ${ENV_FILE} variables REGEX "^#?DTL_[A-Z0-9_]+=")
set(keys "")
foreach(line ${variables})
  string(REGEX REPLACE "^#?DTL_([A-Z0-9_]+)=.*" "\\1" key "${line}")
  if(NOT key STREQUAL "API_LOG_LEVEL")
    string(TOLOWER "${key}" key)
    string(REPLACE "_" "-" key "${key}")
    list(APPEND keys "${key}=")
  endif()
endforeach()
list(JOIN keys " " DTL_HOST_KEYS)
configure_file(${TEMPLATE} ${OUTPUT} @ONLY)
