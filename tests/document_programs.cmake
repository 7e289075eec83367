# Programs that a document shows are cut out of it, so that what is tested is what stands there. A block of text is
# marked by the line before it:
#
#     <!-- name.cpp -->
#     ```cpp

# The block of the document's text that is marked with this file name; an error if there is none.
function(mivo_document_block text file_name language result)
  set(opening "<!-- ${file_name} -->\n```${language}\n")
  string(FIND "${text}" "${opening}" begin)
  if(begin EQUAL -1)
    message(FATAL_ERROR "${CMAKE_CURRENT_SOURCE_DIR}: the document has no block marked ${file_name}")
  endif()
  string(LENGTH "${opening}" opening_length)
  math(EXPR begin "${begin} + ${opening_length}")
  string(SUBSTRING "${text}" ${begin} -1 block)
  string(FIND "${block}" "```" end)
  string(SUBSTRING "${block}" 0 ${end} block)
  set(${result} "${block}" PARENT_SCOPE)
endfunction()

# Builds the program as it stands there, as <prefix>_<name>. One change: socket names that two builds do not share, in
# place of the document's, which are "4711" or begin with "unix:".
function(mivo_document_program text prefix name)
  if(NOT DEFINED CACHE{MIVO_DOCUMENT_SOCKET})
    string(RANDOM LENGTH 9 ALPHABET 123456789 socket)
    set(MIVO_DOCUMENT_SOCKET ${socket} CACHE INTERNAL "Local socket of the documents' programs when they are tested")
  endif()
  mivo_document_block("${text}" ${name}.cpp cpp block)
  string(REPLACE "\"4711\"" "\"${MIVO_DOCUMENT_SOCKET}\"" program "${block}")
  string(REGEX REPLACE "\"unix:([a-z_]+)\"" "\"unix:\\1${MIVO_DOCUMENT_SOCKET}\"" program "${program}")
  if(program STREQUAL block)
    message(FATAL_ERROR "${prefix}: ${name}.cpp does not name its socket")
  endif()
  file(CONFIGURE OUTPUT ${name}.cpp CONTENT "${program}" @ONLY)
  add_executable(${prefix}_${name} ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${prefix}_${name} PRIVATE mivo_visible_close mivo::mivo)
endfunction()
