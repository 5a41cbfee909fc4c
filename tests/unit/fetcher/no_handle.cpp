// Replaces libcurl's function in a fetch process that is otherwise the real one.
extern "C" void* curl_easy_init() {
  return nullptr;
}
