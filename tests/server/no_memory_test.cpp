// Memory that is short for one step of one client alone.
#include <new>

#include "Tramel/MediaStreamSender.h"
#include "Tramel/Reactor.h"
#include "Vidora/P2PClientSession.h"
#include "Vidora/RtspClientSession.h"
#include "server/ServerFixture.h"
#include "support/FakeDataSource.h"

// The sanitizers have an allocator of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

thread_local int t_left = -1;  // allocations of this thread until one fails; below 0: none does

}  // namespace

__attribute__((noinline)) void* operator new(size_t size) {
    const bool fails = t_left >= 0 && t_left-- == 0;
    void* memory = fails ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
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
