#include "fetcher/service_calls.h"

#include "service/proxy_manager_service_impl.h"

void fetcher::pacFileUpdated(ProxyManagerServiceImpl& service) {
  service.pacFileUpdated();
}
