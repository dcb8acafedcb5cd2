# corvex_find_linking(PREFIX LIBRARY SYMBOL HEADER...): finds a library and
# the last of its headers, and checks that SYMBOL (declared by the headers,
# included in order) links for this build's target: a 32-bit build may find
# the 64-bit copy of a library, which does not. Sets PREFIX_LIBRARY,
# PREFIX_INCLUDE_DIR and, when it links, PREFIX_LINKS.
function(corvex_find_linking prefix library symbol)
  list(GET ARGN -1 header)
  find_path(${prefix}_INCLUDE_DIR ${header})
  find_library(${prefix}_LIBRARY ${library})
  if(${prefix}_LIBRARY AND ${prefix}_INCLUDE_DIR)
    include(CheckSymbolExists)
    set(CMAKE_REQUIRED_LIBRARIES ${${prefix}_LIBRARY})
    set(CMAKE_REQUIRED_INCLUDES ${${prefix}_INCLUDE_DIR})
    check_symbol_exists(${symbol} "${ARGN}" ${prefix}_LINKS)
  endif()
endfunction()
