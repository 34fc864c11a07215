#include "StreamSource/ChannelFeed.h"

#include <cstring>
#include <new>

#include "Protocol/SdpParser.h"
#include "Tramel/Reactor.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

// RFC 4566 5.3: the session's name follows the origin, which has the time of the making.
const char* behind_origin(const CSdpParser& sdp) {
    const char* name = std::strstr(sdp.get_stream(), "\r\ns=");
    return name == nullptr ? "" : name;
}

}  // namespace

std::shared_ptr<CChannelFeed> CChannelFeed::Create(const std::shared_ptr<CSourceGate>& gate,
                                                   const std::shared_ptr<ChannelBuffers>& buffers, long channel_id,
                                                   const std::string& former) {
    try {
        return std::make_shared<CChannelFeed>(gate, buffers, channel_id, former);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return nullptr;
    }
}

CChannelFeed::CChannelFeed(const std::shared_ptr<CSourceGate>& gate, const std::shared_ptr<ChannelBuffers>& buffers,
                           long channel_id, const std::string& former)
    : m_gate(gate), m_buffers(buffers), m_channel_id(channel_id), m_former(former) {}

CChannelFeed::~CChannelFeed() = default;

void CChannelFeed::SetClients(packet_type_t packet_type, int clients, bool joined) {
    CGuard guard(m_mutex);
    Form& form = m_forms[packet_type];
    form.clients = clients;
    form.start_result = 0;
    form.stop_result = 0;
    if (joined) {
        form.joined = true;
        form.failed = false;
    }
}

void CChannelFeed::Quit(CDataSource& source) {
    {
        CGuard guard(m_mutex);
        for (Form& form : m_forms) {
            form.clients = 0;
        }
        m_play_due = false;
        m_describe_due = false;
        m_update_due = false;
    }
    for (const CMediaBuffer& buffer : m_buffers->buffer) {
        source.CutFeeding(&buffer);
    }
}

void CChannelFeed::WantBegin() {
    CGuard guard(m_mutex);
    m_play_due = true;
    m_describe_due = true;
}

void CChannelFeed::WantDescription(bool told) {
    CGuard guard(m_mutex);
    m_describe_due = true;
    m_told = m_told || told;
}

void CChannelFeed::WantUpdate(long arg) {
    CGuard guard(m_mutex);
    m_sdp = nullptr;
    m_describe_due = false;  // by what is to be read anew
    m_update_due = true;
    m_update_arg = arg;
    m_update_result = 0;
}

int CChannelFeed::StartResult(packet_type_t packet_type) {
    CGuard guard(m_mutex);
    return m_forms[packet_type].start_result;
}

int CChannelFeed::StopResult(packet_type_t packet_type) {
    CGuard guard(m_mutex);
    return m_forms[packet_type].stop_result;
}

int CChannelFeed::UpdateResult() {
    CGuard guard(m_mutex);
    return m_update_result;
}

std::shared_ptr<const CSdpParser> CChannelFeed::GetSdp() {
    CGuard guard(m_mutex);
    return m_sdp;
}

int CChannelFeed::GetMediaCount() {
    CGuard guard(m_mutex);
    return m_sdp == nullptr ? 0 : m_sdp->get_media_count();
}

std::string CChannelFeed::GetText() {
    CGuard guard(m_mutex);
    try {
        return m_sdp == nullptr ? std::string() : std::string(behind_origin(*m_sdp));
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

void CChannelFeed::Run(CDataSource& source) {
    for (Step step = take_step(); step.kind != STEP_NONE; step = take_step()) {
        do_step(source, step);
    }
}

// What is taken is no longer due.
CChannelFeed::Step CChannelFeed::take_step() {
    CGuard guard(m_mutex);
    const Step step = next_step_locked();
    switch (step.kind) {
        case STEP_PLAY:
            m_play_due = false;
            break;
        case STEP_DESCRIBE:
            m_describe_due = false;
            break;
        case STEP_UPDATE:
            m_update_due = false;
            break;
        case STEP_START:
            m_forms[step.packet_type].joined = false;
            break;
        default:
            break;
    }
    return step;
}

// A new client is counted in before one that has left is counted out, so that the source runs on.
CChannelFeed::Step CChannelFeed::next_step_locked() {
    if (m_play_due) {
        return {STEP_PLAY, PACKET_TYPE_NONE, 0};
    }
    if (m_describe_due) {
        return {STEP_DESCRIBE, PACKET_TYPE_NONE, 0};
    }
    if (m_update_due) {
        return {STEP_UPDATE, PACKET_TYPE_NONE, m_update_arg};
    }
    for (int i = 0; i < PACKET_TYPE_NONE; ++i) {
        const Form& form = m_forms[i];
        if (form.clients > 0 && !form.failed && (form.joined || form.started < form.clients)) {
            return {STEP_START, static_cast<packet_type_t>(i), 0};
        }
    }
    for (int i = 0; i < PACKET_TYPE_NONE; ++i) {
        if (m_forms[i].started > m_forms[i].clients) {
            return {STEP_STOP, static_cast<packet_type_t>(i), 0};
        }
    }
    return Step();
}

void CChannelFeed::do_step(CDataSource& source, const Step& step) {
    switch (step.kind) {
        case STEP_PLAY:
            source.Play(TIME_NOT_GIVEN, TIME_NOT_GIVEN, 1.0F, false);
            break;
        case STEP_DESCRIBE:
            describe(source);
            break;
        case STEP_UPDATE:
            update(source, step.arg);
            break;
        case STEP_START:
            start(source, step.packet_type);
            break;
        default:
            stop(source, step.packet_type);
            break;
    }
}

void CChannelFeed::describe(CDataSource& source) {
    std::shared_ptr<CSdpParser> sdp = CSdpParser::Make();
    if (sdp != nullptr && source.GetSdp(*sdp) < 0) {
        sdp = nullptr;
    }
    if (sdp != nullptr) {
        sdp->GetStream();  // a copy is made of the text
    }
    std::shared_ptr<const CSdpParser> former;  // ends behind the lock
    CGuard guard(m_mutex);
    former.swap(m_sdp);
    bool reports = m_told;
    if (sdp != nullptr && !m_former.empty()) {  // the clients know the description of the former source
        reports = m_former != behind_origin(*sdp);
        m_former.clear();
    }
    m_sdp = std::move(sdp);
    if (reports) {
        Tramel::CReactor::Instance().Post(m_channel_id, m_channel_id, MSG_CHANNEL_DESCRIBED, 0);
    }
    m_told = false;
}

void CChannelFeed::start(CDataSource& source, packet_type_t packet_type) {
    const int result = source.StartStreaming(packet_type, &m_buffers->buffer[packet_type], -1);
    CGuard guard(m_mutex);
    Form& form = m_forms[packet_type];
    form.start_result = result;
    form.started += result < 0 ? 0 : 1;
    form.failed = result < 0 && !form.joined;
}

void CChannelFeed::stop(CDataSource& source, packet_type_t packet_type) {
    const int result = source.StopFeeding(packet_type, &m_buffers->buffer[packet_type]);
    CGuard guard(m_mutex);
    m_forms[packet_type].stop_result = result;
    --m_forms[packet_type].started;
}

void CChannelFeed::update(CDataSource& source, long arg) {
    const int result = source.UpdataDataSrc(arg);
    CGuard guard(m_mutex);
    m_update_result = result;
    m_describe_due = m_describe_due || result < 0;  // nothing follows: the source is as it was
}

}  // namespace Vidora
}  // namespace Kavio
