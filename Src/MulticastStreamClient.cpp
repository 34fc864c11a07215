#include "MulticastStreamClient.h"

#include <new>

#include "Tramel/IpText.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t VIDEO_TRACK = 0;
const size_t AUDIO_TRACK = 1;
const int FIRST_ENCODE = ENC_TYPE_H264;
const int LAST_ENCODE = ENC_TYPE_AUDIO;

bool read_group(const char* ip, int port, CSockAddrIPv4& address) {
    if (port > Tramel::MAX_PORT || address.SetAddr(ip, static_cast<unsigned short>(port)) < 0) {
        logError("%s:%d dest_addr.SetAddr error multicast_addr:%s multicast_port:%d \n", __FILE__, __LINE__, ip, port);
        return false;
    }
    return true;
}

}  // namespace

IMulticastStreamClient::IMulticastStreamClient() = default;
IMulticastStreamClient::~IMulticastStreamClient() = default;

IMulticastStreamClient* IMulticastStreamClient::Create(ClientType type) {
    return new (std::nothrow) CMulticastStreamClient(type == ClientType_RTP ? ClientType_RTP : ClientType_TS);
}

int CMulticastStreamClient::Start(const char* multicast_addr, int multicast_port, frame_proc_t proc,
                                  const multicast_track_info_t* info) {
    if (!begin_call(false)) {
        return -1;
    }
    const int result = start(multicast_addr, multicast_port, proc, info);
    end_call();
    return result;
}

// False if the client is ending.
bool CMulticastStreamClient::begin_call(bool stops) {
    const CGuard guard(m_mutex);
    if (m_stopping) {
        return false;
    }
    m_stopping = stops;
    ++m_calls;
    return true;
}

void CMulticastStreamClient::end_call() {
    CGuard guard(m_mutex);
    const bool is_last = --m_calls == 0 && m_stopping;
    guard.Leave();
    if (is_last) {
        CNetHandler::Close();
    }
}

int CMulticastStreamClient::start(const char* multicast_addr, int multicast_port, const frame_proc_t& proc,
                                  const multicast_track_info_t* info) {
    if (multicast_addr == nullptr || multicast_port < 1 || proc.empty()) {
        logError("%s:%d Param error \n", __FILE__, __LINE__);
        return -1;
    }
    CSockAddrIPv4 address;
    if (!read_group(multicast_addr, multicast_port, address) || check_kind(info) < 0) {
        return -1;
    }
    const bool is_audio = info != nullptr && info->encode > ENC_TYPE_JPEG;
    const track_ptr track = info == nullptr ? CMulticastTrack::CreateTs(proc) : CMulticastTrack::CreateRtp(proc, *info);
    if (track == nullptr || receive_at(is_audio ? AUDIO_TRACK : VIDEO_TRACK, address, track) < 0) {
        const char* text = is_audio ? "%s:%d audio sock Open failed,  multicast_addr:%s multicast_port:%d. \n"
                                    : "%s:%d, video sock open failed, multicast_addr:%s multicast_port:%d. \n";
        logError(text, __FILE__, __LINE__, multicast_addr, multicast_port);
        return -1;
    }
    return 0;
}

// A transport stream describes itself; a track of RTP must be described.
int CMulticastStreamClient::check_kind(const multicast_track_info_t* info) const {
    if (info == nullptr && m_client_type != ClientType_TS) {
        logError("%s:%d, src type error, expect ClientType_TS, in fact it's %d.\n", __FILE__, __LINE__, m_client_type);
        return -1;
    }
    if (info != nullptr && m_client_type != ClientType_RTP) {
        logError("%s:%d, src type error, expect ClientType_RTP, in fact it's %d.\n", __FILE__, __LINE__, m_client_type);
        return -1;
    }
    if (info != nullptr && (info->encode < FIRST_ENCODE || info->encode > LAST_ENCODE)) {
        logError("%s:%d, encode invalid, shoud in range of (%d-%d) \n", __FILE__, __LINE__, FIRST_ENCODE - 1,
                 LAST_ENCODE + 1);
        return -1;
    }
    return 0;
}

// The former track must have left the port.
int CMulticastStreamClient::receive_at(size_t place, const CSockAddrIPv4& address, const track_ptr& track) {
    drop(place);
    return track->Open(address) < 0 ? -1 : store(place, track);
}

// The track is stored and its socket watched as one: its first datagram finds it, and who takes it out finds its socket
// watched. 0, or -1: the client is ending, another call has been quicker, or there is no pool.
int CMulticastStreamClient::store(size_t place, const track_ptr& track) {
    const CGuard guard(m_mutex);
    if (m_stopping || m_tracks[place] != nullptr) {
        return -1;
    }
    logInfo("%s:%d, RegisterSock sock[%d]\n", __FILE__, __LINE__, track->Sock().GetHandle());
    if (RegisterSock(track->Sock(), Tramel::SOCK_EVENT_READ, 0) < 0) {
        return -1;
    }
    m_tracks[place] = track;
    return 0;
}

// Takes a track out, and waits until no other thread is in it.
void CMulticastStreamClient::drop(size_t place) {
    track_ptr track;
    {
        const CGuard guard(m_mutex);
        track.swap(m_tracks[place]);
    }
    if (track == nullptr) {
        return;
    }
    track->Detach();
    RemoveSock(track->Sock());
    wait_for_turn();
    logInfo("%s:%d, dropped datagrams:%llu\n", __FILE__, __LINE__, static_cast<unsigned long long>(track->Dropped()));
    track->Close();
}

// Only the turn that runs now can be in a track that has been taken out, by whomever; later ones don't find it.
void CMulticastStreamClient::wait_for_turn() {
    const CGuard guard(m_mutex);
    const uint64_t turn = m_turn;
    while (m_turn == turn && m_input_thread != std::thread::id() && m_input_thread != std::this_thread::get_id()) {
        m_wait.Wait(m_mutex);
    }
}

// The last wait is for a callback whose own Start has taken its track out.
void CMulticastStreamClient::Close() {
    if (!begin_call(true)) {
        return;
    }
    drop(VIDEO_TRACK);
    drop(AUDIO_TRACK);
    wait_for_turn();
    end_call();
}

int CMulticastStreamClient::handle_close(CNetHandler*) {
    IMulticastStreamClient* self = this;
    delete self;
    return 0;
}

int CMulticastStreamClient::handle_input(int fd) {
    const track_ptr track = enter(fd);
    if (track == nullptr) {
        return -1;
    }
    const int result = track->Receive();
    if (result < 0 && track->IsLive()) {
        end_all();
    }
    leave();
    return result;
}

// The track of a socket. One that another thread has just taken out isn't found any more, which ends nothing else.
CMulticastStreamClient::track_ptr CMulticastStreamClient::enter(int fd) {
    const CGuard guard(m_mutex);
    if (m_stopping) {
        return nullptr;
    }
    for (const track_ptr& track : m_tracks) {
        if (track != nullptr && track->IsLive() && track->Sock().GetHandle() == fd) {
            m_input_thread = std::this_thread::get_id();
            ++m_turn;
            return track;
        }
    }
    logError("%s:%d, should not be here for ever.\n", __FILE__, __LINE__);
    return nullptr;
}

void CMulticastStreamClient::leave() {
    const CGuard guard(m_mutex);
    m_input_thread = std::thread::id();
    m_wait.Wake();
}

// A socket failed: the host is told for each track. The callback may call Stop or Start, which detach what is here.
void CMulticastStreamClient::end_all() {
    for (const track_ptr& track : tracks()) {
        if (track != nullptr) {
            RemoveSock(track->Sock());
            track->End();
        }
    }
}

std::array<CMulticastStreamClient::track_ptr, CMulticastStreamClient::TRACKS> CMulticastStreamClient::tracks() {
    const CGuard guard(m_mutex);
    return m_tracks;
}

}  // namespace Vidora
}  // namespace Kavio
