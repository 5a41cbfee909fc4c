// Replaces this function of libcurl. Everything else in the fetch process is real.
extern "C" void* curl_easy_init() {
  return nullptr;
}
