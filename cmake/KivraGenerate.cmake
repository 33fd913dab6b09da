# kivra_generate_metamodel(<target> TABLES <file> NAMESPACE <ns> [PREFIX <dir>])
#
# Generates the C++ classes of the metamodel described in <file> (see docs/metagen.md)
# at build time, adds them to <target>, and puts them on its include path: a class `X` is
# included as <PREFIX/X.hpp> and lives in the C++ namespace <ns>. PREFIX defaults to the
# last part of the namespace. The classes are generated again whenever the tables change.

find_package(Python3 REQUIRED COMPONENTS Interpreter)

function(kivra_generate_metamodel target)
  cmake_parse_arguments(ARG "" "TABLES;NAMESPACE;PREFIX" "" ${ARGN})
  if(NOT ARG_TABLES OR NOT ARG_NAMESPACE)
    message(FATAL_ERROR "kivra_generate_metamodel: TABLES and NAMESPACE are required")
  endif()
  if(NOT ARG_PREFIX)
    string(REGEX REPLACE ".*::" "" ARG_PREFIX "${ARG_NAMESPACE}")
  endif()
  get_filename_component(_tables "${ARG_TABLES}" ABSOLUTE)
  set(_root "${CMAKE_CURRENT_BINARY_DIR}/kivra_generated/${target}")
  set(_out "${_root}/${ARG_PREFIX}")
  set(_args --tables "${_tables}" --namespace "${ARG_NAMESPACE}" --headers "${_out}" --sources "${_out}"
            --include-prefix "${ARG_PREFIX}")
  # The list of files depends on the classes in the tables: read again when they change.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_tables}")
  execute_process(COMMAND "${Python3_EXECUTABLE}" "${KIVRA_METAGEN}" ${_args} --list
                  OUTPUT_VARIABLE _files ERROR_VARIABLE _error RESULT_VARIABLE _result)
  if(NOT _result EQUAL 0)
    message(FATAL_ERROR "${_error}")
  endif()
  add_custom_command(OUTPUT ${_files}
                     COMMAND "${Python3_EXECUTABLE}" "${KIVRA_METAGEN}" ${_args}
                     DEPENDS "${_tables}" "${KIVRA_METAGEN}"
                     COMMENT "Generating the classes of ${ARG_TABLES}" VERBATIM)
  target_sources(${target} PRIVATE ${_files})
  target_include_directories(${target} PUBLIC "${_root}")
endfunction()
