#include "Protocol/MessageMemory.h"

#include <mutex>
#include <new>

namespace Kavio {
namespace Vidora {

namespace {

// As many as a pool's threads use at a time; what is released beyond them goes back to the heap.
const int MAX_SPARE = 4;

// Without a destructor that would run: sessions may end when the process has begun to leave.
struct spare_t {
    std::mutex mutex;
    CMessageMemory* memory[MAX_SPARE] = {};
    int count = 0;
};
spare_t spare;

CMessageMemory* take_spare() {
    const std::lock_guard<std::mutex> lock(spare.mutex);
    return spare.count > 0 ? spare.memory[--spare.count] : nullptr;
}

bool keep_spare(CMessageMemory* memory) {
    const std::lock_guard<std::mutex> lock(spare.mutex);
    if (spare.count == MAX_SPARE) {
        return false;
    }
    spare.memory[spare.count++] = memory;
    return true;
}

}  // namespace

void rtsp_texts::Clear() {
    transport.reset();
    for (char* text : {url, auth, content_type, methods, written, body}) {
        text[0] = '\0';
    }
}

CMessageMemory::pointer_t CMessageMemory::Take() {
    pointer_t memory(take_spare());
    if (memory == nullptr) {
        memory.reset(new (std::nothrow) CMessageMemory);
    } else {
        memory->received_length = 0;
        memory->texts.Clear();
    }
    return memory;
}

void CMessageMemory::CRelease::operator()(CMessageMemory* memory) const {
    if (!keep_spare(memory)) {
        delete memory;
    }
}

}  // namespace Vidora
}  // namespace Kavio
