// A layer between the transfer and libcurl. It records each option and passes all calls on to the
// real library.
#pragma once

#include <vector>

struct CurlOption {
  int option;
  long value;  ///< as a number, also for options that are pointers
};

/// The options set so far, in order.
std::vector<CurlOption> curlOptions();

/// How many transfers were begun.
int curlTransfers();
