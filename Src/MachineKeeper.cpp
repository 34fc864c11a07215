#include "MachineKeeper.h"

#include <cstring>
#include <new>

#include "StateMachine.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

// A text event ready for delivery, of at most MAX_MESSAGE_SIZE bytes; null if ten events are in flight.
StateEvent* make_text_event(CStateMachine& machine, int type, const char* text, uint32_t length, uint64_t id) {
    StateEvent* event = machine.GetEvent(type, length + STATE_EVENT_TEXT_OFFSET, id);
    if (event != nullptr) {
        event->length = length;
        std::memcpy(event->text(), text, length);
        event->text()[length] = '\0';
    }
    return event;
}

// Delivers the event. A failure ends the session.
bool deliver_or_end(CStateMachine& machine, StateEvent* event) {
    if (event != nullptr && machine.deliver(event) >= 0) {
        return true;
    }
    logWarn("%s:%d \n", __FILE__, __LINE__);
    machine.put_asyn_msg(MSG_SRC_FAIL, 0);
    return false;
}

}  // namespace

CMachineKeeper::CMachineKeeper() : m_machine(new (std::nothrow) CStateMachine) {}

CMachineKeeper::~CMachineKeeper() {
    if (m_machine != nullptr) {
        m_machine->destroy();
        m_machine = nullptr;
    }
}

bool CMachineKeeper::valid() const {
    return m_machine != nullptr && m_machine->has_state();
}

int CMachineKeeper::set_state_obj(int number, IState* state) {
    if (m_machine == nullptr) {
        delete state;
        return -1;
    }
    return m_machine->set_state_obj(number, state);
}

int CMachineKeeper::set_state(int number) {
    return m_machine != nullptr ? m_machine->set_state(number) : -1;
}

bool CMachineKeeper::put_rx_event(const rtsp_msg_info& info, const char* text, uint32_t length, uint64_t id) {
    if (m_machine == nullptr || text == nullptr || length > MAX_MESSAGE_SIZE) {
        return false;
    }
    StateEvent* event = make_text_event(*m_machine, STATE_EVENT_RX, text, length, id);
    if (event != nullptr) {
        event->method = info.method;
        event->status = info.status;
        event->cseq = info.cseq;
    }
    return deliver_or_end(*m_machine, event);
}

bool CMachineKeeper::put_tx_event(int kind, const char* text, int status, uint64_t id) {
    if (m_machine == nullptr || text == nullptr) {
        return false;
    }
    const size_t length = std::strlen(text);
    if (length > MAX_MESSAGE_SIZE) {
        return false;
    }
    StateEvent* event = make_text_event(*m_machine, STATE_EVENT_TX, text, static_cast<uint32_t>(length), id);
    if (event != nullptr) {
        event->method = kind;
        event->status = status;
        event->cseq = 0;
    }
    return deliver_or_end(*m_machine, event);
}

void CMachineKeeper::put_asyn_msg(uint32_t msg, uint64_t id) {
    if (m_machine != nullptr) {
        m_machine->put_asyn_msg(msg, id);
    }
}

bool CMachineKeeper::hold() {
    return m_machine != nullptr && m_machine->hold();
}

void CMachineKeeper::release() {
    if (m_machine != nullptr) {
        m_machine->release();
    }
}

bool CMachineKeeper::idle() {
    return m_machine != nullptr && m_machine->idle();
}

CMachineGuard::CMachineGuard(CMachineKeeper* machine_keeper) {
    if (OSTRA_ASSERT(machine_keeper) && machine_keeper->hold()) {
        m_machine = machine_keeper->m_machine;
    }
}

CMachineGuard::~CMachineGuard() {
    if (m_machine != nullptr) {
        m_machine->release();
    }
}

}  // namespace Vidora
}  // namespace Kavio
