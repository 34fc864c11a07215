#include "StreamSource/ChannelName.h"

#include <cstring>
#include <memory>
#include <new>

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

// `name` may be null.
void keep_gone(char* name) {
    std::unique_ptr<char[]> text(name);
    static GoneNames* const gone = new (std::nothrow) GoneNames;
    if (text == nullptr || gone == nullptr) {
        text.release();  // rather lost than read when it is freed
        return;
    }
    CGuard guard(gone->mutex);
    gone->texts[gone->next].swap(text);
    gone->next = (gone->next + 1) % CChannelName::KEPT;
}

}  // namespace

CChannelName::~CChannelName() {
    keep_gone(m_text.load());
}

bool CChannelName::Set(const char* name) {
    const size_t length = strnlen(name, MAX_LENGTH);
    char* text = new (std::nothrow) char[length + 1];
    if (text == nullptr) {
        return false;
    }
    std::memcpy(text, name, length);
    text[length] = '\0';
    keep_gone(m_text.exchange(text));
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
