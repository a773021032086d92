#pragma once
// What the benchmarks over this machine's Python standard library share: finding the library,
// generating varied tasks from an index's symbol names (fixed seed, so that runs compare), and
// summarising timings.

#include <stdio.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "orvane_kestrix/storage/sqlite_repository.hpp"

namespace orvane_kestrix::bench {

using Clock = std::chrono::steady_clock;

// The standard library of the python3 on PATH, or empty.
inline std::string python_stdlib() {
    FILE* pipe = popen("python3 -c 'import sysconfig;print(sysconfig.get_paths()[\"stdlib\"])'", "r");
    if (pipe == nullptr) return {};
    std::array<char, 4096> buffer{};
    std::string out;
    while (fgets(buffer.data(), buffer.size(), pipe) != nullptr) out += buffer.data();
    pclose(pipe);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

inline double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Summary {
    double median = 0, p95 = 0, mean = 0;
};

inline Summary summarise(std::vector<double> values) {
    Summary s;
    if (values.empty()) return s;
    std::sort(values.begin(), values.end());
    const auto at = [&](double q) {
        // Nearest rank.
        const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
        return values[std::min(values.size() - 1, rank == 0 ? 0 : rank - 1)];
    };
    s.median = at(0.5);
    s.p95 = at(0.95);
    double total = 0;
    for (const double v : values) total += v;
    s.mean = total / static_cast<double>(values.size());
    return s;
}

// Names of functions, classes and methods, without tests and private helpers.
inline std::vector<std::string> symbol_names(SqliteRepository& repository) {
    storage::Statement q = repository.database().prepare(
        "SELECT DISTINCT s.name FROM symbols s JOIN files f ON f.id = s.file_id "
        "WHERE f.is_test = 0 AND f.is_source = 1 AND s.kind IN ('function', 'class', 'method') "
        "AND length(s.name) >= 4 AND substr(s.name, 1, 1) <> '_' ORDER BY s.name");
    std::vector<std::string> names;
    while (q.step()) names.push_back(q.column_string(0));
    return names;
}

inline std::vector<std::string> make_tasks(const std::vector<std::string>& names, std::size_t count) {
    static const std::vector<std::string> words = {
        "socket", "timeout", "encoding", "header", "buffer", "thread", "lock", "path", "cache", "format",
        "date", "queue", "compress", "archive", "email", "cookie", "json", "url", "parser", "decimal",
        "locale", "signal", "process", "logging", "config", "tarfile", "zipfile", "unicode", "random", "pickle",
        "calendar", "template", "token", "stream", "reader", "writer", "handler", "request", "response", "server",
    };
    static const std::vector<std::string> name_templates = {
        "Fix {} when the input is empty",
        "Add a timeout option to {}",
        "Why does {} fail on unicode paths?",
        "Refactor {} to reuse the {} helper",
        "{} raises an error for large {} values",
        "Document the return value of {}",
        "Make {} thread safe when the {} is shared",
        "Speed up {} for long inputs",
    };
    static const std::vector<std::string> word_templates = {
        "Handle {} errors in the {} module",
        "The {} {} breaks on windows line endings",
        "Support a custom {} in the {} class",
        "Why is {} slow when the {} is large",
    };
    std::mt19937 random(20240611);
    const auto pick = [&](const std::vector<std::string>& from) {
        return from[std::uniform_int_distribution<std::size_t>(0, from.size() - 1)(random)];
    };
    const auto fill = [](std::string text, const std::vector<std::string>& values) {
        for (const auto& value : values) {
            const auto at = text.find("{}");
            if (at == std::string::npos) break;
            text.replace(at, 2, value);
        }
        return text;
    };
    std::vector<std::string> tasks;
    std::set<std::string> seen;
    while (tasks.size() < count) {
        std::string task;
        if (tasks.size() % 4 == 3 || names.empty()) {
            task = fill(pick(word_templates), {pick(words), pick(words)});
        } else {
            task = fill(pick(name_templates), {pick(names), pick(words)});
        }
        if (seen.insert(task).second) tasks.push_back(task);
    }
    return tasks;
}

}  // namespace orvane_kestrix::bench
