#include "RtspOverHttp/Base64Stream.h"
#include "RtspOverHttp/HttpParser.h"
#include "Vidora/Ostra/Base64.h"
#include "server/ServerFixture.h"
#include "support/Descriptors.h"
#include "support/EveryCut.h"
#include "support/TestClock.h"

namespace Kavio {
namespace Vidora {
namespace {

const char HEAD_REPLY[] =
    "HTTP/1.0 200 OK\r\nServer: Rtsp Server/2.0\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";
const char COOKIE[] = "Abcd-secret-cookie";

std::string Encode(const std::string& text) {
    std::string out(static_cast<size_t>(Ostra::base64EncodeLen(static_cast<int>(text.size()))), '\0');
    Ostra::base64Encode(&out[0], text.data(), static_cast<int>(text.size()));
    out.pop_back();
    return out;
}

std::string Head(const std::string& method, const std::string& cookie, const std::string& headers = "") {
    return method + " /" + LIVE_NAME + " HTTP/1.0\r\nx-sessioncookie: " + cookie + "\r\n" + headers + "\r\n";
}

// The player's end of a tunnel.
struct Tunnel {
    CRtspTestClient get;
    std::unique_ptr<CRtspTestClient> post;
    std::string cookie;

    explicit Tunnel(int port, const std::string& name = COOKIE, const std::string& body = "")
        : get(port), cookie(name) {
        get.Send(Head("GET", cookie));
        EXPECT_EQ("application/x-rtsp-tunnelled", get.Reply().Header("Content-Type"));
        Post(port, body);
    }
    void Post(int port, const std::string& body = "", const std::string& headers = "", const char* from = nullptr) {
        post = std::make_unique<CRtspTestClient>(port, from);
        post->Send(Head("POST", cookie, headers) + body);
    }
    // Returns when the server has seen it.
    void EndPost() {
        CLogCapture log;
        post->Close();
        EXPECT_TRUE(Support::WaitUntil([&] { return log.Count("m_post_stream Recv -1") == 1; }));
    }
    RtspReply Ask(const std::string& method, const std::string& url, const std::string& headers = "") {
        return post->Send(Encode(get.Request(method, url, headers))) ? get.Reply() : RtspReply();
    }
    void Play(const std::string& url) {
        EXPECT_EQ(200, Ask("DESCRIBE", url).status);
        EXPECT_EQ(200, Ask("SETUP", url + "/trackID=0", INTERLEAVED).status);
        EXPECT_EQ(200, Ask("PLAY", url).status);
    }
};

class HttpTunnel : public CServerTest {
protected:
    // What comes is closed, with that line of the log.
    void ExpectRefusal(const std::string& bytes, const char* line, const char* from = nullptr) {
        Support::CLogCapture log;
        CRtspTestClient client(m_port, from);
        client.Send(bytes);
        EXPECT_TRUE(client.Closed()) << bytes;
        EXPECT_TRUE(Support::WaitUntil([&] { return log.Count(line) == 1; })) << bytes;
        EXPECT_EQ(0, log.Count("secret"));
    }
};

TEST(HttpHead, IsReadWithinItsBounds) {
    const std::string longest(CHttpParser::MAX_COOKIE, 'c');
    const struct {
        std::string bytes;
        CHttpParser::result_t result;
        std::string cookie;
        int64_t length;
    } rows[] = {
        {Head("GET", "a"), CHttpParser::HTTP_OK, "a", -1},
        {"GET / HTTP/1.0\r\nX-SESSIONCOOKIE:a b \t\r\nContent-length: 32767\r\n\r\n", CHttpParser::HTTP_OK, "a b",
         32767},
        {"POST / HTTP/1.0\r\nContent-Length: 99999999999999999999\r\nx-SessionCookie: a\r\n\r\n", CHttpParser::HTTP_OK,
         "a", -1},
        {"POST / HTTP/1.0\r\nContent-Length: -1\r\nx-SessionCookie: a\r\nx-sessioncookie: b\r\n\r\n",
         CHttpParser::HTTP_OK, "a", -1},
        {Head("GET", longest), CHttpParser::HTTP_OK, longest, -1},
        {Head("GET", longest + "c"), CHttpParser::HTTP_NO_COOKIE, "", -1},
        {Head("GET", " "), CHttpParser::HTTP_NO_COOKIE, "", -1},
        {"GET / HTTP/1.0\r\nno x-sessioncookie: a\r\n\r\nx-sessioncookie: a\r\n\r\n", CHttpParser::HTTP_NO_COOKIE, "",
         -1},
        {"get / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n", CHttpParser::HTTP_BAD_METHOD, "", -1},
        {"GET / HTTP/1.0\r\nx-sessioncookie: a\r\n", CHttpParser::HTTP_INCOMPLETE, "", -1},
        {Head("GET", "a", "X: " + std::string(4096, 'x') + "\r\n"), CHttpParser::HTTP_INCOMPLETE, "", -1},
        {"", CHttpParser::HTTP_INCOMPLETE, "", -1},
    };
    for (const auto& row : rows) {
        CHttpParser parser;
        ASSERT_EQ(row.result, parser.parse(row.bytes)) << row.bytes;
        if (row.result == CHttpParser::HTTP_OK) {
            EXPECT_EQ(row.cookie, parser.cookie());
            EXPECT_EQ(row.length, parser.content_length()) << row.bytes;
            EXPECT_EQ(row.bytes[0] == 'P', parser.is_post());
        }
    }
    CHttpParser parser;
    const std::string whole = Head("POST", "a") + "cmVzdA==";
    ASSERT_EQ(CHttpParser::HTTP_OK, parser.parse(whole));
    EXPECT_EQ("cmVzdA==", parser.rest());
}

// What a decoder that has room for three bytes at a time makes of the pieces; "!" for a refusal.
std::string Decode(const std::vector<Support::Bytes>& pieces) {
    CBase64Stream stream;
    std::string all;
    for (const Support::Bytes& piece : pieces) {
        std::string_view text(reinterpret_cast<const char*>(piece.data()), piece.size());
        while (!text.empty()) {
            char out[3];
            const int count = stream.Decode(text, out, sizeof(out));
            if (count < 0) {
                return "!";
            }
            all.append(out, static_cast<size_t>(count));
        }
    }
    return all;
}

TEST(Base64Stream, RunsMayBeCutAnywhere) {
    const struct {
        std::string text;
        std::string bytes;
    } rows[] = {
        {Encode("four") + Encode("fives") + Encode("sixsix") + Encode("4444"), "fourfivessixsix4444"},
        {"Zm\r\n9\nvYmFy", "foobar"},
        {std::string("/+8=") + "gIA=", "\xff\xef\x80\x80"},
        {"Zg=", "f"},  // a pad that is left out
        {"Zg=Zg==", "ff"},
        {"Zg===", "!"},
        {"Z=", "!"},
        {"=", "!"},
        {"Zm9v=", "!"},
        {"Zm9v Zm9v", "!"},
        {std::string("Zm\0v", 4), "!"},
        {"Zm\xffv", "!"},
    };
    for (const auto& row : rows) {
        const Support::Bytes bytes(row.text.begin(), row.text.end());
        EXPECT_EQ(row.bytes, Support::FeedAtEveryCut(bytes, Decode)) << row.text;
    }
}

TEST_F(HttpTunnel, ALiveChannelPlays) {
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    CFakeStreamSource* source = StartWithChannel();
    {
        Support::CLogCapture log;
        Tunnel tunnel(m_port);
        tunnel.Play(Url());
        EXPECT_EQ(1U, CRtspSvr::GetSessionCount());
        ASSERT_TRUE(Give(source, 0));
        EXPECT_EQ(0, tunnel.get.Frame().channel);
        // In PLAY the client may be silent.
        Support::AdvanceClock(200000);
        ASSERT_TRUE(Give(source, 10));
        EXPECT_EQ(0, tunnel.get.Frame().channel);
        // A POST that ends doesn't end it, and the next one goes on.
        tunnel.post->Close();
        EXPECT_TRUE(Support::WaitUntil([&] { return log.Count("m_post_stream Recv -1") == 1; }));
        tunnel.Post(m_port, Encode(tunnel.get.Request("TEARDOWN", Url())));
        EXPECT_EQ(200, tunnel.get.Reply().status);
        tunnel.get.Close();
        EXPECT_TRUE(SessionsGone());
        EXPECT_TRUE(Support::WaitUntil([&] { return log.Count("rtsp over http client:0") == 1; }));
        EXPECT_EQ(0, log.Count("secret"));
        EXPECT_EQ(0, log.Count(Encode("DESCRIBE")));
    }
    EXPECT_TRUE(CEventLog::All().empty());
    // The cookie is free again.
    Tunnel again(m_port, COOKIE, Encode(OPTIONS_TEXT));
    EXPECT_EQ(200, again.get.Reply().status);
}

TEST_F(HttpTunnel, BodiesAreReadAsTheyCome) {
    StartWithChannel();
    Tunnel tunnel(m_port, COOKIE, Encode(OPTIONS_TEXT) + "\r\n" + Encode(OPTIONS_TEXT));
    EXPECT_EQ(200, tunnel.get.Reply().status);
    EXPECT_EQ(200, tunnel.get.Reply().status);
    for (const char c : Encode(tunnel.get.Request("DESCRIBE", Url()))) {
        tunnel.post->Send(std::string(1, c));
        usleep(500);
    }
    EXPECT_EQ(200, tunnel.get.Reply().status);
    // A report behind a request, cut; and one run for all.
    const std::string bytes = OPTIONS_TEXT + std::string("$\1\0\4\x80\xc9\0\0", 8) + OPTIONS_TEXT;
    const std::string text = Encode(bytes);
    const size_t cut = (sizeof(OPTIONS_TEXT) + 5) / 3 * 4;
    tunnel.post->Send(text.substr(0, cut));
    EXPECT_EQ(200, tunnel.get.Reply().status);
    tunnel.post->Send(text.substr(cut));
    EXPECT_EQ(200, tunnel.get.Reply().status);
    // Many requests in one body, longer than what is read at once.
    std::string many;
    for (int i = 0; i < 500; ++i) {
        many += Encode(OPTIONS_TEXT);
    }
    EXPECT_TRUE(tunnel.post->Send(many));
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(200, tunnel.get.Reply().status) << i;
    }
}

// A proxy ends a body where its announced length ends, wherever that is; a body that broke off is forgotten.
TEST_F(HttpTunnel, ABodyGoesOnInTheNextOneIfItCameWhole) {
    StartWithChannel();
    const std::string text = Encode(OPTIONS_TEXT);
    Tunnel tunnel(m_port, COOKIE, text);
    EXPECT_EQ(200, tunnel.get.Reply().status);
    for (size_t cut = 1; cut < text.size(); cut += 5) {
        tunnel.EndPost();
        tunnel.Post(m_port, text.substr(0, cut));
        tunnel.EndPost();
        tunnel.Post(m_port, text.substr(0, cut), "Content-Length: " + std::to_string(cut) + "\r\n");
        tunnel.EndPost();
        tunnel.Post(m_port, text.substr(cut));
        ASSERT_EQ(200, tunnel.get.Reply().status) << cut;
        EXPECT_TRUE(tunnel.get.Silent(0));
    }
}

TEST_F(HttpTunnel, TheStandardsWayTellsCachesAndSendsReports) {
    Set(RTSP_SVR_CONFIG_CONFORMANCE, 1);
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient waiting(m_port);
    waiting.Send(Head("GET", "waiting"));
    const RtspReply reply = waiting.Reply();
    EXPECT_EQ("no-store", reply.Header("Cache-Control"));
    EXPECT_EQ("no-cache", reply.Header("Pragma"));
    EXPECT_EQ("close", reply.Header("Connection"));
    EXPECT_EQ("application/x-rtsp-tunnelled", reply.Header("Content-Type"));
    Tunnel tunnel(m_port);
    tunnel.Play(Url());
    ASSERT_TRUE(Give(source, 0));
    EXPECT_EQ(0, tunnel.get.Frame().channel);
    Support::AdvanceClock(5000);
    RtspFrame frame = tunnel.get.Frame();
    while (frame.channel == 0) {
        frame = tunnel.get.Frame();
    }
    EXPECT_EQ(1, frame.channel);
}

TEST_F(HttpTunnel, BadBodiesEndTheirSession) {
    StartWithChannel();
    for (const std::string& body : {std::string("!!!!"), std::string("=AAAA"), Encode("hello\r\n\r\n"),
                                    Encode("OPTIONS * RTSP/1.0\r\nX: " + std::string(5000, 'x'))}) {
        Tunnel first(m_port, "with-its-head", body);  // refused at once
        EXPECT_TRUE(first.get.Closed()) << body;
        Tunnel later(m_port, "later", Encode(OPTIONS_TEXT));
        EXPECT_EQ(200, later.get.Reply().status);
        later.post->Send(body);
        EXPECT_TRUE(later.get.Closed()) << body;
        EXPECT_TRUE(SessionsGone());
    }
}

TEST_F(HttpTunnel, StrangersAreRefused) {
    StartWithChannel();
    ExpectRefusal(Head("POST", COOKIE), "POST Request,no cookie match, cookie:Abcd");
    ExpectRefusal("GET / HTTP/1.0\r\n\r\n", "no x-sessioncookie:  error");
    const char second_get[] = "multicast GET with same cookie not supported, cookie:Abcd";
    {
        CRtspTestClient waiting(m_port);
        waiting.Send(Head("GET", COOKIE));
        EXPECT_EQ(HEAD_REPLY, waiting.Reply().head);
        ExpectRefusal(Head("GET", COOKIE), second_get);
        Support::CLogCapture log;
        waiting.Close();
        EXPECT_TRUE(Support::WaitUntil([&] { return log.Count("GET Request disconnected") == 1; }));
    }
    Tunnel tunnel(m_port, COOKIE, Encode(OPTIONS_TEXT));
    EXPECT_EQ(200, tunnel.get.Reply().status);
    ExpectRefusal(Head("GET", COOKIE), second_get);
    ExpectRefusal(Head("POST", COOKIE), "error, SetPostStream when m_post_stream is not NULL");
    tunnel.EndPost();
    ExpectRefusal(Head("POST", COOKIE, "") + Encode(OPTIONS_TEXT), "SetPostStream failed", "127.0.0.2");
    EXPECT_TRUE(tunnel.get.Silent(50));
    tunnel.Post(m_port);
    EXPECT_EQ(200, tunnel.Ask("DESCRIBE", Url()).status);
    // One whose announced length has come may be replaced while it is open.
    tunnel.EndPost();
    const std::string body = Encode(OPTIONS_TEXT);
    tunnel.Post(m_port, body, "Content-Length: " + std::to_string(body.size()) + "\r\n");
    EXPECT_EQ(200, tunnel.get.Reply().status);
    const std::unique_ptr<CRtspTestClient> old = std::move(tunnel.post);
    tunnel.Post(m_port);
    EXPECT_EQ(200, tunnel.Ask("DESCRIBE", Url()).status);
    EXPECT_TRUE(old->Closed());
}

TEST_F(HttpTunnel, EveryPostIsJudgedByTheGate) {
    UseAuthModule(1, RTSP_SVR_CONFIG_HTTP_AUTH_TYPE);
    Set(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, OnvifUserGlobalConfig{1});
    StartWithChannel();
    const char good[] = "Authorization: Basic good\r\n";
    Tunnel tunnel(m_port);
    EXPECT_EQ(401, tunnel.Ask("DESCRIBE", Url()).status);
    EXPECT_EQ(401, tunnel.Ask("DESCRIBE", Url() + "&proto=Onvif").status);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(401, tunnel.Ask("DESCRIBE", Url(), "Authorization: Basic bad\r\n").status);
        EXPECT_EQ(200, tunnel.Ask("DESCRIBE", Url(), good).status);
        EXPECT_EQ(200, tunnel.Ask("DESCRIBE", Url()).status);
        tunnel.EndPost();
        tunnel.Post(m_port);
        EXPECT_EQ(401, tunnel.Ask("DESCRIBE", Url()).status);
    }
}

TEST_F(HttpTunnel, SilenceEndsWhatDoesNotPlay) {
    StartWithChannel();
    Support::CLogCapture log;
    CRtspTestClient waiting(m_port);
    waiting.Send(Head("GET", "waiting"));
    EXPECT_EQ(HEAD_REPLY, waiting.Reply().head);
    Tunnel with_post(m_port, "with", Encode(OPTIONS_TEXT)), without(m_port, "without", Encode(OPTIONS_TEXT));
    EXPECT_EQ(200, with_post.get.Reply().status);
    EXPECT_EQ(200, without.get.Reply().status);
    without.post->Close();
    Support::AdvanceClock(6000);
    EXPECT_TRUE(waiting.Closed());
    EXPECT_EQ(1, log.Count("GET Request Timeout"));
    EXPECT_EQ(200, with_post.Ask("OPTIONS", "*").status);
    Support::AdvanceClock(70000);
    EXPECT_TRUE(with_post.get.Closed());
    EXPECT_TRUE(without.get.Closed());
}

TEST_F(HttpTunnel, TunnelsEndWithTheirServer) {
    StartWithChannel();
    Tunnel ended(m_port, "ended", Encode(OPTIONS_TEXT));
    EXPECT_EQ(200, ended.get.Reply().status);
    EXPECT_EQ(0U, m_svr->EndSessions(20000));
    EXPECT_TRUE(ended.get.Closed());
    CRtspTestClient waiting(m_port);
    waiting.Send(Head("GET", "waiting"));
    EXPECT_EQ(HEAD_REPLY, waiting.Reply().head);
    Tunnel running(m_port, "running", Encode(OPTIONS_TEXT));
    EXPECT_EQ(200, running.get.Reply().status);
    m_svr->Stop();
    EXPECT_TRUE(waiting.Closed());
    EXPECT_EQ(200, running.Ask("OPTIONS", "*").status);
    m_svr->Close();
    m_svr = nullptr;
    EXPECT_TRUE(running.get.Closed());
}

TEST_F(HttpTunnel, ThousandsOfHalvesLeaveNothing) {
    const int rounds = 20, connections = 100;
    StartWithChannel();
    {
        Tunnel first(m_port, COOKIE, Encode(OPTIONS_TEXT));
        EXPECT_EQ(200, first.get.Reply().status);
    }
    ASSERT_TRUE(SessionsGone());
    const int descriptors = Support::CountDescriptors();
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::unique_ptr<CRtspTestClient>> halves;
        for (int i = 0; i < connections; ++i) {
            halves.push_back(std::make_unique<CRtspTestClient>(m_port));
            halves.back()->Send(Head(i % 4 == 3 ? "POST" : "GET", "cookie " + std::to_string(round * connections + i)));
        }
        for (int i = 0; i < connections; ++i) {
            EXPECT_EQ(i % 4 == 3 ? "" : HEAD_REPLY, halves[static_cast<size_t>(i)]->Reply().head);
        }
        if (round % 2 == 0) {
            Support::AdvanceClock(6000);
            for (const auto& half : halves) {
                EXPECT_TRUE(half->Closed());
            }
        }
        halves.clear();
        EXPECT_TRUE(Support::WaitUntil([&] { return Support::CountDescriptors() <= descriptors; }));
    }
    EXPECT_EQ(0U, CRtspSvr::GetSessionCount());
    Tunnel again(m_port, "cookie 0", Encode(OPTIONS_TEXT));  // of which nothing is known any more
    EXPECT_EQ(200, again.get.Reply().status);
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
