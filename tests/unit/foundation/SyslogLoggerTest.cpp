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

// Guards the boundary: exactly 1,000 bytes is one piece without marks.
TEST(SyslogLoggerSplit, ThousandBytesIsOnePieceWithoutMarks) {
    const std::string text(1000, 'a');
    EXPECT_EQ(CSyslogLogger::SplitText(text), Pieces{text});
}

// Guards the boundary: 1,001 bytes without a space are cut after 1,000 and marked.
TEST(SyslogLoggerSplit, ThousandAndOneBytesAreTwoMarkedPieces) {
    const std::string text = std::string(1000, 'a') + "b";
    EXPECT_EQ(CSyslogLogger::SplitText(text), (Pieces{std::string(1000, 'a') + " -->", "<-- b"}));
}

// Guards the cut: at the last space or line feed of the window, which is dropped.
TEST(SyslogLoggerSplit, CutsAtTheLastBlankInTheWindowAndDropsIt) {
    const std::string head(600, 'a');
    const std::string middle(300, 'b');
    const std::string tail(200, 'c');
    EXPECT_EQ(CSyslogLogger::SplitText(head + " " + middle + " " + tail),
              (Pieces{head + " " + middle + " -->", "<-- " + tail}));
    EXPECT_EQ(CSyslogLogger::SplitText(head + " " + middle + "\n" + tail),
              (Pieces{head + " " + middle + " -->", "<-- " + tail}));
    // A blank just past the window does not count: the cut falls on the earlier one.
    const std::string early(10, 'e');
    const std::string text = early + " " + std::string(989, 'f') + " " + "g";
    ASSERT_EQ(text.size(), 1002u);
    EXPECT_EQ(CSyslogLogger::SplitText(text),
              (Pieces{early + " -->", "<-- " + std::string(989, 'f') + " g"}));
}

// Guards the middle pieces: both marks, and line feeds turned to spaces everywhere.
TEST(SyslogLoggerSplit, LongTextGetsBothMarksInTheMiddleAndNoLineFeeds) {
    const std::string text = "x\ny" + std::string(2500, 'z');
    const Pieces pieces = CSyslogLogger::SplitText(text);
    ASSERT_EQ(pieces.size(), 4u);
    EXPECT_EQ(pieces[0], "x -->");
    EXPECT_EQ(pieces[1], "<-- y" + std::string(999, 'z') + " -->");
    EXPECT_EQ(pieces[2], "<-- " + std::string(1000, 'z') + " -->");
    EXPECT_EQ(pieces[3], "<-- " + std::string(501, 'z'));
    const Pieces all = CSyslogLogger::SplitText("a\nb\nc");
    EXPECT_EQ(all, Pieces{"a b c"});
    EXPECT_EQ(CSyslogLogger::SplitText(""), Pieces{""});
}

// Guards the priority table adapted from fault/error/default.
TEST(SyslogLoggerPriority, SeverityAndImportanceMapToPriorities) {
    struct Case {
        Logging::Severity severity;
        Logging::DebugImportance importance;
        int priority;
    } cases[] = {{0, 'T', LOG_CRIT},   {2, 'E', LOG_CRIT},   {3, 'I', LOG_ERR},
                 {4, 'E', LOG_NOTICE}, {6, 'E', LOG_NOTICE}, {7, 'E', LOG_ERR},
                 {7, 'I', LOG_NOTICE}, {7, 'T', LOG_NOTICE}, {9, 'E', LOG_ERR}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.severity) + c.importance);
        EXPECT_EQ(CSyslogLogger::PriorityFor(c.severity, c.importance), c.priority);
    }
}

// Guards Log itself: null text refused, pieces written in order at one priority, and a
// '%' in the text written as it stands.
TEST(SyslogLoggerLog, WritesEveryPieceLiterally) {
    swg_test::SyslogCapture capture;
    CSyslogLogger logger("category");
    EXPECT_EQ(logger.Log(7, nullptr, "MID_DEBUG_MESSAGE", 1, 'E'), SWG_E_MODULE_INVALID_ARG);
    EXPECT_TRUE(capture.Lines().empty());
    const std::string text = "100% %s %n " + std::string(1200, 'q');
    EXPECT_EQ(logger.Log(7, text.c_str(), "MID_DEBUG_MESSAGE", 1, 'E'), 0);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "100% %s %n -->");
    EXPECT_EQ(lines[1].text, "<-- " + std::string(1000, 'q') + " -->");
    EXPECT_EQ(lines[2].text, "<-- " + std::string(200, 'q'));
    for (const auto& line : lines) EXPECT_EQ(line.priority, LOG_ERR);
}

// Guards the default logger of CAppLog: without a logger of its own, messages reach syslog.
TEST(SyslogLoggerLog, AppLogWithoutALoggerOfItsOwnWritesToSyslog) {
    swg_test::SyslogCapture capture;
    long result = -1;
    {
        CAppLog log(result, "category", nullptr);
        ASSERT_EQ(result, 0);
        capture.Clear();
        CAppLog::LogDebugMessage("Fn", "f.cpp", 5, Logging::kImportanceError, "broke %d", 3);
    }
    const auto lines = capture.LinesWith("broke 3");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_NE(lines[0].text.find(" Function: Fn File: f.cpp Line: 5 broke 3"), std::string::npos)
        << lines[0].text;
}

// Guards the stderr echo of the application log: with SWG_LOG_STDERR=1 every piece of a
// long message reaches standard error through the real syslog call.
TEST(SyslogLoggerLog, PiecesReachStandardErrorWithTheStderrOption) {
    int exitCode = -1;
    const std::string output = swg_test::StderrOfChild(
        [] {
            CSyslogLogger logger("category");
            const std::string text = std::string(1000, 'a') + "tail";
            logger.Log(3, text.c_str(), "MID_UNKNOWN", 0, 'T');
        },
        exitCode);
    EXPECT_EQ(exitCode, 0);
    EXPECT_NE(output.find(std::string(1000, 'a') + " -->"), std::string::npos) << output;
    EXPECT_NE(output.find("<-- tail"), std::string::npos) << output;
    EXPECT_NE(output.find("tsc_swgagent"), std::string::npos) << output;
}

}  // namespace
