#include "StreamSource/ChannelName.h"

#include <cstring>
#include <new>
#include <utility>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

// The names of channels that have gone, in a ring; never destroyed, as handlers may outlast main.
struct GoneNames {
    CMutex mutex;
    std::unique_ptr<char[]> texts[CChannelName::KEPT] VIDORA_GUARDED_BY(mutex);
    int next VIDORA_GUARDED_BY(mutex) = 0;
};

void keep_gone(std::unique_ptr<char[]>& text) {
    static GoneNames* const gone = new (std::nothrow) GoneNames;
    if (gone == nullptr) {
        text.release();  // rather lost than read when it is freed
        return;
    }
    CGuard guard(gone->mutex);
    gone->texts[gone->next].swap(text);
    gone->next = (gone->next + 1) % CChannelName::KEPT;
}

}  // namespace

CChannelName::~CChannelName() {
    if (m_text != nullptr) {
        keep_gone(m_text);
    }
}

bool CChannelName::Set(const char* name) {
    const size_t length = strnlen(name, MAX_LENGTH);
    std::unique_ptr<char[]> text(new (std::nothrow) char[length + 1]);
    if (text == nullptr) {
        return false;
    }
    std::memcpy(text.get(), name, length);
    text[length] = '\0';
    m_text.swap(text);
    if (text != nullptr) {
        keep_gone(text);
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
