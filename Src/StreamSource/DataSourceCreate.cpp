// The choice of a data source's class.
#include <cstring>
#include <new>

#include "StreamSource/KXDataSrc.h"
#include "StreamSource/RtspProxySrc.h"
#include "Vidora/DataSource.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

namespace {

// The class behind a source type; null if no class serves it, or memory is short.
CDataSource* make_source(src_type_t type, const char* content, CRtspUrlParser& parser) {
    switch (type) {
        case SRC_TYPE_PROXY:
            return new (std::nothrow) CRtspProxySrc(parser.GetProxyUrl());
        // Types 3 and 4 carry "proxy=" as well, but the host answers them through its factory.
        case SRC_TYPE_LIVE:
        case SRC_TYPE_FILE:
        case SRC_TYPE_PROXY_LIVE:
        case SRC_TYPE_PROXY_FILE:
        case SRC_TYPE_TOKEN:
            return new (std::nothrow) CKXDataSrc(content);
        default:
            return nullptr;
    }
}

}  // namespace

CDataSource* CDataSource::Create(const char* content) {
    CRtspUrlParser parser;
    unsigned int length = content == nullptr ? 0 : static_cast<unsigned int>(std::strlen(content));
    if (!parser.ParseContent(content, length)) {
        logError("%s:%d content parse fail!\n", __FILE__, __LINE__);
        return nullptr;
    }
    const src_type_t type = parser.GetSrcType();
    CDataSource* source = make_source(type, content, parser);
    if (source == nullptr) {
        logError("%s:%d nonsupport this source type[%d] \n", __FILE__, __LINE__, type);
        return nullptr;
    }
    if (source->GetID() == 0) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        delete source;
        return nullptr;
    }
    source->m_src_type = type;
    return source;
}

}  // namespace Vidora
}  // namespace Kavio
