#pragma once

// What every benchmark program shares: a brief mode and an exit status.
//
// The test suite runs each benchmark once with KW_BENCH_BRIEF=1, to show that
// it still runs to its end; it never looks at the times.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace kw {

inline bool bench_brief()
{
    return std::getenv("KW_BENCH_BRIEF") != nullptr;
}

// The iterations of a measurement, or one in brief mode.
inline benchmark::IterationCount bench_iterations(benchmark::IterationCount full)
{
    return bench_brief() ? 1 : full;
}

// Runs the benchmarks given on the command line; the status is 1 when one of
// them reported an error, which the benchmark library itself lets pass.
inline int run_benchmarks(int argc, char** argv)
{
    class reporter : public benchmark::ConsoleReporter {
    public:
        using ConsoleReporter::ConsoleReporter;
        void ReportRuns(const std::vector<Run>& runs) override
        {
            for (const Run& run : runs)
                failed = failed || run.error_occurred;
            ConsoleReporter::ReportRuns(runs);
        }
        bool failed = false;
    };
    benchmark::Initialize(&argc, argv);
    // Colours only on a terminal, as the library's own reporter does.
    reporter console(isatty(STDOUT_FILENO) ? reporter::OO_Color : reporter::OO_None);
    benchmark::RunSpecifiedBenchmarks(&console);
    benchmark::Shutdown();
    return console.failed ? 1 : 0;
}

} // namespace kw
