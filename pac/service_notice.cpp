#include "pac/service_notice.h"

#include "service/proxy_manager_service_impl.h"

void noticeContentUpdated(ProxyManagerServiceImpl* service) {
  if (service != nullptr) service->pacContentUpdated();
}
