#include "BenchRunner.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TimeValue.h"

namespace velbench {

namespace {

// One case's results: the rate of every variant in every repetition, in variant order.
struct CaseResult {
    const Case* benchCase = nullptr;
    std::vector<std::vector<double>> rates;  // [variant][repetition]
    std::vector<std::string> notes;
    std::string error;
};

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
}

std::vector<double> ratios(const CaseResult& result, std::size_t reference) {
    std::vector<double> out;
    const std::vector<double>& vel = result.rates[0];
    const std::vector<double>& other = result.rates[reference + 1];
    for (std::size_t i = 0; i < vel.size() && i < other.size(); ++i) {
        if (other[i] > 0.0) {
            out.push_back(vel[i] / other[i]);
        }
    }
    return out;
}

std::string cpuModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("model name", 0) == 0) {
            const std::size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown";
}

std::string loadAverage() {
    std::ifstream loadavg("/proc/loadavg");
    std::string one, five, fifteen;
    loadavg >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

std::string jsonText(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

std::string number(double value) {
    std::ostringstream out;
    out.precision(value >= 1000.0 ? 0 : 3);
    out << std::fixed << value;
    return out.str();
}

std::string jsonList(const std::vector<double>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        out += (i == 0 ? "" : ", ") + number(values[i]);
    }
    return out + "]";
}

// Warms every variant up once, then runs the repetitions, each starting with a different variant
// so that no variant always runs first (or always right after the same other one).
void runCase(Case& benchCase, const Options& options, CaseResult& result) {
    const std::size_t variants = benchCase.references().size() + 1;
    const unsigned long count = benchCase.workCount(options.quick);
    result.rates.assign(variants, {});
    benchCase.setUp(options.quick);
    const auto skipped = [&options](std::size_t v) {
        return options.variant >= 0 && v != static_cast<std::size_t>(options.variant);
    };
    for (std::size_t v = 0; v < variants; ++v) {
        if (!skipped(v)) {
            (void)benchCase.run(v, benchCase.warmUpCount(options.quick));
        }
    }
    for (int rep = 0; rep < options.repetitions; ++rep) {
        for (std::size_t k = 0; k < variants; ++k) {
            const std::size_t v = (k + static_cast<std::size_t>(rep)) % variants;
            if (skipped(v)) {
                continue;
            }
            const double seconds = benchCase.run(v, count);
            const double rate = seconds > 0.0 ? count / seconds * benchCase.unitScale() : 0.0;
            result.rates[v].push_back(rate);
        }
    }
    result.notes = benchCase.notes();
}

void printHeader(const Options& options, const std::string& load) {
    std::printf("vel-bench%s: %d repetition(s) per case, variants alternated, medians reported\n",
                options.quick ? " --quick (smoke run, figures not meaningful)" : "",
                options.repetitions);
    std::printf("machine: %ld CPU(s), %s; load average at start %s\n\n",
                ::sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(), load.c_str());
    std::printf("%-34s %-28s %14s  %-13s %8s %8s  %s\n", "case", "variant", "median", "unit",
                "vel/ref", "target", "met");
}

void printCase(const CaseResult& result) {
    const Case& benchCase = *result.benchCase;
    const std::vector<Reference> refs = benchCase.references();
    if (!result.error.empty()) {
        std::printf("%-34s FAILED: %s\n", benchCase.title().c_str(), result.error.c_str());
        return;
    }
    std::printf("%-34s %-28s %14s  %-13s\n", benchCase.title().c_str(), benchCase.velName().c_str(),
                number(median(result.rates[0])).c_str(), benchCase.unit().c_str());
    for (std::size_t r = 0; r < refs.size(); ++r) {
        const std::vector<double> each = ratios(result, r);
        const double ratio = median(each);
        const bool judged = refs[r].target > 0.0 && !each.empty();
        std::printf("%-34s %-28s %14s  %-13s %8s %8s  %s\n", "", refs[r].name.c_str(),
                    number(median(result.rates[r + 1])).c_str(), benchCase.unit().c_str(),
                    each.empty() ? "-" : number(ratio).c_str(),
                    refs[r].target > 0.0 ? (">=" + number(refs[r].target)).c_str() : "-",
                    judged ? (ratio >= refs[r].target ? "yes" : "NO") : "");
    }
    for (const std::string& note : result.notes) {
        std::printf("%-34s %s\n", "", note.c_str());
    }
}

void printJson(const std::vector<CaseResult>& results, const Options& options,
               const std::string& loadStart, const std::string& loadEnd) {
    std::printf("{\n  \"quick\": %s,\n  \"repetitions\": %d,\n", options.quick ? "true" : "false",
                options.repetitions);
    std::printf(
            "  \"machine\": {\"cpus\": %ld, \"cpu_model\": %s, \"load_start\": %s, "
            "\"load_end\": %s},\n  \"cases\": [",
            ::sysconf(_SC_NPROCESSORS_ONLN), jsonText(cpuModel()).c_str(),
            jsonText(loadStart).c_str(), jsonText(loadEnd).c_str());
    for (std::size_t c = 0; c < results.size(); ++c) {
        const CaseResult& result = results[c];
        const Case& benchCase = *result.benchCase;
        const std::vector<Reference> refs = benchCase.references();
        std::printf("%s\n    {\"id\": %s, \"title\": %s, \"unit\": %s", c == 0 ? "" : ",",
                    jsonText(benchCase.id()).c_str(), jsonText(benchCase.title()).c_str(),
                    jsonText(benchCase.unit()).c_str());
        if (!result.error.empty()) {
            std::printf(", \"error\": %s}", jsonText(result.error).c_str());
            continue;
        }
        std::printf(
                ",\n     \"variants\": [\n       {\"name\": %s, \"median\": %s, "
                "\"samples\": %s}",
                jsonText(benchCase.velName()).c_str(), number(median(result.rates[0])).c_str(),
                jsonList(result.rates[0]).c_str());
        for (std::size_t r = 0; r < refs.size(); ++r) {
            const std::vector<double> each = ratios(result, r);
            const double ratio = median(each);
            std::printf(
                    ",\n       {\"name\": %s, \"median\": %s, \"samples\": %s, "
                    "\"ratio_median\": %s, \"ratio_samples\": %s, \"target\": %s, "
                    "\"met\": %s}",
                    jsonText(refs[r].name).c_str(), number(median(result.rates[r + 1])).c_str(),
                    jsonList(result.rates[r + 1]).c_str(), number(ratio).c_str(),
                    jsonList(each).c_str(),
                    refs[r].target > 0.0 ? number(refs[r].target).c_str() : "null",
                    refs[r].target > 0.0 ? (ratio >= refs[r].target ? "true" : "false") : "null");
        }
        std::printf("\n     ]");
        if (!result.notes.empty()) {
            std::printf(",\n     \"notes\": [");
            for (std::size_t n = 0; n < result.notes.size(); ++n) {
                std::printf("%s%s", n == 0 ? "" : ", ", jsonText(result.notes[n]).c_str());
            }
            std::printf("]");
        }
        std::printf("}");
    }
    std::printf("\n  ]\n}\n");
}

bool selected(const Case& benchCase, const Options& options) {
    return options.only.empty() || std::find(options.only.begin(), options.only.end(),
                                             benchCase.id()) != options.only.end();
}

}  // namespace

double Now() {
    return static_cast<double>(basis::TimeValue::GetHRTime().toMicroseconds()) / 1e6;
}

int RunAll(const std::vector<std::unique_ptr<Case>>& cases, const Options& options) {
    const std::string loadStart = loadAverage();
    if (!options.json) {
        printHeader(options, loadStart);
    }
    std::vector<CaseResult> results;
    int status = 0;
    for (const std::unique_ptr<Case>& benchCase : cases) {
        if (!selected(*benchCase, options)) {
            continue;
        }
        CaseResult result;
        result.benchCase = benchCase.get();
        try {
            runCase(*benchCase, options, result);
        } catch (const std::exception& e) {
            result.error = e.what();
            status = 1;
        }
        benchCase->tearDown();
        if (!options.json) {
            printCase(result);
            std::fflush(stdout);
        }
        results.push_back(std::move(result));
    }
    const std::string loadEnd = loadAverage();
    if (options.json) {
        printJson(results, options, loadStart, loadEnd);
    } else {
        std::printf("\nload average at end %s\n", loadEnd.c_str());
    }
    return status;
}

}  // namespace velbench
