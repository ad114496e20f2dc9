# cmake -DTOOL=<nm or objdump> -DMODULE=<file> -P CheckExports.cmake
# Fails unless the module's export table names every entry point under both of its names (and,
# where the dynamic symbol table is read, nothing besides them).
if(TOOL MATCHES "objdump")
  execute_process(COMMAND ${TOOL} -p ${MODULE} OUTPUT_VARIABLE table RESULT_VARIABLE rc)
else()
  execute_process(COMMAND ${TOOL} -D --defined-only ${MODULE} OUTPUT_VARIABLE table RESULT_VARIABLE rc)
endif()
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${TOOL} failed on ${MODULE}")
endif()
foreach(name InitKroAgent GetKroAgent ReleaseKroAgent DeInitKroAgent
             InitKroBase GetKroBase ReleaseKroBase DeInitKroBase)
  if(NOT table MATCHES "[ \t]${name}\n")
    message(FATAL_ERROR "${MODULE} does not export ${name}")
  endif()
endforeach()
if(NOT TOOL MATCHES "objdump")
  # Nothing of what the module links may leak out and bind to a host's own copy.
  string(REGEX MATCHALL "[ \t][A-Za-z_][A-Za-z0-9_]*\n" names "${table}")
  foreach(name IN LISTS names)
    string(STRIP "${name}" name)
    if(NOT name MATCHES "^(Init|Get|Release|DeInit)Kro(Agent|Base)$|^GetKroAgentVersion$")
      message(FATAL_ERROR "${MODULE} also exports ${name}")
    endif()
  endforeach()
endif()
message(STATUS "all eight entry points exported, nothing else")
