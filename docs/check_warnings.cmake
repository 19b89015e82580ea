# Fails the docs target on any Doxygen warning (LOG), and on a public class or
# struct without documentation, which Doxygen does not report itself while
# EXTRACT_ALL lists every member: the XML output (XML) shows each compound's
# own description after its member sections.
file(STRINGS "${LOG}" warnings)
set(failed 0)
foreach(line IN LISTS warnings)
  message(SEND_ERROR "${line}")
  set(failed 1)
endforeach()

file(GLOB compounds "${XML}/class*.xml" "${XML}/struct*.xml")
set(undocumented 0)
foreach(path IN LISTS compounds)
  file(READ "${path}" text)
  if(NOT text MATCHES "<compounddef [^>]*prot=\"public\"")
    continue()  # a private helper of a class
  endif()
  string(REGEX MATCH "<compoundname>[^<]*</compoundname>" name "${text}")
  string(REGEX REPLACE "</?compoundname>" "" name "${name}")
  # The compound's own descriptions follow its last member section.
  string(FIND "${text}" "</sectiondef>" last REVERSE)
  if(last GREATER -1)
    string(SUBSTRING "${text}" ${last} -1 text)
  endif()
  string(REGEX MATCH "<briefdescription>[ \n]*</briefdescription>" no_brief "${text}")
  string(REGEX MATCH "<detaileddescription>[ \n]*</detaileddescription>" no_detail "${text}")
  if(no_brief AND no_detail)
    message(SEND_ERROR "${name}: a public class or struct without documentation")
    math(EXPR undocumented "${undocumented} + 1")
  endif()
endforeach()
list(LENGTH compounds count)
list(LENGTH warnings nwarnings)
message(STATUS "Doxygen: ${nwarnings} warnings, ${count} classes and structs, ${undocumented} undocumented")
if(failed OR undocumented GREATER 0)
  message(FATAL_ERROR "the API documentation has warnings or undocumented classes")
endif()
