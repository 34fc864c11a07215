#include "SvrHandler.h"

#include <atomic>
#include <utility>

namespace Kavio {
namespace Vidora {

namespace {

std::atomic<unsigned int> session_count{0};

}  // namespace

CSvrHandler::CSvrHandler(CSvrConversation& conversation) : m_talk(conversation) {
    ++session_count;
}

unsigned int CSvrHandler::GetCount() {
    return session_count;
}

int CSvrHandler::SetRoll(const std::shared_ptr<CSessionRoll>& roll) {
    if (GetID() == 0 || !m_talk.IsValid()) {
        return -1;
    }
    m_entry = CSessionEntry::Create(roll, GetID(), MSG_SESSION_END, MSG_SESSION_BROKEN);
    return m_entry != nullptr ? 0 : -1;
}

void CSvrHandler::Discard() {
    if (GetID() == 0) {
        handle_close(this);
    } else {
        Close();
    }
}

int CSvrHandler::handle_exception(int /*fd*/) {
    m_talk.OnLinkError();
    return 0;
}

int64_t CSvrHandler::handle_timeout(long timer_id) {
    m_talk.OnTimer(timer_id);
    return 0;
}

int CSvrHandler::handle_message(long sender_id, unsigned int msg, long param) {
    if (msg == MSG_SESSION_INIT) {
        begin(static_cast<int>(param));
    } else {
        m_talk.OnMessage(sender_id, msg, param);
    }
    return 0;
}

// A session whose server was stopped meanwhile goes unheard: its host counts on hearing nothing more.
void CSvrHandler::begin(int count) {
    if (m_entry == nullptr || m_entry->Enter()) {
        Init(count);
    } else {
        close_session();
    }
}

// While the session is whole: what it holds may call back until it is released.
int CSvrHandler::handle_close(CNetHandler* /*handler*/) {
    std::unique_ptr<CSessionEntry> entry = take_entry();  // leaves when nothing of the session is left
    m_talk.Release();
    delete this;
    entry.reset();
    --session_count;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
