// SPDX-License-Identifier: Apache-2.0
// Trace object and DNTRACE: masks, levels, priorities and the path without an object.
#include <syslog.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "foundation/SSFileTrace.h"
#include "foundation/Trace.h"
#include "support/SyslogCapture.h"

namespace {

int g_evaluations = 0;
int CountEvaluation() { return ++g_evaluations; }

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_evaluations = 0;
        // skipOpenlog: the capture stands in for syslog, nothing needs the real identity.
        m_trace.Initialize("tsc_swgagent", "/", "swg.log", 0, TRACE_MASK_DEFAULT, true, true, 10,
                           10000, 100, 1, 0, 60);
        g_pTraceObject = &m_trace;
    }
    void TearDown() override { g_pTraceObject = nullptr; }

    CSSFileTrace m_trace;
    swg_test::SyslogCapture m_capture;
};

// A level written while its bit is off (or off while on), and level 13 written at all,
// even when every bit is set.
TEST_F(TraceTest, WritesExactlyTheLevelsOnInTheMask) {
    for (unsigned int mask : {TRACE_MASK_DEFAULT, TRACE_MASK_DEBUG, 0x0u, 0xFFFFFFFFu, 0x1000u}) {
        m_trace.ChangeDebugLevel(mask);  // initialised: taken unchanged
        for (unsigned int level = TRACE; level <= TRACE_OFF; ++level) {
            SCOPED_TRACE("mask " + std::to_string(mask) + " level " + std::to_string(level));
            m_capture.Clear();
            DNTRACE(level, "line at %u", level);
            const bool expected = level != TRACE_OFF && (mask & (1u << level)) != 0;
            EXPECT_EQ(m_capture.Lines().size(), expected ? 1u : 0u);
        }
    }
}

// A default mask that drops HEADER or lets the chatty THREAD and IPC levels through, or
// arguments of a line that is off computed anyway (their cost is paid on every call).
TEST_F(TraceTest, DefaultMaskWritesHeaderAndSkipsTheArgumentsOfLinesThatAreOff) {
    DNTRACE(HEADER, "header line");
    DNTRACE(THREAD, "thread line");
    DNTRACE(IPC, "count %d", CountEvaluation());
    DNTRACE(TRACE_OFF, "count %d", CountEvaluation());
    EXPECT_EQ(g_evaluations, 0);
    ASSERT_EQ(m_capture.Lines().size(), 1u);
    EXPECT_EQ(m_capture.Lines()[0].text, "header line\n");
    m_trace.ChangeDebugLevel(TRACE_MASK_DEBUG);
    DNTRACE(IPC, "count %d", CountEvaluation());
    DNTRACE(TRACE_OFF, "count %d", CountEvaluation());
    EXPECT_EQ(g_evaluations, 1);
    EXPECT_EQ(m_capture.LinesWith("count 1").size(), 1u);
}

// A wrong syslog priority for a level, a missing line end, or the header in the line.
TEST_F(TraceTest, LinesGoOutAtTheirLevelsPriorityWithALineEnd) {
    m_trace.ChangeDebugLevel(0xFFFFFFFFu);
    struct Case {
        unsigned int level;
        int priority;
    } cases[] = {{TRACE, LOG_NOTICE},  {WARN, LOG_WARNING}, {ERR, LOG_ERR},   {THREAD, LOG_NOTICE},
                 {BRIDGE, LOG_NOTICE}, {IPC, LOG_NOTICE},   {14, LOG_NOTICE}, {31, LOG_NOTICE}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.level);
        m_capture.Clear();
        DNTRACE(c.level, "value=%d text=%s", 7, "x");
        const auto lines = m_capture.Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, c.priority);
        EXPECT_EQ(lines[0].text, "value=7 text=x\n");
    }
}

// An object never initialised losing WARN and ERR, keeping bits above level 12, or writing.
TEST(TraceMaskRule, UninitialisedObjectKeepsWarnAndErrAndDropsHighBits) {
    struct Case {
        unsigned int given;
        unsigned int expected;
    } cases[] = {{0x0, 0x6},           {0x107, 0x107},   {0x1FFF, 0x1FFF}, {0x100, 0x106},
                 {0xFFFFFFFF, 0x1FFF}, {0x2006, 0x0006}, {0x4, 0x6}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.given);
        CSSFileTrace trace;
        trace.ChangeDebugLevel(c.given);
        EXPECT_EQ(trace.TraceMask(), c.expected);
    }

    swg_test::SyslogCapture capture;
    CSSFileTrace trace;
    g_pTraceObject = &trace;
    DNTRACE(ERR, "not yet");
    g_pTraceObject = nullptr;
    EXPECT_TRUE(capture.Lines().empty());
}

// Before the trace object exists: ERR lost, other levels written, or their arguments computed.
TEST(TraceWithoutObject, OnlyErrLinesReachSyslog) {
    swg_test::SyslogCapture capture;
    ASSERT_EQ(g_pTraceObject.load(), nullptr);
    g_evaluations = 0;
    DNTRACE(TRACE, "trace %d", CountEvaluation());
    DNTRACE(WARN, "warn %d", CountEvaluation());
    DNTRACE(ERR, "error %d", CountEvaluation());
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_EQ(lines[0].text, "error 1\n");
    EXPECT_EQ(g_evaluations, 1);
}

// Level and print not held together: a line goes out at another thread's level.
TEST_F(TraceTest, ConcurrentLinesKeepTheirOwnPriority) {
    constexpr int kLinesPerThread = 300;
    auto writer = [](unsigned int level, const char* tag) {
        for (int i = 0; i < kLinesPerThread; ++i) DNTRACE(level, "%s %d", tag, i);
    };
    std::thread warnings(writer, WARN, "warning");
    std::thread errors(writer, ERR, "error");
    warnings.join();
    errors.join();
    const auto lines = m_capture.Lines();
    ASSERT_EQ(lines.size(), 2u * kLinesPerThread);
    for (const auto& line : lines) {
        const bool isWarning = line.text.rfind("warning", 0) == 0;
        EXPECT_EQ(line.priority, isWarning ? LOG_WARNING : LOG_ERR) << line.text;
    }
}

}  // namespace
