#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Flumen/MediaFrameInfo.h"
#include "Ostra/LogLimit.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Ostra/Base64.h"
#include "Vidora/Ostra/Console.h"
#include "Vidora/Ostra/Md5.h"
#include "Vidora/Ostra/Time.h"
#include "support/Capture.h"
#include "support/SampleTable.h"
#include "support/TestClock.h"
#include "support/TestHandler.h"

namespace Kavio::Ostra {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/base.txt";

// Makes standard error a pipe while it lives.
class CStderrPipe {
public:
    CStderrPipe() : m_former(dup(STDERR_FILENO)) {
        EXPECT_EQ(0, pipe(m_ends));
        dup2(m_ends[1], STDERR_FILENO);
    }
    ~CStderrPipe() {
        dup2(m_former, STDERR_FILENO);
        for (const int fd : {m_former, m_ends[0], m_ends[1]}) {
            close(fd);
        }
    }
    // What was written, which must be something.
    std::string Read() const {
        std::string text(1 << 20, '\0');
        text.resize(static_cast<size_t>(read(m_ends[0], text.data(), text.size())));
        return text;
    }

private:
    int m_former;
    int m_ends[2];
};

TEST(Log, DefaultSinkTagsLinesKeepsErrnoAndHidesWhatIsBelowTheLevel) {
    const CStderrPipe output;
    errno = EAGAIN;
    logWarn("%s:%d first\n", "A.cpp", 7);
    EXPECT_EQ(EAGAIN, errno);
    logInfo("hidden\n");
    logError("no newline");
    logError("%s\n", std::string(5000, 'x').c_str());  // is cut and still ends
    EXPECT_EQ("[Vidora] A.cpp:7 first\n[Vidora] no newline\n[Vidora] " + std::string(2048, 'x') + "\n", output.Read());
}

TEST(Log, ControlCharactersOfAPeerAreMasked) {
    Support::CLogCapture log;
    logError("%s", "a\x1b[2J\x7f\tb\r\n\xc3\x9b\xc2\x9b\xc2\xa9");
    EXPECT_EQ("a?[2J?\tb\r\n\xc3\x9b\xc2?\xc2\xa9", log.Lines().at(0));
}

TEST(Log, UnreadStandardErrorDropsLinesAndCountsThem) {
    const CStderrPipe output;
    const std::string text(2000, 'x');
    const int lines = 100;  // more than a pipe holds
    Support::RunTogether(2, [&] {
        for (int k = 0; k < lines / 2; ++k) {
            logError("%s\n", text.c_str());
        }
    });
    const std::string first = output.Read();
    logError("last\n");
    const std::string then = output.Read();
    const auto written = std::count(first.begin(), first.end(), '\n');
    EXPECT_EQ('\n', first.back());
    EXPECT_EQ("[Vidora] " + std::to_string(lines - written) + " lines dropped\n[Vidora] last\n", then);
}

TEST(Log, SinkMayChangeWhileThreadsLog) {
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            logTrace("%d\n", 1);
        }
    });
    for (int i = 0; i < 200; ++i) {
        Support::CLogCapture capture;
        logDebug("mine\n");
        EXPECT_EQ(1, capture.Count("mine"));
    }
    {
        Support::CLogCapture capture;
        stop = true;
        writer.join();
    }
}

// One place in the code for each of its lines.
[[gnu::noinline]] void log_some(int count) {
    for (int i = 0; i < count; ++i) {
        logError("first\n");
        logInfo("second\n");
        logDebug("free\n");
    }
}

TEST(Log, ASessionsCausesPassOnceASecondEachAndTheirCountsAreTold) {
    Support::CLogCapture log;
    {
        CLogLimit limit;
        CLogLimit other;
        const CLogLimit::CScope scope(limit);
        log_some(5);
        {
            const CLogLimit::CScope inner(other);
            log_some(1);
        }
        Support::AdvanceClock(CLogLimit::INTERVAL_MS);
        log_some(3);
    }
    log_some(2);  // nobody's lines
    EXPECT_EQ(5, log.Count("first"));
    EXPECT_EQ(5, log.Count("second"));
    EXPECT_EQ(11, log.Count("free"));
    EXPECT_EQ(2, log.Count("4 more lines like the next one were passed over"));
    EXPECT_EQ(1, log.Count("4 lines of a session that has gone were passed over"));
}

TEST(Time, CalendarBothWays) {
    for (const auto& row : Support::ReadTable(TABLES, "calendar", 3)) {
        SCOPED_TRACE(row[2]);
        const std::vector<int> fields = Support::Numbers(row[0]);
        const CTime time(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]);
        EXPECT_EQ(row[1], std::to_string(time.makeTime()));
        std::vector<int> f(6);
        time.getFields(&f[0], &f[1], &f[2], &f[3], &f[4], &f[5]);
        EXPECT_EQ(fields, f);
        char text[32];
        EXPECT_EQ(19, time.format(text, "%Y-%m-%d %H:%M:%S", sizeof(text)));
        EXPECT_EQ(row[2], text);
        EXPECT_EQ(0, time.format(text, "%Y-%m-%d", 10));
        EXPECT_STREQ("", text);
    }
    EXPECT_EQ(CTime(2024, 12, 31, 24, 0, 0), CTime(2023, 25, 1, 0, 0, 0));
    EXPECT_EQ(CTime(2023, 12, 1, 0, 0, 0), CTime(2024, 0, 1, 0, 0, 0));
    EXPECT_EQ(0u, CTime(1950, 1, 1, 0, 0, 0).makeTime());
    char text[32];
    EXPECT_EQ(0, CTime(UINT64_MAX).format(text, "%Y", sizeof(text)));
}

TEST(Time, ArithmeticStopsAtTheEnds) {
    EXPECT_EQ(0u, (CTime(5) + -6).makeTime());
    EXPECT_EQ(5u, (CTime(5) + 0).makeTime());
    EXPECT_EQ(15u, (CTime(5) - -10).makeTime());
    EXPECT_EQ(-10, CTime(5) - CTime(15));
    EXPECT_EQ(UINT64_MAX, (CTime(UINT64_MAX) + 1).makeTime());
    EXPECT_EQ(uint64_t{1} << 63, (CTime(0) - INT64_MIN).makeTime());
}

TEST(Packet, CopiesShareTheBlock) {
    Memory::CPacket packet(10, 3);
    EXPECT_EQ(10u, packet.size());
    EXPECT_TRUE(packet.resize(0));
    EXPECT_FALSE(packet.resize(11));
    EXPECT_EQ(4u, packet.putBuffer("abcd", 4));
    Memory::CPacket copy;
    copy = packet;
    EXPECT_EQ(6u, copy.putBuffer("efghijkl", 8));
    EXPECT_EQ(10u, packet.size());
    EXPECT_EQ(0, std::memcmp(packet.getBuffer(), "abcdefghij", 10));
    static_cast<char*>(copy.getExtraData())[2] = 'x';
    EXPECT_EQ('x', static_cast<char*>(packet.getExtraData())[2]);
    packet = Memory::CPacket();
    EXPECT_FALSE(packet.valid());
    EXPECT_EQ('a', copy.getBuffer()[0]);
    copy = *&copy;
    EXPECT_TRUE(copy.valid());

    Memory::CPacket invalid(0, 80);
    EXPECT_EQ(nullptr, invalid.getBuffer());
    EXPECT_EQ(0u, invalid.putBuffer("a", 1));
    EXPECT_FALSE(invalid.resize(0));
}

TEST(MediaFrame, FactsStandAtTheirPlacesInTheExtraArea) {
    Flumen::CMediaFrame frame(1000);
    frame.setType('P');
    frame.setSequence(-5);
    frame.setChannel(0x01020304);
    frame.setNewFormat(-1);
    frame.setUtc(12.3459);
    frame.setPts(0x1122334455667788, Flumen::PTS_TYPE_MS);
    frame.setPts(9, Flumen::PTS_TYPE_5);
    frame.setPts(9, static_cast<Flumen::PtsType>(6));
    ASSERT_EQ(80u, frame.getExtraSize());
    const unsigned char* bytes = static_cast<unsigned char*>(frame.getExtraData());
    const auto word = [bytes](int offset) {
        uint32_t value;
        std::memcpy(&value, bytes + offset, 4);
        return value;
    };
    EXPECT_EQ(0, std::memcmp(bytes, "V\1\1\xff", 4));
    EXPECT_EQ(0x01020304u, word(4));
    EXPECT_EQ('P', bytes[18]);
    EXPECT_EQ(1000u, word(24));
    EXPECT_EQ(12u, word(28));
    EXPECT_EQ(9u, word(64));
    EXPECT_EQ(static_cast<uint32_t>(-5), word(72));
    EXPECT_EQ(345u, word(76));  // what is finer is cut off
    EXPECT_EQ(0x1122334455667788u, frame.getPts(Flumen::PTS_TYPE_MS));
    EXPECT_EQ(0u, frame.getPts(static_cast<Flumen::PtsType>(6)));
    EXPECT_EQ(-1, frame.getNewFormat());
    EXPECT_NEAR(12.3459, frame.getUtc(), 0.001);
}

TEST(MediaFrame, OddTimesAreBounded) {
    Flumen::MediaFrameInfo info = {};
    info.SetUtc(-1);
    EXPECT_EQ(0u, info.utc_sec);
    info.SetUtc(1e300);
    EXPECT_EQ(4294967295u, info.utc_sec);
    info.SetUtc(std::strtod("nan", nullptr));
    EXPECT_EQ(0, info.utc_ms);
}

TEST(Md5, DigestsOfTheRfcAndAnyCut) {
    for (const auto& row : Support::ReadTable(TABLES, "MD5", 2)) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(row[0].data());
        const unsigned size = static_cast<unsigned>(row[0].size());
        for (unsigned cut = 0; cut <= size; ++cut) {
            Utils::CMd5 md5;
            md5.update(bytes, cut);
            md5.update(bytes + cut, size - cut);
            char hex[33];
            md5.hex(hex);
            ASSERT_EQ(row[1], hex) << cut;
        }
    }
}

TEST(Base64, RfcVectorsAndTextThatBreaksOff) {
    std::vector<std::vector<std::string>> rows = Support::ReadTable(TABLES, "base64", 2);
    rows.push_back({"\xff\xfe\xfd", "//79"});
    for (const auto& row : rows) {
        char text[16];
        const int size = static_cast<int>(row[0].size());
        EXPECT_EQ(base64EncodeLen(size), base64Encode(text, row[0].data(), size));
        EXPECT_EQ(row[1], text);
        char plain[16];
        EXPECT_EQ(size, base64Decode(plain, row[1].c_str()));
        EXPECT_EQ(row[0], plain);
        EXPECT_EQ(size + 1, base64DecodeLen(row[1].c_str()));
    }
    char plain[16];
    EXPECT_EQ(3, base64Decode(plain, "Zm9v!Zm9v"));
    EXPECT_EQ(0, base64Decode(plain, "Z"));
    EXPECT_LE(1, base64DecodeLen("Z"));
}

std::string g_printed;
std::vector<std::string> g_arguments;

TEST(Console, RunsCommandsAndPrintsLongTexts) {
    g_printed.clear();
    R3SetOutput([](void*, const char* text, unsigned int length) { g_printed.append(text, length); }, nullptr);
    const console_command_t command = [](int argc, char** argv) { g_arguments.assign(argv, argv + argc); };
    EXPECT_EQ(0, R3Register(reinterpret_cast<void*>(command), "sptest", "a test"));
    EXPECT_EQ(-1, R3Register(nullptr, "none", ""));
    EXPECT_EQ(0, R3Execute("  sptest 1\t two \n"));
    EXPECT_EQ((std::vector<std::string>{"sptest", "1", "two"}), g_arguments);
    EXPECT_EQ(-1, R3Execute("unknown"));
    EXPECT_EQ(-1, R3Execute(" "));
    EXPECT_EQ(-1, R3Execute(std::string(2000, 'a').c_str()));
    EXPECT_EQ(0, R3Execute("help"));
    EXPECT_EQ("sptest: a test\n", g_printed);
    g_printed.clear();
    R3Printf("%s", std::string(5000, 'y').c_str());
    EXPECT_EQ(std::string(5000, 'y'), g_printed);
    R3SetOutput(nullptr, nullptr);
}

}  // namespace
}  // namespace Kavio::Ostra
