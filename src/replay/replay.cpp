#include "orvane_kestrix/replay.hpp"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "orvane_kestrix/workers/context_builder/constants.hpp"

namespace orvane_kestrix {

namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

// Collects the module logger's records while a replay runs.
class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    Json records = Json::array();

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        Json record = Json::object();
        record["level"] = std::string(spdlog::level::to_string_view(msg.level).data(),
                                      spdlog::level::to_string_view(msg.level).size());
        record["logger"] = std::string(msg.logger_name.data(), msg.logger_name.size());
        record["message"] = std::string(msg.payload.data(), msg.payload.size());
        records.push_back(std::move(record));
    }
    void flush_() override {}
};

// Attaches the sink for the lifetime of the object.
class LogCapture {
public:
    LogCapture() : logger_(context_logger()), sink_(std::make_shared<CaptureSink>()), level_(logger_->level()) {
        logger_->sinks().push_back(sink_);
        logger_->set_level(spdlog::level::trace);
    }
    ~LogCapture() {
        auto& sinks = logger_->sinks();
        std::erase(sinks, sink_);
        logger_->set_level(level_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const Json& records() const { return sink_->records; }

private:
    std::shared_ptr<spdlog::logger> logger_;
    std::shared_ptr<CaptureSink> sink_;
    spdlog::level::level_enum level_;
};

// A new temporary directory holding the fixture's source files, removed afterwards.
class SourceTree {
public:
    explicit SourceTree(const std::map<std::string, std::string>& files) {
        std::string pattern = (fs::temp_directory_path() / "kestrix-replay-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw FixtureError("cannot create a temporary source tree");
        root_ = pattern;
        for (const auto& [relative, content] : files) {
            const fs::path path = root_ / relative;
            std::error_code ec;
            fs::create_directories(path.parent_path(), ec);
            std::ofstream out(path, std::ios::binary);
            out.write(content.data(), static_cast<std::streamsize>(content.size()));
            if (!out) throw FixtureError("invalid fixture: source_files." + relative + ": cannot be written");
        }
    }
    ~SourceTree() {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    SourceTree(const SourceTree&) = delete;
    SourceTree& operator=(const SourceTree&) = delete;

    const fs::path& root() const { return root_; }

private:
    fs::path root_;
};

}  // namespace

Json replay_fixture(const Fixture& fixture) {
    SourceTree tree(fixture.source_files);
    CallLog calls;
    FailureInjector failures(fixture.fail);
    FixtureRepository repository(fixture, calls, failures);
    std::optional<FixtureRetriever> retriever;
    if (fixture.retriever) retriever.emplace(fixture, calls, failures);
    std::optional<ScriptedTokenizer> scripted;
    std::optional<LoggingTokenizer> real;
    Tokenizer* tokenizer = nullptr;
    if (fixture.tokenizer) {
        tokenizer = &scripted.emplace(*fixture.tokenizer, calls, failures);
    } else {
        tokenizer = &real.emplace(default_tokenizer(), calls, failures);
    }

    ContextBuilder builder(repository, retriever ? &*retriever : nullptr,
                           {.list_tests = fixture.list_tests, .tokenizer = tokenizer});
    if (fixture.indexing) builder.set_indexing_status(fixture.indexing->in_progress, fixture.indexing->progress);

    PackRequest request = fixture.request;
    if (request.repo_root) request.repo_root = tree.root() / *request.repo_root;

    Json out = Json::object();
    LogCapture capture;
    try {
        out["pack"] = builder.build_context_pack(request).to_dict();
    } catch (const std::invalid_argument& e) {
        out["error"] = Json{{"type", "invalid_argument"}, {"message", e.what()}};
    } catch (const std::exception& e) {
        out["error"] = Json{{"type", "runtime_error"}, {"message", e.what()}};
    }
    out["calls"] = calls.calls();
    out["log"] = capture.records();
    return out;
}

}  // namespace orvane_kestrix
