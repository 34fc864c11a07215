// A session ends whole, whoever ends it, whenever, and leaves nothing behind.

#include <gtest/gtest.h>

#include "RtspClient/ClientTypes.h"
#include "Tramel/Reactor.h"
#include "support/NatPeer.h"

namespace Kavio::Vidora {
namespace {

using namespace Support;
using Tramel::CReactor;

// How far the conversation gets before the server falls silent, goes, or the session is closed.
enum step_t { AT_OPTIONS, AT_DESCRIBE, AT_SETUP, AT_PLAY, AT_MEDIA, STEP_COUNT };
enum road_t { OVER_TCP, THROUGH_NAT };
enum server_t { IS_SILENT, IS_SLOW, GOES, SERVER_COUNT };
// Who calls Close.
enum closer_t {
    BY_OTHER_THREAD,     // as soon as the server has seen the step
    WHILE_POOL_IS_BUSY,  // all its threads are held until then
    BY_NOTE,             // in the first notification that comes, or else from the test
    BY_SINK,             // in the first packet that comes, or else from the test
    AT_ONCE,             // right after Start
    BEFORE_START,        // without Start
    BEFORE_POOL_STOPS,   // and the pool is destroyed at once
    AFTER_POOL_STOPS,    // and a new pool comes
    CLOSER_COUNT
};

class CSessionEndTest : public testing::TestWithParam<std::tuple<step_t, server_t, closer_t, road_t>> {
protected:
    CSessionEndTest() : m_handlers(CReactor::Instance().CountHandlers()) {}

    CScriptedServer::answer_t Answer() {
        return [this](const ServerRequest& request) {
            static const char* const METHODS[] = {"OPTIONS", "DESCRIBE", "SETUP", "PLAY", "-"};
            const auto [step, server, closer, road] = GetParam();
            const std::string media = CScriptedServer::Rtp(1) + CScriptedServer::Rtp(2) + CScriptedServer::Rtp(3);
            const bool reached = request.method == METHODS[step] || (step == AT_MEDIA && request.method == "PLAY");
            const std::string answer = CScriptedServer::Answer(request) + (request.method == "PLAY" ? media : "");
            if (!reached) {
                return answer;
            }
            m_reached = true;
            switch (server) {
                case IS_SILENT:
                    return step == AT_MEDIA ? answer : std::string();
                case GOES:
                    return std::string(CScriptedServer::CLOSE);
                default:
                    WaitUntil([this] { return m_closed.load(); }, 30);
                    return answer;
            }
        };
    }

    template <typename Host>
    void Close(Host& host) {
        std::atomic<int> held{0};
        std::atomic<int> gone{0};
        for (unsigned int i = 0; std::get<2>(GetParam()) == WHILE_POOL_IS_BUSY && i < POOL_THREADS; ++i) {
            CTestHandler* handler = CTestHandler::Make(&gone);
            handler->on_message = [&, handler](long, unsigned int, long) {
                ++held;
                WaitUntil([this] { return m_closed.load(); });
                handler->Close();
                return 0;
            };
            handler->Notify(handler->GetID(), 1, 0);
            EXPECT_TRUE(WaitUntil([&] { return held == static_cast<int>(i) + 1; }));
        }
        host.Close();
        m_closed = true;
        EXPECT_TRUE(WaitUntil([&] { return gone == held; }));
    }

    template <typename Server, typename Host>
    void Run();

    static constexpr unsigned int POOL_THREADS = 2;
    const long m_handlers;
    std::atomic<bool> m_reached{false};
    std::atomic<bool> m_closed{false};
};

template <typename Server, typename Host>
void CSessionEndTest::Run() {
    const auto [step, server_kind, closer, road] = GetParam();
    int notes_after = 0;
    {
        Server server(Answer());
        auto pool = std::make_unique<CPool>(POOL_THREADS);
        {
            Host host;
            const bool by_note = closer == BY_NOTE;
            std::atomic<int> after_close{0};
            const auto close_if = [this, &host](bool is_closer) {
                if (is_closer && !m_closed) {
                    host.Close();
                    m_closed = true;
                }
            };
            host.on_note = [&, close_if, by_note](const ClientNote&) {
                after_close += m_closed ? 1 : 0;
                close_if(by_note);
            };
            host.sink.on_put = [close_if, by_sink = closer == BY_SINK] { close_if(by_sink); };
            if (closer != BEFORE_START) {
                ASSERT_EQ(0, host.Start(server.Url()));
            }
            if (closer != BEFORE_START && closer != AT_ONCE) {
                EXPECT_TRUE(WaitUntil([&] { return m_reached || m_closed; }));
            }
            if (closer == BY_SINK || closer == BY_NOTE) {
                WaitUntil([&] { return m_closed.load(); }, 50);
            }
            if (closer == AFTER_POOL_STOPS) {
                pool.reset();
            }
            if (!m_closed) {
                Close(host);
            }
            if (closer == BEFORE_POOL_STOPS) {
                pool.reset();
                // Nothing of the session waits for another pool: only the test's own handler is left.
                EXPECT_EQ(m_handlers + 1, CReactor::Instance().CountHandlers());
            }
            if (pool == nullptr) {
                pool = std::make_unique<CPool>(POOL_THREADS);
            }
            notes_after = by_note ? 0 : after_close.load();
        }
        EXPECT_TRUE(WaitUntil([&] { return CReactor::Instance().CountHandlers() == m_handlers; }));
    }
    EXPECT_LE(notes_after, 1);  // one that was on its way
}

TEST_P(CSessionEndTest, LeavesNothing) {
    if (std::get<road_t>(GetParam()) == OVER_TCP) {
        Run<CScriptedServer, CClientHost>();
    } else {
        Run<CNatPeer, CNatHost>();
    }
}

INSTANTIATE_TEST_SUITE_P(Ends, CSessionEndTest,
                         testing::Combine(testing::Values(AT_OPTIONS, AT_DESCRIBE, AT_SETUP, AT_PLAY, AT_MEDIA),
                                          testing::Values(IS_SILENT, IS_SLOW, GOES),
                                          testing::Values(BY_OTHER_THREAD, WHILE_POOL_IS_BUSY, BY_NOTE, BY_SINK,
                                                          AT_ONCE, BEFORE_START, BEFORE_POOL_STOPS, AFTER_POOL_STOPS),
                                          testing::Values(OVER_TCP, THROUGH_NAT)));

}  // namespace
}  // namespace Kavio::Vidora
