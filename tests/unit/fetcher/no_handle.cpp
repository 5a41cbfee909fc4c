// Replaces curl_easy_init() of libcurl by one that fails. Everything else in the fetch process is
// real.
extern "C" void* curl_easy_init() {
  return nullptr;
}
