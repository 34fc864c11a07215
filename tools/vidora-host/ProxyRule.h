#ifndef VIDORA_HOST_PROXYRULE_H
#define VIDORA_HOST_PROXYRULE_H

#include <vector>

#include "Options.h"

// Which servers clients may have relayed. The library would connect to any that a URL names.

// Before the servers open.
void SetProxyRule(const std::vector<ProxyOption>& allowed);
// For RTSP_SVR_CONFIG_URL_FUNC: turns a content that names another server into one that nobody has.
char* RefuseOtherProxies(const char* content, char* buffer, int size);

#endif  // VIDORA_HOST_PROXYRULE_H
