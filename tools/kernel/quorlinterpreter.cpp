#include <tools/kernel/quorlinterpreter.hpp>

#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/io/veldrasink.hpp>
#include <quorl/language/codeanalysis.hpp>
#include <quorl/utils/processutils.hpp>

#include <fl/i18n/conversions.hpp>

#include <xeus/xhelper.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <set>
#include <sstream>

namespace quorl {
namespace kernel {

using language::CodeAnalysis;

// What one request wrote, in order, and whether it has ended. Written by the library's delivery
// threads, read by the shell thread.
class RequestChannel {
public:
    enum Stream { Out, Err };
    struct Chunk {
        Stream stream;
        std::string text;
    };

    void write(Stream stream, std::string text) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            chunks_.push_back(Chunk{stream, std::move(text)});
        }
        ready_.notify_one();
    }
    void finish() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_ = true;
        }
        ready_.notify_one();
    }
    // The next chunk; false once the request has ended and everything was read.
    bool next(Chunk& chunk) {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return !chunks_.empty() || finished_; });
        if (chunks_.empty()) {
            return false;
        }
        chunk = std::move(chunks_.front());
        chunks_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Chunk> chunks_; // guarded by mutex_
    bool finished_ = false;    // guarded by mutex_
};

namespace {

// A sink's buffer that hands its text, as UTF-8, to a request channel. A high surrogate at the
// end of a write waits for its partner.
class ChannelBuffer : public std::basic_streambuf<char16_t> {
public:
    ChannelBuffer(boost::shared_ptr<RequestChannel> channel, RequestChannel::Stream stream)
        : channel_(std::move(channel)), stream_(stream) {}

protected:
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        std::u16string text;
        if (pendingHigh_ != 0) {
            text.push_back(pendingHigh_);
            pendingHigh_ = 0;
        }
        text.append(s, static_cast<std::size_t>(n));
        if (!text.empty() && text.back() >= 0xD800 && text.back() <= 0xDBFF) {
            pendingHigh_ = text.back();
            text.pop_back();
        }
        if (!text.empty()) {
            channel_->write(stream_, fl::i18n::to_string(text));
        }
        return n;
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        char16_t const unit = traits_type::to_char_type(c);
        xsputn(&unit, 1);
        return c;
    }

private:
    boost::shared_ptr<RequestChannel> channel_;
    RequestChannel::Stream stream_;
    char16_t pendingHigh_ = 0;
};

// Splits the output of the statement whose value shows: lines before its display text are
// passed on as they come; from the first line that starts "NAME =" (NAME one of the names the
// value is shown under) on, the text is held as the display.
class DisplaySplitter {
public:
    explicit DisplaySplitter(std::vector<std::string> names) {
        for (auto& n : names) {
            heads_.push_back(n + " =");
        }
    }
    // Text to pass on now.
    std::string feed(std::string const& text) {
        std::string now;
        for (char c : text) {
            if (holding_) {
                held_ += c;
                continue;
            }
            if (midLine_) {
                now += c;
                midLine_ = c != '\n';
                continue;
            }
            line_ += c;
            if (startsDisplay()) {
                holding_ = true;
                held_ = std::move(line_);
                line_.clear();
            } else if (!mayStartDisplay() || c == '\n') {
                now += line_;
                midLine_ = c != '\n';
                line_.clear();
            }
        }
        return now;
    }
    std::string rest() {
        std::string r;
        r.swap(line_);
        return r;
    }
    std::string const& display() const { return held_; }

private:
    bool startsDisplay() const {
        for (auto const& h : heads_) {
            if (line_.size() > h.size() && line_.compare(0, h.size(), h) == 0 &&
                (line_[h.size()] == ' ' || line_[h.size()] == '\n')) {
                return true;
            }
        }
        return false;
    }
    bool mayStartDisplay() const {
        for (auto const& h : heads_) {
            std::string const full = h + " ";
            if (line_.size() <= full.size() && full.compare(0, line_.size(), line_) == 0) {
                return true;
            }
        }
        return false;
    }

    std::vector<std::string> heads_;
    std::string line_;
    std::string held_;
    bool holding_ = false;
    bool midLine_ = false;
};

bool blank(std::string const& s) {
    return s.find_first_not_of(" \t\r\n") == std::string::npos;
}

bool identChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

// Jupyter counts cursor positions in code points; these convert to and from byte offsets.
std::size_t byteOffset(std::string const& utf8, int codePoints) {
    std::size_t i = 0;
    for (int n = 0; i < utf8.size() && n < codePoints; ++n) {
        ++i;
        while (i < utf8.size() && (static_cast<unsigned char>(utf8[i]) & 0xC0) == 0x80) {
            ++i;
        }
    }
    return i;
}

int codePoints(std::string const& utf8, std::size_t bytes) {
    int n = 0;
    for (std::size_t i = 0; i < bytes && i < utf8.size(); ++i) {
        if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) {
            ++n;
        }
    }
    return n;
}

void describe(::cmddistributor::RuntimeException const& e, std::string const& indent,
              std::vector<std::string>& lines) {
    std::string const id = e.GetID().empty() ? std::string("error") : e.GetID();
    lines.push_back(indent + id + ": " + e.what());
    for (auto const& frame : e.getStackFrames()) {
        std::ostringstream line;
        line << indent << "  in " << (frame.func.empty() ? "?" : frame.func);
        std::string const file = fl::i18n::to_string(frame.file);
        if (!file.empty()) {
            line << " (" << file << ")";
        }
        line << " at line " << frame.line;
        lines.push_back(line.str());
    }
    for (auto const& cause : e.getCauses()) {
        lines.push_back(indent + "caused by");
        describe(cause, indent + "  ", lines);
    }
}

} // namespace

QuorlInterpreter::QuorlInterpreter(KernelSession& session, std::vector<std::string> searchPath)
    : session_(session), searchPath_(std::move(searchPath)) {
    xeus::register_interpreter(this);
}

void QuorlInterpreter::configure_impl() {}

void QuorlInterpreter::interrupt() {
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = true;
    if (running_) {
        // The answer comes through the request's own future; nothing waits for this one.
        try {
            session_.distributor().cancelRequest(*running_, true);
        } catch (std::exception const&) {
            // The interpreter is out of reach; the request fails on its own.
        }
    }
}

void QuorlInterpreter::startRequest() {
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = false;
}

QuorlInterpreter::Outcome QuorlInterpreter::run(std::string const& code, bool userEval,
                                                OutputUse use, bool silent) {
    Outcome outcome;
    auto channel = boost::make_shared<RequestChannel>();
    auto out = boost::make_shared<io::VeldraSink>(
        boost::make_shared<ChannelBuffer>(channel, RequestChannel::Out));
    auto err = boost::make_shared<io::VeldraSink>(
        boost::make_shared<ChannelBuffer>(channel, RequestChannel::Err));
    auto request = boost::make_shared<::cmddistributor::EvalCmdRequest>(
        userEval, ::cmddistributor::UnsetIqmStreamID, out, err, fl::i18n::to_ustring(code));
    foundation::msg_svc::exchange::IDType const id;
    boost::unique_future<void> future;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (interrupted_) {
            outcome.ok = false;
            outcome.ename = "quorl:interrupted";
            outcome.evalue = "Interrupted.";
            outcome.traceback = {outcome.ename + ": " + outcome.evalue};
            return outcome;
        }
        try {
            future = session_.distributor().enqueueWithContinuation(
                request, [channel] { channel->finish(); }, id);
        } catch (std::exception const& e) {
            outcome.ok = false;
            outcome.ename = "quorl:kernel";
            outcome.evalue = std::string("the request could not be sent: ") + e.what();
            outcome.traceback = {outcome.ename + ": " + outcome.evalue};
            return outcome;
        }
        running_ = id;
    }

    DisplaySplitter splitter(use == OutputUse::Display ? CodeAnalysis::displayNames(code)
                                                       : std::vector<std::string>());
    auto publishOut = [&](std::string const& text) {
        if (!text.empty() && !silent) {
            publish_stream("stdout", text);
        }
    };
    RequestChannel::Chunk chunk;
    while (channel->next(chunk)) {
        if (chunk.stream == RequestChannel::Err) {
            if (!silent) {
                publish_stream("stderr", chunk.text);
            }
        } else if (use == OutputUse::Capture) {
            outcome.display += chunk.text;
        } else if (use == OutputUse::Display) {
            publishOut(splitter.feed(chunk.text));
        } else {
            publishOut(chunk.text);
        }
    }
    if (use == OutputUse::Display) {
        publishOut(splitter.rest());
        outcome.display = splitter.display();
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_.reset();
    }

    try {
        future.get();
    } catch (::cmddistributor::RuntimeException const& e) {
        outcome.ok = false;
        outcome.ename = e.GetID().empty() ? std::string("error") : e.GetID();
        outcome.evalue = e.what();
        describe(e, "", outcome.traceback);
    } catch (std::exception const& e) {
        outcome.ok = false;
        outcome.ename = "quorl:interrupted";
        outcome.evalue = e.what();
        outcome.traceback = {outcome.ename + ": " + outcome.evalue};
    }
    return outcome;
}

nl::json QuorlInterpreter::execute_request_impl(int execution_counter, std::string const& code,
                                                bool silent, bool /*store_history*/,
                                                nl::json /*user_expressions*/,
                                                bool /*allow_stdin*/) {
    startRequest();
    // The statement whose value shows runs on its own, after the rest.
    std::size_t const split =
        silent ? std::string::npos : CodeAnalysis::displayedStatementStart(code);
    std::vector<std::pair<std::string, OutputUse>> parts;
    if (split == std::string::npos) {
        parts.emplace_back(code, OutputUse::Publish);
    } else {
        if (!blank(code.substr(0, split))) {
            parts.emplace_back(code.substr(0, split), OutputUse::Publish);
        }
        parts.emplace_back(code.substr(split), OutputUse::Display);
    }
    for (auto const& part : parts) {
        Outcome outcome = run(part.first, true, part.second, silent);
        if (!outcome.ok) {
            if (!silent) {
                publish_execution_error(outcome.ename, outcome.evalue, outcome.traceback);
            }
            // Built here: xeus 2.4's create_error_reply puts the message under ename.
            return nl::json{{"status", "error"},
                            {"ename", outcome.ename},
                            {"evalue", outcome.evalue},
                            {"traceback", outcome.traceback}};
        }
        if (part.second == OutputUse::Display && !outcome.display.empty()) {
            std::string text = outcome.display;
            while (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            publish_execution_result(execution_counter, nl::json{{"text/plain", text}},
                                     nl::json::object());
        }
    }
    return xeus::create_successful_reply();
}

std::vector<std::string> QuorlInterpreter::variables() {
    Outcome outcome = run("disp(strjoin(who(), ' '))", false, OutputUse::Capture, /*silent=*/true);
    std::vector<std::string> names;
    if (outcome.ok) {
        std::istringstream in(outcome.display);
        for (std::string name; in >> name;) {
            names.push_back(name);
        }
    }
    return names;
}

nl::json QuorlInterpreter::complete_request_impl(std::string const& code, int cursor_pos) {
    startRequest();
    std::size_t const end = byteOffset(code, cursor_pos);
    std::size_t start = end;
    while (start > 0 && identChar(code[start - 1])) {
        --start;
    }
    std::string const prefix = code.substr(start, end - start);
    nl::json matches = nl::json::array();
    bool const field = start > 0 && code[start - 1] == '.';
    bool const number = !prefix.empty() && std::isdigit(static_cast<unsigned char>(prefix[0]));
    if (!field && !number) {
        std::set<std::string> names;
        auto add = [&](std::vector<std::string> const& list) {
            for (auto const& n : list) {
                if (n.compare(0, prefix.size(), prefix) == 0) {
                    names.insert(n);
                }
            }
        };
        add(variables());
        add(CodeAnalysis::builtinNames());
        add(CodeAnalysis::keywords());
        add(CodeAnalysis::functionFiles(searchPath_));
        for (auto const& n : names) {
            matches.push_back(n);
        }
    }
    return xeus::create_complete_reply(matches, codePoints(code, start), codePoints(code, end));
}

nl::json QuorlInterpreter::inspect_request_impl(std::string const& code, int cursor_pos,
                                                int /*detail_level*/) {
    std::size_t const at = byteOffset(code, cursor_pos);
    std::size_t start = at;
    while (start > 0 && identChar(code[start - 1])) {
        --start;
    }
    std::size_t end = at;
    while (end < code.size() && identChar(code[end])) {
        ++end;
    }
    std::string const name = code.substr(start, end - start);
    if (name.empty()) {
        return xeus::create_inspect_reply(false);
    }
    std::string text;
    std::string const file = CodeAnalysis::findFunctionFile(name, searchPath_);
    if (!file.empty()) {
        text = CodeAnalysis::helpText(file);
        if (text.empty()) {
            text = name + " is the function file " + file + " (it has no help comment).\n";
        }
    } else {
        auto const builtins = CodeAnalysis::builtinNames();
        if (std::binary_search(builtins.begin(), builtins.end(), name)) {
            text = name + " is a built-in function.\n";
        }
    }
    if (text.empty()) {
        return xeus::create_inspect_reply(false);
    }
    return xeus::create_inspect_reply(true, nl::json{{"text/plain", text}});
}

nl::json QuorlInterpreter::is_complete_request_impl(std::string const& code) {
    switch (CodeAnalysis::completeness(code)) {
    case CodeAnalysis::Completeness::Complete:
        return xeus::create_is_complete_reply("complete");
    case CodeAnalysis::Completeness::Incomplete:
        return xeus::create_is_complete_reply("incomplete", "  ");
    case CodeAnalysis::Completeness::Invalid:
        break;
    }
    return xeus::create_is_complete_reply("invalid");
}

nl::json QuorlInterpreter::kernel_info_request_impl() {
    std::string const banner =
        std::string("quorl ") + quorl_version + " (interpreter: " + session_.where() + ")";
    return xeus::create_info_reply("5.3", "quorl-kernel", quorl_version, "quorl", quorl_version,
                                   "text/x-quorl", ".qrl", "text", "", "", banner);
}

void QuorlInterpreter::shutdown_request_impl() {
    // The host stops once the kernel's loop has ended (main); a running request ends first.
    interrupt();
}

} // namespace kernel
} // namespace quorl
