# cmake -DTOOL=<nm or objdump> -DMODULE=<file> -P CheckExports.cmake
# Fails unless the module's export table names every entry point under both of its names.
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
message(STATUS "all eight entry points exported")
