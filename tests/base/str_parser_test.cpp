#include "Tramel/StrParser.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <map>
#include <memory>
#include <random>

#include "Tramel/TextSearch.h"
#include "support/SampleTable.h"

namespace Kavio::Tramel {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/base.txt";

TEST(StrParser, SearchesMoveToTheFirstMatchOrStay) {
    CStrParser parser("CSeq: 1\r\nSession: 2\r\ncseq: 3\r\n");
    EXPECT_EQ(21, parser.LocateString("cseq"));
    EXPECT_EQ(-1, parser.LocateString("CSeq"));  // behind the cursor
    EXPECT_EQ(0, parser.GetStatus());
    parser.ResetAll();
    EXPECT_EQ(-1, parser.LocateStringInLineCase("session"));
    EXPECT_EQ(-1, parser.LocateStringInLine("1\r"));  // the line ends in front of its CR
    EXPECT_EQ(9, parser.LocateStringCase("sEsSiOn:"));
    EXPECT_EQ(0, parser.CompareCase("SESSION"));  // a prefix is enough
    EXPECT_NE(0, parser.CompareCase("seq"));
    EXPECT_EQ(18, parser.LocateStringInLine("2"));
    EXPECT_EQ(-1, parser.LocateString(nullptr));
    EXPECT_EQ(18, parser.LocateString(""));
}

TEST(StrParser, PositionAndLines) {
    CStrParser parser("ab\r\ncd\nef");
    EXPECT_EQ(3, parser.GetLineNum());
    EXPECT_EQ('\0', parser.CheckPrevChar());
    for (const int length : {4, 3, -1}) {  // the last line has no end
        EXPECT_EQ(2u, parser.GetCurLinelength());
        EXPECT_EQ(length, parser.ConsumeUntilNextLine());
    }
    EXPECT_EQ('\n', parser.CheckPrevChar());
    EXPECT_STREQ("ef", parser.GetString());
    EXPECT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(-1, parser.LocateOffset(10) & parser.LocateOffset(-1));
    EXPECT_EQ(0, parser.LocateOffset(9));
    EXPECT_EQ('\0', parser.GetCurChar());
    EXPECT_EQ(2, CStrParser("a\nb\n").GetLineNum());
    EXPECT_EQ(-1, parser.Attach(nullptr, 5));
    EXPECT_EQ(0, parser.GetStringLen());
}

// The text is a part of a larger one, without a NUL, and its end must stop everything.
TEST(StrParser, StopsAtItsLength) {
    const char text[] = "12 3456789";
    CStrParser parser(text, 5);
    EXPECT_EQ(-1, parser.LocateString("345"));
    EXPECT_EQ(-1, parser.LocateStringCase("345"));
    EXPECT_EQ(3, parser.LocateString("34"));
    EXPECT_NE(0, parser.CompareCase("345"));
    EXPECT_EQ(34u, parser.ConsumeUint32());
    EXPECT_EQ(-1, parser.Expect('5'));
    EXPECT_EQ(0, parser.ConsumeWhitespace());
    char word[8] = "x";
    EXPECT_EQ(0, parser.ConsumeWord(word, sizeof(word)));
    EXPECT_STREQ("", word);
}

TEST(StrParser, Skips) {
    CStrParser parser(" \t\r\n\v\fx9-fF7");
    EXPECT_EQ(2, parser.ConsumeWhitespaceInLine());
    EXPECT_EQ(4, parser.ConsumeWhitespace());
    EXPECT_EQ(1, parser.ConsumeUntilDigit());
    EXPECT_EQ(0, parser.Expect('9'));
    EXPECT_EQ(1, parser.ConsumeUntilHexDigit());
    EXPECT_EQ(0, parser.ConsumeUntilHexDigit());
    EXPECT_EQ(0, parser.GetStatus());
    EXPECT_EQ(-1, parser.ConsumeUntil('?'));
    EXPECT_EQ('f', parser.GetCurChar());
    EXPECT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(2, parser.ConsumeUntil('7'));
    EXPECT_EQ(-1, parser.GetStatus());  // sticky
}

TEST(StrParser, NumbersKeepTheirRange) {
    static const std::map<std::string, double (*)(CStrParser&)> READERS = {
        {"int16", [](CStrParser& parser) -> double { return parser.ConsumeInt16(); }},
        {"int32", [](CStrParser& parser) -> double { return parser.ConsumeInt32(); }},
        {"uint16", [](CStrParser& parser) -> double { return parser.ConsumeUint16(); }},
        {"uint32", [](CStrParser& parser) -> double { return parser.ConsumeUint32(); }},
        {"hex32", [](CStrParser& parser) -> double { return parser.ConsumeHexUint32(); }},
        {"double", [](CStrParser& parser) -> double { return parser.ConsumeDouble(); }},
    };
    std::vector<std::vector<std::string>> rows = Support::ReadTable(TABLES, "numbers", 4);
    rows.push_back({std::string(400, '9'), "double", "0", "0"});
    for (const auto& row : rows) {
        SCOPED_TRACE(row[0]);
        CStrParser parser(row[0].c_str());
        EXPECT_EQ(std::stod(row[2]), READERS.at(row[1])(parser));
        EXPECT_EQ(std::stoi(row[3]), parser.GetCurOffset());
        EXPECT_EQ(row[3] == "0" ? -1 : 0, parser.GetStatus());
    }
    CStrParser largest("18446744073709551615");
    EXPECT_EQ(UINT64_MAX, largest.ConsumeUint64());
    EXPECT_EQ(20, largest.GetCurOffset());
}

TEST(StrParser, TextsAreCutAtTheBufferAndSteppedOverWhole) {
    CStrParser parser("abcdef user:pass@host");
    char buf[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(3, parser.ConsumeWord(buf, sizeof(buf)));
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ(0, parser.Expect(' '));
    EXPECT_EQ(3, parser.ConsumeSentence("@:", buf, sizeof(buf)));
    EXPECT_STREQ("use", buf);
    EXPECT_EQ(4, parser.ConsumeSentence("@", nullptr, 0));
    EXPECT_EQ(-1, parser.ConsumeLength(5, nullptr, 0));
    EXPECT_EQ(2, parser.ConsumeLength(2, nullptr, 0));
    EXPECT_EQ(0, parser.ConsumeWord(buf, 0));
    EXPECT_EQ(0, parser.GetStringLen());
    EXPECT_EQ(3, CStrParser("a\0b;", 4).ConsumeSentence(";", nullptr, 0));  // a NUL is no delimiter
}

TEST(StrParser, Addresses) {
    for (const auto& row : Support::ReadTable(TABLES, "addresses", 4)) {
        SCOPED_TRACE(row[0]);
        const bool none = row[1] == "none";
        CStrParser parser(row[0].c_str());
        char address[128] = "none";
        int family = 0;
        const int length = parser.ConsumeIpAddr(address, sizeof(address), &family);
        EXPECT_EQ(row[2], std::to_string(family));
        EXPECT_EQ(none ? -1 : static_cast<int>(row[1].size()), length);
        EXPECT_TRUE(none || row[1] == address) << address;
        EXPECT_EQ(none ? -1 : 0, parser.GetStatus());
        EXPECT_EQ(none ? row[0] : row[3], parser.GetString());
    }
}

TEST(StrParser, StaticSearches) {
    unsigned char bytes[] = {0, 1, 'G', 'e', 't', 0, 'G', 'E', 'T'};
    unsigned char key[] = {0, 'G', 'E'};
    EXPECT_EQ(bytes + 5, CStrParser::MemMem(bytes, sizeof(bytes), key, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMem(bytes, 7, key, 3));
    EXPECT_EQ(bytes + 2, CStrParser::MemMemCase(bytes, sizeof(bytes), key + 1, 2));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(bytes, sizeof(bytes), key, 0));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(bytes, -1, key, 1));
    EXPECT_EQ(nullptr, CStrParser::MemMem(nullptr, 3, key, 1));
}

std::unique_ptr<char[]> random_text(std::mt19937& random, size_t size, size_t letters) {
    static const char ALPHABET[] = "aAbB@`[{zZ\xe1\xc1-:";  // neighbours of the letters, and letters with the top bit
    std::unique_ptr<char[]> text(new char[size]);           // of the exact size, for the sanitizer
    for (size_t i = 0; i < size; ++i) {
        text[i] = ALPHABET[random() % letters];
    }
    return text;
}

// Few letters make many near matches: blocks, the last block, short texts and the change to the slow search all occur.
TEST(TextSearch, FindsWhatANaiveSearchFinds) {
    std::mt19937 random(1);
    for (int run = 0; run < 20000; ++run) {
        const bool big = run % 50 == 0;
        const size_t letters = big ? 2 : 2 + random() % 13;
        const size_t size = random() % (big ? 3000 : 120);
        const size_t needle_size = 1 + random() % (big ? 40 : 6);
        const std::unique_ptr<char[]> text = random_text(random, size, letters);
        const std::unique_ptr<char[]> needle = random_text(random, needle_size, letters);
        size_t expected = 0;
        while (expected + needle_size <= size && strncasecmp(&text[expected], needle.get(), needle_size) != 0) {
            ++expected;
        }
        expected = expected + needle_size <= size ? expected : TEXT_NOT_FOUND;
        ASSERT_EQ(FindTextCase(text.get(), size, needle.get(), needle_size), expected) << run;
    }
}

}  // namespace
}  // namespace Kavio::Tramel
