#ifndef VIDORA_HOST_CONTENTRULE_H
#define VIDORA_HOST_CONTENTRULE_H

#include "Options.h"

// What becomes of the contents that clients ask for. The name of a --live option leads to the channel that it is
// published as, with or without a slash behind it. A content that names another server, which the library would connect
// to, is refused unless a --proxy-to option allows that server.

// Before the servers open.
void SetContentRule(const Options& options);
// For RTSP_SVR_CONFIG_URL_FUNC. Any thread.
char* RewriteContent(const char* content, char* buffer, int size);

#endif  // VIDORA_HOST_CONTENTRULE_H
