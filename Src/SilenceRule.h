#ifndef VIDORA_SILENCERULE_H
#define VIDORA_SILENCERULE_H

#include "MediaRoute.h"

namespace Kavio {
namespace Vidora {

// CSilenceRule: whether a client's silence ends its session. Silences stay noted once seen: after one on the control
// connection one lapse of the UDP peer is enough, and the other way round.
//
// THREADING  The conversation's strand.
class CSilenceRule {
public:
    void Set(silence_rule_t rule) { m_rule = rule; }
    // A session that streams nothing any more.
    void Reset() { m_rule = SILENCE_OF_CONTROL; }
    // The UDP peer that was watched has gone.
    void ForgetPeer() { m_peer_silent = false; }

    // Note a silence, of a whole time-out. True if the session has to end.
    bool ControlIsSilent() {
        m_control_silent = true;
        return m_rule == SILENCE_OF_CONTROL || (m_rule == SILENCE_OF_BOTH && m_peer_silent);
    }
    bool PeerIsSilent() {
        m_peer_silent = true;
        return m_rule == SILENCE_OF_BOTH && m_control_silent;
    }

private:
    silence_rule_t m_rule = SILENCE_OF_CONTROL;
    bool m_control_silent = false;
    bool m_peer_silent = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SILENCERULE_H
