// SPDX-License-Identifier: Apache-2.0
// Cost of a trace line that is switched off, and of one that is written to a null writer.
#include <sys/utsname.h>

#include <chrono>
#include <cstdio>

#include "foundation/SSFileTrace.h"
#include "foundation/Trace.h"

namespace {
void NullWriter(int, const char*, va_list) {}

volatile int g_sink = 0;
int Expensive() { return g_sink = g_sink + 1; }

template <typename Body>
double NanosecondsPerCall(long iterations, Body body) {
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < iterations; ++i) body();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return std::chrono::duration<double, std::nano>(elapsed).count() /
           static_cast<double>(iterations);
}
}  // namespace

int main() {
    utsname machine{};
    uname(&machine);
#ifdef NDEBUG
    const char* build = "optimised";
#else
    const char* build = "debug";
#endif
    std::printf("machine %s %s, build %s\n", machine.machine, machine.release, build);

    SwgSetSyslogWriter(&NullWriter);
    CSSFileTrace trace;
    trace.Initialize("bench", "", "", 0, TRACE_MASK_DEFAULT, true, true, 0, 0, 0, 0, 0, 0);
    g_pTraceObject = &trace;

    constexpr long kIterations = 10'000'000;
    std::printf("IPC line, off:       %6.2f ns\n",
                NanosecondsPerCall(kIterations, [] { DNTRACE(IPC, "x %d", Expensive()); }));
    std::printf("level 13 line:       %6.2f ns\n",
                NanosecondsPerCall(kIterations, [] { DNTRACE(TRACE_OFF, "x %d", Expensive()); }));
    std::printf("TRACE line, written: %6.2f ns\n",
                NanosecondsPerCall(kIterations / 100, [] { DNTRACE(TRACE, "x %d", 1); }));
    g_pTraceObject = nullptr;
    return g_sink == 0 ? 0 : 1;
}
