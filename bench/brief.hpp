#pragma once

// What every benchmark program shares: a brief mode and an exit status.
//
// The test suite runs each benchmark once with KW_BENCH_BRIEF=1, to show that
// it still runs to its end; it never looks at the times.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
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

// A reporter of the library that also notes whether a run reported an error.
template <class Base> class noting_reporter : public Base {
public:
    using Base::Base;
    void ReportRuns(const std::vector<benchmark::BenchmarkReporter::Run>& runs) override
    {
        for (const auto& run : runs)
            failed = failed || run.error_occurred;
        Base::ReportRuns(runs);
    }
    bool failed = false;
};

// Runs the benchmarks given on the command line; the status is 1 when one of
// them reported an error, which the benchmark library itself lets pass. The
// output is the console's (colours only on a terminal) or, with
// --benchmark_format=json, JSON.
inline int run_benchmarks(int argc, char** argv)
{
    bool json = std::any_of(argv, argv + argc,
                            [](const char* arg) { return std::string_view(arg) == "--benchmark_format=json"; });
    benchmark::Initialize(&argc, argv);
    noting_reporter<benchmark::JSONReporter> to_json;
    noting_reporter<benchmark::ConsoleReporter> to_console(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Color
                                                                                  : benchmark::ConsoleReporter::OO_None);
    benchmark::RunSpecifiedBenchmarks(json ? static_cast<benchmark::BenchmarkReporter*>(&to_json) : &to_console);
    benchmark::Shutdown();
    return to_json.failed || to_console.failed ? 1 : 0;
}

} // namespace kw
