#include <algorithm>
#include <cmath>

#include "orvane_kestrix/retrieval/signals.hpp"

namespace orvane_kestrix::retrieval {

namespace {

using storage::Statement;

// Names shared by more symbols than this say nothing about any one of them.
constexpr std::size_t kMaxNameMatches = 40;
// A file name written alone that more files share is no evidence either.
constexpr std::size_t kMaxFileMatches = 4;
// A name or qualified name written in the task's first line (an issue's title, a commit's
// subject) is what the task is about; further down, names are often context: the code that
// shows the problem, the calls around it. Mentions in the title count this many times more.
constexpr double kTitleFactor = 1.75;
// A capitalised word of the prose that is exactly a type's name: weaker than a name written as code.
constexpr double kTypeWord = 0.5;
// A word that is a source file's name, as a mention of that file: weaker still.
constexpr double kFileWord = 0.15;

struct NameMatch {
    std::int64_t id;
    std::int64_t file_id;
    std::string name;
    std::string fqn;
    std::string kind;
};

bool is_type_kind(std::string_view kind) {
    return kind == "class" || kind == "interface" || kind == "struct" || kind == "trait" || kind == "enum" || kind == "type";
}

std::vector<std::string> split_qualified(std::string_view dotted) {
    std::vector<std::string> parts;
    std::string current;
    for (std::size_t i = 0; i < dotted.size(); ++i) {
        const char c = dotted[i];
        if (c == '.' || c == '#' || c == ':') {
            if (c == ':' && i + 1 < dotted.size() && dotted[i + 1] == ':') ++i;
            if (!current.empty()) parts.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(c);
        }
    }
    if (!current.empty()) parts.push_back(std::move(current));
    return parts;
}

std::string normalised_fqn(std::string fqn) {
    std::string out;
    for (std::size_t i = 0; i < fqn.size(); ++i) {
        if ((fqn[i] == ':' && i + 1 < fqn.size() && fqn[i + 1] == ':')) {
            out.push_back('.');
            ++i;
        } else if (fqn[i] == '#' || fqn[i] == '/' || fqn[i] == '\\') {
            out.push_back('.');
        } else {
            out.push_back(fqn[i]);
        }
    }
    return out;
}

class Lookups {
public:
    explicit Lookups(storage::Database& db)
        : at_line_(db, "SELECT id FROM symbols WHERE file_id = ?1 AND start_line <= ?2 AND end_line >= ?2 "
                       "ORDER BY start_line DESC, id DESC LIMIT 1"),
          in_file_(db, "SELECT id FROM symbols WHERE file_id = ?1 AND name = ?2"),
          by_name_(db, "SELECT id, file_id, name, fqn, kind FROM symbols WHERE name = ?1 COLLATE NOCASE LIMIT 64") {}

    std::optional<std::int64_t> at_line(std::int64_t file_id, std::int64_t line) {
        at_line_.bind(1, file_id).bind(2, line);
        std::optional<std::int64_t> id;
        if (at_line_.step()) id = at_line_.column_int64(0);
        at_line_.reset();
        return id;
    }
    std::vector<std::int64_t> in_file(std::int64_t file_id, const std::string& name) {
        in_file_.bind(1, file_id).bind(2, name);
        std::vector<std::int64_t> ids;
        while (in_file_.step()) ids.push_back(in_file_.column_int64(0));
        in_file_.reset();
        return ids;
    }
    std::vector<NameMatch> by_name(const std::string& name) {
        by_name_.bind(1, name);
        std::vector<NameMatch> found;
        while (by_name_.step()) {
            found.push_back({by_name_.column_int64(0), by_name_.column_int64(1), by_name_.column_string(2), by_name_.column_string(3),
                             by_name_.column_string(4)});
        }
        by_name_.reset();
        return found;
    }

private:
    Statement at_line_, in_file_, by_name_;
};

}  // namespace

SignalScores MentionSignal::score(const RetrievalQuery& query, RetrievalContext& context) {
    SignalScores out;
    Lookups lookups(context.db);
    auto add_symbol = [&](std::int64_t id, double score) {
        double& slot = out.symbols[id];
        slot = std::max(slot, score);
    };
    auto add_file = [&](std::int64_t id, double score) {
        double& slot = out.files[id];
        slot = std::max(slot, score);
    };
    auto usable_file = [&](std::int64_t id) {
        const CatalogFile* file = context.catalog.file(id);
        return file != nullptr && file->is_source && (query.include_tests || !file->is_test);
    };

    // Trace frames. Python prints the innermost call last, the other languages first; the
    // innermost frame inside the repository is where the task most likely leads.
    std::vector<const TraceFrame*> frames;
    for (const auto& frame : query.mentions.frames) frames.push_back(&frame);
    if (query.task.find("most recent call last") != std::string::npos) std::reverse(frames.begin(), frames.end());
    std::size_t in_repository = 0;
    for (const TraceFrame* frame : frames) {
        std::vector<std::int64_t> files;
        if (!frame->file.empty()) {
            for (std::int64_t id : context.catalog.match_path(frame->file)) {
                if (usable_file(id)) files.push_back(id);
            }
            if (files.size() > kMaxFileMatches) files.clear();
        }
        const double weight = std::max(0.6, 1.0 - 0.1 * static_cast<double>(in_repository));
        if (!files.empty()) {
            ++in_repository;
            for (std::int64_t file : files) {
                bool found = false;
                // A frame's line points into its function only in the version the trace came
                // from: a symbol there of another name means the file has moved on since.
                if (frame->line) {
                    if (auto id = lookups.at_line(file, *frame->line)) {
                        context.load({*id});
                        const CandidateSymbol* symbol = context.find(*id);
                        if (frame->function.empty() || frame->function.starts_with('<') ||
                            (symbol != nullptr && symbol->name == frame->function)) {
                            add_symbol(*id, weight);
                            found = true;
                        }
                    }
                }
                if (!frame->function.empty()) {
                    for (std::int64_t id : lookups.in_file(file, frame->function)) {
                        add_symbol(id, found ? weight * 0.9 : weight);
                    }
                }
                add_file(file, 0.6 * weight);
            }
        } else if (!frame->function.empty()) {
            const auto matches = lookups.by_name(frame->function);
            std::vector<const NameMatch*> exact;
            for (const auto& match : matches) {
                if (match.name == frame->function && usable_file(match.file_id)) exact.push_back(&match);
            }
            if (!exact.empty() && exact.size() <= kMaxNameMatches) {
                for (const NameMatch* match : exact) {
                    const bool qualified = !frame->qualifier.empty() && match->fqn.find(frame->qualifier) != std::string::npos;
                    add_symbol(match->id, (qualified ? 0.8 : 0.5) / std::sqrt(static_cast<double>(exact.size())));
                }
            }
        }
    }

    const std::string_view title = std::string_view(query.task).substr(0, query.task.find('\n'));
    auto in_title = [&](std::string_view written) { return title.find(written) != std::string_view::npos; };

    // Qualified names: Cls.method, pkg.mod.func, a::b. A module path names a file as well.
    for (const std::string& dotted : query.mentions.dotted) {
        const auto parts = split_qualified(dotted);
        if (parts.size() < 2) continue;
        std::string as_path;
        for (const auto& part : parts) as_path += (as_path.empty() ? "" : "/") + part;
        for (std::int64_t id : context.catalog.match_path(as_path)) {
            if (usable_file(id)) add_file(id, 0.8);
        }
        const std::string wanted = normalised_fqn(dotted);
        const auto matches = lookups.by_name(parts.back());
        std::vector<const NameMatch*> exact;
        for (const auto& match : matches) {
            if (match.name == parts.back() && usable_file(match.file_id)) exact.push_back(&match);
        }
        if (exact.empty() || exact.size() > kMaxNameMatches * 2) continue;
        for (const NameMatch* match : exact) {
            const std::string fqn = normalised_fqn(match->fqn);
            const std::string& owner = parts[parts.size() - 2];
            const double emphasis = in_title(dotted) ? kTitleFactor : 1.0;
            if (fqn == wanted || fqn.ends_with("." + wanted)) {
                add_symbol(match->id, 1.0 * emphasis);
            } else if (fqn.find("." + owner + ".") != std::string::npos || fqn.starts_with(owner + ".")) {
                add_symbol(match->id, 0.85 * emphasis);
            } else {
                add_symbol(match->id, 0.4 / std::sqrt(static_cast<double>(exact.size())));
            }
        }
    }

    // Identifiers the task writes, matched against symbol names.
    for (const std::string& name : query.names) {
        if (name.size() < 3) continue;
        const auto matches = lookups.by_name(name);
        std::vector<const NameMatch*> usable;
        for (const auto& match : matches) {
            if (usable_file(match.file_id)) usable.push_back(&match);
        }
        if (usable.empty() || usable.size() > kMaxNameMatches) continue;
        const double spread = std::sqrt(static_cast<double>(usable.size()));
        const double emphasis = in_title(name) ? kTitleFactor : 1.0;
        for (const NameMatch* match : usable) add_symbol(match->id, (match->name == name ? 0.8 * emphasis : 0.5) / spread);
    }

    // Capitalised words that are, exactly, the name of a type the index defines: prose names
    // a class as a plain word ("the Response object"), where the tokenizer sees no identifier.
    // Weaker than a name written as code.
    for (const std::string& word : query.mentions.capitalised) {
        if (std::find(query.names.begin(), query.names.end(), word) != query.names.end()) continue;
        const auto matches = lookups.by_name(word);
        std::vector<const NameMatch*> types;
        for (const auto& match : matches) {
            if (match.name == word && is_type_kind(match.kind) && usable_file(match.file_id)) types.push_back(&match);
        }
        if (types.empty() || types.size() > kMaxNameMatches) continue;
        const double spread = std::sqrt(static_cast<double>(types.size()));
        const double emphasis = in_title(word) ? kTitleFactor : 1.0;
        for (const NameMatch* match : types) add_symbol(match->id, kTypeWord * emphasis / spread);
    }

    // Words that are a source file's name (without extension): "the compat shim" is about
    // _compat.py. Weak, as such words are often plain English too.
    for (const std::string& word : query.mentions.words) {
        std::vector<std::int64_t> files;
        for (std::int64_t id : context.catalog.files_named(word)) {
            if (usable_file(id)) files.push_back(id);
        }
        if (files.empty() || files.size() > kMaxFileMatches) continue;
        const double emphasis = in_title(word) ? kTitleFactor : 1.0;
        for (std::int64_t id : files) add_file(id, kFileWord * emphasis);
    }

    // File paths and file names.
    for (const std::string& path : query.mentions.files) {
        std::vector<std::int64_t> files;
        for (std::int64_t id : context.catalog.match_path(path)) {
            if (usable_file(id)) files.push_back(id);
        }
        if (files.size() > kMaxFileMatches) continue;
        for (std::int64_t id : files) add_file(id, 0.8);
    }
    return out;
}

}  // namespace orvane_kestrix::retrieval
