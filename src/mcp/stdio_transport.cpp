#include "orvane_kestrix/mcp/stdio_transport.hpp"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace orvane_kestrix::mcp {

namespace {

// What the reader hands the answering thread: a parsed message, or the error for a line that
// could not be parsed.
struct Incoming {
    Json message;
    std::optional<Json> parse_failure;
};

std::string id_key(const Json& id) { return id.dump(); }

class StdioSession {
public:
    StdioSession(McpServer& server, std::istream& in, std::ostream& out) : server_(server), in_(in), out_(out) {}

    void run() {
        // A tied output stream is flushed before each read, from the reading thread, while the
        // answering thread writes to it.
        in_.tie(nullptr);
        std::thread reader([this] { read_all(); });
        answer_all();
        reader.join();
    }

private:
    // Bounded, so that a client writing faster than packs are built is held back instead of
    // filling memory.
    static constexpr std::size_t kQueueLimit = 64;

    void write(const Json& message) {
        const std::string line = message.dump(-1, ' ', false, Json::error_handler_t::replace);
        std::lock_guard lock(out_mutex_);
        out_ << line << '\n';
        out_.flush();
    }

    void read_all() {
        std::string line;
        while (std::getline(in_, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.find_first_not_of(" \t") == std::string::npos) continue;
            Incoming incoming;
            if (line.size() > kMaxMessageBytes) {
                incoming.parse_failure = error_response(nullptr, error_code::parse_error, "Parse error: message too large");
            } else {
                try {
                    incoming.message = Json::parse(line);
                } catch (const Json::parse_error&) {
                    incoming.parse_failure = error_response(nullptr, error_code::parse_error, "Parse error: not a JSON text");
                }
            }
            if (!incoming.parse_failure && note_cancellation(incoming.message)) continue;
            push(std::move(incoming));
        }
        std::lock_guard lock(mutex_);
        input_ended_ = true;
        changed_.notify_all();
    }

    // A notifications/cancelled naming a request that is queued or running marks it; true when
    // the message was one (it is not passed on).
    bool note_cancellation(const Json& message) {
        if (!message.is_object() || message.contains("id") || message.value("method", Json()) != "notifications/cancelled") {
            return false;
        }
        const auto params = message.find("params");
        if (params == message.end() || !params->is_object() || !params->contains("requestId")) return true;
        const Json& id = (*params)["requestId"];
        if (!is_request_id(id)) return true;
        const std::string key = id_key(id);
        std::lock_guard lock(mutex_);
        if (pending_.count(key) != 0) cancelled_.insert(key);
        return true;
    }

    void push(Incoming incoming) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return queue_.size() < kQueueLimit; });
        if (const std::optional<std::string> key = request_key(incoming)) pending_.insert(*key);
        queue_.push_back(std::move(incoming));
        changed_.notify_all();
    }

    static std::optional<std::string> request_key(const Incoming& incoming) {
        if (incoming.parse_failure || !incoming.message.is_object()) return std::nullopt;
        const auto id = incoming.message.find("id");
        if (id == incoming.message.end() || !is_request_id(*id) || !incoming.message.contains("method")) return std::nullopt;
        return id_key(*id);
    }

    void answer_all() {
        RequestContext context;
        context.notify = [this](const Json& notification) { write(notification); };
        for (;;) {
            Incoming incoming;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [&] { return !queue_.empty() || input_ended_; });
                if (queue_.empty()) return;
                incoming = std::move(queue_.front());
                queue_.pop_front();
                changed_.notify_all();
            }
            if (incoming.parse_failure) {
                write(*incoming.parse_failure);
                continue;
            }
            const std::optional<std::string> key = request_key(incoming);
            if (key && finish_if_cancelled(*key, false)) continue;
            std::optional<Json> response = server_.handle(incoming.message, context);
            if (key && finish_if_cancelled(*key, true)) continue;
            if (response) write(*response);
        }
    }

    // Whether the request was cancelled (then it gets no answer); a finished request leaves
    // the pending set either way.
    bool finish_if_cancelled(const std::string& key, bool finished) {
        std::lock_guard lock(mutex_);
        const bool cancelled = cancelled_.erase(key) > 0;
        if (finished || cancelled) pending_.erase(key);
        return cancelled;
    }

    McpServer& server_;
    std::istream& in_;
    std::ostream& out_;
    std::mutex out_mutex_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Incoming> queue_;
    std::set<std::string> pending_;
    std::set<std::string> cancelled_;
    bool input_ended_ = false;
};

}  // namespace

void serve_stdio(McpServer& server, std::istream& in, std::ostream& out) { StdioSession(server, in, out).run(); }

}  // namespace orvane_kestrix::mcp
