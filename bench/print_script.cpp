// Prints one of the measured scripts, for programs that measure the daemon from outside.
//
// usage: print_script rules COUNT | bytes COUNT
#include <cstdlib>
#include <iostream>
#include <string>

#include "bench/scripts.h"

int main(int argc, char** argv) {
  const std::string kind = argc == 3 ? argv[1] : "";
  const int count = argc == 3 ? std::atoi(argv[2]) : 0;
  if (count > 0 && kind == "rules") {
    std::cout << bench::rulesScript(count);
  } else if (count > 0 && kind == "bytes") {
    std::cout << bench::scriptOf(static_cast<std::size_t>(count));
  } else {
    std::cerr << "usage: print_script rules COUNT | bytes COUNT\n";
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
