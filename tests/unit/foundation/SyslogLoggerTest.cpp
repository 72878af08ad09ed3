// SPDX-License-Identifier: Apache-2.0
// The application log's syslog writer: 1,000-byte pieces, their marks and priorities.
#include <syslog.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"
#include "foundation/SyslogLogger.h"
#include "support/SyslogCapture.h"

namespace {

using Pieces = std::vector<std::string>;

// An off-by-one at the 1,000-byte boundary, a missing or misplaced mark, a cut that ignores
// the last space or line end of the window (or keeps it), or a line feed left in a piece.
TEST(SyslogLoggerTest, SplitsIntoMarkedPiecesOfAtMostAThousandBytes) {
    const std::string a(1000, 'a'), head(600, 'h'), mid(300, 'm'), tail(200, 't'), e(10, 'e'),
        f(989, 'f');
    const struct {
        std::string text;
        Pieces pieces;
    } cases[] = {
        {a, {a}},
        {a + "b", {a + " -->", "<-- b"}},
        {head + " " + mid + " " + tail, {head + " " + mid + " -->", "<-- " + tail}},
        {head + " " + mid + "\n" + tail, {head + " " + mid + " -->", "<-- " + tail}},
        // A blank just past the window does not count: the cut falls on the earlier one.
        {e + " " + f + " g", {e + " -->", "<-- " + f + " g"}},
        {"x\ny" + std::string(2500, 'z'),
         {"x -->", "<-- y" + std::string(999, 'z') + " -->",
          "<-- " + std::string(1000, 'z') + " -->", "<-- " + std::string(501, 'z')}},
        {"a\nb\nc", {"a b c"}},
        {"", {""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 20) + "... (" + std::to_string(c.text.size()) + " bytes)");
        EXPECT_EQ(CSyslogLogger::SplitText(c.text), c.pieces);
    }
}

// A severity or importance mapped to the wrong syslog priority.
TEST(SyslogLoggerTest, SeverityAndImportanceMapToPriorities) {
    struct Case {
        Logging::Severity severity;
        Logging::DebugImportance importance;
        int priority;
    } cases[] = {{0, 'T', LOG_CRIT},   {2, 'E', LOG_CRIT},   {3, 'I', LOG_ERR},
                 {4, 'E', LOG_NOTICE}, {6, 'E', LOG_NOTICE}, {7, 'E', LOG_ERR},
                 {7, 'I', LOG_NOTICE}, {9, 'E', LOG_ERR}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.severity) + c.importance);
        EXPECT_EQ(CSyslogLogger::PriorityFor(c.severity, c.importance), c.priority);
    }
}

// A null text accepted, pieces out of order or at different priorities, or a '%' in the
// text read as a format.
TEST(SyslogLoggerTest, LogWritesEveryPieceLiterally) {
    swg_test::SyslogCapture capture;
    CSyslogLogger logger("category");
    EXPECT_EQ(logger.Log(7, nullptr, "MID_DEBUG_MESSAGE", 1, 'E'), SWG_E_MODULE_INVALID_ARG);
    EXPECT_TRUE(capture.Lines().empty());
    const std::string text = "100% %s %n " + std::string(1200, 'q');
    EXPECT_EQ(logger.Log(7, text.c_str(), "MID_DEBUG_MESSAGE", 1, 'E'), 0);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "100% %s %n -->");
    EXPECT_EQ(lines[2].text, "<-- " + std::string(200, 'q'));
    for (const auto& line : lines) EXPECT_EQ(line.priority, LOG_ERR);
}

// CAppLog without a logger of its own dropping its messages instead of writing to syslog.
TEST(SyslogLoggerTest, AppLogWithoutALoggerOfItsOwnWritesToSyslog) {
    swg_test::SyslogCapture capture;
    {
        long result = -1;
        CAppLog log(result, "category", nullptr);
        ASSERT_EQ(result, 0);
        CAppLog::LogDebugMessage("Fn", "f.cpp", 5, Logging::kImportanceError, "broke %d", 3);
    }
    const auto lines = capture.LinesWith("broke 3");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_NE(lines[0].text.find(" Function: Fn File: f.cpp Line: 5 broke 3"), std::string::npos);
}

}  // namespace
