#include "engine/worker/worker_end.h"

#include <unistd.h>

void pac_worker::endWorker(int code) {
  _exit(code);
}
