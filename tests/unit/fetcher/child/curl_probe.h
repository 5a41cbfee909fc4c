// A layer between the transfer and libcurl. It records each option and passes all calls on to the
// real library.
#pragma once

#include <vector>

struct CurlOption {
  int option;
  long value;  ///< a number, even if the option is a pointer
};

/// The options set so far, in order.
std::vector<CurlOption> curlOptions();

/// How many transfers were begun.
int curlTransfers();
