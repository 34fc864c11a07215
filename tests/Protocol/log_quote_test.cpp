#include "Protocol/LogQuote.h"

#include <gtest/gtest.h>

#include <string>

#include "support/RtspText.h"
#include "support/SampleTable.h"

namespace Kavio {
namespace Vidora {
namespace {

TEST(LogQuote, HidesPasswordsAndAuthorizationValuesAndNothingElse) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/log_texts.txt", "texts", 2)) {
        EXPECT_EQ(Support::Crlf(row[1]), CLogQuote(Ostra::LOG_LEVEL_WARN, Support::Crlf(row[0]).c_str()).Text());
    }
    EXPECT_STREQ("", CLogQuote(Ostra::LOG_LEVEL_WARN, nullptr).Text());
    EXPECT_STREQ("", CLogQuote(Ostra::LOG_LEVEL_TRACE, "not shown").Text());
    EXPECT_STREQ("abc", CLogQuote(Ostra::LOG_LEVEL_WARN, "abcd", 3).Text());
    const std::string longer(5000, 'a');
    EXPECT_EQ(longer.substr(0, 2047), CLogQuote(Ostra::LOG_LEVEL_WARN, longer.c_str()).Text());
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
