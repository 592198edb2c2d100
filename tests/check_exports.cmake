# Checks the dynamic symbol table of the shared library against docs/exports.txt, both ways: every listed
# name is exported, and nothing else is; the internals (zel::) never are.
#   cmake -DLIB=libtandro.so -DLIST=docs/exports.txt -P check_exports.cmake
execute_process(COMMAND nm -D --defined-only ${LIB} OUTPUT_VARIABLE syms RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()

file(STRINGS ${LIST} listed)
list(LENGTH listed listed_count)
if(listed_count EQUAL 0)
  message(FATAL_ERROR "${LIST} lists no names")
endif()
set(sorted ${listed})
list(SORT sorted)
list(REMOVE_DUPLICATES sorted)
if(NOT sorted STREQUAL listed)
  message(FATAL_ERROR "${LIST} is not sorted or repeats a name")
endif()

# The exported names; weak instances of the C++ standard library's inline templates that the compiler
# emits with default visibility are not part of the interface and are set apart (and shown), and so are the
# one-definition markers that AddressSanitizer adds beside every exported variable.
string(REPLACE "\n" ";" lines "${syms}")
set(exported "")
set(std_weak "")
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) (.+)$")
    set(type ${CMAKE_MATCH_1})
    set(name ${CMAKE_MATCH_2})
    if(type MATCHES "^[WVu]$" AND name MATCHES "^_Z+N?K?St|^_ZSt")
      list(APPEND std_weak ${name})
    elseif(name MATCHES "^__odr_asan[.]")
      # not part of the interface: present only in AddressSanitizer builds
    else()
      list(APPEND exported ${name})
    endif()
  endif()
endforeach()
if(std_weak)
  string(REPLACE ";" " " shown "${std_weak}")
  message(STATUS "weak standard library instances, not compared: ${shown}")
endif()

foreach(name IN LISTS exported)
  if(name MATCHES "^_ZN3zel|^_ZZN3zel")
    message(FATAL_ERROR "internal symbol exported: ${name}")
  endif()
endforeach()

set(missing ${listed})
list(REMOVE_ITEM missing ${exported})
set(extra ${exported})
list(REMOVE_ITEM extra ${listed})
if(missing OR extra)
  string(REPLACE ";" " " missing "${missing}")
  string(REPLACE ";" " " extra "${extra}")
  message(FATAL_ERROR "exports differ from ${LIST}\n  listed, not exported: ${missing}\n  exported, not listed: ${extra}")
endif()

# The names callers have always reached, whatever the list says.
foreach(name GetReaderType GetReaderTypeM GetReaderTypeHnd GetCardId GetCardIdM GetCardIdHnd InitialHandshaking
             PortRead ZEL_Status2String Zel_Hnd_Create zel_global CRC16 COMTransceive COMTransceiveM)
  list(FIND exported ${name} at)
  if(at EQUAL -1)
    message(FATAL_ERROR "missing export: ${name}")
  endif()
endforeach()
message(STATUS "exports ok: ${listed_count} names")
