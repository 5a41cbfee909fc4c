# One set of warnings for every target of this tree. These warnings never apply to targets of other
# projects that link this tree.
add_library(proxymanager_warnings INTERFACE)
target_compile_options(proxymanager_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef -Wcast-qual -Wcast-align
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wsign-conversion -Wold-style-cast -Woverloaded-virtual
    -Wnon-virtual-dtor -Wextra-semi -Wno-missing-field-initializers>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>
  # GCC 12 warns of overlaps in "literal" + std::string that do not exist (GCC bug 105651).
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>
  $<$<BOOL:${PROXYMANAGER_WERROR}>:-Werror>)
