// What the parser tells the service, behind a function of its own so that its tests can listen.
#pragma once

class ProxyManagerServiceImpl;

/// Tells `service` that the script's content has changed; nothing where it is null.
void noticeContentUpdated(ProxyManagerServiceImpl* service);
