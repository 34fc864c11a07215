// Memory that is short for one step of one client alone.
#include <cstdlib>
#include <new>

#include "Tramel/MediaStreamSender.h"
#include "Tramel/Reactor.h"
#include "Vidora/P2PClientSession.h"
#include "Vidora/RtspClientSession.h"
#include "server/ServerFixture.h"
#include "support/FakeDataSource.h"
#include "support/StreamPeer.h"

// The sanitizers have an allocator of their own. The system's operator delete frees what malloc gave.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

thread_local int t_left = -1;  // allocations of this thread until one fails; below 0: none does

}  // namespace

__attribute__((noinline)) void* operator new(size_t size) {
    const bool fails = t_left >= 0 && t_left-- == 0;
    void* memory = fails ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

namespace Kavio::Vidora {
namespace {

class NoMemory : public CServerTest {};

// A source that is asked for its assist track, just before the client enters its channel.
class CCrowdedSource : public CFakeDataSource {
public:
    int EnableStreamTrack(int) override {
        t_left = 0;
        return 0;
    }
};

TEST_F(NoMemory, AClientThatIsToldToPlayAndCannotEnterItsChannelIsClosed) {
    const CLogCapture log;
    StartServer();
    m_source = new CCrowdedSource;
    Publish(LIVE_NAME, MakeChannel(LIVE_NAME));
    CRtspTestClient client(m_port);
    Play(client, INTERLEAVED, LIVE_NAME + std::string("&proto=Kavio3"));
    EXPECT_TRUE(client.Closed());
    EXPECT_EQ(1, log.Count("EnterLiveChannel failed, this:"));
}

TEST_F(NoMemory, AProxyWithoutRoomForItsUserIsNone) {
    const CLogCapture log;
    for (int left = 0; left < 3; ++left) {  // of the entry in its list
        std::atomic<int> closed{0}, told{0};
        CTestHandler* user = CTestHandler::Make(&closed);
        user->on_message = [&told](long, unsigned int, long) { return ++told; };
        CDataSource* proxy = CDataSource::Create("x?proxy=127.0.0.1:1");
        t_left = left;
        const int result = proxy->Init(user->GetID(), 0);
        t_left = -1;
        EXPECT_TRUE(result < 0 || WaitUntil([&told] { return told > 0; })) << left;
        proxy->Close();
        user->Close();
        EXPECT_TRUE(WaitUntil([&closed] { return closed == 1; }));
    }
}

TEST_F(NoMemory, AConnectionIsServedOrClosed) {
    StartServer();
    for (int left = 0; left < 40; ++left) {
        const TcpPair pair;
        t_left = left;
        const int result = m_svr->AddNewConnect(pair.near_fd, OPTIONS_TEXT, sizeof(OPTIONS_TEXT) - 1, 0);
        t_left = -1;
        if (result < 0) {
            ::close(pair.near_fd);  // it is still ours
        }
        char byte = 0;
        EXPECT_TRUE(WaitUntil([&] { return ::recv(pair.far_fd, &byte, 1, 0) >= 0; })) << left;
    }
}

// What can be made hears of what it is for, and ends.
TEST_F(NoMemory, WhatIsMadeIsWholeAndEnds) {
    const CLogCapture log;
    CNetHandler* (*const makers[])() = {
        [] { return static_cast<CNetHandler*>(CRtspClientSession::Create()); },
        [] { return static_cast<CNetHandler*>(CP2PClientSession::Create()); },
        [] { return static_cast<CNetHandler*>(CLiveChannel::Create()); },
        [] { return static_cast<CNetHandler*>(CDataSource::Create("x?proxy=127.0.0.1:1")); },
        [] { return static_cast<CNetHandler*>(CDataSource::Create("a.kav")); },
        [] { return static_cast<CNetHandler*>(Tramel::CMediaStreamSender::Create()); },
    };
    const long handlers = Tramel::CReactor::Instance().CountHandlers();
    for (const auto make : makers) {
        bool failed = true;
        for (int left = 0; failed && !HasFailure(); ++left) {
            t_left = left;
            CNetHandler* made = make();
            failed = t_left < 0;
            t_left = -1;
            if (made != nullptr) {
                made->Close();
            }
            EXPECT_TRUE(WaitUntil([=] { return Tramel::CReactor::Instance().CountHandlers() == handlers; })) << left;
        }
    }
}

}  // namespace
}  // namespace Kavio::Vidora

#endif
